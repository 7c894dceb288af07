"""A simulator of which everything on the line is kept: requests, and what came back."""

import queue
import threading

from . import modbus
from .simulator import Simulator


class RecordingSimulator(Simulator):
    """`events` holds (direction, bytes) in the order of the line. May be told from any thread."""

    def __init__(self, *arguments, **options):
        self.events = []
        self._telling = threading.Lock()
        super().__init__(*arguments, **options)

    def tell(self, command):
        with self._telling:
            return super().tell(command)

    def tell_all(self, commands):
        """Sends commands of which each answers with a bare "ok", in one go."""
        with self._telling:
            self.process.stdin.write("".join(c + "\n" for c in commands).encode())
            self.process.stdin.flush()
            for command in commands:
                try:
                    answer = self._answers.get(timeout=5)
                except queue.Empty:
                    raise AssertionError(f"{command}: no answer") from None
                assert answer == "ok", f"{command}: {answer}"

    def _read(self):
        for line in self.process.stdout:
            words = line.split()
            if len(words) > 2 and words[1] in (b"<", b">"):
                # What came while the link was being opened, at no rate of a gripper's.
                if words[-1].startswith(b"@"):
                    words.pop()
                self.events.append((words[1] == b">", bytes.fromhex(b"".join(words[2:]).decode())))
            else:
                self._answers.put(line.decode().rstrip("\n"))


def is_answer_to(request, answer):
    """Whether `answer` is, from its first byte to its last, a valid one to the read `request`."""
    count = int.from_bytes(request[4:6], "big")
    return (
        answer[:3] == bytes([request[0], modbus.READ, 2 * count])
        and len(answer) == 2 * count + 5
        and modbus.with_crc(answer[:-2]) == answer
    )


def begins_with_answer_to(request, answer):
    """The same, but something may follow it."""
    return is_answer_to(request, answer[: 2 * int.from_bytes(request[4:6], "big") + 5])
