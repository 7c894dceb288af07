"""The form of every reply, and clients that insist on it."""

import re
import time

from harness.client import Client

from world import Broken

_BYTE = r"(25[0-5]|2[0-4]\d|1?\d?\d|\?)"
_FORMS = {name: _BYTE for name in (
    "ACT MOD GTO STA VST OBJ LBP LGN LRD LBL MSC POS COU SPE FOR".split()
)}
_FORMS |= {
    "FLT": r"(0\d|1[0-5]|\?)",
    "PRE": r"([01]\d\d|2[0-4]\d|25[0-5]|\?)",
    "DST": "0",
    "PCO": "0",
    "SNU": r"(SIM-\d{4}|\?)",
    "PYE": r"(2024|\?)",
    "NCY": r"(\d{1,10}|\?)",
    "PON": r"(\d{1,10}|\?)",
    "NPA": r"(\d{1,10}|\?)",
    "FWV": r"(T[ABE]\d-\d+\.\d+\.\d+|\?)",
    "VER": r"MZV-2\.0\.0",
    "DRI": r"(RUNNING|SCANNING|ERR_TIMEOUT|ERR_SCANNING \(EIO\))",
    "SID": r"\[([1-9](, [1-9])*)?\]",
    "UPG": "[01]",
    "NID": r"\?",
    "ABC": r"\?",
}
FORMS = {name: re.compile(f"{name} {form}\n".encode()) for name, form in _FORMS.items()}
NAMES = tuple(FORMS)

# Longer than a bootloader is looked for, which blocks the daemon.
PATIENCE = 12.0
# What waits for the line may have to wait for others that came after it.
LONG_PATIENCE = 120.0


class StrictClient(Client):
    """Every reply is judged by its form; a reply that does not come breaks an invariant, too."""

    def __init__(self, world, kind):
        super().__init__(timeout=PATIENCE)
        self.world = world
        self.kind = kind
        world.count("connections")
        world.client_opened(1)

    def close(self):
        if self.socket.fileno() >= 0:
            self.world.client_opened(-1)
        super().close()

    def reset(self):
        self.world.client_opened(-1)
        super().reset()

    def receive(self, count, timeout=None):
        return self._insist(super().receive, timeout, count)

    def receive_line(self, timeout=None):
        return self._insist(super().receive_line, timeout)

    def _insist(self, receive, timeout, *arguments):
        asked = time.monotonic()
        try:
            return receive(*arguments, timeout)
        except (AssertionError, OSError) as problem:
            if self.world.worst_stall(asked) > 1.0:
                self.world.forgive("replies")
                raise ConnectionError("the machine stood still") from None
            raise Broken(f"{self.kind}: {problem}") from None

    def ask_for(self, *names):
        """The values of these names, asked for in one packet."""
        self.send("".join(f"GET {name}\n" for name in names))
        values = []
        for name in names:
            line = self.receive_line()
            if not FORMS[name].fullmatch(line):
                raise Broken(f"{self.kind}: {line!r} to GET {name}")
            values.append(line[4:-1].decode())
        self.world.holds("replies", len(names))
        return values

    def order(self, pairs, allowed=("ack",), timeout=None):
        reply = self.set(pairs, timeout)
        if reply not in allowed:
            raise Broken(f"{self.kind}: {reply!r} to SET {pairs[:60]}")
        self.world.holds("replies")
        return reply
