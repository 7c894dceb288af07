"""Jumps into the bootloader: the writes, the search for the bootloader, the replies."""

import time

import pytest
from harness.benches import Bench, benches
from harness.upgrades import polls_nothing
from harness.waiting import eventually

ROM, OWN = 0x2A00, 0x3500
SYNC = b"\x7f"


class JumpBench(Bench):
    def silence(self):
        """Mutes polling, so the jump is the only traffic on the line."""
        assert self.client.set("MUTE 1") == "ack"
        eventually(lambda: polls_nothing(self.line, 0.15))

    def jump(self):
        self.mark, self.foreign_mark = self.line.mark(), len(self.line.foreign)
        return self.client.set("BLD 1", timeout=20)

    def resets(self):
        return [(r.slave, r.values) for r in self.line.since(self.mark, lambda r: r.is_write(400))]

    def sync_bytes(self):
        """Returns (byte, rate) of all bytes since the jump that are not Modbus."""
        # The simulator answers after all trace lines that it has printed before.
        self.line.command("show")
        since = self.foreign_mark
        pairs = zip(self.line.foreign[since:], self.line.foreign_rates[since:])
        return [(data[n : n + 1], rate) for data, rate in pairs for n in range(len(data))]


@pytest.fixture
def make_bench(start_daemon, connect):
    with benches(JumpBench, start_daemon, connect) as make:
        yield make


@pytest.mark.parametrize(
    "gripper, word, rate",
    [
        ("9=TA3-1.6.14", ROM, 19200),
        ("9=TB1-1.4.3", ROM, 19200),
        ("9=TE1-2.0.2", OWN, 115200),
        ("9=TF1-2.0.2", OWN, 115200),
    ],
    ids=["TA", "TB", "TE", "TF"],
)
def test_jumps_into_the_bootloader_of_the_family(make_bench, gripper, word, rate):
    bench = make_bench(gripper)
    bench.silence()
    assert bench.jump() == "ack"
    assert bench.resets() == [(9, [word])]
    assert set(bench.sync_bytes()) == {(SYNC, rate)}
    assert bench.line.state_of(9) == "bootloader"
    # The link is closed, and polling is muted.
    assert not any("/dev/pts/" in name for name in bench.daemon.descriptors())
    bench.line.command("restart 9")
    assert polls_nothing(bench.line, 1.0)
    assert bench.client.set("MUTE 0") == "ack"
    bench.line.wait_until_polled(9, 2)


def test_a_jump_mutes_polling_by_itself(make_bench):
    bench = make_bench()
    assert bench.jump() == "ack"
    bench.line.command("restart 9")
    eventually(lambda: bench.line.state_of(9) == "firmware")
    time.sleep(0.1)
    assert polls_nothing(bench.line, 1.0)


def test_a_gripper_in_its_bootloader_gets_no_reset_and_polling_stays_on(make_bench):
    bench = make_bench()
    bench.silence()
    assert bench.jump() == "ack"
    assert bench.jump() == "ack"
    assert bench.resets() == []
    assert set(bench.sync_bytes()) == {(SYNC, 19200)}
    assert bench.client.set("MUTE 0") == "ack"
    # Polling is not muted, so the next discovery drops the gripper.
    eventually(lambda: bench.client.get("SID") == "[]")


def test_the_first_reset_value_of_the_process_is_used_for_all_families(make_bench):
    bench = make_bench("9=TA3-1.6.14", "2=TE1-2.0.2")
    bench.silence()
    assert bench.jump() == "ack"
    bench.line.command("restart 9")
    eventually(lambda: bench.line.state_of(9) == "firmware")
    assert bench.client.set("MUTE 0") == "ack"
    bench.daemon.wait_until_found(2, 9, since=bench.daemon.mark())
    assert bench.client.set("SID 2") == "ack"
    bench.silence()
    assert bench.jump() == "ack"
    # The right word is 0x3500. The rate is nevertheless that of the gripper's own bootloader.
    assert bench.resets() == [(2, [ROM])]
    assert set(bench.sync_bytes()) == {(SYNC, 115200)}


