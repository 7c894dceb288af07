"""The line: its grippers, what is done to them, and whether the daemon keeps visiting them."""

import os
import shutil
import threading
import time
from collections import Counter

from harness.simulator import Simulator

from replies import LONG_PATIENCE, StrictClient

VERSIONS = {9: "TA3-1.6.13", 2: "TE1-2.0.2", 3: "TB1-1.4.3"}
UPGRADED = "TA3-1.6.14"
# The id to which the third gripper is moved, and from which it is moved back.
SPARE = {3: 4, 4: 3}
FAULTS = (
    "deaf", "silent", "late", "exception", "wrongId", "wrongFunction",
    "badCrc", "truncated", "trailing", "noise", "echo",
)
# A link that is lost, a discovery on all four ids under faults, and another one behind it.
VISIT_LIMIT = 12.0


class SoakLine(Simulator):
    """Keeps of the traffic what an hour has room for: how much, and when the last visits were."""

    def __init__(self):
        self.frames = Counter()
        self.last_visit = time.monotonic()
        self.last_write = {}
        self._commanding = threading.Lock()
        grippers = [f"{n}={v}" for n, v in VERSIONS.items()]
        super().__init__(*grippers, "--boot-ms=300", "--bootloader-boot-ms=100")

    def command(self, command):
        with self._commanding:
            return super().command(command)

    def _read(self):
        for line in self.process.stdout:
            words = line.split()
            if len(words) < 3 or words[1] not in (b"<", b">"):
                self._answers.put(line.decode().rstrip("\n"))
                continue
            self.frames[words[1].decode()] += 1
            if words[1] == b">" and len(words) > 9:
                self._note(words)

    def _note(self, words):
        block = b"".join(words[3:6])
        if block == b"0307d0":
            self.frames["visits"] += 1
            self.last_visit = time.monotonic()
        elif block == b"1003e8":
            self.frames["writes"] += 1
            self.last_write[int(words[2], 16)] = bytes.fromhex(b"".join(words[9:15]).decode())

    def grippers(self):
        """Slave id -> the rest of its line."""
        lines = [line.split(maxsplit=2) for line in self.command("show")]
        return {int(words[1]): words[2] for words in lines if words[:1] == ["gripper"]}


def watch_visits(world, line):
    """Called once a second."""
    if world.excused():
        return
    since = max(line.last_visit, world.last_excuse())
    gap = time.monotonic() - since
    world.judge_time("visits go on", gap, VISIT_LIMIT, "no visit", since)
    if gap > VISIT_LIMIT:
        # Said once, not once a second.
        line.last_visit = time.monotonic()


