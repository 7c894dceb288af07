"""Slave id moves on the line, in the log and for clients.

A move takes six seconds, so each test checks several claims.
"""

import time

import pytest
from harness import modbus
from harness.moving import RESTART, SETTINGS, MovingSlave, line, quiet_client

MOVED = "update slave id from  9  to  2"
FAILED = "fail to update slave id from  9  to  2"


@pytest.fixture
def quiet(found, line, connect):
    return quiet_client(line, connect)


def is_settings(request):
    return request.address in range(400, 440)


def steps(line, mark):
    return [(r.slave, r.function, r.address, r.count) for r in line.since(mark, is_settings)]


READ_SETTINGS = (9, modbus.READ, 430, 5)
WRITE_SETTINGS = (9, modbus.WRITE, 430, 7)
RESET = (9, modbus.WRITE, 400, 1)


def test_moves_the_gripper_and_answers_others_meanwhile(found, line, connect, quiet):
    mark, log_mark, started = line.mark(), found.mark(), time.monotonic()
    quiet.send("SET NID 2\n")
    other = connect()
    slowest = 0.0
    while time.monotonic() - started < 5.0:
        asked_at = time.monotonic()
        assert other.get("VER") == "MZV-2.0.0"
        slowest = max(slowest, time.monotonic() - asked_at)
        time.sleep(0.05)
    assert slowest < 0.5
    assert quiet.receive(3, timeout=10) == b"ack"
    assert time.monotonic() - started >= 5.9

    assert steps(line, mark) == [READ_SETTINGS, WRITE_SETTINGS, READ_SETTINGS, RESET]
    read, write, check, reset = line.since(mark, is_settings)
    # The other half of the id's register stays, and the trailer stores the whole block.
    assert write.values == SETTINGS[:4] + [0x5502, 0x0000, 0x0036]
    assert reset.values == [RESTART]
    assert check.at - write.at >= 2.5
    assert reset.at - check.at >= 0.4
    (probe,) = line.wait_for(lambda r: r.is_read(500), since=mark)
    assert probe.at - reset.at >= 3.0
    # The daemon did not poll meanwhile.
    assert line.since(mark, lambda r: r.at < probe.at and not is_settings(r)) == []

    found.wait_until_found(2, since=log_mark)
    messages = [m for m in found.messages(log_mark) if "slave id" in m]
    assert messages == [MOVED]
    # The client still has the old id selected.
    assert quiet.get("FWV") == "?"
    assert quiet.set("SID 2") == "ack"
    assert quiet.get("FWV") == "TA3-1.6.14"
    assert quiet.get("SID") == "[2]"
    assert quiet.set("MUTE 0") == "ack"
    line.wait_until_polled(2, 2)


def silent_on(wanted):
    return lambda slave, request: b"" if wanted(request) else None


def refused_on(wanted):
    def script(slave, request):
        if wanted(request):
            return modbus.exception_answer(slave.id, request.function, 4)
        return None

    return script


def bad_crc_on(wanted):
    def script(slave, request):
        if not wanted(request):
            return None
        answer = slave.plain_answer(request)
        return answer[:-1] + bytes([answer[-1] ^ 0xFF])

    return script


def read_number(number):
    """Returns a function that accepts the read with this number of the settings block."""
    seen = []

    def wanted(request):
        if request.is_read(430):
            seen.append(request)
            return len(seen) == number
        return False

    return wanted


def shows_another_id(slave, request):
    if request.is_read(430):
        slave.put(434, 0x5509)
    return None


FAILURES = [
    ("first_read_silent", lambda: silent_on(read_number(1)), [READ_SETTINGS]),
    ("first_read_refused", lambda: refused_on(read_number(1)), [READ_SETTINGS]),
    (
        "write_with_bad_crc",
        lambda: bad_crc_on(lambda r: r.is_write(430)),
        [READ_SETTINGS, WRITE_SETTINGS],
    ),
    (
        "check_read_silent",
        lambda: silent_on(read_number(2)),
        [READ_SETTINGS, WRITE_SETTINGS, READ_SETTINGS],
    ),
    (
        "check_shows_another_id",
        lambda: shows_another_id,
        [READ_SETTINGS, WRITE_SETTINGS, READ_SETTINGS],
    ),
    (
        "restart_silent",
        lambda: silent_on(lambda r: r.is_write(400)),
        [READ_SETTINGS, WRITE_SETTINGS, READ_SETTINGS, RESET],
    ),
]


@pytest.mark.parametrize(
    "make_script, expected", [row[1:] for row in FAILURES], ids=[row[0] for row in FAILURES]
)
def test_failed_move_is_logged_acknowledged_and_moves_nothing(
    found, line, quiet, make_script, expected
):
    slave, script = line[9], make_script()
    slave.script = lambda request: script(slave, request)
    mark, log_mark = line.mark(), found.mark()
    assert quiet.set("NID 2", timeout=15) == "ack"
    assert steps(line, mark) == expected
    assert [m for m in found.messages(log_mark) if "slave id" in m] == [FAILED]
    assert quiet.get("SID") == "[9]"
    assert quiet.set("MUTE 0") == "ack"
    line.wait_until_polled(9, 2)


def test_an_unanswered_write_counts_as_done(found, line, quiet):
    slave = line[9]

    def script(request):
        if request.is_write(430):
            slave.plain_answer(request)
            return b""
        return MovingSlave.behave(slave, request)

    slave.script = script
    mark, log_mark = line.mark(), found.mark()
    assert quiet.set("NID 2", timeout=15) == "ack"
    assert steps(line, mark) == [READ_SETTINGS, WRITE_SETTINGS, READ_SETTINGS, RESET]
    assert [m for m in found.messages(log_mark) if "slave id" in m] == [MOVED]
    assert quiet.get("SID") == "[2]"


def test_a_move_to_the_same_id_writes_nothing_and_scans(found, line, quiet):
    mark, log_mark, started = line.mark(), found.mark(), time.monotonic()
    quiet.send("SET NID 9\n")
    line.wait_for(lambda r: r.is_read(500), since=mark)
    # The gripper is missing in the list until the scan ends.
    assert quiet.get("SID", timeout=0.5) == "[]"
    assert quiet.receive(3) == b"ack"
    assert time.monotonic() - started < 2.0
    assert steps(line, mark) == [READ_SETTINGS]
    assert "update slave id from  9  to  9" in found.messages(log_mark)
    assert quiet.get("SID") == "[9]"
    assert quiet.get("FWV") == "TA3-1.6.14"


def test_without_a_gripper_at_the_id_nothing_is_moved_or_logged(found, line, quiet):
    assert quiet.set("SID 5") == "nak"
    mark, log_mark = line.mark(), found.mark()
    assert quiet.set("NID 2") == "ack"
    assert steps(line, mark) == []
    messages = found.messages(log_mark)
    assert [m for m in messages if "slave id" in m or "UNHANDLED" in m] == []
    # The daemon nevertheless scans.
    assert len(line.since(mark, lambda r: r.is_read(500))) == 4
    assert quiet.get("SID") == "[9]"


def test_a_move_to_an_id_that_is_never_probed_loses_the_gripper(found, line, quiet):
    log_mark = found.mark()
    assert quiet.set("NID 7", timeout=15) == "ack"
    assert "update slave id from  9  to  7" in found.messages(log_mark)
    assert list(line.slaves) == [7]
    assert quiet.get("SID") == "[]"
