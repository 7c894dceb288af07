"""The budget of the daemon for memory, descriptors and processor time."""

import time

from harness.daemon import SANITIZED

# The growth after the warm-up. The quarantine of the sanitizer keeps freed memory.
MEMORY_KIB = (512 if SANITIZED else 32) * 1024
# All except those of clients: line, listener, events, pipes of a flasher, ended connections.
DESCRIPTORS = 32
# The share of one core between two progress lines.
CPU_SHARE = 0.95 if SANITIZED else 0.60
WARM_UP = 10.0

BUDGET = (
    f"{MEMORY_KIB // 1024} MiB more than after {WARM_UP:.0f} s, {DESCRIPTORS} descriptors beside "
    f"those of clients, {CPU_SHARE:.0%} of one core"
)


class Resources:
    def __init__(self, world, daemon):
        self.world = world
        self.daemon = daemon
        self.base_kib = None
        self.most_kib = 0
        self.most_descriptors = 0
        self.highest_share = 0.0
        self._cpu = daemon.cpu_seconds()
        self._cpu_at = time.monotonic()

    def check(self):
        """Judges memory and descriptors. The run calls it once a second."""
        kib = self.daemon.resident_kib()
        if self.base_kib is None and self.world.now() > WARM_UP:
            self.base_kib = kib
        self.most_kib = max(self.most_kib, kib)
        if self.base_kib is not None:
            fits = kib <= self.base_kib + MEMORY_KIB
            self.world.judge("memory", fits, f"{kib} KiB, {self.base_kib} after warming up")
        self._count_descriptors()

    def _count_descriptors(self):
        # The daemon closes its end of a connection a moment after the client.
        for attempt in range(10):
            extra = len(self.daemon.descriptors()) - self.world.open_clients
            if extra <= DESCRIPTORS:
                break
            time.sleep(0.05 * attempt)
        self.most_descriptors = max(self.most_descriptors, extra)
        fits = extra <= DESCRIPTORS
        self.world.judge("descriptors", fits, f"{extra} beside those of clients")

    def check_cpu(self):
        """Judges and returns the share of a core since the last call."""
        now, cpu = time.monotonic(), self.daemon.cpu_seconds()
        share = (cpu - self._cpu) / (now - self._cpu_at)
        self._cpu, self._cpu_at = cpu, now
        self.highest_share = max(self.highest_share, share)
        fits = share <= CPU_SHARE
        self.world.judge("processor time", fits, f"{share:.0%} of a core")
        return share
