"""Unplugs the line, plugs it in again, and measures the cost."""

import contextlib
import statistics
import time

from .daemon import SANITIZED
from .stalls import StallWatch

# Seconds from the line's return to the first poll: the daemon searches for ports every second. Its
# scan of four ids waits 0.2 s for each, and 60 ms for each answer that does not come.
RETURN_LIMIT = 3.0
CPU_LIMIT = 0.2 if SANITIZED else 0.05
# Two lines of a running scan, five failures of the next access, two searches for ports, and two
# lines of the scan that finds the gripper. Each second without the line adds a search for ports.
LOG_LIMIT = 11
UNPLUGGED_SECONDS = 0.3
# A gripper has at least 42 ms to answer. After a longer stall than this, its answer may be too late.
STALL_LIMIT = 0.03


class HangUps:
    """Hangups of one line, scripted or simulated, and their cost for one daemon."""

    def __init__(self, daemon, line):
        self.daemon = daemon
        self.line = line
        self.watch = StallWatch()
        self.stalled = 0
        self.returns = []
        self.log_lines = []
        self.seconds_gone = []
        self.seconds_used = []
        self.line_mark = self.log_mark = 0
        self.back_at = 0.0

    def cpu_seconds(self):
        """Returns the processor time of the main thread. The kernel measures it in nanoseconds."""
        with open(f"/proc/{self.daemon.pid}/schedstat", encoding="ascii") as times:
            return int(times.read().split()[0]) / 1e9

    @contextlib.contextmanager
    def unplugged(self, seconds=UNPLUGGED_SECONDS):
        """Unplugs the line while the block runs, for at least `seconds`."""
        self.watch.reset_worst()
        self.log_mark = self.daemon.mark()
        cpu, started = self.cpu_seconds(), time.monotonic()
        self.line.unplug()
        yield
        time.sleep(max(0.0, started + seconds - time.monotonic()))
        self.seconds_gone.append(time.monotonic() - started)
        self.seconds_used.append(self.cpu_seconds() - cpu)
        self.line_mark = self.line.mark()
        self.line.plug()
        self.back_at = time.monotonic()

    def wait_until_polled(self, slave_id=9, since=None):
        """Waits for the first poll. Its time counts from `since`, or from the line's return."""
        self.line.wait_for(
            lambda r: r.slave == slave_id and r.is_read(2000), 2, self.line_mark, timeout=15
        )
        polled_at = time.monotonic()
        if self.watch.worst() > STALL_LIMIT:
            self.stalled += 1
            return
        self.returns.append(polled_at - (since or self.back_at))
        lines = self.daemon.messages(self.log_mark)
        self.log_lines.append(len(lines))
        assert len(lines) <= LOG_LIMIT + self.seconds_gone[-1], lines

    def judge(self, figure):
        assert self.stalled <= len(self.seconds_gone) / 2, "the machine stalled during too many hangups"
        share = sum(self.seconds_used) / sum(self.seconds_gone)
        figure(
            f"{len(self.seconds_gone)} hangups of {sum(self.seconds_gone):.1f} s in all, {self.stalled} not "
            f"judged because the machine stalled; polled again after "
            f"{statistics.median(self.returns):.2f} s (median), {max(self.returns):.2f} s (worst); "
            f"{max(self.log_lines)} log lines (worst); {share * 100:.2f} % CPU without the line"
        )
        assert max(self.returns) < RETURN_LIMIT
        assert share < CPU_LIMIT