class Disturber:
    """Faults and unplugging all the time, moves and upgrades now and then."""

    def __init__(self, world, line):
        self.world = world
        self.line = line
        self.can_upgrade = shutil.which("stm32flash") is not None and os.path.exists("romflasher")
        parts = [self._faults, self._unplugging, self._moves, self._completing]
        if self.can_upgrade:
            parts.append(self._upgrades)
        self.threads = [
            threading.Thread(target=self._run, args=(part,), daemon=True) for part in parts
        ]
        for thread in self.threads:
            thread.start()

    def _run(self, part):
        rng = self.world.random(part.__name__)
        try:
            part(rng)
        except Exception as problem:
            # Whatever it is, the run must not go on without its disturbances and call that success.
            if not self.world.stopped.is_set():
                self.world.breaks("disturbances", f"{part.__name__}: {problem!r}")

    def _faults(self, rng):
        while self.world.pause(2 + 4 * rng.random()):
            with self.world.maintenance:
                slave_id = rng.choice(list(self.line.grippers()))
                if rng.random() < 0.4:
                    self.line.command("clear")
                else:
                    self.line.command(f"fault {slave_id} {rng.choice(FAULTS)} {rng.randrange(1, 11)}%")
                    self.world.count("faults set")

    def _unplugging(self, rng):
        while self.world.pause(10 + 20 * rng.random()):
            with self.world.maintenance, self.world.excuse("unplugged"):
                self.line.command("unplug")
                self.world.pause(2 * rng.random())
                self.line.command("plug")
                self.world.count("unplugs")

    def _moves(self, rng):
        pause = 15
        while self.world.pause(pause * (0.5 + rng.random())):
            pause = 90
            with self.world.maintenance, self.world.excuse("slave id move"):
                self._move()

    def _move(self):
        """Like an upgrade: straight into polling and scans, and if those have spoilt it, once more
        without them."""
        self.line.command("clear")
        old = next(n for n in self.line.grippers() if n in SPARE)
        if not self._try_to_move(old, quiet=False):
            return
        if old in self.line.grippers():
            self.world.count("moves repeated")
            # The id may be stored and not be in force yet; asked for once more, it counts as done.
            self.line.command(f"restart {old}")
            self.world.pause(1)
        if old in self.line.grippers():
            with self.world.no_scans():
                if not self._try_to_move(old, quiet=True):
                    return
        ids = sorted(self.line.grippers())
        self.world.judge("moves", SPARE[old] in ids, f"from {old} to {SPARE[old]}: there are {ids}")
        self.world.count("moves")

    def _try_to_move(self, old, quiet):
        with StrictClient(self.world, "mover") as client:
            if not self._wait_until_polled(client, old):
                return False
            client.order(f"SID {old}", ("ack", "nak"))
            if quiet:
                client.order("MUTE 1")
                self.world.pause(0.5)
            client.order(f"NID {SPARE[old]}", timeout=LONG_PATIENCE)
            client.order("MUTE 0")
        # It may still be on its way through the restart.
        self.world.pause(1)
        return True

    def _wait_until_polled(self, client, slave_id):
        """False when the run is over first."""
        deadline = time.monotonic() + LONG_PATIENCE
        while True:
            found, link = client.ask_for("SID", "DRI")
            if str(slave_id) in found and link == "RUNNING":
                return True
            assert time.monotonic() < deadline, f"{slave_id} not found on a line without faults"
            # A scan under faults has dropped it, and nobody else may ask for one now.
            if link == "RUNNING" and str(slave_id) not in found:
                client.order("SCN")
            if not self.world.pause(1.5):
                return False

    def _completing(self, rng):
        """Asks for a scan when one that met a fault has dropped a gripper."""
        with StrictClient(self.world, "completer") as client:
            while self.world.pause(2 + rng.random()):
                if self.world.excused("upgrade"):
                    continue
                found, link = client.ask_for("SID", "DRI")
                if link == "RUNNING" and found != listed(self.line.grippers()):
                    self.world.count("incomplete lists")
                    client.order("SCN")

    def _upgrades(self, rng):
        pause = 40
        while self.world.pause(pause * (0.75 + 0.5 * rng.random())):
            pause = 200
            with self.world.maintenance, self.world.no_scans(), self.world.excuse("upgrade"):
                self._upgrade()

    def _upgrade(self):
        """Straight into the polling, where the answer to the reset may be taken by what it has
        interrupted; if that is what happens, once more on a quiet line."""
        self.line.command("clear")
        for quiet in (False, True):
            reply, state = self._attempt(quiet)
            if reply is None or is_upgraded(reply, state):
                break
            self.world.count("upgrades repeated")
        if reply is not None:
            self.world.judge("upgrades", is_upgraded(reply, state), f"{reply}, then {state}")
            self.world.count("upgrades")

    def _attempt(self, quiet):
        with StrictClient(self.world, "upgrader") as client:
            if not self._wait_until_polled(client, 9):
                return None, ""
            client.order("SID 9", ("ack", "nak"))
            if quiet:
                client.order("MUTE 1")
                self.world.pause(0.5)
            reply = client.order("UPG 1", ("ack", "nak"), LONG_PATIENCE)
            while client.ask_for("UPG") == ["1"]:
                time.sleep(0.2)
            client.order("MUTE 0")
            state = self.line.grippers()[9]
            # Wherever that has left it: its power is switched off and on.
            if not is_upgraded(reply, state):
                self.line.command("restart 9")
        return reply, state


def is_upgraded(reply, state):
    """From the second time on it had that firmware before: refused, it may be on its way into its
    bootloader all the same, and shows the firmware still."""
    return reply == "ack" and state.startswith(UPGRADED)


def listed(slave_ids):
    """As GET SID tells it."""
    return "[" + ", ".join(str(n) for n in sorted(slave_ids)) + "]"
