"""Requests of clients during a flash leave the line to the flasher."""

import pathlib
import time

import pytest
from harness.benches import Bench, benches
from harness.flashbench import FINGERS, FlashBench
from harness.ports import ENVIRONMENT, FakePorts
from harness.upgrades import put_flasher
from harness.waiting import eventually

# This gripper keeps its firmware and would answer a scan.
NEIGHBOUR = "4=TB1-1.4.3"


@pytest.fixture
def make_bench(start_daemon, connect, tmp_path):
    with benches(FlashBench, start_daemon, connect, tmp_path) as make:
        yield make


DISTURBANCES = ["SCN_BLOCK", "MUTE 0", "MUTE 0 SCN_BLOCK", "SCN", "NID 2", "BLD 1", "THROTTLE 1"]


def test_no_request_disturbs_the_flash(make_bench):
    bench = make_bench(FINGERS, NEIGHBOUR, bits=40000, size=5000)
    disturber = bench.connect()
    assert bench.client.set("UPG 1", timeout=15) == "ack"
    mark, foreign_mark = bench.line.mark(), len(bench.line.foreign)
    # The first round begins directly after the flasher's start, the second while it uses the line.
    for _ in range(2):
        for disturbance in DISTURBANCES:
            reply = "nak" if disturbance == "BLD 1" else "ack"
            assert disturber.set(disturbance, timeout=15) == reply, disturbance
            assert bench.client.get("SID") == "[4, 9]", disturbance
        bench.daemon.wait_for_line("Erasing", bench.log_mark)
    assert bench.client.get("UPG") == "1", "the flash ended before the last request"
    bench.daemon.wait_for_line("verified 100 %", bench.log_mark, timeout=30)
    # Only the flasher used the line.
    assert bench.line.since(mark) == []
    assert set(bench.line.foreign_rates[foreign_mark:]) == {19200}
    bench.wait_for_the_end()
    bench.wait_for_the_new_version()
    assert bench.client.get("SID") == "[4, 9]"


def test_a_scan_right_after_the_upgrade_does_not_open_the_linked_port(make_bench):
    """fuser reports a free port until stm32flash has opened it, so the lock must protect it."""
    link = pathlib.Path("/dev/ttyTool")
    link.symlink_to("ttyUSB0")
    try:
        with FakePorts("ttyUSB0"):
            bench = make_bench(bits=40000, size=5000, link="/dev/ttyUSB0", environment=ENVIRONMENT)
            assert bench.client.set("UPG 1", timeout=15) == "ack"
            mark = bench.line.mark()
            assert bench.client.set("SCN_BLOCK", timeout=15) == "ack"
            bench.daemon.wait_for_line("verified 100 %", bench.log_mark, timeout=30)
            assert bench.line.since(mark) == []
            bench.wait_for_the_end()
    finally:
        link.unlink()


def test_a_scan_in_the_same_request_waits_for_the_end_of_the_flash(make_bench):
    bench = make_bench(FINGERS, NEIGHBOUR)
    assert bench.client.set("UPG 1 SCN_BLOCK 1", timeout=15) == "ack"
    assert bench.client.get("UPG") == "1"
    assert bench.client.get("SID") == "[4, 9]"
    bench.wait_for_the_end()
    bench.wait_for_the_new_version()
    assert bench.client.get("SID") == "[4, 9]"


def test_an_upgrade_inside_a_scan_keeps_the_line_and_the_list(make_bench):
    bench = make_bench(FINGERS, NEIGHBOUR)
    bench.client.set("MUTE 1")
    other = bench.connect()
    mark = bench.line.mark()
    other.send("SET SCN_BLOCK\n")
    # No gripper has this id, so the scan waits.
    bench.line.wait_for(lambda request: request.slave == 2, since=mark)
    assert bench.client.set("UPG 1", timeout=15) == "ack"
    mark = bench.line.mark()
    assert other.receive(3, timeout=15) == b"ack"
    assert bench.client.get("UPG") == "1"
    assert bench.client.get("SID") == "[4, 9]"
    bench.daemon.wait_for_line("verified 100 %", bench.log_mark, timeout=30)
    assert bench.line.since(mark) == []
    bench.wait_for_the_end()
    bench.wait_for_the_new_version()


class LocklessBench(Bench):
    """The flasher creates no lock file and runs until the file `end` exists."""

    def __init__(self, start_daemon, connect, folder):
        put_flasher(folder, "until [ -e end ]; do sleep 0.02; done")
        super().__init__(start_daemon, connect, "9=TA3-1.6.13", NEIGHBOUR, cwd=folder)


@pytest.fixture
def lockless(start_daemon, connect, tmp_path):
    with benches(LocklessBench, start_daemon, connect, tmp_path) as make:
        bench = make()
        assert bench.client.set("UPG 1", timeout=15) == "ack"
        # The trace, including the daemon's last byte, comes before this answer.
        bench.line.command("show")
        yield bench


def has_port_open(bench):
    return any("/dev/pts/" in name or "ttyTool" in name for name in bench.daemon.descriptors())


REQUESTS = {"SCN": "ack", "SCN_BLOCK": "ack", "NID 2": "ack", "BLD 1": "nak", "UPG 1": "nak"}


def test_the_daemon_opens_no_port_even_without_a_lock(lockless, tmp_path):
    line, client = lockless.line, lockless.connect()
    mark, foreign, log = line.mark(), len(line.foreign), lockless.daemon.mark()
    assert client.set("MUTE 0") == "ack"
    for request, reply in REQUESTS.items():
        assert client.set(request, timeout=15) == reply, request
        assert not has_port_open(lockless), request
        assert client.get("SID") == "[4, 9]", request
    assert line.since(mark) == []
    assert len(line.foreign) == foreign
    # A single discovery fulfils all scan requests.
    line.command("restart 9")
    (tmp_path / "end").touch()
    lockless.daemon.wait_until_found(4, 9, since=log)
    line.wait_until_polled(4, 3)
    found = [m for m in lockless.daemon.messages(log) if m.startswith("Connected serial port")]
    assert len(found) == 1


def test_an_unmuted_daemon_polls_nothing_during_the_flash(lockless, tmp_path):
    mark, log = lockless.line.mark(), lockless.daemon.mark()
    assert lockless.client.set("MUTE 0 THROTTLE 0") == "ack"
    # This is many times the period of the ticks.
    time.sleep(0.3)
    assert lockless.line.since(mark) == []
    assert lockless.daemon.messages(log) == []
    lockless.line.command("restart 9")
    (tmp_path / "end").touch()
    eventually(lambda: lockless.client.get("DRI") == "RUNNING")
    lockless.line.wait_until_polled(9, 2)
