"""The daemon as a child process."""

import os
import re
import select
import signal
import subprocess
import threading
import time

from .children import binary, spawn
from .client import PORT
from .waiting import eventually

LOG_LINE = re.compile(r"^(Debug|Info|Warning|Critical|Fatal): (.*) \(\(null\):0, \(null\)\)$")

SANITIZED = os.environ.get("GRIPPERD_SANITIZED") == "1"
# The release build, for which limits in milliseconds hold literally.
RELEASE = os.environ.get("GRIPPERD_RELEASE") == "1"
VALGRIND = "GRIPPERD_VALGRIND" in os.environ
# Valgrind reads the symbols of all libraries first.
START_LIMIT = 30.0 if VALGRIND else 5.0
# The sanitizers and valgrind search for leaks at the end.
QUIT_LIMIT = 9.0 if VALGRIND else 3.0 if SANITIZED else 1.0


# The sanitizer keeps freed memory in a quarantine. A small one hardly adds to the measured memory.
SMALL_QUARANTINE = {"ASAN_OPTIONS": "quarantine_size_mb=1:thread_local_quarantine_size_kb=64"}


class Daemon:
    def __init__(self, cwd, arguments=(), environment=None, before_exec=None, under=()):
        self.lines = []
        self.times = []
        self._changed = threading.Condition()
        self.started_at = time.monotonic()
        self.process = spawn(
            [*under, binary("gripperd"), *arguments],
            before_exec,
            cwd=cwd,
            env={**os.environ, **(environment or {})},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        self.pid = self.process.pid
        self._incomplete = b""
        os.set_blocking(self.process.stderr.fileno(), False)
        self._reader = threading.Thread(target=self._collect, daemon=True)
        self._reader.start()

    def _collect(self):
        arrivals = select.poll()
        arrivals.register(self.process.stderr, select.POLLIN)
        while self._take_log():
            arrivals.poll()

    def _take_log(self):
        """Reads all available log text. Returns False at the end of the log."""
        with self._changed:
            while True:
                try:
                    data = os.read(self.process.stderr.fileno(), 65536)
                except BlockingIOError:
                    return True
                *lines, self._incomplete = (self._incomplete + data).split(b"\n")
                if not data and self._incomplete:
                    lines, self._incomplete = [self._incomplete], b""
                self.lines += [line.decode(errors="replace") for line in lines]
                self.times += [time.monotonic()] * len(lines)
                self._changed.notify_all()
                if not data:
                    return False

    # Start and end

    def wait_until_listening(self, timeout=START_LIMIT):
        """Waits without a connection, so the log shows no client."""

        def listening():
            assert self.process.poll() is None, f"ended: {self.lines}"
            return is_listening()

        eventually(listening, timeout, "listening")
        return self

    def is_running(self):
        return self.process.poll() is None

    def stop(self, signal_number=signal.SIGTERM, timeout=10.0):
        """Returns (exit status, seconds from the signal to the end)."""
        sent_at = time.monotonic()
        self.process.send_signal(signal_number)
        return self.wait_for_end(timeout), time.monotonic() - sent_at

    def wait_for_end(self, timeout=10.0):
        status = self.process.wait(timeout)
        self._reader.join(timeout)
        return status

    def finish(self):
        """Ends the daemon, which must still run, quit in time with status 0 and print nothing."""
        assert self.is_running(), f"ended with {self.process.returncode}: {self.lines[-20:]}"
        status, seconds = self.stop()
        assert status == 0, f"status {status}: {self.lines[-40:]}"
        assert seconds < QUIT_LIMIT, f"took {seconds:.2f} s to quit"
        assert self.standard_output() == b""

    def kill(self):
        """Kills the daemon if it still runs, and closes its pipes."""
        if self.is_running():
            self.process.kill()
        self.wait_for_end()
        self.process.stderr.close()
        self.process.stdout.close()

    def standard_output(self):
        """Returns all of the standard output. Call it after the end of the daemon."""
        return self.process.stdout.read()

    # Log

    def mark(self):
        self._take_log()
        with self._changed:
            return len(self.lines)

    def messages(self, since=0):
        """Returns the message texts of all log lines from number `since` on."""
        self._take_log()
        with self._changed:
            lines = self.lines[since:]
        return [m.group(2) if (m := LOG_LINE.match(line)) else line for line in lines]

    def wait_for_line(self, pattern, since=0, timeout=5.0):
        """Returns the first line from number `since` on that contains the pattern."""
        expression = re.compile(pattern)
        deadline = time.monotonic() + timeout
        seen = since
        with self._changed:
            while True:
                for line in self.lines[seen:]:
                    if expression.search(line):
                        return line
                seen = len(self.lines)
                left = deadline - time.monotonic()
                assert left > 0, f"no line like {pattern!r} in {self.lines[since:]}"
                self._changed.wait(left)

    def wait_until_found(self, *slave_ids, since=0, timeout=10.0):
        """Waits for a discovery that finds exactly these grippers."""
        ids = ", ".join(str(n) for n in sorted(slave_ids))
        try:
            self.wait_for_line(rf": \({ids}\) ", since, timeout)
        except AssertionError:
            # When pytest repeats a test after a stall, the fixture starts another daemon, which needs the port.
            self.kill()
            raise
        return self

    # Resources

    def descriptors(self):
        """Returns the sorted targets of the daemon's file descriptors; sockets have a number."""
        folder = f"/proc/{self.pid}/fd"
        found = []
        for entry in os.listdir(folder):
            try:
                found.append(os.readlink(f"{folder}/{entry}"))
            except FileNotFoundError:
                pass
        return sorted(found)

    def resident_kib(self):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        raise AssertionError("no VmRSS")

    def cpu_seconds(self):
        with open(f"/proc/{self.pid}/stat", encoding="ascii") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def is_listening():
    """Returns whether a process in this network namespace listens on the daemon's port."""
    wanted = f":{PORT:04X}"
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        with open(table, encoding="ascii") as connections:
            for line in connections.readlines()[1:]:
                fields = line.split()
                if fields[1].endswith(wanted) and fields[3] == "0A":
                    return True
    return False
