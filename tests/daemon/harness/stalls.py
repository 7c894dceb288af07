"""Notices when the machine itself cannot keep the times that the tests rely on.

Run as a program it is who looks, a process of its own: a test that keeps its interpreter busy
would hold it up, and that would be taken for a machine that stands still.
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

# An answer has 42 ms at least, looked for every 10 ms: what takes longer may come too late.
STALL_LIMIT = 0.015
_WATCHES = 64


class StallWatch:
    """A byte goes through a pty every 10 ms; the longest way it took is kept."""

    def __init__(self):
        self._looker = _looker()
        self._number = next(self._looker.numbers)
        self.start_over()

    def start_over(self):
        self._looker.worst[self._number] = 0.0

    def worst(self):
        """The longest stall since start_over(), in seconds."""
        assert self._looker.process.poll() is None, "nobody looks whether the machine stands still"
        return self._looker.worst[self._number]


class _Looker:
    """The process that looks, for all watches: each has its number in memory that both share."""

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
        assert self.process.stdout.readline() == b"looking\n"
        atexit.register(self._end)

    def _end(self):
        with self.process:
            self.process.kill()


@functools.lru_cache(maxsize=None)
def _looker():
    return _Looker()


def _shared(descriptor):
    os.ftruncate(descriptor, 8 * _WATCHES)
    return memoryview(mmap.mmap(descriptor, 8 * _WATCHES)).cast("d")


def _look(descriptor):
    worst = _shared(descriptor)
    master, slave = os.openpty()
    tty.setraw(slave)
    print("looking", flush=True)
    while True:
        asked = time.monotonic()
        time.sleep(0.01)
        os.write(master, b"x")
        os.read(slave, 1)
        stall = time.monotonic() - asked - 0.01
        for number, before in enumerate(worst):
            if stall > before:
                worst[number] = stall


if __name__ == "__main__":
    _look(int(sys.argv[1]))
