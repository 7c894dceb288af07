"""The gripper ends with the acknowledged values on a line that delays, loses and doubles answers.

Writes and reads fail, but seldom enough that the link usually stays open. Scans run in between. A scan
drops a gripper after one failed read, so answers to the reads of a scan are only delayed or doubled.
A SET without a gripper is acknowledged and logged, and has no effect.
"""

import random
import time

import pytest
from harness.effort import effort
from harness.line import Line, Slave
from harness.waiting import eventually

ROUNDS = effort(4, 100)
SETS_A_ROUND = effort(25, 100)
SCAN_EVERY = 2
ACTIVATION, GO_TO = 0x0100, 0x0800
IDENTITY = (500, 514, 510)
# Name: (register, lowest bit, mask, whether a new object takes it from the gripper's echo).
FIELDS = {
    "ACT": (1000, 8, 1, True),
    "GTO": (1000, 11, 1, True),
    "POS": (1001, 0, 255, True),
    "LGN": (1000, 7, 1, False),
    "MSC": (1001, 8, 255, False),
    "SPE": (1002, 8, 255, False),
    "FOR": (1002, 0, 255, False),
}


class Echoing(Slave):
    """Its status shows written values at once."""

    def plain_answer(self, request):
        answer = super().plain_answer(request)
        if request.is_write(1000):
            action, position, _ = request.values
            completed = 0x3000 if action & ACTIVATION else 0
            self.put(2000, action & (ACTIVATION | GO_TO) | completed, position & 0xFF, 0)
        return answer


class Disturbance:
    """A script that disturbs answers while `on` is set, and counts the disturbances."""

    def __init__(self, slave, rng):
        self.slave = slave
        self.rng = rng
        self.on = False
        self.counts = dict.fromkeys(("late", "silent", "lost", "twice"), 0)
        self._bad_writes = 0
        self._status_reads = 0
        self._first_status = False

    def __call__(self, request):
        if request.is_write():
            self._status_reads = 0
            kind = self._kind((0.2, 0.15, 0.1, 0.2)) if self._bad_writes < 3 else None
            self._bad_writes = self._bad_writes + 1 if kind in ("late", "silent", "lost") else 0
            return self._answer(request, kind, 0.06, 0.19)
        if request.address in IDENTITY:
            self._first_status = True
            doubled = 0.4 if request.address == IDENTITY[-1] else 0
            return self._answer(request, self._kind((0.2, 0, 0, doubled)), 0.0, 0.025)
        self._status_reads += request.address == 2000
        kind = self._kind((0.03, 0.02, 0.02, 0.1))
        if self._first_status or self._status_reads > 1:
            kind = None
        if request.address == 604 and kind is None:
            self._first_status = False
            self._status_reads = 0
        return self._answer(request, kind, 0.06, 0.12)

    def _kind(self, shares):
        if not self.on:
            return None
        draw = self.rng.random()
        for kind, share in zip(self.counts, shares):
            draw -= share
            if draw < 0:
                return kind
        return None

    def _answer(self, request, kind, shortest, longest):
        if kind is None:
            return None
        self.counts[kind] += 1
        if kind == "lost":
            return b""
        answer = self.slave.plain_answer(request)
        return {
            "late": [(self.rng.uniform(shortest, longest), answer)],
            "silent": b"",
            "twice": [(0.0, answer), (self.rng.uniform(0.002, 0.06), answer)],
        }[kind]


class Bench:
    """Line, daemon and clients, and the values that the gripper must have at the end."""

    def __init__(self, line, daemon, connect, rng):
        self.line = line
        self.daemon = daemon
        self.rng = rng
        self.client, self.scanning = connect(), connect()
        self.disturbance = line[9].script = Disturbance(line[9], rng)
        self.expected = {}
        self.scans = 0
        self.sets = 0
        self.lost_links = 0

    def set_something(self):
        """Returns the text of the SET and its values."""
        names = self.rng.sample(list(FIELDS), self.rng.randint(1, 3))
        pairs = {name: self.rng.randint(0, FIELDS[name][2]) for name in names}
        text = " ".join(f"{name} {value}" for name, value in pairs.items())
        assert self.client.set(text) == "ack"
        self.sets += 1
        time.sleep(self.rng.uniform(0.0, 0.03))
        return text, pairs

    def begin_scan(self):
        mark = self.line.mark()
        self.scanning.send("SET SCN_BLOCK\n")
        self.line.wait_for(lambda r: r.is_read(500), 1, mark)
        self.scans += 1

    def run_round(self, scan_at):
        log_mark = self.daemon.mark()
        self.disturbance.on = True
        events = []
        for index in range(SETS_A_ROUND):
            if index == scan_at:
                self.begin_scan()
                events.append(None)
            events.append(self.set_something())
        if scan_at is not None:
            assert self.scanning.receive(3, timeout=20) == b"ack"
        self.disturbance.on = False
        eventually(lambda: self.client.get("SID") == "[9]" and self.client.get("DRI") == "RUNNING")
        time.sleep(1.0)
        self._expect(events, log_mark)

    def _expect(self, events, log_mark):
        """Adds the values of the SETs that had a gripper. The event None is a scan."""
        messages = self.daemon.messages(log_mark)
        without_gripper = [m for m in messages if m.startswith("SET UNHANDLED REQUEST")]
        self.lost_links += any(m.endswith("fail counter:  5") or m == "()" for m in messages)
        for event in events:
            if event is None:
                self._expect_a_new_object()
                continue
            text, pairs = event
            if without_gripper[:1] == [f'SET UNHANDLED REQUEST : "SET {text}\\n"']:
                del without_gripper[: len(pairs)]
                self._expect_a_new_object()
            else:
                self.expected.update(pairs)
        assert not without_gripper

    def _expect_a_new_object(self):
        """A new object starts with 0 in written fields that the gripper does not echo."""
        self.expected = {n: v for n, v in self.expected.items() if FIELDS[n][3]}

    def present(self):
        output = dict(zip((1000, 1001, 1002), self.line[9].get(1000, 3)))
        return {n: output[FIELDS[n][0]] >> FIELDS[n][1] & FIELDS[n][2] for n in self.expected}


@pytest.mark.parametrize("pace", ["THROTTLE 1", "THROTTLE 0"])
def test_the_gripper_ends_with_what_was_acknowledged_last(start_daemon, connect, figure, pace):
    rng = random.Random(pace)
    with Line(Echoing(9)) as line:
        bench = Bench(line, start_daemon().wait_until_found(9), connect, rng)
        assert bench.client.set(pace) == "ack"
        for number in range(ROUNDS):
            scan_at = rng.randrange(SETS_A_ROUND) if number % SCAN_EVERY == 0 else None
            bench.run_round(scan_at)
            assert bench.present() == bench.expected, f"round {number}, scan at {scan_at}"
        failed = len([m for m in bench.daemon.messages() if "fail counter" in m])
    counts = bench.disturbance.counts
    figure(
        f"{pace}: {bench.sets} SETs, {bench.scans} scans, {failed} attempts failed, "
        f"{bench.lost_links} of {ROUNDS} rounds lost the link; "
        + ", ".join(f"{count} {kind}" for kind, count in counts.items())
    )
    assert sum(counts.values()) > 0
