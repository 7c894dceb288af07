"""examples/grip.cpp, which users copy."""

import subprocess

import pytest
from harness.children import binary, spawn
from harness.simulator import Simulator
from harness.waiting import eventually


@pytest.fixture
def line():
    with Simulator("9=TA3-1.6.14", "--activation-ms=200") as simulator:
        yield simulator


def start():
    return spawn([binary("client-example-grip")], stdout=subprocess.PIPE, text=True)


def result(example):
    """Returns the exit status and the output."""
    out, _ = example.communicate(timeout=40)
    return example.returncode, out


def closes_at_the_object(line):
    eventually(lambda: line.registers(9, 2002)[0] >> 8 == 140, 10, "the grip")


def holds_the_object(line):
    closes_at_the_object(line)
    # The example looks at OBJ after the grip.
    line.wait_until_polled(9, 10)


@pytest.mark.parametrize(
    "moment, text",
    [
        (closes_at_the_object, "the gripper may or may not carry out: SET POS 255 "),
        (holds_the_object, "no values: "),
    ],
)
def test_it_survives_a_restart_of_the_daemon(line, start_daemon, moment, text):
    line.command("object 9 140")
    daemon = start_daemon()
    example = start()
    moment(line)
    daemon.kill()
    mark = line.mark()
    start_daemon()
    status, out = result(example)
    assert status == 0, out
    assert text in out
    assert "lost the part" not in out
    # The part stays until the end: no request opens the fingers before one that closes them.
    writes = line.since(mark, lambda r: r.slave == 9 and r.is_write(1000))
    positions = [request.values[1] & 0xFF for request in writes]
    assert positions[-1] == 0 and positions == sorted(positions, reverse=True)
    assert line.registers(9, 2002)[0] >> 8 == 0


def test_it_notices_a_lost_part(line, start_daemon):
    line.command("object 9 140")
    start_daemon()
    example = start()
    holds_the_object(line)
    line.command("object 9 none")
    status, out = result(example)
    assert status == 1, out
    assert "lost the part at position " in out


def test_it_clears_a_fault_and_grips_again(line, start_daemon):
    line.command("object 9 140")
    start_daemon()
    example = start()
    holds_the_object(line)
    line.command("faultcode 9 12")
    status, out = result(example)
    # The status 0 means that it held the part for its whole time afterwards.
    assert (status, out.count("\n")) == (0, 1), out
    assert out.startswith("fault 12: ")


def test_it_reports_that_there_is_no_part(line, start_daemon):
    start_daemon()
    assert result(start()) == (1, "there is no part\n")
