"""gripper-client-check: the C++ client library as a child process."""

import queue
import subprocess
import threading

from .children import binary, spawn


class ClientCheck:
    """Carries out one call of the library at a time."""

    def __init__(self, *commands):
        self.process = spawn(
            [binary("gripper-client-check")],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1,
        )
        self._lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()
        for command in commands:
            self.call(command)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        status = self.process.wait(15)
        self.process.stdout.close()
        assert status == 0, f"gripper-client-check ended with {status}"

    def begin(self, command):
        self.process.stdin.write(command + "\n")

    def end(self, timeout=40):
        """Returns the lines of the answer; the last one begins with "ok" or "error"."""
        lines = []
        while not lines or not lines[-1].startswith(("ok ", "error ")):
            lines.append(self.next_line(timeout))
        return lines

    def next_line(self, timeout=40):
        line = self._lines.get(timeout=timeout)
        assert line is not None, "gripper-client-check has ended"
        return line

    def run(self, command, timeout=40):
        """Returns the last line of the answer."""
        self.begin(command)
        return self.end(timeout)[-1]

    def call(self, command, timeout=40):
        """The call must succeed. Returns its result."""
        answer = self.run(command, timeout)
        assert answer.startswith("ok "), f"{command}: {answer}"
        return answer[3:]

    def fail(self, error, command, timeout=40):
        """The call must fail with this type of error. Returns the whole line."""
        answer = self.run(command, timeout)
        assert answer.startswith(f"error {error}: "), f"{command}: {answer}"
        return answer

    def image(self):
        """The values of the gripper by name."""
        return values(self.call("image"))

    def _read(self):
        for line in self.process.stdout:
            self._lines.put(line.rstrip("\n"))
        self._lines.put(None)


def values(text):
    return dict(pair.split("=", 1) for pair in text.split(";") if pair)
