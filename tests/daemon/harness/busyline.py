"""A program that runs operations on the polled line of one daemon.

    python3 -m harness.busyline LATENCY_MS GRIPPERS SEED OPERATION=COUNT...

It runs the operations in a random order at random moments and prints the tally as JSON. The
grippers answer after LATENCY_MS.
"""

import collections
import json
import pathlib
import random
import sys
import tempfile
import time

from . import modbus
from .client import Client
from .daemon import Daemon
from .simulator import Simulator
from .stalls import STALL_LIMIT, StallWatch
from .upgrades import put_flasher
from .waiting import eventually

IDS = {1: [9], 3: [2, 3, 9], 4: [2, 3, 4, 9]}
SCANNED_IDS = {2, 3, 4, 9}
ROM_BOOTLOADER = 0x2A00
SYNC = 0x7F
QUICK = ["--boot-ms=100", "--bootloader-boot-ms=50"]
LONGEST_PAUSE = 0.15
RESTART_SECONDS = 0.5


def deadline(request):
    return (32 + 10 * request.count) / 1000


class WatchedLine(Simulator):
    """Records in `overlaps` each request that begins before the former one has ended."""

    def __init__(self, *arguments):
        self.overlaps = []
        self._awaited = None
        self._is_jumping = False
        super().__init__(*arguments)

    def _read(self):
        for line in self.process.stdout:
            text = line.decode().rstrip("\n")
            words = text.split()
            if len(words) <= 2 or words[1] not in "<>":
                self._answers.put(text)
                continue
            rate = words.pop() if words[-1].startswith("@") else None
            at, frame = float(words[0]) / 1000, bytes.fromhex("".join(words[2:]))
            if rate is not None:
                self._judge_detection(text, words[1], frame)
            elif words[1] == "<":
                self._judge_answer(text, frame)
            else:
                self._judge_request(text, at, frame)

    def _judge_detection(self, text, direction, frame):
        if direction == ">" and set(frame) != {SYNC}:
            self.overlaps.append(text)

    def _judge_answer(self, text, frame):
        request = self._awaited
        if request is not None and frame[:2] != bytes([request.slave, request.function]):
            self.overlaps.append(text)
        self._awaited = None

    def _judge_request(self, text, at, frame):
        request, used = modbus.cut_request(bytearray(frame), at)
        if request is None or used != len(frame):
            self.overlaps.append(text)
            return
        before, self._awaited = self._awaited, request
        # `at` is the time of the simulator's read, which may be later than the arrival.
        if before is not None and at - before.at < deadline(before) - STALL_LIMIT:
            self.overlaps.append(f"{text}, {(at - before.at) * 1000:.0f} ms after the former one")
        # Only the detection uses the line from the reset to the end of the jump.
        if self._is_jumping:
            self.overlaps.append("during a jump: " + text)
        self._is_jumping = request.is_write(400) and request.values == [ROM_BOOTLOADER]
        self.keep(request)

    def end_jump(self):
        self.command("show")
        self._is_jumping = False


