"""System calls of the daemon that strace makes fail."""

import pathlib
import signal
import subprocess

import pytest

from .children import spawn


def _options(call, error, when=""):
    return ["-e", f"trace={call}", "-e", f"inject={call}:error={error}{when}"]


def failing_from_the_start(call, error):
    """Returns a command prefix that makes the first `call` of a program fail.

    The program stays a direct child of the test.
    """
    return ["strace", "-D", "-o", "/dev/null", *_options(call, error, ":when=1")]


class FailingCall:
    """Makes `call` fail with `error` within the block: once, or every time if `lasting`.

    With `path`, only calls on descriptors of this file fail.
    """

    def __init__(self, daemon, folder, call, error, lasting, path):
        self._log = pathlib.Path(folder) / "strace.log"
        self._command = ["strace", "-o", str(self._log), "-p", str(daemon.pid)]
        self._command += _options(call, error, "" if lasting else ":when=1")
        self._command += ["-P", path] if path else []

    def __enter__(self):
        self._strace = spawn(self._command, stderr=subprocess.PIPE, text=True)
        for line in self._strace.stderr:
            if line.endswith("attached\n"):
                return self
            if "Operation not permitted" in line:
                self._finish()
                pytest.skip(f"this machine does not allow strace: {line.strip()}")
        self._finish()
        raise AssertionError(f"strace has ended: {self._command}")

    def __exit__(self, *_):
        # The daemon continues without strace.
        self._strace.send_signal(signal.SIGINT)
        self._finish()

    def _finish(self):
        self._strace.wait(10)
        self._strace.stderr.close()

    def failures(self):
        """Returns the number of failed calls so far."""
        return self._log.read_text(encoding="ascii").count("(INJECTED)")
