"""What clients ask in the middle of a flashing leaves the line with the flasher."""

import contextlib
import time

import pytest
from harness.flashbench import FINGERS, FlashBench


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
