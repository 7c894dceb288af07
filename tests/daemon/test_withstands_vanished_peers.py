"""Peers whose network connection is cut without notice.

With the daemon's times, the test takes minutes and runs under scripts/robustness only. Every run
checks these times, then sets shorter ones on the daemon's socket from outside.
"""

import contextlib
import socket
import time

import pytest
from harness.effort import LARGE
from harness.netsplit import OtherMachine, socket_of
from harness.waiting import eventually

GONE_WITHIN = 300
# The times of the daemon, and those of the short run.
OPTIONS = {
    (socket.SOL_SOCKET, socket.SO_KEEPALIVE): (1, 1),
    (socket.IPPROTO_TCP, socket.TCP_KEEPIDLE): (60, 1),
    (socket.IPPROTO_TCP, socket.TCP_KEEPINTVL): (20, 1),
    (socket.IPPROTO_TCP, socket.TCP_KEEPCNT): (9, 3),
    # This option would also end live peers that do not read.
    (socket.IPPROTO_TCP, socket.TCP_USER_TIMEOUT): (0, 0),
}
SHORT_LIMIT = 15
SMALL_BUFFER = 4096
REPLY_BYTES = 14


@pytest.fixture
def other_machine():
    with OtherMachine() as machine:
        yield machine


def options_of(handle):
    return {key: handle.getsockopt(*key) for key in OPTIONS}


@contextlib.contextmanager
def served_by(daemon, client):
    with contextlib.closing(socket_of(daemon.pid, client)) as handle:
        yield handle


def leave_replies_unread(client):
    """Requests more than the connection holds, so that the daemon keeps replies."""
    client.socket.settimeout(0.3)
    with contextlib.suppress(TimeoutError):
        while True:
            client.socket.send(b"GET VER\n" * 512)


def disconnections(daemon, mark):
    return [m for m in daemon.messages(mark) if m.startswith("onClientSocketDisconnect")]


def test_the_times_are_set_on_every_served_socket(found, connect, other_machine, figure):
    for client in (connect(), other_machine.connect()):
        assert client.get("VER") == "MZV-2.0.0"
        with served_by(found, client) as handle:
            options = options_of(handle)
        assert options == {key: daemons for key, (daemons, _) in OPTIONS.items()}
        client.close()
    idle, interval, count, _ = (daemons for daemons, _ in list(OPTIONS.values())[1:])
    silent = idle + interval * count
    figure(f"probed after {idle} s of silence, closed after {silent} s")
    assert silent < GONE_WITHIN


def vanished_peers(found, line, other_machine):
    """Cuts off three peers: idle, with unread replies, and with a reply that is due.

    Returns (log mark, time) of the cut.
    """
    peers = [other_machine.connect(SMALL_BUFFER) for _ in range(3)]
    for peer in peers:
        assert peer.get("VER") == "MZV-2.0.0"
    _, unread, asking = peers
    leave_replies_unread(unread)
    mark, line_mark = found.mark(), line.mark()
    # The reply is due after the scan.
    asking.send("SET SCN_BLOCK\n")
    line.wait_for(lambda r: r.is_read(500), since=line_mark)
    other_machine.vanish()
    return mark, time.monotonic()


def seconds_until_gone(found, mark, since, count, limit):
    seconds = []
    for number in range(1, count + 1):
        left = limit - (time.monotonic() - since)
        eventually(lambda: len(disconnections(found, mark)) >= number, left)
        seconds.append(time.monotonic() - since)
    return seconds


def test_the_daemon_closes_the_connection_of_a_vanished_peer(found, line, other_machine, figure):
    """Uses the short times; a test above checks the daemon's times."""
    before = len(found.descriptors())
    peer = other_machine.connect()
    assert peer.get("VER") == "MZV-2.0.0"
    with served_by(found, peer) as handle:
        for key, (_, short) in OPTIONS.items():
            handle.setsockopt(*key, short)
    mark, since = found.mark(), time.monotonic()
    other_machine.vanish()
    (seconds,) = seconds_until_gone(found, mark, since, 1, SHORT_LIMIT)
    assert seconds > 2.0, "too early for the times that were set"
    eventually(lambda: len(found.descriptors()) == before)
    line.wait_until_polled(9, 2)
    figure(f"gone after {seconds:.1f} s, with a time of 4 s instead of 240 s")


@pytest.mark.skipif(not LARGE, reason="takes five minutes")
def test_vanished_peers_are_gone_within_five_minutes(found, line, connect, other_machine, figure):
    # A silent but live peer stays connected.
    stays = connect()
    assert stays.get("VER") == "MZV-2.0.0"
    before = len(found.descriptors())
    mark, since = vanished_peers(found, line, other_machine)
    seconds = seconds_until_gone(found, mark, since, 3, GONE_WITHIN)
    figure("gone after " + ", ".join(f"{s:.0f}" for s in seconds) + " s")
    eventually(lambda: len(found.descriptors()) == before)
    assert stays.get("VER") == "MZV-2.0.0"
    line.wait_until_polled(9, 2)


@pytest.mark.skipif(not LARGE, reason="takes five minutes")
def test_a_live_peer_that_does_not_read_loses_nothing(found, other_machine, figure):
    client = other_machine.connect(SMALL_BUFFER)
    client.socket.settimeout(0.3)
    request, sent = b"GET VER\n" * 512, 0
    with contextlib.suppress(TimeoutError):
        while True:
            sent += client.socket.send(request)
    time.sleep(GONE_WITHIN + 20)
    wanted, received = sent // 8 * REPLY_BYTES, 0
    client.socket.settimeout(10)
    while received < wanted:
        part = client.socket.recv(65536)
        assert part, f"ended after {received} of {wanted} bytes"
        received += len(part)
    figure(f"{received} bytes of replies read after {GONE_WITHIN + 20} s without reading")
