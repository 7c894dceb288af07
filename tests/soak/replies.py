"""The form of every reply, and a client that checks it."""

import re
import time

from harness.client import Client
from harness.protocoltable import rows

from world import InvariantFailed

# The forms of values whose range is a text.
_TEXTS = {
    "SNU": r"SIM-\d{4}",
    "FWV": r"T[ABE]\d-\d+\.\d+\.\d+",
    "VER": r"MZV-2\.0\.0",
    "DRI": r"RUNNING|SCANNING|ERR_TIMEOUT|ERR_SCANNING \(EIO\)",
    "SID": r"\[([1-9](, [1-9])*)?\]",
}
_UNKNOWN = ("NID", "ABC")


class _Numbers:
    """The numbers of a range such as "0, 1" or "000 to 255", with its digits."""

    def __init__(self, text):
        bounds = re.split(r", | to ", text)
        self._digits = len(bounds[0])
        self._least, self._most = int(bounds[0]), int(bounds[-1])

    def matches(self, value):
        return (
            value.isdecimal()
            and self._least <= int(value) <= self._most
            and value == str(int(value)).zfill(self._digits)
        )


class _Text:
    def __init__(self, pattern):
        self._pattern = re.compile(pattern)

    def matches(self, value):
        return self._pattern.fullmatch(value) is not None


class _Form:
    """The form of the reply to one GET."""

    def __init__(self, row):
        self._name = row["name"]
        self._may_be_unknown = row["needsGripper"]
        self._value = _Text(_TEXTS[self._name]) if self._name in _TEXTS else _Numbers(row["range"])

    def fullmatch(self, line):
        name, _, value = line.decode("latin-1").partition(" ")
        if name != self._name or not value.endswith("\n"):
            return False
        value = value[:-1]
        return self._value.matches(value) or (self._may_be_unknown and value == "?")


FORMS = {row["name"]: _Form(row) for row in rows("get")}
FORMS |= {name: re.compile(f"{name} \\?\n".encode()) for name in _UNKNOWN}
NAMES = tuple(FORMS)

# Longer than the search for a bootloader, which blocks the daemon.
PATIENCE = 12.0
# A request that waits for the line may also wait for later requests, which nest inside it.
LONG_PATIENCE = 120.0


class StrictClient(Client):
    """A client that checks the form of every reply. A missing reply fails an invariant too."""

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
        return self._receive_strictly(super().receive, timeout, count)

    def receive_line(self, timeout=None):
        return self._receive_strictly(super().receive_line, timeout)

    def _receive_strictly(self, receive, timeout, *arguments):
        began = time.monotonic()
        try:
            return receive(*arguments, timeout)
        except (AssertionError, OSError) as problem:
            if self.world.worst_stall(began) > 1.0:
                self.world.skip_for_stall("replies")
                raise ConnectionError("the machine stalled") from None
            raise InvariantFailed(f"{self.kind}: {problem}") from None

    def get_all(self, *names):
        """Requests these names in one packet and returns their values."""
        self.send("".join(f"GET {name}\n" for name in names))
        values = []
        for name in names:
            line = self.receive_line()
            if not FORMS[name].fullmatch(line):
                raise InvariantFailed(f"{self.kind}: {line!r} to GET {name}")
            values.append(line[4:-1].decode())
        self.world.passes("replies", len(names))
        return values

    def set_expecting(self, pairs, allowed=("ack",), timeout=None):
        reply = self.set(pairs, timeout)
        if reply not in allowed:
            raise InvariantFailed(f"{self.kind}: {reply!r} to SET {pairs[:60]}")
        self.world.passes("replies")
        return reply
