"""What others notice while one client misbehaves: how long their replies take, how
often the line is visited, how much memory the daemon takes.

Run as a program it is the other client, a process of its own: the load that a test
makes shares one interpreter with the test, and would slow down who measures there.
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
from .daemon import RELEASE, SANITIZED
from .figures import percentile
from .stalls import STALL_LIMIT, StallWatch

# For limits that are meant for the daemon as it is shipped.
SLOWNESS = 4 if SANITIZED else 1
MEDIAN_LIMIT = 0.002 * SLOWNESS
WORST_LIMIT = 0.05 * SLOWNESS
LONGEST_LIMIT = 0.05 * (1 if RELEASE else 4)
VISITS_USUAL = 0.05 + 0.01 * SLOWNESS
# A write takes a period of its own.
VISITS_BESIDE_WRITES = 2 * VISITS_USUAL
_PACE = 0.01


class Bystander:
    """A client that asks for the position every 10 ms, or as soon as it has the reply.

    After the block `waits` holds how long each reply took, in seconds.
    """

    def __init__(self):
        self.waits = []
        self._watch = StallWatch()

    def __enter__(self):
        self._process = spawn(
            [sys.executable, "-B", "-m", "harness.load"],
            cwd=pathlib.Path(__file__).parent.parent,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        assert self._process.stdout.readline() == b"asking\n"
        return self

    def __exit__(self, *_):
        with self._process:
            waits = self._process.communicate(timeout=60)[0]
        assert self._process.returncode == 0, "the other client got no reply, or a wrong one"
        self.waits = json.loads(waits)
        self._stall = self._watch.worst()

    def check(self, limit=WORST_LIMIT, usual=MEDIAN_LIMIT):
        """Half of the replies took less than `usual`, all but one in a hundred less than `limit`,
        and none much longer, for the machine has others to serve too; says what was measured."""
        median, worst = statistics.median(self.waits), max(self.waits)
        nearly_all = percentile(self.waits, 0.99)
        said = (
            f"{len(self.waits)} GETs of another client took {median * 1000:.2f} ms (median), "
            f"{nearly_all * 1000:.1f} ms (99 %), {worst * 1000:.1f} ms (longest)"
        )
        assert len(self.waits) > 10
        assert median < usual and nearly_all < limit and worst < 4 * limit, said
        return said

    def check_longest(self, limit):
        """No reply took longer than `limit`, with more patience where the release is not what
        runs, unless the machine stood still for a moment."""
        longest = f"a GET of another client took {max(self.waits) * 1000:.1f} ms"
        assert self._stall > STALL_LIMIT or max(self.waits) < max(limit, LONGEST_LIMIT), longest


def _ask_until_told_to_stop():
    with contextlib.suppress(PermissionError):
        os.nice(-10)
    waits = []
    with Client(timeout=30.0) as client:
        client.get("POS")
        print("asking", flush=True)
        asked = time.monotonic()
        while not select.select([sys.stdin], [], [], max(0.0, asked + _PACE - time.monotonic()))[0]:
            asked = time.monotonic()
            client.get("POS")
            waits.append(time.monotonic() - asked)
    print(json.dumps(waits))


class Visits:
    """The reads of a gripper's status from now on."""

    def __init__(self, line, slave_id=9):
        self._line = line
        self._slave_id = slave_id
        self._mark = line.mark()

    def gaps(self):
        """Seconds between one visit and the next."""
        reads = self._line.since(
            self._mark, lambda r: r.slave == self._slave_id and r.is_read(2000)
        )
        return [later.at - earlier.at for earlier, later in zip(reads, reads[1:])]

    def check(self, limit=WORST_LIMIT, usual=VISITS_USUAL):
        """They went on every 50 ms, half of them within `usual`, but for waits of `limit`; says
        what was measured."""
        gaps = self.gaps()
        median, longest = statistics.median(gaps), max(gaps)
        said = f"{len(gaps)} visits every {median * 1000:.1f} ms (longest {longest * 1000:.0f} ms)"
        assert len(gaps) > 5
        # A period that is missed is not made up for.
        assert 0.045 < median < usual and longest < 0.15 + limit, said
        return said


class Memory:
    """Resident memory of the daemon, against what it is at this moment."""

    def __init__(self, daemon):
        self._daemon = daemon
        # From here on the kernel keeps the highest value anew.
        with open(f"/proc/{daemon.pid}/clear_refs", "w", encoding="ascii") as file:
            file.write("5")
        self._before = daemon.resident_kib()

    def growth_kib(self):
        """At its highest since then."""
        with open(f"/proc/{self._daemon.pid}/status", encoding="ascii") as status:
            peak = next(line for line in status if line.startswith("VmHWM:"))
        return int(peak.split()[1]) - self._before


def log_bytes(daemon, since=0):
    """What the daemon has written to its log from line number `since` on."""
    return sum(len(line.encode()) + 1 for line in daemon.lines[since : daemon.mark()])


if __name__ == "__main__":
    _ask_until_told_to_stop()
