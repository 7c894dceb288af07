"""The examples of docs/protocol.md, the sessions of nc, and the clients in examples/, with the real daemon.

The top of docs/protocol.md explains the lines of an example.
"""

import pathlib
import re
import shutil
import statistics
import subprocess
import sys
import time

import pytest
from harness.client import Client
from harness.effort import effort
from harness.protocoltable import names
from harness.simulator import Simulator
from harness.terminal import Terminal
from harness.upgrades import put_flasher
from harness.waiting import eventually

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENTS = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
DOCUMENT = (ROOT / "docs" / "protocol.md").read_text(encoding="utf-8")

FINGERS, VACUUM = "9=TA3-1.6.14", "2=TE1-2.0.2"
QUICK = ("--activation-ms=300", "--boot-ms=100", "--bootloader-boot-ms=100")
CALM = "MUTE 0 GTO 0 MOD 0 ATR 0 ARD 0 LBP 0 LGN 0 LRD 0 LBL 0 MSC 0 POS 0 SPE 0 FOR 0"
ACTIVE_AND_CALM = [0x0100, 0, 0]

QUIET = 0.05
MOMENT = 0.05
REPETITION = 0.005


class Example:
    """One fenced block: its place in the document, and its lines as (mark, text)."""

    def __init__(self, document, match):
        line = document.count("\n", 0, match.start()) + 1
        headings = re.findall(r"^#+ (.*)$", document[: match.start()], re.MULTILINE)
        self.name = f"{line}-{headings[-1].replace(' ', '_')}"
        self.steps = [(line[:1], line[2:]) for line in match["text"].splitlines()]

    def requests(self):
        return "\n".join(visible(text) for mark, text in self.steps if mark in ">?")


def examples_of(document):
    fence = r"^```transcript\n(?P<text>(?:.*\n)*?)```$"
    return [Example(document, match) for match in re.finditer(fence, document, re.MULTILINE)]


def visible(text):
    return text.replace("\\n", "\n").replace("\\r", "\r")


EXAMPLES = examples_of(DOCUMENT)


class Stage:
    """The set-up of an example: two grippers, a daemon that has found them, a client."""

    def __init__(self, simulator, daemon):
        self.simulator = simulator
        self.daemon = daemon
        self.client = None
        self.log_mark = 0
        self.pending = None

    def prepare(self):
        self.simulator.command("clear")
        self.put_both_on_the_line()
        self.simulator.command("object 9 none")
        self.simulator.command("object 2 none")
        self.simulator.command("release 2")
        self.calm(9)
        self.calm(2)
        self.log_mark = self.daemon.mark()

    def put_both_on_the_line(self):
        with Client() as client:
            if client.get("SID") == "[2, 9]":
                return
            for line in self.simulator.command("show"):
                if line.startswith("gripper "):
                    self.simulator.command("remove " + line.split()[1])
            for gripper in (FINGERS, VACUUM):
                self.simulator.command("add " + gripper)
            client.set("MUTE 0 SCN_BLOCK")
            eventually(lambda: client.get("SID") == "[2, 9]")

    def calm(self, slave_id):
        """Makes the gripper active and open, without requests of former examples."""
        with Client() as client:
            client.set(f"SID {slave_id}")
            client.set(CALM + " THROTTLE 0")
            if client.get("ACT") != "1" or client.get("FLT") != "00":
                client.set("ACT 1")
            if client.get("POS") != "0":
                client.set("SPE 255 GTO 1")
            eventually(lambda: [client.get(n) for n in ("STA", "POS", "FLT")] == ["3", "0", "00"])
            client.set(CALM)
            written = lambda: self.simulator.registers(slave_id, 1000, 3)
            eventually(lambda: written() == ACTIVE_AND_CALM, what=written)
            eventually(lambda: (client.get("GTO"), client.get("MOD")) == ("0", "0"))
            client.set("THROTTLE 1")

    def play(self, example):
        self.client = Client(timeout=15.0)
        try:
            self.play_steps(example.steps)
        finally:
            self.client.close()

    def play_steps(self, steps):
        self.pending = None
        before = ""
        for mark, text in steps:
            if before == mark == ">":
                # This pause keeps the daemon from reading both at once.
                time.sleep(MOMENT)
            self.STEPS[mark](self, visible(text) if mark in "<>?" else text)
            before = mark
        self.expect_no_other_reply()

    def expect_no_other_reply(self):
        assert self.client.get("PCO") == "0"

    def connect_again(self, _text):
        self.expect_no_other_reply()
        self.client.close()
        self.client = Client(timeout=15.0)

    def send(self, text):
        self.client.send(text)

    def receive(self, text):
        expected = text.encode()
        if self.pending is not None:
            self.repeat_until(expected)
        elif expected:
            assert self.client.receive(len(expected)) == expected
        else:
            assert self.client.receive_until_silent(QUIET) == b""

    def repeat(self, text):
        self.pending = text

    def repeat_until(self, expected):
        def answer():
            time.sleep(REPETITION)
            self.client.send(self.pending)
            return self.client.receive_line()

        eventually(lambda: answer() == expected, 10.0, f"{self.pending!r} to give {expected!r}")
        self.pending = None

    def pause(self, text):
        number, unit = text.split()
        assert unit == "ms"
        time.sleep(int(number) / 1000)

    def find_in_log(self, text):
        line = self.daemon.wait_for_line(re.escape(text), self.log_mark)
        self.log_mark = self.daemon.lines.index(line, self.log_mark) + 1

    def command_simulator(self, text):
        self.simulator.command(text)

    STEPS = {
        ">": send,
        "<": receive,
        "?": repeat,
        ".": pause,
        "-": connect_again,
        "!": find_in_log,
        "$": command_simulator,
    }


