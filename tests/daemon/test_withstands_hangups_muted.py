"""The line hangs up while polling is muted, as a removed adapter does, and returns."""

import time

from harness.effort import effort
from harness.hangups import HangUps
from harness.line import Line
from harness.moving import SETTINGS, MovingSlave, quiet_client
from harness.simulator import Simulator
from harness.upgrades import polls_nothing
from harness.waiting import eventually


def test_polling_returns_after_a_hangup_of_an_idle_line(start_daemon, connect, figure):
    with Simulator("9=TA3-1.6.14") as line:
        hang_ups = HangUps(start_daemon().wait_until_found(9), line)
        client = connect()
        for _ in range(effort(5, 250)):
            assert client.set("MUTE 1") == "ack"
            eventually(lambda: polls_nothing(line, 0.05), what="silence on the line")
            with hang_ups.unplugged():
                pass
            assert client.set("MUTE 0") == "ack"
            hang_ups.wait_until_polled()
            eventually(lambda: client.get("DRI") == "RUNNING")
        hang_ups.judge(figure)


def test_polling_returns_after_a_hangup_in_a_slave_id_move(start_daemon, connect, figure):
    """The line hangs up in the first read, while the settings are stored, and during the restart."""
    moving = MovingSlave(9)
    with Line(moving) as line:
        hang_ups = HangUps(start_daemon().wait_until_found(9), line)
        client = quiet_client(line, connect)
        for wanted in (
            lambda r: r.is_read(430),
            lambda r: r.is_write(430),
            lambda r: r.is_write(400),
        ):
            old, mark = moving.id, line.mark()
            # A failed move must not leave its new id in the settings.
            moving.put(434, SETTINGS[4] & 0xFF00 | old)
            client.send(f"SET SID {old} NID {11 - old}\n")
            line.wait_for(wanted, since=mark, timeout=10)
            with hang_ups.unplugged():
                pass
            assert client.receive(3, timeout=15) == b"ack"
            ended_at = time.monotonic()
            assert client.set("MUTE 0") == "ack"
            hang_ups.wait_until_polled(moving.id, ended_at)
            assert client.set("MUTE 1") == "ack"
            line.wait_until_quiet()
        hang_ups.judge(figure)
