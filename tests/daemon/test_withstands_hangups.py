"""The line hangs up in the middle of an access, as when its adapter is pulled out, and comes back."""

import pytest
from harness.effort import effort
from harness.hangups import GONE, HangUps
from harness.line import Line, Slave
from harness.waiting import eventually


@pytest.fixture(scope="module")
def line():
    with Line(Slave(9)) as plugged:
        yield plugged


@pytest.fixture(scope="module")
def daemon(line, start_module_daemon):
    return start_module_daemon().wait_until_found(9)


@pytest.fixture
def hang_ups(daemon, line):
    return HangUps(daemon, line)


def test_in_a_read(hang_ups, line, connect, figure):
    client, count = connect(), effort(4, 250)
    for number in range(count):
        address = (2000, 600, 602, 604)[number % 4]
        line.wait_until_polled(9)
        mark = line.mark()
        line[9].script = lambda r, address=address: b"" if r.is_read(address) else None
        line.wait_for(lambda r, address=address: r.is_read(address), since=mark)
        # The last time long enough for more than one look at the ports.
        with hang_ups.unplugged(effort(1.2, 30) if number == count - 1 else GONE):
            line[9].script = None
            eventually(lambda: client.get("DRI") == "ERR_SCANNING (EIO)")
        hang_ups.wait_until_polled()
    hang_ups.judge(figure)


def test_in_a_write(hang_ups, line, connect, figure):
    client = connect()
    for number in range(effort(4, 250)):
        line.wait_until_polled(9)
        mark = line.mark()
        line[9].script = lambda r: b"" if r.is_write() else None
        assert client.set(f"POS {number % 200 + 1}") == "ack"
        line.wait_for(lambda r: r.is_write(1000), since=mark)
        with hang_ups.unplugged():
            line[9].script = None
            eventually(lambda: client.get("DRI") == "ERR_SCANNING (EIO)")
        hang_ups.wait_until_polled()
    hang_ups.judge(figure)


def test_in_a_scan(hang_ups, line, connect, figure):
    client = connect()
    for number in range(effort(4, 250)):
        line.wait_until_polled(9)
        mark = line.mark()
        client.send("SET SCN_BLOCK\n")
        line.wait_for(lambda r: r.is_read(500), number % 4 + 1, mark)
        with hang_ups.unplugged():
            assert client.receive(3) == b"ack"
        hang_ups.wait_until_polled()
    hang_ups.judge(figure)
