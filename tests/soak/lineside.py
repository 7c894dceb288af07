"""The line: its grippers, its disturbances, and a check that the daemon visits the grippers."""

import os
import shutil
import threading
import time
from collections import Counter

from harness.simulator import Simulator

from replies import LONG_PATIENCE, StrictClient

VERSIONS = {9: "TA3-1.6.13", 2: "TE1-2.0.2", 3: "TB1-1.4.3"}
UPGRADED = "TA3-1.6.14"
# The third gripper moves between these two ids.
SPARE = {3: 4, 4: 3}
FAULTS = (
    "deaf", "silent", "late", "exception", "wrongId", "wrongFunction",
    "badCrc", "truncated", "trailing", "noise", "echo",
)
# A lost link, a discovery on all four ids with faults, and a second discovery.
VISIT_LIMIT = 12.0


class SoakLine(Simulator):
    """Counts frames and keeps only the last visit and writes: an hour has too many frames."""

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
        """Returns {slave id: the rest of its line in the output of "show"}."""
        lines = [line.split(maxsplit=2) for line in self.command("show")]
        return {int(words[1]): words[2] for words in lines if words[:1] == ["gripper"]}


def watch_visits(world, line):
    """Judges the time since the last visit. The run calls it once a second."""
    if world.is_suspended():
        return
    since = max(line.last_visit, world.resumed_at())
    gap = time.monotonic() - since
    world.judge_time("visits continue", gap, VISIT_LIMIT, "no visit", since)
    if gap > VISIT_LIMIT:
        # Report the gap once, not every second.
        line.last_visit = time.monotonic()


class Disturber:
    """Frequent faults and hangups, occasional slave id moves and upgrades."""

    def __init__(self, world, line):
        self.world = world
        self.line = line
        self.can_upgrade = shutil.which("stm32flash") is not None and os.path.exists("romflasher")
        parts = [self._faults, self._unplugging, self._moves, self._rescans]
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
            # A run without its disturbances must not pass.
            if not self.world.stopped.is_set():
                self.world.fails("disturbances", f"{part.__name__}: {problem!r}")

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
            with self.world.maintenance, self.world.suspend_judging("unplugged"):
                self.line.unplug()
                self.world.pause(2 * rng.random())
                self.line.plug()
                self.world.count("unplugs")

    def _moves(self, rng):
        pause = 15
        while self.world.pause(pause * (0.5 + rng.random())):
            pause = 90
            with self.world.maintenance, self.world.suspend_judging("slave id move"):
                self._move()

    def _move(self):
        """Moves during polling and scans. After a failure, moves once more without them."""
        self.line.command("clear")
        old = next(n for n in self.line.grippers() if n in SPARE)
        if not self._try_to_move(old, quiet=False):
            return
        if old in self.line.grippers():
            self.world.count("moves repeated")
            # The id may be stored, but takes effect only after a restart.
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
            client.set_expecting(f"SID {old}", ("ack", "nak"))
            if quiet:
                client.set_expecting("MUTE 1")
                self.world.pause(0.5)
            client.set_expecting(f"NID {SPARE[old]}", timeout=LONG_PATIENCE)
            client.set_expecting("MUTE 0")
        # The gripper may still restart.
        self.world.pause(1)
        return True

    def _wait_until_polled(self, client, slave_id):
        """Returns False if the run ends first."""
        deadline = time.monotonic() + LONG_PATIENCE
        while True:
            found, link = client.get_all("SID", "DRI")
            if str(slave_id) in found and link == "RUNNING":
                return True
            assert time.monotonic() < deadline, f"{slave_id} not found on a line without faults"
            # A scan with faults has dropped the gripper, and no other client may scan now.
            if link == "RUNNING" and str(slave_id) not in found:
                client.set_expecting("SCN")
            if not self.world.pause(1.5):
                return False

    def _rescans(self, rng):
        """Requests a scan if a scan with faults has dropped a gripper."""
        with StrictClient(self.world, "completer") as client:
            while self.world.pause(2 + rng.random()):
                if self.world.is_suspended("upgrade"):
                    continue
                found, link = client.get_all("SID", "DRI")
                if link == "RUNNING" and found != listed(self.line.grippers()):
                    self.world.count("incomplete lists")
                    client.set_expecting("SCN")

    def _upgrades(self, rng):
        pause = 40
        while self.world.pause(pause * (0.75 + 0.5 * rng.random())):
            pause = 200
            with self.world.maintenance, self.world.no_scans(), self.world.suspend_judging("upgrade"):
                self._upgrade()

    def _upgrade(self):
        """Upgrades during polling. After a failure, upgrades once more on a silent line."""
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
            client.set_expecting("SID 9", ("ack", "nak"))
            if quiet:
                client.set_expecting("MUTE 1")
                self.world.pause(0.5)
            reply = client.set_expecting("UPG 1", ("ack", "nak"), LONG_PATIENCE)
            while client.get_all("UPG") == ["1"]:
                time.sleep(0.2)
            client.set_expecting("MUTE 0")
            state = self.line.grippers()[9]
            # After a failure the state is unknown, so restart the gripper.
            if not is_upgraded(reply, state):
                self.line.command("restart 9")
        return reply, state


def is_upgraded(reply, state):
    """Returns whether the upgrade succeeded.

    The version alone is not enough: from the second upgrade on, the gripper had it before.
    """
    return reply == "ack" and state.startswith(UPGRADED)


def listed(slave_ids):
    """Returns the ids in the form of GET SID."""
    return "[" + ", ".join(str(n) for n in sorted(slave_ids)) + "]"
