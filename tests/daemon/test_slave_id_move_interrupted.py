"""Other events during a slave id move."""

import time

import pytest
from harness.line import Slave
from harness.moving import line, quiet_client

MOVED = "update slave id from  9  to  2"


def start_move(line, client, pairs="NID 2"):
    """Starts a move and returns in its first wait, with the mark of its first request."""
    mark = line.mark()
    client.send(f"SET {pairs}\n")
    line.wait_for(lambda r: r.is_write(430), since=mark)
    # The daemon must also receive the answer.
    time.sleep(0.1)
    return mark


def move_messages(daemon, mark):
    return [m for m in daemon.messages(mark) if "slave id" in m]


def polls(line, mark):
    """Returns the reads of inputs except those of probes, which read the serial number first."""
    requests = line.since(mark)
    before = [None, *requests]
    return [
        r for r, b in zip(requests, before)
        if r.is_read(2000) and not (b and b.is_read(510) and b.slave == r.slave)
    ]


@pytest.mark.parametrize("disturbance", ["SCN_BLOCK", "THROTTLE 1", "SCN"])
def test_another_request_does_not_resume_polling(found, line, connect, disturbance):
    client = quiet_client(line, connect)
    log_mark = found.mark()
    mark = start_move(line, client)
    other = connect()
    assert other.set(f"MUTE 0 {disturbance}") == "ack"
    (reset,) = line.wait_for(lambda r: r.is_write(400), since=mark)
    assert polls(line, mark) == []
    assert client.receive(3, timeout=10) == b"ack"
    assert [r for r in polls(line, mark) if r.at < reset.at + 3.0] == []
    assert move_messages(found, log_mark) == [MOVED]
    line.wait_until_polled(2, 2)
    assert other.get("SID") == "[2]"


def test_a_move_within_a_move_ends_both_and_the_gripper_is_found(found, line, connect):
    client = quiet_client(line, connect)
    log_mark = found.mark()
    mark = start_move(line, client)
    other = connect()
    assert other.set("MUTE 0 NID 3", timeout=15) == "ack"
    assert polls(line, mark) == []
    assert client.receive(3, timeout=15) == b"ack"
    # The inner move succeeds. The outer move then reads an id that it did not set.
    assert move_messages(found, log_mark) == [
        "update slave id from  9  to  3",
        "fail to update slave id from  9  to  2",
    ]
    line.wait_until_polled(3, 2)
    assert other.get("SID") == "[3]"


def test_a_move_onto_a_used_id_replaces_the_gripper_there(line, start_daemon, connect):
    line.slaves[2] = Slave(2, "TE1-2.0.2")
    found = start_daemon().wait_until_found(2, 9)
    client = quiet_client(line, connect)
    mark = start_move(line, client)
    line.wait_for(lambda r: r.is_read(500), since=mark, timeout=10)
    # This is the list before the scan.
    assert client.get("SID", timeout=0.5) == "[2]"
    assert client.set("SID 2") == "ack"
    assert client.get("FWV") == "TA3-1.6.14"
    assert client.receive(3) == b"ack"
    assert MOVED in found.messages()
