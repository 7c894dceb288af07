"""The Python client library with a scripted daemon that misbehaves in every exchange."""

import collections
import contextlib
import random
import time

import pytest
from harness.effort import effort
from harness.processor import seconds_without_processor
from harness.pythonclient import FLAVOURS, Loop, blocking, new_line
from harness.scriptedreplies import ScriptedReplies

SCHEDULES = effort(1000, 100_000)
# A new seed for each part keeps a failure short to repeat.
PART = 500
GRACE = 0.05
LONGEST = 0.04
WATCH_RATE = 1000
# A period, then a look for grippers and a read of one.
WATCH_LIMIT = 1 / WATCH_RATE + 2 * LONGEST
COMMUNICATION = (blocking.ConnectionLost, blocking.TimedOut, blocking.ProtocolError)


class Schedule:
    """Random calls on one gripper, and the judgement about each."""

    def __init__(self, seed, script, line):
        self.random = random.Random(-seed)
        self.script = script
        self.line = line
        self.gripper = None
        self.watched = line.watch(rate=WATCH_RATE)
        self.set_lines = 0
        # The SETs that the calls so far may have sent.
        self.allowed = collections.Counter()
        self.longest = 0.0
        self.outcomes = {}

    def run(self, calls):
        for _ in range(calls):
            call = self.random.choice([self.image, self.image, self.get, self.set, self.set, self.ids, self.command,
                                       self.scan, self.new_gripper, self.running, self.watch])
            timeout = WATCH_LIMIT if call == self.watch else self.random.uniform(0.005, LONGEST)
            waited, started = seconds_without_processor("self"), time.monotonic()
            try:
                outcome = call(timeout)
            except blocking.GripperError as error:
                outcome = type(error).__name__
            late = time.monotonic() - started - timeout
            if late >= GRACE:
                # A busy machine delays this process, whatever the library does.
                late -= seconds_without_processor("self") - waited
            assert late < GRACE, f"{call.__name__} ended {late * 1000:.0f} ms after its deadline"
            self.longest = max(self.longest, late)
            self.outcomes[outcome] = self.outcomes.get(outcome, 0) + 1

    def close(self):
        self.watched.close()
        if self.gripper is not None:
            self.gripper.disconnect()

    def addressed(self, timeout):
        """The gripper, also if the daemon closes the connection while it selects it."""
        if self.gripper is None:
            self.gripper = self.line.gripper(9, timeout)
        return self.gripper

    def image(self, timeout):
        gripper = self.addressed(timeout)
        before = self.script.batches
        image = gripper.image(timeout)
        self.assert_own(image.cycles, before)
        assert (image.serial_number, image.position) == ("ABC-007", 0)
        return "image"

    def get(self, timeout):
        gripper = self.addressed(timeout)
        before = self.script.batches
        self.assert_own(int(gripper.get("NCY", timeout)), before)
        return "value"

    def assert_own(self, number, before):
        """On a busy machine, the script receives the last request of a former connection late, and counts it, too."""
        assert before < number <= self.script.batches, "the reply to an earlier request"

    def ids(self, timeout):
        before = self.script.batches
        assert self.line.grippers(timeout) == (9,)
        assert self.script.batches > before
        return "ids"

    def set(self, timeout):
        self.set_lines += 1
        pairs = {"MUTE": self.set_lines % 256, "THROTTLE": self.set_lines // 256 % 256}
        line = "SET " + " ".join(f"{name} {value}" for name, value in pairs.items())
        gripper = self.addressed(timeout)
        self.allowed[line] += 1
        try:
            gripper.set(pairs, timeout)
        except blocking.Refused:
            assert self.script.sets[line] == [b"nak"]
            return "nak"
        except COMMUNICATION as error:
            # Nothing is unknown only if the request was never sent.
            assert error.unknown == line or line not in self.script.sets
            assert error.unknown in (None, line)
            raise
        assert self.script.sets[line] == [b"ack"]
        return "ack"

    def command(self, timeout):
        gripper = self.addressed(timeout)
        self.set_lines += 1
        position, speed = self.set_lines % 256, self.set_lines // 256 % 256
        commands = {
            "move": [f"SET POS {position} SPE {speed} FOR 9 GTO 1"],
            "activate": ["SET ACT 0 GTO 0", "SET GTO 0 ACT 1"],
            "deactivate": ["SET ACT 0 GTO 0"],
            "stop": ["SET GTO 0"],
            "release": ["SET ARD 0 ATR 1"],
            "led": ["SET LBP 1 LRD 1 LGN 0 LBL 1"],
        }
        words = {"move": [position, speed, 9], "activate": [True], "led": [True, False, True]}
        name = self.random.choice([*commands, "led", "led", "led"])
        self.allowed.update(commands[name])
        try:
            getattr(gripper, name)(*words.get(name, []), timeout=timeout)
        except COMMUNICATION as error:
            assert error.unknown in (None, *commands[name])
            raise
        return "command"

    def scan(self, timeout):
        self.allowed["SET SCN_BLOCK 1"] += 1
        assert self.line.scan(timeout) == (9,)
        return "ids"

    def new_gripper(self, timeout):
        with self.line.gripper(9, timeout):
            return "gripper"

    def running(self, timeout):
        self.line.wait_until_running([9], timeout)
        return "running"

    def watch(self, _timeout):
        item = next(self.watched)
        return "outage" if isinstance(item, blocking.Outage) else "watched"


@pytest.mark.parametrize("flavour", FLAVOURS)
def test_every_call_ends_in_time_and_has_its_own_reply(flavour, figure):
    outcomes, longest, sets = {}, 0.0, 0
    with Loop() as loop:
        for seed in range(SCHEDULES // PART):
            with ScriptedReplies(seed) as script:
                with new_line(flavour, loop, "127.0.0.1", script.port, timeout=LONGEST) as line:
                    with contextlib.closing(Schedule(seed, script, line)) as schedule:
                        schedule.run(PART)
                assert script.failures == []
                seen = collections.Counter({line: len(replies) for line, replies in script.sets.items()})
                assert seen - schedule.allowed == {}, f"seed {seed}"
                sets += sum(seen.values())
            longest = max(longest, schedule.longest)
            for outcome, count in schedule.outcomes.items():
                outcomes[outcome] = outcomes.get(outcome, 0) + count
    wanted = {"image", "value", "ids", "ack", "nak", "command", "gripper", "running", "watched", "outage"}
    wanted |= {"Refused", "GripperMissing", "ConnectionLost", "TimedOut", "ProtocolError"}
    assert wanted <= set(outcomes), outcomes
    counts = ", ".join(f"{count} {outcome}" for outcome, count in sorted(outcomes.items()))
    figure(f"{SCHEDULES} calls: {counts}; latest {longest * 1000:.1f} ms after its deadline; 0 of {sets} SETs sent twice")
