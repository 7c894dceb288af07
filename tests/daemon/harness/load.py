"""Reply times, visits and memory of the daemon while one client misbehaves.

As a program, this module is the measuring client. The client has its own process, because the load
of the test slows down everything else in the interpreter.
"""

import contextlib
import json
import os
import pathlib
import select
import statistics
import subprocess
import sys
import time

from .children import spawn
from .client import Client
from .daemon import RELEASE
from .figures import percentile
from .processor import ProcessorWait, seconds_without_processor

# The limits are those of the release build, which scripts/robustness runs alone. Other builds are slower
# and run beside other tests, so they show only whether a client delays the others at all.
SLOWNESS = 1 if RELEASE else 10
MEDIAN_LIMIT = 0.002 * SLOWNESS
WORST_LIMIT = 0.05 * SLOWNESS
VISITS_USUAL = 0.05 + 0.01 * SLOWNESS
# Each write takes an extra period.
VISITS_BESIDE_WRITES = 2 * VISITS_USUAL
_PACE = 0.01


class Bystander:
    """Another client, which sends GET POS every 10 ms, or after the reply if that takes longer.

    After the block, `waits` has the time of each reply in seconds, without the time for which the client
    and the daemon waited for a processor.
    """

    def __init__(self, daemon):
        self.waits = []
        self._daemon = daemon

    def __enter__(self):
        self._process = spawn(
            [sys.executable, "-B", "-m", "harness.load", str(self._daemon.pid)],
            cwd=pathlib.Path(__file__).parent.parent,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        assert self._process.stdout.readline() == b"started\n"
        return self

    def __exit__(self, *_):
        with self._process:
            waits = self._process.communicate(timeout=60)[0]
        assert self._process.returncode == 0, "the other client received no reply, or a wrong one"
        self.waits = json.loads(waits)

    def check(self, limit=WORST_LIMIT, usual=MEDIAN_LIMIT):
        """Checks that half of the replies took less than `usual`, and 99 % less than `limit`.

        No reply may take four times `limit`. Returns the measured times as text.
        """
        median, worst = statistics.median(self.waits), max(self.waits)
        nearly_all = percentile(self.waits, 0.99)
        measured = (
            f"{len(self.waits)} GETs of another client took {median * 1000:.2f} ms (median), "
            f"{nearly_all * 1000:.1f} ms (99 %), {worst * 1000:.1f} ms (longest)"
        )
        assert len(self.waits) > 10
        assert median < usual and nearly_all < limit and worst < 4 * limit, measured
        return measured

    def check_longest(self, limit):
        """Checks that no reply took longer than `limit`."""
        longest = f"a GET of another client took {max(self.waits) * 1000:.1f} ms"
        assert max(self.waits) < limit, longest


def _send_gets_until_stopped(daemon_pid):
    pids = (os.getpid(), daemon_pid)
    with contextlib.suppress(PermissionError):
        os.nice(-10)
    waits = []
    with Client(timeout=30.0) as client:
        client.get("POS")
        print("started", flush=True)
        asked = time.monotonic()
        while not select.select([sys.stdin], [], [], max(0.0, asked + _PACE - time.monotonic()))[0]:
            waited, asked = seconds_without_processor(*pids), time.monotonic()
            client.get("POS")
            took = time.monotonic() - asked
            waits.append(max(0.0, took - seconds_without_processor(*pids) + waited))
    print(json.dumps(waits))


class Visits:
    """The visits of a gripper from now on: the reads of its status."""

    def __init__(self, line, daemon, slave_id=9):
        self._line = line
        self._slave_id = slave_id
        self._mark = line.mark()
        self._processor_wait = ProcessorWait(daemon)

    def gaps(self):
        """Returns the seconds between consecutive visits."""
        reads = self._line.since(
            self._mark, lambda r: r.slave == self._slave_id and r.is_read(2000)
        )
        return [later.at - earlier.at for earlier, later in zip(reads, reads[1:])]

    def delays(self):
        """Returns how much waiting for a processor can enlarge the median of the gaps, and the longest gap."""
        waited = self._processor_wait.seconds()
        # The waits are in the larger half of the gaps at worst.
        return 2 * waited / len(self.gaps()), waited

    def check(self, limit=WORST_LIMIT, usual=VISITS_USUAL):
        """Checks that half of the gaps are shorter than `usual`, and none is much longer.

        `limit` is the longest wait that the load may cause. Returns the measured times as text.
        """
        gaps = self.gaps()
        median, longest = statistics.median(gaps), max(gaps)
        median_delay, longest_delay = self.delays()
        measured = (
            f"{len(gaps)} visits every {median * 1000:.1f} ms (longest {longest * 1000:.0f} ms)"
        )
        assert len(gaps) > 5
        # The daemon does not catch up on missed periods.
        assert 0.045 < median < usual + median_delay, measured
        assert longest < 0.15 + limit + longest_delay, measured
        return measured


class Memory:
    """The growth of the daemon's resident memory from now on."""

    def __init__(self, daemon):
        self._daemon = daemon
        # Resets the peak value that the kernel keeps.
        with open(f"/proc/{daemon.pid}/clear_refs", "w", encoding="ascii") as file:
            file.write("5")
        self._before = daemon.resident_kib()

    def growth_kib(self):
        """Returns the highest growth so far."""
        with open(f"/proc/{self._daemon.pid}/status", encoding="ascii") as status:
            peak = next(line for line in status if line.startswith("VmHWM:"))
        return int(peak.split()[1]) - self._before


def log_bytes(daemon, since=0):
    """Returns the size of the log from line number `since` on."""
    return sum(len(line.encode()) + 1 for line in daemon.lines[since : daemon.mark()])


if __name__ == "__main__":
    _send_gets_until_stopped(int(sys.argv[1]))
