"""The selection of serial ports, and its order."""

import os
import time

import pytest
from harness.line import Line, Slave
from harness.ports import ENVIRONMENT, FakePorts, install_fuser
from harness.waiting import eventually


@pytest.fixture
def start(start_daemon, tmp_path):
    """start(...) starts the daemon with or without a ./fuser."""

    def start_with(local_fuser=None, path=None):
        if local_fuser is not None:
            install_fuser(tmp_path, local_fuser)
        environment = dict(ENVIRONMENT)
        if path is not None:
            environment["PATH"] = path
        return start_daemon(environment=environment)

    return start_with


def port_messages(daemon):
    """Returns the messages of the first port selection, with the broken "error" line joined."""
    daemon.wait_for_line("availablePorts")
    eventually(
        lambda: any("Connected" in m for m in daemon.messages())
        or len([m for m in daemon.messages() if m.startswith("availablePorts")]) > 1
    )
    text = "\n".join(daemon.lines).replace(" \n ((null):0, (null))", "")
    texts = []
    for line in text.split("\n"):
        line = line.replace(" ((null):0, (null))", "")
        if line.startswith("Info: Connected") or (texts and "availablePorts" in line):
            break
        texts.append(line.removeprefix("Info: "))
    return texts


def connected_ports(daemon):
    return [m.split('"')[1] for m in daemon.messages() if m.startswith("Connected serial port")]


def test_only_usb_and_acm_ports_are_considered(start):
    names = ["ttyACM0", "ttyS0", "ttyUSB10", "ttyTool", "ttyusb0", "ttyAMA0", "xttyUSB0", "ttyUS"]
    with FakePorts(*names):
        texts = port_messages(start(local_fuser="exit 0"))
    enumerated = texts[0].removeprefix('availablePorts:  "').removesuffix('"')
    assert texts[0] == f'availablePorts:  "{enumerated}"'
    # The separator follows every name, including the last.
    assert enumerated.endswith(", ")
    assert sorted(enumerated[:-2].split(", ")) == sorted(names)
    order = [n for n in enumerated[:-2].split(", ") if n in ("ttyACM0", "ttyUSB10")]
    expected = []
    for name in order:
        expected += [f'command :  "./fuser /dev/{name}"', "error :  0"]
    assert texts[1:] == expected


def test_no_port_runs_no_fuser(start):
    with FakePorts("ttyS0", "ttyTool"):
        texts = port_messages(start(local_fuser="exit 1"))
    assert len(texts) == 1


def test_the_tool_port_comes_first_whether_enumerated_or_not(start):
    with FakePorts("ttyUSB0"), Line(Slave(9)), Line(Slave(2), link="/dev/ttyUSB0"):
        daemon = start(local_fuser="exit 1").wait_until_found(9)
    assert connected_ports(daemon) == ["ttyTool"]


def test_a_free_usb_port_is_tried_after_a_silent_tool_port(start, connect):
    with FakePorts("ttyUSB0"), Line(), Line(Slave(2), link="/dev/ttyUSB0") as usb:
        daemon = start().wait_until_found(2)
        assert connected_ports(daemon) == ["ttyTool", "ttyUSB0"]
        assert connect().get("SID") == "[2]"
        usb.wait_until_polled(2)


def test_the_first_port_with_a_gripper_wins(start, connect):
    with FakePorts("ttyACM0", "ttyUSB0"):
        with Line(Slave(2), link="/dev/ttyUSB0"), Line(Slave(3), link="/dev/ttyACM0"):
            daemon = start(local_fuser="exit 1")
            daemon.wait_for_line(r": \([23]\) ")
            order = daemon.messages()[0]
            first = "ttyACM0" if order.index("ttyACM0") < order.index("ttyUSB0") else "ttyUSB0"
            assert connected_ports(daemon) == [first]
            assert connect().get("SID") == ("[3]" if first == "ttyACM0" else "[2]")


def test_without_a_local_fuser_the_one_on_the_path_decides(start):
    with FakePorts("ttyUSB0"), Line(Slave(9), link="/dev/ttyUSB0"):
        daemon = start()
        assert port_messages(daemon)[1:] == [
            'command :  "./fuser /dev/ttyUSB0"',
            "error :  -2",
            'command :  "fuser /dev/ttyUSB0"',
            "error :  1",
        ]
        daemon.wait_until_found(9)


def test_with_a_local_fuser_the_one_on_the_path_does_not_run(start):
    with FakePorts("ttyUSB0"), Line(Slave(9), link="/dev/ttyUSB0"):
        daemon = start(local_fuser="system")
        assert port_messages(daemon)[1:] == ['command :  "./fuser /dev/ttyUSB0"', "error :  1"]
        daemon.wait_until_found(9)


@pytest.mark.parametrize("local_fuser", ["system", None])
def test_a_port_that_another_process_holds_is_left_out(start, connect, local_fuser):
    with FakePorts("ttyUSB0"), Line(Slave(9), link="/dev/ttyUSB0") as line:
        holder = os.open("/dev/ttyUSB0", os.O_RDWR | os.O_NOCTTY)
        try:
            daemon = start(local_fuser=local_fuser)
            texts = port_messages(daemon)
            assert texts[-1] == "error :  0"
            assert connect().get("SID") == "[]"
            assert line.since(0) == []
        finally:
            os.close(holder)
        daemon.wait_until_found(9)