@pytest.fixture(scope="module")
def daemon(start_module_daemon, tmp_path_factory):
    """A daemon without a line. The line comes with the first stage."""
    folder = tmp_path_factory.mktemp("daemon")
    # The examples check only the protocol of an upgrade.
    put_flasher(folder, "sleep 0.3")
    return start_module_daemon(cwd=folder)


@pytest.fixture(scope="module")
def shared_stage(daemon):
    mark = daemon.mark()
    with Simulator(FINGERS, VACUUM, *QUICK) as simulator:
        yield Stage(simulator, daemon.wait_until_found(9, 2, since=mark))


@pytest.fixture
def stage(shared_stage):
    shared_stage.prepare()
    return shared_stage


@pytest.fixture(scope="module")
def run_client(tmp_path_factory):
    """run_client(language, goal) returns standard output, standard error and exit status."""
    program = tmp_path_factory.mktemp("client") / "move"
    compiler = next(found for name in ("c++", "g++", "clang++") if (found := shutil.which(name)))
    warnings = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror"]
    source = ROOT / "examples" / "move.cpp"
    subprocess.run([compiler, "-std=c++17", *warnings, "-o", program, source], check=True)
    commands = {
        "shell": ["bash", ROOT / "examples" / "move.sh"],
        "python": [sys.executable, "-B", ROOT / "examples" / "move.py"],
        "c++": [program],
    }

    def run(language, goal):
        command = [*commands[language], "127.0.0.1", str(goal)]
        done = subprocess.run(command, capture_output=True, text=True, timeout=10)
        return done.stdout, done.stderr, done.returncode

    return run


LANGUAGES = ["shell", "python", "c++"]


@pytest.mark.parametrize("language", LANGUAGES)
def test_client_fails_when_there_is_no_gripper(run_client, daemon, language):
    assert run_client(language, 30) == ("from ?\n", "the gripper is not active\n", 1)


@pytest.mark.parametrize("language", LANGUAGES)
def test_client_does_not_move_an_inactive_gripper(run_client, stage, language):
    with Client() as client:
        assert client.set("ACT 0 GTO 0") == "ack"
        eventually(lambda: client.get("STA") == "0")
        try:
            assert run_client(language, 30) == ("from 0\n", "the gripper is not active\n", 1)
        finally:
            assert client.set("ACT 1") == "ack"
            eventually(lambda: client.get("STA") == "3")


def test_clients_move_the_gripper_and_print_the_former_position(run_client, stage):
    position = 0
    for language, goal in zip(LANGUAGES, (30, 20, 40)):
        expected = f"from {position}\nto {goal}: ack\n"
        assert run_client(language, goal) == (expected, "", 0), language
        with Client() as client:
            eventually(lambda: client.get("POS") == str(goal))
        position = goal


GET_NAMES = names("get")
SET_NAMES = names("set")


