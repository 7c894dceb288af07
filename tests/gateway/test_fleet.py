"""fleet/demo: simulated robots, a real broker and a real Prometheus."""

import contextlib
import json
import os
import pathlib
import re
import select
import signal
import subprocess
import tempfile
import time
import urllib.request

import pytest
from harness.children import spawn
from harness.effort import effort
from harness.waiting import eventually
from mqttrig import Peer

DEMO = pathlib.Path(__file__).parents[2] / "fleet/demo"
# A busy machine starts many programs slowly.
START_TIME = 100


@pytest.fixture(autouse=True)
def folder(monkeypatch):
    """The folder for temporary files. Its path is short, because names of sockets begin with it."""
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
        monkeypatch.setenv("TMPDIR", folder)
        yield pathlib.Path(folder)


@pytest.fixture
def start():
    """start(*words) runs the demo. `programs` is the folder of our programs."""
    started = []

    def start(*words, programs=None, stdin=subprocess.DEVNULL):
        environment = dict(os.environ)
        if programs:
            environment["GRIPPERD_BIN_DIR"] = str(programs)
        started.append(spawn(
            [DEMO, *map(str, words)], env=environment, text=True,
            stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        ))
        return started[-1]

    yield start
    for process in started:
        process.kill()
        process.communicate()


def finish(process):
    output, _ = process.communicate(timeout=effort(START_TIME, 400))
    return process.returncode, output


def descendants(pid):
    """The ids of all processes below this one."""
    found = []
    for task in pathlib.Path(f"/proc/{pid}/task").glob("*/children"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            for child in map(int, task.read_text("ascii").split()):
                found += [child, *descendants(child)]
    return found


def status_of(pid):
    """Returns the lines of /proc/PID/status. A process that has ended has none."""
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):
        lines = pathlib.Path(f"/proc/{pid}/status").read_text("utf-8", "replace").splitlines()
        return dict(line.split(":\t", 1) for line in lines)
    return {}


def name_of(pid):
    """Returns 15 characters at most, as the kernel does."""
    return status_of(pid).get("Name")


def runs(pid):
    # A process without a parent may stay as a zombie.
    return status_of(pid).get("State", "Z")[0] != "Z"


def read_until(process, text):
    """Returns the output up to this text."""
    output = ""
    deadline = time.monotonic() + START_TIME
    while text not in output:
        left = max(0, deadline - time.monotonic())
        assert select.select([process.stdout], [], [], left)[0], output
        part = os.read(process.stdout.fileno(), 65536).decode()
        assert part, output
        output += part
    return output


def test_measured_states_arrive_within_500_ms(start, figure):
    count = effort(3, 20)
    times = effort(["--seconds", 4, "--interval", 1], [])
    status, output = finish(start(count, "--measure", *times))
    assert status == 0, output
    assert output.startswith(f"Prometheus and the broker show all robots: {count}\n"), output
    arrived, made = map(int, re.search(r"(\d+) of (\d+) changes arrived", output).groups())
    assert arrived == made == count * effort(2, 30), output
    for line in output.splitlines()[1:]:
        figure(line)
    # A few changes have no 95th percentile.
    delay = re.search(effort(r"median (\S+) s", r"95th percentile (\S+) s"), output)[1]
    assert float(delay) < 0.5, output


def fault_codes():
    query = "http://127.0.0.1:19090/api/v1/query?query=gripper_fault_code"
    with urllib.request.urlopen(query, timeout=10) as answer:
        result = json.load(answer)["data"]["result"]
    return {(each["metric"]["robot"], each["metric"]["id"]): each["value"][1] for each in result}


def test_a_person_tries_it_and_ends_it(start, folder):
    process = start(2, "--interval", 1, stdin=subprocess.PIPE)
    # This fleet ends by itself, so it takes no port of the machine.
    second = start(1, "--once", "--interval", 1)
    introduction = read_until(process, "Ctrl-C ends all programs")
    addresses = re.findall(r"http://\S+", introduction)
    assert len(addresses) == 2
    for address in addresses:
        with urllib.request.urlopen(address, timeout=10) as page:
            assert b"Prometheus" in page.read()
    programs = descendants(process.pid)
    assert finish(second) == (0, "Prometheus and the broker show all robots: 1\n")
    status, output = finish(start())
    assert status == 1 and "cannot listen on port 11883: Address already in use" in output, output
    peer = Peer(port=11883, node="robot-2")
    process.stdin.write("2 # no command\nhelp\n2 faultcode 9 5\n3 show\n")
    process.stdin.flush()
    answers = read_until(process, "1 to 2\n")
    assert answers.endswith("a robot and a command, for example: 1 help\nok\nthere is no robot 3: 1 to 2\n")
    peer.wait_for("gripper/9/event", lambda event: event["kind"] == "fault")
    peer.close()
    eventually(lambda: fault_codes().get(("robot-2", "9")) == "5", 30, fault_codes)
    assert fault_codes()["robot-1", "9"] == "0"
    process.send_signal(signal.SIGINT)
    # A terminal that closes sends another signal.
    process.send_signal(signal.SIGHUP)
    status, output = finish(process)
    assert (status, output) == (0, "\nAll programs have ended.\n")
    assert not any(map(runs, programs))
    assert not list(folder.iterdir())


def test_an_output_without_a_reader_is_an_error(folder):
    command = '"$1" 1 --once --interval 1 | true; exit "${PIPESTATUS[0]}"'
    run = subprocess.run(["bash", "-c", command, "bash", DEMO], stderr=subprocess.PIPE, text=True, timeout=START_TIME)
    assert (run.returncode, run.stderr) == (1, "fleet/demo: the reader of the output has ended\n")
    assert not list(folder.iterdir())


def test_a_killed_demo_leaves_no_program(start):
    process = start(1)

    def has_started():
        assert process.poll() is None, process.stdout.read()
        return "gripper-gateway" in map(name_of, descendants(process.pid))

    eventually(has_started, START_TIME)
    programs = descendants(process.pid)
    # The servers, a simulator, a daemon, a gateway and a process with the namespaces.
    assert len(programs) == 2 + 4, list(map(name_of, programs))
    process.kill()
    eventually(lambda: not any(map(runs, programs)), 10)


@pytest.fixture
def spoiled(tmp_path):
    """spoiled(line) returns a folder of programs in which a line of shell precedes the gateway."""

    def spoil(line):
        folder = pathlib.Path(os.environ["GRIPPERD_BIN_DIR"]).resolve()
        for program in ("gripperd", "gripper-simulator"):
            (tmp_path / program).symlink_to(folder / program)
        gateway = tmp_path / "gripper-gateway"
        gateway.write_text(f'#!/bin/sh\n{line}\nexec "{folder}/gripper-gateway" "$@"\n', "utf-8")
        gateway.chmod(0o755)
        return tmp_path

    return spoil


def test_a_robot_without_a_gateway_is_an_error(start, spoiled):
    line = 'case "$*" in *robot-2*) echo no gateway today >&2; exit 3 ;; esac'
    status, output = finish(start(2, "--once", programs=spoiled(line)))
    assert status == 1
    first = output.splitlines()[0]
    assert first == "fleet/demo: gripper-gateway of robot-2 has ended with status 3", output
    assert "no gateway today" in output


@pytest.mark.parametrize("count", [0, 151])
def test_an_impossible_number_is_an_error(start, count):
    status, output = finish(start(count))
    assert status == 2 and "COUNT is 1 to 150" in output, output
