"""What clients ask in the middle of a flashing leaves the line with the flasher."""

import pathlib
import time

import pytest
from harness.benches import benches
from harness.flashbench import FlashBench
from harness.ports import ENVIRONMENT, FakePorts


@pytest.fixture
def make_bench(start_daemon, connect, tmp_path):
    with benches(FlashBench, start_daemon, connect, tmp_path) as make:
        yield make


@pytest.mark.parametrize(
    "disturbance", ["MUTE 0", "MUTE 0 SCN_BLOCK", "SCN_BLOCK", "NID 2", "BLD 1", "THROTTLE 1"]
)
def test_the_flash_succeeds(make_bench, disturbance):
    bench = make_bench(bits=40000, size=5000)
    bench.start()
    mark, foreign_mark = bench.line.mark(), len(bench.line.foreign)
    disturber = bench.connect()
    for _ in range(3):
        assert disturber.set(disturbance, timeout=15) in ("ack", "nak")
        time.sleep(0.3)
    assert bench.client.get("UPG") == "1", "over before it was disturbed"
    bench.daemon.wait_for_line("verified 100 %", bench.log_mark, timeout=30)
    # All that was on the line is the flasher's.
    assert bench.line.since(mark) == []
    assert set(bench.line.foreign_rates[foreign_mark:]) == {19200}
    bench.wait_for_the_end()
    bench.wait_for_the_new_version()


def test_a_scan_right_behind_the_upgrade_stays_off_the_port_behind_a_link(make_bench):
    """fuser calls the port free until stm32flash has opened it: the lock has to keep it."""
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
