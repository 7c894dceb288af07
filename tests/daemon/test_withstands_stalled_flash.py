"""stm32flash stalls: for a second in every run, until it is killed under scripts/robustness."""

import os
import signal
import time

from harness.children import binary, spawn
from harness.effort import effort
from harness.flashing import ROM, FlashSimulator, arguments, make_image
from harness.ports import is_not_open
from harness.upgrades import children_of, is_alive
from harness.waiting import eventually

STALL_LIMIT = 30.0


def stop_for_a_moment(child, process):
    os.kill(child, signal.SIGSTOP)
    time.sleep(1.0)
    os.kill(child, signal.SIGCONT)
    assert process.wait(30) == 0


def stop_until_it_is_killed(child, process):
    started = time.monotonic()
    os.kill(child, signal.SIGSTOP)
    assert process.wait(STALL_LIMIT + 10) == 7
    assert time.monotonic() - started >= STALL_LIMIT
    assert not is_alive(child)
    assert is_not_open("/dev/ttyTool")


def test_only_a_stall_of_thirty_seconds_ends_stm32flash(tmp_path):
    with FlashSimulator(ROM, "--bootloader-boot-ms=100", "--bootloader-bps=50000") as bench:
        bench.into_bootloader()
        path = make_image(tmp_path, bench.after, 3000)
        process = spawn([binary("romflasher"), *arguments(bench, path)])
        bench.wait_for_chunk(lambda data: len(data) == 258)
        (child,) = eventually(lambda: children_of(process.pid))
        effort(stop_for_a_moment, stop_until_it_is_killed)(child, process)