def test_a_local_fuser_that_crashes_counts_as_missing(start):
    with FakePorts("ttyUSB0"), Line(Slave(9), link="/dev/ttyUSB0"):
        daemon = start(local_fuser="kill -SEGV $$")
        assert port_messages(daemon)[1:] == [
            'command :  "./fuser /dev/ttyUSB0"',
            "error :  -1",
            'command :  "fuser /dev/ttyUSB0"',
            "error :  1",
        ]
        daemon.wait_until_found(9)


def test_without_any_fuser_no_port_is_candidate(start, connect):
    with FakePorts("ttyUSB0"), Line(Slave(9), link="/dev/ttyUSB0") as line:
        daemon = start(path="/nonexistent")
        assert port_messages(daemon)[1:] == [
            'command :  "./fuser /dev/ttyUSB0"',
            "error :  -2",
            'command :  "fuser /dev/ttyUSB0"',
            "error :  -2",
        ]
        assert connect().get("SID") == "[]"
        assert line.since(0) == []


def test_the_output_of_fuser_stays_out_of_log_and_standard_output(start):
    with FakePorts("ttyUSB0"):
        daemon = start(local_fuser="echo to stdout; echo to stderr >&2; exit 0")
        port_messages(daemon)
    assert not any("to std" in line for line in daemon.lines)
    assert daemon.stop()[0] == 0
    assert daemon.standard_output() == b""


def test_the_fuser_gets_the_device_and_nothing_else(start, tmp_path):
    with FakePorts("ttyACM3"):
        port_messages(start(local_fuser='echo "$#:$*" >>asked; exit 0'))
    assert (tmp_path / "asked").read_text().splitlines()[0] == "1:/dev/ttyACM3"


def test_requests_have_230_ms_for_three_registers_on_an_acm_port(start):
    slow = Slave(9)
    slow.script = lambda request: [(0.1, slow.plain_answer(request))]
    with FakePorts("ttyACM0"), Line(slow, link="/dev/ttyACM0") as line:
        daemon = start().wait_until_found(9)
        line.wait_until_polled(9)
        assert not any("fail counter" in m for m in daemon.messages())
        slow.listening = False
        reads = line.wait_for(lambda r: r.is_read(2000), 4, line.mark())
    gaps = [b.at - a.at for a, b in zip(reads[1:], reads[2:])]
    assert all(0.23 <= gap < 0.27 for gap in gaps), gaps


def test_requests_have_62_ms_for_three_registers_on_a_usb_port(start):
    with FakePorts("ttyUSB0"), Line(Slave(9), link="/dev/ttyUSB0") as line:
        start().wait_until_found(9)
        line.wait_until_polled(9)
        line[9].listening = False
        reads = line.wait_for(lambda r: r.is_read(2000), 4, line.mark())
    gaps = [b.at - a.at for a, b in zip(reads[1:], reads[2:])]
    assert all(0.062 <= gap < 0.09 for gap in gaps), gaps


def test_replies_are_sent_before_fuser_blocks_the_thread(start, tmp_path, connect):
    # The script creates "running", then waits until "hold" is removed, at most two seconds.
    script = (
        "[ -e hold ] || exit 0; echo >running; n=0; "
        "while [ -e hold ] && [ $n -lt 40 ]; do sleep 0.05; n=$((n+1)); done; exit 0"
    )
    with FakePorts("ttyUSB0"):
        daemon = start(local_fuser=script)
        client = connect()
        for _ in range(3):
            mark, sent, received = daemon.mark(), 0, 0
            (tmp_path / "hold").touch()
            # The client sends requests all the time, so some come directly before the fuser.
            while not (tmp_path / "running").exists():
                if sent - received // 3 < 200:
                    client.send("SET XYZ 1\n" * 20)
                    sent += 20
                received += len(client.receive_available())
            handled = count_of_unhandled_lines(daemon, mark)
            assert 0 < handled <= sent
            client.receive(3 * handled - received, timeout=0.5)
            (tmp_path / "hold").unlink()
            client.receive(3 * (sent - handled))
            (tmp_path / "running").unlink()


def count_of_unhandled_lines(daemon, mark):
    """Returns the number of these log lines when it no longer grows."""
    seen, since = -1, time.monotonic()
    while time.monotonic() - since < 0.15:
        count = sum("UNHANDLED" in m for m in daemon.messages(mark))
        if count != seen:
            seen, since = count, time.monotonic()
        time.sleep(0.01)
    return seen


def test_another_port_replaces_a_removed_one(start, connect):
    first, second = Line(Slave(9), link="/dev/ttyUSB0"), Line(Slave(2), link="/dev/ttyUSB1")
    with FakePorts("ttyUSB0", "ttyUSB1"), first, second:
        daemon = start(local_fuser="exit 1")
        daemon.wait_for_line(r": \([92]\) ")
        if connected_ports(daemon)[-1] == "ttyUSB1":
            pytest.fail("the enumeration does not begin with ttyUSB0 here")
        mark = daemon.mark()
        first.unplug()
        daemon.wait_until_found(2, since=mark)
        assert connected_ports(daemon)[-1] == "ttyUSB1"
        assert connect().get("SID") == "[2]"