class BusyLine:
    def __init__(self, latency_ms, grippers, folder):
        self.ids = list(IDS[grippers])
        self.latency_ms = latency_ms
        self.line = WatchedLine(*[f"{i}=TA3-1.6.13" for i in self.ids], *QUICK)
        self._delay_answers()
        put_flasher(folder, "exit 0")
        self.daemon = Daemon(cwd=folder).wait_until_listening()
        self.daemon.wait_until_found(*self.ids)
        self.client = Client(timeout=30)

    def _delay_answers(self):
        if self.latency_ms:
            for slave_id in self.ids:
                self.line.command(f"fault {slave_id} late always {self.latency_ms}")

    def end(self):
        self.client.close()
        assert self.daemon.stop()[0] == 0
        self.line.__exit__()

    def select(self):
        slave_id = random.choice(self.ids)
        assert self.client.set(f"SID {slave_id}") == "ack"
        time.sleep(random.uniform(0, LONGEST_PAUSE))
        return slave_id

    def scan(self):
        mark = self.daemon.mark()
        self.select()
        self._expect_all_found(self.client.set("SCN_BLOCK"), mark)

    def move(self):
        mark = self.daemon.mark()
        old = self.select()
        new = random.choice(sorted(SCANNED_IDS - set(self.ids)))
        reply = self.client.set(f"NID {new}")
        self.ids = sorted({*self.ids, new} - {old})
        self._expect_all_found(reply, mark)
        assert f"update slave id from  {old}  to  {new}" in self.daemon.messages(mark)

    def _expect_all_found(self, reply, mark):
        assert reply == "ack", reply
        found = self.client.get("SID")
        assert found == str(self.ids), f"found {found}: {self.daemon.messages(mark)}"
        self.wait_until_visited()
        failures = [m for m in self.daemon.messages(mark) if "fail" in m]
        assert failures == [], failures

    def jump(self):
        slave_id = self.select()
        assert self.client.set("BLD 1") == "ack", "refused"
        self.line.end_jump()
        self._restart(slave_id)

    def upgrade(self):
        mark = self.daemon.mark()
        slave_id = self.select()
        reply = self.client.set("UPG 1")
        # The flasher may have ended already, and polling may have resumed.
        self.line.end_jump()
        assert reply == "ack", "refused"
        self.daemon.wait_for_line("unmuteOnUpgradeFinished", mark)
        self._restart(slave_id)

    def _restart(self, slave_id):
        self.line.command(f"restart {slave_id}")
        self.recover()

    def recover(self):
        """Returns when the daemon polls all grippers again."""
        assert self.client.set("MUTE 0") == "ack"
        eventually(self._scan_finds_all, timeout=30)
        self.wait_until_visited()

    def _scan_finds_all(self):
        return self.client.set("SCN_BLOCK") == "ack" and self.client.get("SID") == str(self.ids)

    def wait_until_visited(self):
        mark = self.line.mark()
        for slave_id in self.ids:
            self.line.wait_for(lambda r, i=slave_id: r.slave == i and r.is_read(2000), 2, mark, 10)

    def repair(self):
        """Restarts the grippers after a failed operation: a stored id takes effect only then."""
        self.line.end_jump()
        for slave_id in self._shown_ids():
            self.line.command(f"restart {slave_id}")
        time.sleep(RESTART_SECONDS)
        self.ids = self._shown_ids()
        self.recover()

    def _shown_ids(self):
        shown = [s.split()[1] for s in self.line.command("show") if s.startswith("gripper ")]
        return sorted(int(slave_id) for slave_id in shown)


OPERATIONS = {
    "SCN_BLOCK": BusyLine.scan,
    "NID": BusyLine.move,
    "BLD": BusyLine.jump,
    "UPG": BusyLine.upgrade,
}


def run(latency_ms, grippers, plan, folder):
    """Returns a tally of the operations. Failures during a stall of the machine have their own list."""
    watch = StallWatch()
    busy = BusyLine(latency_ms, grippers, folder)
    tally = {"done": collections.Counter(), "failed": [], "stalled": []}
    random.shuffle(plan)
    for name in plan:
        watch.reset_worst()
        before = len(busy.line.overlaps)
        failure = ""
        try:
            OPERATIONS[name](busy)
        except AssertionError as error:
            failure = str(error)
            busy.repair()
        overlaps = busy.line.overlaps[before:]
        if failure or overlaps:
            has_stalled = watch.worst() >= STALL_LIMIT
            tally["stalled" if has_stalled else "failed"].append([name, failure, overlaps[:5]])
        else:
            tally["done"][name] += 1
    tally["requests"] = busy.line.mark()
    busy.end()
    return tally


def main(latency_ms, grippers, seed, *counts):
    random.seed(int(seed))
    plan = []
    for count in counts:
        name, number = count.split("=")
        plan += [name] * int(number)
    with tempfile.TemporaryDirectory() as folder:
        print(json.dumps(run(int(latency_ms), int(grippers), plan, pathlib.Path(folder))))


if __name__ == "__main__":
    main(*sys.argv[1:])
