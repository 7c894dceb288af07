"""The simulator and a Modbus master of other authors."""

import re
import subprocess

import pytest
from harness.simulator import Simulator

LINE = ["-m", "rtu", "-b", "115200", "-P", "none", "-0", "-o", "0.5", "-t", "4:hex"]


def mbpoll(slave_id, address, *values, count=1):
    """Returns (exit status, registers read, output)."""
    command = ["mbpoll", *LINE, "-a", str(slave_id), "-r", str(address)]
    if not values:
        command += ["-c", str(count), "-1"]
    command += ["/dev/ttyTool", *(str(value) for value in values)]
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=10)
    text = done.stdout.decode()
    return done.returncode, [int(v, 16) for v in re.findall(r"\]:\s+(0x[0-9A-F]+)", text)], text


@pytest.fixture(scope="module")
def simulator():
    with Simulator("9=TA3-1.6.14", "2=TE1-2.0.2", "--serial", "9=ABC-0042") as running:
        yield running


def test_reads_the_identity(simulator):
    assert mbpoll(9, 500, count=3)[1] == [0x5441, 0x3301, 0x060E]
    assert mbpoll(2, 500, count=3)[1] == [0x5445, 0x3102, 0x0002]
    assert mbpoll(9, 510, count=4)[1] == [0x4142, 0x4300, 42, 0]


def test_reads_the_status_and_the_counters(simulator):
    assert mbpoll(9, 2000, count=3)[1] == [0, 0, 0]
    assert mbpoll(9, 600, count=6)[1] == [0] * 6


def test_writes_the_command_block_and_reads_it_back(simulator):
    status, _, text = mbpoll(2, 1000, "0x0000", "0x0064", "0x1020")
    assert status == 0, text
    assert mbpoll(2, 1000, count=3)[1] == [0, 0x64, 0x1020]
    assert simulator.registers(2, 1000, 3) == [0, 0x64, 0x1020]
    # The status block echoes the requested position.
    assert mbpoll(2, 2001)[1] == [0x64]


def test_activates_a_gripper(simulator):
    mark = simulator.mark()
    assert mbpoll(9, 1000, "0x0100", "0", "0")[0] == 0
    seen = set()
    while 0x3100 not in seen:
        seen.update(mbpoll(9, 2000)[1])
        assert len(simulator.since(mark)) < 1000
    assert 0x1100 in seen


def test_an_id_without_a_gripper_does_not_answer(simulator):
    status, registers, text = mbpoll(5, 500)
    assert (status != 0 or "timed out" in text) and registers == []
    assert "timed out" in text


def test_an_unknown_register_is_refused(simulator):
    _, registers, text = mbpoll(9, 3000)
    assert registers == []
    assert "Illegal data address" in text


def test_an_unknown_function_is_refused(simulator):
    command = ["mbpoll", *LINE[:-2], "-t", "3", "-a", "9", "-r", "2000", "-c", "1", "-1"]
    done = subprocess.run(
        [*command, "/dev/ttyTool"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=10
    )
    assert b"Illegal function" in done.stdout
