"""Measures stalls of the machine, which make tests miss their deadlines.

As a program, this module is the monitor. The monitor has its own process: a test that keeps its
interpreter busy would delay the monitor, which would then report a stall.
"""

import atexit
import functools
import itertools
import mmap
import os
import pathlib
import subprocess
import sys
import time
import tty

from .children import spawn

# A gripper has at least 42 ms to answer, and the daemon checks every 10 ms. A longer stall than this
# can make an answer late.
STALL_LIMIT = 0.015
_WATCHES = 64


class StallWatch:
    """Keeps the longest delay of a byte that goes through a pty every 10 ms."""

    def __init__(self):
        self._monitor = _monitor()
        self._number = next(self._monitor.numbers)
        self.reset_worst()

    def reset_worst(self):
        self._monitor.worst[self._number] = 0.0

    def worst(self):
        """Returns the longest stall since reset_worst(), in seconds."""
        assert self._monitor.process.poll() is None, "the monitor of stalls has ended"
        return self._monitor.worst[self._number]


class _Monitor:
    """The monitor process of all watches. Each watch has an index in the shared memory."""

    def __init__(self):
        descriptor = os.memfd_create("stalls")
        self.worst = _shared(descriptor)
        self.numbers = itertools.count()
        self.process = spawn(
            [sys.executable, "-B", "-m", "harness.stalls", str(descriptor)],
            cwd=pathlib.Path(__file__).parent.parent,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            pass_fds=[descriptor],
        )
        os.close(descriptor)
        assert self.process.stdout.readline() == b"started\n"
        atexit.register(self._end)

    def _end(self):
        with self.process:
            self.process.kill()


@functools.lru_cache(maxsize=None)
def _monitor():
    return _Monitor()


def _shared(descriptor):
    os.ftruncate(descriptor, 8 * _WATCHES)
    return memoryview(mmap.mmap(descriptor, 8 * _WATCHES)).cast("d")


def _record_stalls(descriptor):
    worst = _shared(descriptor)
    master, slave = os.openpty()
    tty.setraw(slave)
    print("started", flush=True)
    while True:
        began = time.monotonic()
        time.sleep(0.01)
        os.write(master, b"x")
        os.read(slave, 1)
        stall = time.monotonic() - began - 0.01
        for number, before in enumerate(worst):
            if stall > before:
                worst[number] = stall


if __name__ == "__main__":
    _record_stalls(int(sys.argv[1]))
