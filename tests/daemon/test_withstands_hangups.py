"""The line hangs up during an access, as a removed adapter does, and returns."""

import pytest
from harness.effort import effort
from harness.hangups import UNPLUGGED_SECONDS, HangUps
from harness.waiting import eventually

SHARES_DAEMON = True


@pytest.fixture
def hang_ups(found, line):
    return HangUps(found, line)


def is_read(number):
    """Returns a function that accepts reads of one address. Each hangup has another address."""
    address = (2000, 600, 602, 604)[number % 4]
    return lambda request: request.is_read(address)


def is_write(_):
    """Returns a function that accepts writes of the outputs."""
    return lambda request: request.is_write(1000)


@pytest.mark.parametrize("kind", [is_read, is_write], ids=["read", "write"])
def test_polling_returns_after_a_hangup_in_an_access(hang_ups, line, connect, figure, kind):
    client, count = connect(), effort(4, 250)
    for number in range(count):
        wanted = kind(number)
        line.wait_until_polled(9)
        mark = line.mark()
        line[9].script = lambda r, wanted=wanted: b"" if wanted(r) else None
        if kind is is_write:
            assert client.set(f"POS {number % 200 + 1}") == "ack"
        line.wait_for(wanted, since=mark)
        # The last hangup is long enough for several searches of a port.
        with hang_ups.unplugged(effort(1.2, 30) if number == count - 1 else UNPLUGGED_SECONDS):
            line[9].script = None
            eventually(lambda: client.get("DRI") == "ERR_SCANNING (EIO)")
        hang_ups.wait_until_polled()
    hang_ups.judge(figure)


def test_polling_returns_after_a_hangup_in_a_scan(hang_ups, line, connect, figure):
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
