"""Pulls the line out, puts it back, and keeps what that cost."""

import contextlib
import statistics
import time

from .daemon import SANITIZED
from .stalls import StallWatch

# From the line's return on: the pause of a second between two looks at the ports, and a scan of
# four ids, which waits 0.2 s for each and 60 ms for the answer of each that nobody has.
RETURN_LIMIT = 3.0
CPU_LIMIT = 0.2 if SANITIZED else 0.05
# Two lines of a scan that was under way, five failures of the next access, a look at the ports at
# once and one when the line is back, and two lines of the scan that finds the gripper. Beside that
# a look at the ports for every second in which the line is gone.
LOG_LIMIT = 11
GONE = 0.3
# An answer has 42 ms at least: in a longer standstill of the machine it may come too late.
STALL_LIMIT = 0.03


class HangUps:
    """Of one daemon on one line, which may be scripted or the simulator's."""

    def __init__(self, daemon, line):
        self.daemon = daemon
        self.line = line
        self.watch = StallWatch()
        self.spoilt = 0
        self.returns = []
        self.log_lines = []
        self.gone = []
        self.cpu = []
        self.line_mark = self.log_mark = 0
        self.back_at = 0.0

    def cpu_seconds(self):
        """Of the main thread, which is the only one that works; in nanoseconds, not in ticks."""
        with open(f"/proc/{self.daemon.pid}/schedstat", encoding="ascii") as times:
            return int(times.read().split()[0]) / 1e9

    @contextlib.contextmanager
    def unplugged(self, seconds=GONE):
        """The line is gone while the block runs, and for so many seconds at least."""
        self.watch.start_over()
        self.log_mark = self.daemon.mark()
        cpu, started = self.cpu_seconds(), time.monotonic()
        self.line.unplug()
        yield
        time.sleep(max(0.0, started + seconds - time.monotonic()))
        self.gone.append(time.monotonic() - started)
        self.cpu.append(self.cpu_seconds() - cpu)
        self.line_mark = self.line.mark()
        self.line.plug()
        self.back_at = time.monotonic()

    def wait_until_polled(self, slave_id=9, since=None):
        """The gripper is probed once and then polled; counted from `since` or the line's return."""
        self.line.wait_for(
            lambda r: r.slave == slave_id and r.is_read(2000), 2, self.line_mark, timeout=15
        )
        polled_at = time.monotonic()
        if self.watch.worst() > STALL_LIMIT:
            self.spoilt += 1
            return
        self.returns.append(polled_at - (since or self.back_at))
        lines = self.daemon.messages(self.log_mark)
        self.log_lines.append(len(lines))
        assert len(lines) <= LOG_LIMIT + self.gone[-1], lines

    def judge(self, figure):
        assert self.spoilt <= len(self.gone) / 2, "too many of them while the machine stood still"
        share = sum(self.cpu) / sum(self.gone)
        figure(
            f"{len(self.gone)} times gone, for {sum(self.gone):.1f} s, in {self.spoilt} of them the "
            f"machine stood still, which are not judged; polled again after "
            f"{statistics.median(self.returns):.2f} s (median), {max(self.returns):.2f} s (worst); "
            f"{max(self.log_lines)} log lines (worst); {share * 100:.2f} % CPU while it was gone"
        )
        assert max(self.returns) < RETURN_LIMIT
        assert share < CPU_LIMIT
