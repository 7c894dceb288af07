"""What all threads of the run share: its clock, its verdicts, its excuses."""

import contextlib
import random
import threading
import time
from collections import Counter, defaultdict

from harness.daemon import SANITIZED
from harness.stalls import StallWatch

# Sanitized programs take several times as long for the same.
SLOWNESS = 4 if SANITIZED else 1
SCAN_SLOTS = 3
# Of what is broken, the first ones.
TOLD = 20


class Broken(Exception):
    """What one client saw breaks an invariant."""


class World:
    def __init__(self, seed):
        self.seed = seed
        self.started = time.monotonic()
        self.stopped = threading.Event()
        self.checks = Counter()
        self.broken = []
        self.forgiven = Counter()
        self.counts = Counter()
        self.open_clients = 0
        self._lock = threading.RLock()
        # One at a time: unplugging, muting, moving, upgrading.
        self.maintenance = threading.Lock()
        self._scan_slots = [threading.Lock() for _ in range(SCAN_SLOTS)]
        self._excuses = Counter()
        self._excused_until = self.started
        self.excused_seconds = defaultdict(float)
        self._watch = StallWatch()
        self._stalls = []

    def random(self, name):
        """A generator of its own for everybody, so that each does the same with the same seed."""
        return random.Random(f"{self.seed} {name}")

    def now(self):
        return time.monotonic() - self.started

    def pause(self, seconds):
        """False when the run is over."""
        return not self.stopped.wait(seconds)

    def count(self, name, number=1):
        with self._lock:
            self.counts[name] += number

    def client_opened(self, number):
        with self._lock:
            self.open_clients += number

    # Invariants

    def holds(self, invariant, number=1):
        with self._lock:
            self.checks[invariant] += number

    def breaks(self, invariant, text):
        with self._lock:
            self.checks[invariant] += 1
            self.broken.append((self.now(), invariant, text))
            # At once: what the rest of the run does does not help to understand it.
            if len(self.broken) <= TOLD:
                print(f"after {self.now():.1f} s: {invariant}: {text}", flush=True)

    def forgive(self, invariant):
        """It was not as it should be, but the machine stood still meanwhile."""
        with self._lock:
            self.forgiven[invariant] += 1

    def judge(self, invariant, condition, text):
        if condition:
            self.holds(invariant)
        else:
            self.breaks(invariant, text)

    def judge_time(self, invariant, seconds, limit, text, since):
        """A limit on time says nothing about the daemon where the machine itself stood still."""
        if seconds <= limit:
            self.holds(invariant)
        elif seconds <= limit + 5 * self.worst_stall(since):
            self.forgive(invariant)
        else:
            self.breaks(invariant, f"{text}: {seconds:.3f} s, limit {limit:.3f} s")

    # Stalls of the machine

    def note_stall(self):
        """Called once a second."""
        self._stalls.append((time.monotonic(), self._watch.worst()))
        self._watch.reset_worst()
        del self._stalls[:-3600]

    def worst_stall(self, since):
        """The longest one since that time, in seconds."""
        # A stall is noted up to a second after it was over.
        noted = [stall for at, stall in list(self._stalls) if at > since]
        return max([self._watch.worst(), *noted])

    def stall_of_the_run(self):
        return max([stall for _, stall in self._stalls], default=0.0)

    # Times in which the line is not to be judged

    @contextlib.contextmanager
    def excuse(self, reason):
        began = time.monotonic()
        with self._lock:
            self._excuses[reason] += 1
        try:
            yield
        finally:
            with self._lock:
                self._excuses[reason] -= 1
                self._excused_until = time.monotonic()
                self.excused_seconds[reason] += time.monotonic() - began

    def excused(self, reason=None):
        with self._lock:
            return self._excuses[reason] > 0 if reason else sum(self._excuses.values()) > 0

    def last_excuse(self):
        """When the line was last given back."""
        return self._excused_until

    # Scans do not mix with an upgrade: a scan takes the line, muted or not

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
