"""A simulator that keeps all requests and answers on its line."""

import queue
import threading

from . import modbus
from .simulator import Simulator


class RecordingSimulator(Simulator):
    """`events` has (is from the master, bytes) in the order of the line.

    Any thread may send commands.
    """

    def __init__(self, *arguments, **options):
        self.events = []
        self._commanding = threading.Lock()
        super().__init__(*arguments, **options)

    def command(self, command):
        with self._commanding:
            return super().command(command)

    def command_all(self, commands):
        """Sends all commands at once. Each must be answered by a plain "ok"."""
        with self._commanding:
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
                # Bytes that are not Modbus have the baud rate as a last word.
                if words[-1].startswith(b"@"):
                    words.pop()
                self.events.append((words[1] == b">", bytes.fromhex(b"".join(words[2:]).decode())))
            else:
                self._answers.put(line.decode().rstrip("\n"))


def is_answer_to(request, answer):
    """Returns whether the whole of `answer` is a valid answer to the read `request`."""
    count = int.from_bytes(request[4:6], "big")
    return (
        answer[:3] == bytes([request[0], modbus.READ, 2 * count])
        and len(answer) == 2 * count + 5
        and modbus.with_crc(answer[:-2]) == answer
    )


def begins_with_answer_to(request, answer):
    """As is_answer_to(), but other bytes may follow the answer."""
    return is_answer_to(request, answer[: 2 * int.from_bytes(request[4:6], "big") + 5])
