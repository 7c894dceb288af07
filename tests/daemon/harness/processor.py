"""The time for which processes wait for a processor.

A limit in milliseconds holds for processes that get a processor at once. A busy machine lets them wait, so
the tests allow this time in addition to a limit.
"""

import os
import pathlib


def seconds_without_processor(*pids):
    """Returns the time for which the threads of these processes were ready to run and did not run."""
    tasks = [task for pid in pids for task in pathlib.Path(f"/proc/{pid}/task").glob("*/schedstat")]
    return sum(int(task.read_text(encoding="ascii").split()[1]) for task in tasks) / 1e9


class ProcessorWait:
    """The time without a processor of the daemon and of this process, from now on."""

    def __init__(self, daemon):
        self._pids = (daemon.pid, os.getpid())
        self._before = seconds_without_processor(*self._pids)

    def seconds(self):
        return seconds_without_processor(*self._pids) - self._before
