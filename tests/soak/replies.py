"""The form of every reply, and clients that insist on it."""

import re
import time

from harness.client import Client
from harness.protocoltable import rows

from world import Broken

# The forms of the values whose range is a text.
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
