"""Acknowledged values reach the gripper despite late answers, scans and doubled answers."""

import pytest
from harness import modbus
from harness.line import Line, Slave
from harness.waiting import eventually

GO_TO = 0x0800
# An active gripper that holds a part at 120, with all bits that status and output share.
HOLDING_STATUS = [0x7900, 0x0078, 0x6400]
HOLDING_OUTPUT = [0x0900, 0x0078]


def is_write(request):
    return request.is_write(1000)


def output(line):
    return line[9].get(1000, 3)


@pytest.mark.parametrize("delay", [0.08, 0.1, 0.12])
def test_a_late_answer_to_the_old_value_does_not_acknowledge_the_new_one(
    found, line, connect, delay
):
    client = connect()
    assert client.set("GTO 1") == "ack"
    eventually(lambda: output(line)[0] & GO_TO)
    line.wait_until_polled(9, 2)
    mark = line.mark()

    def late_then_lost(request):
        if not is_write(request):
            return None
        attempt = len(line.since(mark, is_write))
        if attempt == 0:
            return [(delay, line[9].plain_answer(request))]
        # The repetition does not reach the gripper.
        return b"" if attempt == 1 else None

    line[9].script = late_then_lost
    assert client.set("SPE 50") == "ack"
    line.wait_for(is_write, 1, mark)
    assert client.set("GTO 0") == "ack"
    eventually(lambda: output(line) == [0, 0, 50 << 8], 2.0, lambda: line.since(mark, is_write))
    # The second attempt had the new value, but only the third one arrived.
    values = [r.values for r in line.since(mark, is_write)]
    assert values == [[GO_TO, 0, 50 << 8], [0, 0, 50 << 8], [0, 0, 50 << 8]]


@pytest.mark.parametrize(
    "scan, slave_id, address",
    [("SCN", 9, 500), ("SCN_BLOCK", 9, 604), ("SCN_BLOCK", 4, 500)],
)
def test_a_set_during_a_scan_reaches_the_gripper(found, line, connect, scan, slave_id, address):
    scanning, client = connect(), connect()
    line.wait_until_polled(9, 2)
    mark = line.mark()
    scanning.send(f"SET {scan}\n")
    line.wait_for(lambda r: r.is_read(500), 1, mark)
    mark = line.mark() - 1
    line.wait_for(lambda r: r.slave == slave_id and r.is_read(address), 1, mark)
    assert client.set("POS 120 SPE 50 ACT 1") == "ack"
    assert scanning.receive(3) == b"ack"
    eventually(lambda: output(line) == [0x0100, 120, 50 << 8], 2.0, lambda: output(line))


def test_a_set_back_to_the_old_value_during_a_scan_reaches_the_gripper(found, line, connect):
    scanning, client = connect(), connect()
    assert client.set("SPE 50 FOR 60") == "ack"
    eventually(lambda: output(line) == [0, 0, 50 << 8 | 60])
    line.wait_until_polled(9, 2)
    mark = line.mark()
    scanning.send("SET SCN_BLOCK\n")
    line.wait_for(lambda r: r.is_read(604), 1, mark)
    assert client.set("SPE 50") == "ack"
    assert scanning.receive(3) == b"ack"
    line.wait_for(is_write, 1, mark)
    line.wait_until_polled(9, 2)
    assert output(line) == [0, 0, 50 << 8]


def test_a_set_just_before_a_scan_reaches_the_gripper(found, line, connect):
    client = connect()
    assert client.set("MUTE 1") == "ack"
    line.wait_until_quiet()
    assert client.set("POS 120 SPE 50") == "ack"
    assert client.set("SCN_BLOCK") == "ack"
    assert client.set("SCN_BLOCK MUTE 0") == "ack"
    eventually(lambda: output(line) == [0, 120, 50 << 8], 2.0, lambda: output(line))


@pytest.mark.parametrize(
    "packet, replies",
    [("SET SCN_BLOCK 1 POS 120\n", b"ack"), ("SET SCN_BLOCK\nSET POS 120\n", b"ackack")],
    ids=["same request", "same packet"],
)
def test_a_set_after_a_scan_in_one_batch_reaches_the_gripper(
    found, line, connect, packet, replies
):
    client = connect()
    client.send(packet)
    assert client.receive(len(replies)) == replies
    eventually(lambda: output(line) == [0, 120, 0], 2.0, lambda: output(line))


def test_a_batch_with_a_scan_inside_another_clients_scan_reaches_the_gripper(found, line, connect):
    scanning, client = connect(), connect()
    line.wait_until_polled(9, 2)
    mark = line.mark()
    # The scan of the batch ends after the scan of the other client, which begins later.
    client.send("SET SCN_BLOCK\nSET POS 120\n")
    line.wait_for(lambda r: r.is_read(500), 1, mark)
    scanning.send("SET SCN_BLOCK 1 SPE 50\n")
    assert client.receive(6) == b"ackack"
    assert scanning.receive(3) == b"ack"
    eventually(lambda: output(line) == [0, 120, 50 << 8], 3.0, lambda: output(line))


def holding_line():
    line = Line(Slave(9))
    line[9].put(2000, *HOLDING_STATUS)
    return line


def version_answer(line):
    return modbus.read_answer(9, line[9].get(500, 3))


def assert_only_the_held_values_are_written(line):
    line.wait_for(is_write, 1)
    line.wait_until_polled(9, 2)
    assert {tuple(r.values[:2]) for r in line.since(0, is_write)} == {tuple(HOLDING_OUTPUT)}


@pytest.mark.parametrize("delay", [0.032, 0.036])
def test_a_version_that_arrives_twice_is_not_read_as_status(start_daemon, delay):
    with holding_line() as line:

        def twice(request):
            if request.is_read(500):
                return [(0.0, version_answer(line)), (delay, version_answer(line))]
            # The second copy arrives while the daemon waits for this answer.
            status = modbus.read_answer(9, HOLDING_STATUS)
            return [(0.02, status)] if request.is_read(2000) else None

        line[9].script = twice
        start_daemon()
        assert_only_the_held_values_are_written(line)
        # A single probe found the gripper.
        assert len([r for r in line.since(0) if r.slave == 9 and r.is_read(500)]) == 1


def test_a_version_in_place_of_the_status_is_refused(start_daemon):
    with holding_line() as line:

        def version_before_the_first_status(request):
            if not request.is_read(2000) or line.since(0, lambda r: r.is_read(2000)):
                return None
            return [(0.0, version_answer(line)), (0.015, modbus.read_answer(9, HOLDING_STATUS))]

        line[9].script = version_before_the_first_status
        start_daemon()
        assert_only_the_held_values_are_written(line)