def test_a_negative_acknowledge_counts_as_a_bootloader(make_bench):
    """Once synchronised, the simulated bootloader answers further bytes with 0x1F."""
    bench = make_bench()
    bench.silence()
    assert bench.jump() == "ack"
    assert bench.jump() == "ack"
    assert bench.resets() == []
    # The bootloader reads the first byte as half a command, and the second completes a wrong one.
    # An answer after more than 50 ms costs one more byte.
    assert len(bench.sync_bytes()) >= 2


def test_an_answer_of_two_bytes_is_refused(make_bench):
    bench = make_bench()
    bench.silence()
    bench.line.command("fault 9 doubleAck always")
    assert bench.jump() == "nak"
    assert len(bench.sync_bytes()) == 51


def test_a_silent_bootloader_is_refused_after_51_attempts_and_polling_is_muted(make_bench):
    bench = make_bench()
    bench.silence()
    bench.line.command("fault 9 silentBootloader always")
    started = time.monotonic()
    assert bench.jump() == "nak"
    assert time.monotonic() - started < 51 * 0.1 + 0.5
    assert bench.sync_bytes() == [(SYNC, 19200)] * 51
    assert bench.resets() == [(9, [ROM])]
    bench.line.command("restart 9")
    assert polls_nothing(bench.line, 1.0)
    assert bench.client.set("MUTE 0") == "ack"
    bench.line.wait_until_polled(9, 2)


def test_after_a_refused_reset_the_daemon_searches_and_the_link_stays_open(make_bench):
    """The daemon cannot distinguish a lost answer from a refusal; its search finds a running firmware."""
    bench = make_bench()
    bench.silence()
    bench.line.command("fault 9 exception always 3 on 400")
    assert bench.jump() == "nak"
    assert bench.resets() == [(9, [ROM])]
    assert bench.sync_bytes() == [(SYNC, 19200)] * 51
    assert bench.line.state_of(9) == "firmware"
    # The link is open, but polling is muted.
    assert polls_nothing(bench.line, 0.5)
    mark = bench.daemon.mark()
    assert bench.client.set("MUTE 0") == "ack"
    bench.line.wait_until_polled(9, 2)
    assert bench.daemon.messages(mark) == []


@pytest.mark.parametrize("fault", ["silent 1", "badCrc 1", "truncated 1", "late 1 200"])
def test_a_jump_whose_answer_is_lost_is_acknowledged(make_bench, fault):
    bench = make_bench()
    bench.silence()
    bench.line.command(f"fault 9 {fault} on 400")
    assert bench.jump() == "ack"
    assert bench.resets() == [(9, [ROM])]
    assert bench.line.state_of(9) == "bootloader"
    assert not any("/dev/pts/" in name for name in bench.daemon.descriptors())
    bench.line.command("restart 9")
    assert bench.client.set("MUTE 0") == "ack"
    bench.line.wait_until_polled(9, 2)


def test_replies_of_other_clients_are_sent_before_detection_blocks(make_bench):
    bench = make_bench()
    bench.silence()
    bench.line.command("fault 9 silentBootloader always")
    for _ in range(2):
        # The requests of the others reach the daemon while it waits for the answer to the reset.
        others = [bench.connect() for _ in range(5)]
        bench.line.command("fault 9 late always 35 on 400")
        mark, foreign_mark = bench.line.mark(), len(bench.line.foreign)
        bench.client.send("SET BLD 1\n")
        bench.line.wait_for(lambda r: r.is_write(400), since=mark)
        for other in others:
            other.send("GET VER\n")
        for other in others:
            assert other.receive_line(1.0) == b"VER MZV-2.0.0\n"
        assert len(bench.line.foreign) - foreign_mark < 20
        assert bench.client.receive(3, timeout=15) == b"nak"
        bench.line.command("restart 9")
        mark = bench.daemon.mark()
        assert bench.client.set("MUTE 0") == "ack"
        bench.daemon.wait_until_found(9, since=mark)
        bench.silence()


def test_the_last_pair_with_a_verdict_decides_the_reply(make_bench):
    bench = make_bench()
    assert bench.client.set("MOD 2 BLD 1", timeout=15) == "ack"
