"""The shared state of all threads: the clock, the verdicts, the times that are not judged."""

import contextlib
import random
import threading
import time
from collections import Counter, defaultdict

from harness.daemon import SANITIZED
from harness.stalls import StallWatch

# Sanitized programs are several times slower.
SLOWNESS = 4 if SANITIZED else 1
SCAN_SLOTS = 3
# The run prints this many failures at once.
PRINTED_FAILURES = 20


class InvariantFailed(Exception):
    """A client has seen a violation of an invariant."""


class World:
    def __init__(self, seed):
        self.seed = seed
        self.started = time.monotonic()
        self.stopped = threading.Event()
        self.checks = Counter()
        self.failures = []
        self.skipped = Counter()
        self.counts = Counter()
        self.open_clients = 0
        self._lock = threading.RLock()
        # One thread at a time may unplug, set faults, throttle, mute, move a slave id or upgrade.
        self.maintenance = threading.Lock()
        self._scan_slots = [threading.Lock() for _ in range(SCAN_SLOTS)]
        self._suspensions = Counter()
        self._resumed_at = self.started
        self.suspended_seconds = defaultdict(float)
        self._watch = StallWatch()
        self._stalls = []

    def random(self, name):
        """Returns a generator for this name, so each thread repeats its actions with the same seed."""
        return random.Random(f"{self.seed} {name}")

    def now(self):
        return time.monotonic() - self.started

    def pause(self, seconds):
        """Waits. Returns False at the end of the run."""
        return not self.stopped.wait(seconds)

    def count(self, name, number=1):
        with self._lock:
            self.counts[name] += number

    def client_opened(self, number):
        with self._lock:
            self.open_clients += number

    # Invariants

    def passes(self, invariant, number=1):
        with self._lock:
            self.checks[invariant] += number

    def fails(self, invariant, text):
        with self._lock:
            self.checks[invariant] += 1
            self.failures.append((self.now(), invariant, text))
            # Print it at once, because the run may take hours.
            if len(self.failures) <= PRINTED_FAILURES:
                print(f"after {self.now():.1f} s: {invariant}: {text}", flush=True)

    def skip_for_stall(self, invariant):
        """Counts a failure during a stall of the machine."""
        with self._lock:
            self.skipped[invariant] += 1

    def judge(self, invariant, condition, text):
        if condition:
            self.passes(invariant)
        else:
            self.fails(invariant, text)

    def judge_time(self, invariant, seconds, limit, text, since):
        """Judges a time. A stall of the machine raises the limit."""
        if seconds <= limit:
            self.passes(invariant)
        elif seconds <= limit + 5 * self.worst_stall(since):
            self.skip_for_stall(invariant)
        else:
            self.fails(invariant, f"{text}: {seconds:.3f} s, limit {limit:.3f} s")

    # Stalls of the machine

    def record_stall(self):
        """Keeps the longest stall of the last second. The run calls it once a second."""
        self._stalls.append((time.monotonic(), self._watch.worst()))
        self._watch.reset_worst()
        del self._stalls[:-3600]

    def worst_stall(self, since):
        """Returns the longest stall since that time, in seconds."""
        # record_stall() notes a stall up to a second after its end.
        noted = [stall for at, stall in list(self._stalls) if at > since]
        return max([self._watch.worst(), *noted])

    def stall_of_the_run(self):
        return max([stall for _, stall in self._stalls], default=0.0)

    # Times in which the line is not judged

    @contextlib.contextmanager
    def suspend_judging(self, reason):
        began = time.monotonic()
        with self._lock:
            self._suspensions[reason] += 1
        try:
            yield
        finally:
            with self._lock:
                self._suspensions[reason] -= 1
                self._resumed_at = time.monotonic()
                self.suspended_seconds[reason] += time.monotonic() - began

    def is_suspended(self, reason=None):
        with self._lock:
            return self._suspensions[reason] > 0 if reason else sum(self._suspensions.values()) > 0

    def resumed_at(self):
        """Returns the end of the last time in which the line was not judged."""
        return self._resumed_at

    # No scans during an upgrade: a scan uses the line even when polling is muted

    @contextlib.contextmanager
    def scan_slot(self, number):
        with self._scan_slots[number]:
            yield

    @contextlib.contextmanager
    def no_scans(self):
        with contextlib.ExitStack() as stack:
            for slot in self._scan_slots:
                stack.enter_context(slot)
            yield
