"""Clients that vanish while their own requests wait for the line."""

import statistics
import time

import pytest
from harness.benches import Bench, benches
from harness.daemon import LOG_LINE, QUIT_LIMIT
from harness.effort import effort
from harness.upgrades import polls_nothing, put_flasher
from harness.waiting import eventually

LEAVES = ("close", "reset", "half_close")
FLASHER = "while ! [ -e go ]; do sleep 0.02; done"


class VanishBench(Bench):
    """A simulated gripper, its daemon, and a client that stays."""

    def __init__(self, start_daemon, connect, folder, with_bad_crc=(2, 3, 4)):
        """The slaves in `with_bad_crc` answer with a wrong CRC, which is faster than silence."""
        others = [f"{slave_id}=TE1-2.0.2" for slave_id in with_bad_crc]
        super().__init__(start_daemon, connect, "9=TA3-1.6.13", *others, cwd=folder)
        for slave_id in with_bad_crc:
            self.line.command(f"fault {slave_id} badCrc always")
        self.ids = [9]
        self.gone = []
        self.waits = []

    def ready(self):
        super().ready()
        # Without the throttle, visits follow each other closely.
        assert self.client.set("THROTTLE 0") == "ack"
        self.line.wait_until_polled(9)
        self.descriptors = len(self.daemon.descriptors())
        return self

    def mute(self):
        """Waits for silence: an open request of a suspended tick would spoil the next one."""
        assert self.client.set("MUTE 1") == "ack"
        eventually(lambda: polls_nothing(self.line, 0.05), what="silence on the line")

    def vanish(self, number, request, wait_for_moment):
        """Client `number` leaves when `wait_for_moment(mark, foreign mark)` returns."""
        leave = LEAVES[number % len(LEAVES)]
        mark, foreign, log_mark = self.line.mark(), len(self.line.foreign), self.daemon.mark()
        client = self.connect()
        client.send(f"SET {request}\n")
        wait_for_moment(mark, foreign)
        getattr(client, leave)()
        if leave == "half_close":
            assert client.receive_to_end(20) == b"ack"
            client.close()
        self.daemon.wait_for_line("socket->deleteLater", log_mark, timeout=20)
        self.gone.append(leave)

    def polled_again(self, slave_id=9):
        started = time.monotonic()
        self.line.wait_until_polled(slave_id)
        self.waits.append(time.monotonic() - started)

    def boot_the_firmware(self):
        """Restarts the gripper, which otherwise stays in its bootloader."""
        self.line.command("restart 9")
        eventually(lambda: self.line.state_of(9) == "firmware")

    def end(self, figure):
        eventually(
            lambda: len(self.daemon.descriptors()) == self.descriptors, 10, self.daemon.descriptors
        )
        assert self.client.get("DRI") == "RUNNING"
        status, seconds = self.daemon.stop()
        # A report of a sanitizer would be a line of another form and change the status.
        assert [line for line in self.daemon.lines if not LOG_LINE.match(line)] == []
        assert status == 0
        assert seconds < QUIT_LIMIT
        counts = ", ".join(f"{self.gone.count(leave)} {leave}" for leave in LEAVES)
        figure(
            f"{len(self.gone)} clients vanished ({counts}); polled again within "
            f"{statistics.median(self.waits):.2f} s (median), {max(self.waits):.2f} s (worst); "
            f"{self.descriptors} descriptors before and after; status {status}"
        )


@pytest.fixture
def make_bench(start_daemon, connect, tmp_path):
    with benches(VanishBench, start_daemon, connect, tmp_path) as make:
        yield make


def test_clients_that_vanish_during_their_scan_leave_nothing(make_bench, figure):
    bench = make_bench()
    for number in range(effort(5, 200)):

        def middle(mark, _, probe=number % 4):
            bench.line.wait_for(lambda r: r.is_read(500), probe + 1, mark)

        bench.vanish(number, "SCN_BLOCK", middle)
        bench.polled_again()
    bench.end(figure)


def restart_requested(bench):
    return lambda mark, _: bench.line.wait_for(lambda r: r.is_write(400), since=mark)


def detection_started(bench):
    """The daemon blocks at this moment, so it notices the end of the client later."""
    return lambda _, foreign: eventually(lambda: len(bench.line.foreign) > foreign)


MOMENTS = (restart_requested, detection_started)


def test_clients_that_vanish_during_their_jump_to_the_bootloader_leave_nothing(make_bench, figure):
    bench = make_bench()
    for number in range(effort(5, 200)):
        bench.mute()
        bench.vanish(number, "BLD 1", MOMENTS[number % 2](bench))
        assert bench.line.state_of(9) == "bootloader"
        bench.boot_the_firmware()
        assert bench.client.set("MUTE 0") == "ack"
        bench.polled_again()
    bench.end(figure)


def test_clients_that_vanish_during_their_upgrade_leave_nothing(make_bench, tmp_path, figure):
    put_flasher(tmp_path, FLASHER)
    bench = make_bench()
    for number in range(effort(5, 200)):
        bench.mute()
        mark = bench.daemon.mark()
        bench.vanish(number, "UPG 1", MOMENTS[number % 2](bench))
        bench.daemon.wait_for_line("upgrade started :  true", mark)
        assert bench.client.get("UPG") == "1"
        bench.boot_the_firmware()
        (tmp_path / "go").touch()
        bench.daemon.wait_for_line("unmuteOnUpgradeFinished", mark)
        (tmp_path / "go").unlink()
        bench.polled_again()
    bench.end(figure)


def test_clients_that_vanish_during_their_slave_id_move_leave_nothing(make_bench, figure):
    """Every second move fails, because the gripper does not receive its new id."""
    bench = make_bench(with_bad_crc=(3, 4))
    here, other = 9, 2
    for number in range(effort(2, 20)):
        bench.mute()
        mark, address = bench.daemon.mark(), 430
        if number % 2:
            bench.line.command(f"fault {here} deaf 1 on writes")
        elif number % 4:
            address = 400

        def middle(mark, _, address=address):
            bench.line.wait_for(lambda r: r.is_write(address), since=mark, timeout=10)

        bench.vanish(number + 1, f"SID {here} NID {other}", middle)
        message = f"update slave id from  {here}  to  {other}"
        messages = [text for text in bench.daemon.messages(mark) if "slave id" in text]
        if number % 2:
            assert messages == ["fail to " + message]
        else:
            assert messages == [message]
            here, other = other, here
        assert bench.client.set(f"MUTE 0 SID {here}") == "ack"
        bench.polled_again(here)
    bench.end(figure)