@pytest.mark.parametrize(
    "keyword, expected", [("GET", GET_NAMES), ("SET", SET_NAMES)], ids=["GET", "SET"]
)
def test_every_variable_has_an_example(keyword, expected):
    requests = "\n".join(example.requests() for example in EXAMPLES)
    lines = [line.split() for line in requests.upper().splitlines()]
    shown = {word for words in lines if words[:1] == [keyword] for word in words[1:]}
    assert set(expected) - shown == set()


def anchors_of(document):
    titles = re.findall(r"^#+ (.*)$", document.read_text(encoding="utf-8"), re.MULTILINE)
    return {re.sub(r"[^\w -]", "", title).lower().replace(" ", "-") for title in titles}


def has_target(document, link):
    name, _, anchor = link.partition("#")
    target = document.parent / name if name else document
    return target.exists() and (not anchor or anchor in anchors_of(target))


def test_links_in_the_documents_have_targets():
    links = [
        (document, link)
        for document in DOCUMENTS
        for link in re.findall(r"\]\(([^)\s]*[./#][^)\s]*)\)", document.read_text(encoding="utf-8"))
    ]
    assert len(links) > 100
    assert [(document.name, link) for document, link in links if not has_target(document, link)] == []


def test_a_set_is_on_the_line_within_a_period(stage, figure):
    waits = []
    with Client() as client:
        for position in range(1, effort(8, 50) + 1):
            # The former write ends in this pause. Each SET comes at another moment of the period.
            time.sleep(0.15 + position * 37 % 100 / 1000)
            mark, asked = stage.simulator.mark(), time.monotonic()
            assert client.set(f"POS {position}") == "ack"
            stage.simulator.wait_for(lambda r: r.slave == 9 and r.is_write(1000), 1, mark)
            waits.append(time.monotonic() - asked)
    median = statistics.median(waits)
    figure(
        f"two grippers: on the line after {median * 1000:.0f} ms (median), "
        f"{max(waits) * 1000:.0f} ms (longest of {len(waits)})"
    )
    # Every gripper has its turn within 100 ms. One late answer doubles this.
    assert median < 0.15


def session_of(document, beginning):
    """Returns the lines of a session without the remarks on their right."""
    lines = (ROOT / document).read_text(encoding="utf-8").replace("\\fB", "").replace("\\fP", "")
    block = lines[lines.index(beginning) :].splitlines()
    ends = [n for n, line in enumerate(block) if line in ("", ".EE")]
    return [re.split(r" {2,}", line.strip())[0] for line in block[: ends[0]]]


@pytest.fixture
def terminal(tmp_path):
    terminal = Terminal(tmp_path)
    yield terminal
    terminal.close()


@pytest.mark.parametrize("document", ["README.md", "man/gripperd-protocol.7"])
def test_a_terminal_shows_the_session(stage, terminal, document):
    session = session_of(document, "$ nc 127.0.0.1 63352")
    assert len(session) >= 10
    with Client() as observer:
        assert observer.set("ACT 0") == "ack"
        eventually(lambda: observer.get("STA") == "0")
        terminal.type(session[0].removeprefix("$ "))
        for number, line in enumerate(session[1:], 1):
            if "GET" not in line and "SET" not in line:
                continue
            # The reply to a SET has no line ending, so the next line follows it.
            request = line.removeprefix("ack")
            shown = session[: number + (2 if request.startswith("GET") else 1)]
            if request.startswith("SET"):
                shown.append("ack")
            # A person is slower than every movement.
            eventually(lambda: has_carried_out(observer, session[:number]))
            terminal.type(request)
            eventually(lambda: everything(terminal) == shown, what=lambda: everything(terminal))


def has_carried_out(observer, session):
    requests = "\n".join(session)
    if observer.get("STA") != ("3" if "SET ACT 1" in requests else "0"):
        return False
    goals = re.findall(r"SET POS (\d+)", requests)
    return not goals or (observer.get("PRE") == goals[-1] and observer.get("OBJ") in ("2", "3"))


def everything(terminal):
    return [line for line in terminal.shown("-S", "-") if line]


# A scan must restore the line after a slave id move, so these examples come last.
MOVES_LAST = sorted(EXAMPLES, key=lambda example: "SET NID" in example.requests())


@pytest.mark.parametrize("example", MOVES_LAST, ids=lambda example: example.name)
def test_example(stage, example):
    stage.play(example)
