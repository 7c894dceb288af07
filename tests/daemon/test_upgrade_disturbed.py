"""What clients ask in the middle of a flashing leaves the line with the flasher."""

import contextlib
import pathlib
import time

import pytest
from harness.flashbench import FINGERS, FlashBench
from harness.flashing import make_image
from harness.ports import ENVIRONMENT, FakePorts
from harness.simulator import Simulator
from harness.upgrades import put_real_flasher


@pytest.fixture
def make_bench(start_daemon, connect, tmp_path):
    with contextlib.ExitStack() as lines:

        def make(versions=FINGERS, bits=0, size=4099):
            bench = FlashBench(versions, bits, size, start_daemon, connect, tmp_path)
            lines.enter_context(bench.line)
            return bench.ready()

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


def test_a_scan_right_behind_the_upgrade_stays_off_the_port_behind_a_link(
    start_daemon, connect, tmp_path
):
    """fuser calls the port free until stm32flash has opened it: the lock has to keep it."""
    put_real_flasher(tmp_path)
    (tmp_path / "firmware").mkdir()
    make_image(tmp_path / "firmware", "TA3-1.6.14", 5000)
    link = pathlib.Path("/dev/ttyTool")
    options = ("--boot-ms=200", "--bootloader-boot-ms=100", "--bootloader-bps=40000")
    with FakePorts("ttyUSB0"), Simulator("9=TA3-1.6.13", *options, link="/dev/ttyUSB0") as line:
        link.symlink_to("ttyUSB0")
        try:
            daemon = start_daemon(cwd=tmp_path, environment=ENVIRONMENT).wait_until_found(9)
            client, log_mark = connect(), daemon.mark()
            client.send("SET UPG 1\n")
            assert client.receive(3, timeout=15) == b"ack"
            mark = line.mark()
            assert client.set("SCN_BLOCK", timeout=15) == "ack"
            daemon.wait_for_line("verified 100 %", log_mark, timeout=30)
            assert line.since(mark) == []
            daemon.wait_for_line("unmuteOnUpgradeFinished", log_mark, timeout=15)
        finally:
            link.unlink()
