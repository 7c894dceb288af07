"""A SET that the daemon acknowledges near a move, an upgrade or a lost link reaches the gripper."""

import time

import pytest
from harness.benches import Bench, benches
from harness.line import Line, Slave
from harness.moving import MovingSlave
from harness.upgrades import put_flasher
from harness.waiting import eventually

MOVE_LIMIT = 20.0


def position_request(slave):
    return slave.get(1001)[0] & 0xFF


def wait_for_position(line, slave_id, position):
    eventually(
        lambda: position_request(line[slave_id]) == position,
        what=lambda: f"position {position}: {line[slave_id].get(1000, 3)}",
    )


@pytest.fixture
def moving(start_daemon):
    """A line whose gripper can move from id 9, and a daemon that has written its outputs."""
    with Line(MovingSlave(9)) as line:
        start_daemon().wait_until_found(9)
        line.wait_for(lambda request: request.is_write(1000), 1)
        yield line


def test_a_set_before_a_move_to_the_same_id_survives(moving, connect):
    assert connect().set("POS 77 NID 9", timeout=MOVE_LIMIT) == "ack"
    wait_for_position(moving, 9, 77)


def test_a_set_during_a_move_to_the_same_id_survives(moving, connect):
    mover, other = connect(), connect()
    slave = moving[9]
    slave.script = lambda r: [(0.03, slave.plain_answer(r))] if r.is_read(430) else None
    mark = moving.mark()
    mover.send("SET NID 9\n")
    moving.wait_for(lambda request: request.is_read(430), 1, mark)
    assert other.set("POS 78") == "ack"
    assert mover.receive(3, timeout=MOVE_LIMIT) == b"ack"
    wait_for_position(moving, 9, 78)


def test_a_set_after_a_scan_inside_a_move_survives(moving, connect):
    mover, other = connect(), connect()
    mover.send("SET NID 2\n")
    moving.wait_for(lambda request: request.is_write(430), 1)
    assert other.set("SCN_BLOCK", timeout=MOVE_LIMIT) == "ack"
    assert other.get("SID") == "[9]"
    assert other.set("POS 80 SPE 90 LGN 1") == "ack"
    assert mover.receive(3, timeout=MOVE_LIMIT) == b"ack"
    wait_for_position(moving, 2, 80)


def test_a_set_on_the_new_id_that_a_scan_inside_the_move_finds_survives(moving, connect):
    mover, other = connect(), connect()
    mover.send("SET NID 2\n")
    eventually(lambda: 2 in moving.slaves, 10.0)
    assert other.set("SCN_BLOCK", timeout=MOVE_LIMIT) == "ack"
    assert other.get("SID") == "[2]"
    assert other.set("SID 2") == "ack"
    assert other.set("POS 81") == "ack"
    assert mover.receive(3, timeout=MOVE_LIMIT) == b"ack"
    wait_for_position(moving, 2, 81)


def test_a_set_on_another_gripper_during_an_upgrade_survives(start_daemon, connect, tmp_path):
    with benches(Bench, start_daemon, connect) as make:
        put_flasher(tmp_path, "until [ -e end ]; do sleep 0.02; done")
        bench = make("9=TA3-1.6.13", "4=TB1-1.4.3", cwd=tmp_path)
        assert bench.client.set("UPG 1", timeout=15.0) == "ack"
        other = bench.connect()
        assert other.set("SID 4") == "ack"
        assert other.set("POS 82 GTO 1") == "ack"
        bench.line.command("restart 9")
        (tmp_path / "end").touch()
        eventually(lambda: bench.line.registers(4, 1001)[0] & 0xFF == 82, 10.0)


def test_a_set_before_the_link_is_closed_for_missing_answers_survives(start_daemon, connect):
    with Line(Slave(9)) as line:
        daemon = start_daemon().wait_until_found(9)
        client = connect()
        line.wait_for(lambda request: request.is_write(1000), 1)
        silent_until = time.monotonic() + 0.6

        def silence(request):
            return b"" if request.is_write(1000) and time.monotonic() < silent_until else None

        line[9].script = silence
        mark = daemon.mark()
        assert client.set("POS 85") == "ack"
        daemon.wait_until_found(9, since=mark)
        wait_for_position(line, 9, 85)


@pytest.mark.parametrize("moment", ["before", "during"])
def test_a_set_around_a_scan_that_misses_the_gripper_survives(found, line, connect, moment):
    scanner, other = connect(), connect()
    line.wait_for(lambda request: request.is_write(1000), 1)
    silent = True
    line[9].script = lambda request: b"" if silent and request.is_read(500) else None
    mark = line.mark()
    if moment == "before":
        assert other.set("MUTE 1") == "ack"
        line.wait_until_quiet()
        assert other.set("POS 77") == "ack"
    scanner.send("SET SCN_BLOCK\n")
    if moment == "during":
        line.wait_for(lambda request: request.slave == 2, 1, mark)
        assert other.get("SID") == "[9]"
        assert other.set("POS 77") == "ack"
    assert scanner.receive(3, timeout=10.0) == b"ack"
    silent = False
    assert other.set("MUTE 0") == "ack"
    wait_for_position(line, 9, 77)


def test_a_jump_inside_a_scan_keeps_the_other_grippers_on_the_list(start_daemon, connect):
    with benches(Bench, start_daemon, connect) as make:
        bench = make("9=TA3-1.6.13", "4=TB1-1.4.3")
        scanner, jumper = bench.connect(), bench.connect()
        mark = bench.line.mark()
        scanner.send("SET SCN_BLOCK\n")
        bench.line.wait_for(lambda request: request.slave == 2, 1, mark)
        assert jumper.set("BLD 1", timeout=20.0) == "ack"
        assert scanner.receive(3, timeout=20.0) == b"ack"
        assert jumper.get("SID") == "[4, 9]"


def test_a_set_for_a_swapped_gripper_does_not_reach_its_successor(start_daemon, connect):
    with Line(Slave(9, serial=42)) as line:
        daemon = start_daemon().wait_until_found(9)
        line.wait_for(lambda request: request.is_write(1000), 1)
        line[9].script = lambda request: b"" if request.is_write(1000) else None
        mark, requests = daemon.mark(), line.mark()
        assert connect().set("POS 86") == "ack"
        # The other gripper must not acknowledge the last attempt, which follows the fifth failure.
        line.wait_for(lambda request: request.is_write(1000), 6, requests)
        swapped = Slave(9, serial=43)
        swapped.line = line
        line.slaves[9] = swapped
        daemon.wait_until_found(9, since=mark)
        line.wait_for(lambda request: request.is_write(1000), 1, line.mark())
        assert position_request(swapped) == 0
