"""Quit signals in each wait of a slave id move."""

import time

import pytest
from harness.daemon import QUIT_LIMIT
from harness.moving import line, quiet_client

MOVED = "update slave id from  9  to  2"
WAITS = [
    ("first_read", lambda r: r.is_read(430), 0.0),
    ("until_stored", lambda r: r.is_write(430), 0.3),
    ("before_the_restart", lambda r: r.is_read(430), 0.1),
    ("during_the_restart", lambda r: r.is_write(400), 0.3),
    ("scan", lambda r: r.is_read(500), 0.0),
]


@pytest.mark.parametrize("step, wanted, pause", WAITS, ids=[name for name, *_ in WAITS])
def test_a_quit_signal_ends_the_daemon_in_each_wait(found, line, connect, step, wanted, pause):
    client = quiet_client(line, connect)
    mark, log_mark = line.mark(), found.mark()
    client.send("SET NID 2\n")
    count = 2 if step == "before_the_restart" else 1
    line.wait_for(wanted, count, since=mark, timeout=10)
    time.sleep(pause)
    status, seconds = found.stop()
    assert status == 0
    assert seconds < QUIT_LIMIT
    # The daemon logs a move only after the restart request.
    assert (MOVED in found.messages(log_mark)) == (step in ("during_the_restart", "scan"))
