"""Clients: many, slow, half-closed, vanished."""

import resource
import subprocess
import time

import pytest
from harness.client import PORT
from harness.daemon import SANITIZED
from harness.waiting import eventually

FLOODS = True


def netcat(text):
    done = subprocess.run(
        ["nc", "-N", "127.0.0.1", str(PORT)],
        input=text.encode(),
        stdout=subprocess.PIPE,
        timeout=10,
        check=False,
    )
    return done.stdout


def test_netcat_that_half_closes_at_once_prints_the_reply(found, line):
    line[9].put(2002, 0x7B00)
    line.wait_until_polled(9)
    for _ in range(10):
        assert netcat("GET POS\n") == b"POS 123\n"


def test_netcat_gets_bare_values_and_replies_to_sets(found):
    assert netcat("GET VER") == b"MZV-2.0.0"
    assert netcat("SET MOD 2\nGET UPG\n") == b"nakUPG 0\n"
    assert netcat("nothing at all\n") == b""


def test_a_thousand_clients_are_served_at_the_same_time(found, line, connect):
    clients = [connect() for _ in range(1000)]
    for number, client in enumerate(clients):
        client.send("SET SID 5\n" if number % 2 else "SET SID 9\n")
    for number, client in enumerate(clients):
        assert client.receive(3) == (b"nak" if number % 2 else b"ack")
    for client in clients:
        client.send("GET FWV\n")
    for number, client in enumerate(clients):
        assert client.receive_line() == (b"FWV ?\n" if number % 2 else b"FWV TA3-1.6.14\n")
    line.wait_until_polled(9)


def test_clients_that_come_and_go_leave_nothing_behind(found, connect):
    def come_and_go(rounds):
        for _ in range(rounds):
            # Few at a time, so that the peak says nothing.
            mark = found.mark()
            for client in [connect() for _ in range(20)]:
                client.send("GET VER\nGET V")
                client.close()
            eventually(lambda: sum("deleteLater" in m for m in found.messages(mark)) == 20)

    before = len(found.descriptors())
    come_and_go(50)
    memory = found.resident_kib()
    come_and_go(100)
    # The last of them are closed on the turn after they were logged.
    eventually(lambda: len(found.descriptors()) == before)
    # Two thousand socket objects alone would be more than that.
    assert found.resident_kib() - memory < (60_000 if SANITIZED else 2_000)


def limited(soft, hard):
    return lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def test_the_soft_limit_of_descriptors_is_raised_to_the_hard_one(start_daemon, connect, line):
    daemon = start_daemon(before_exec=limited(64, 1024))
    daemon.wait_until_found(9)
    clients = [connect() for _ in range(200)]
    for client in clients:
        assert client.get("VER") == "MZV-2.0.0"


def test_accepting_goes_on_after_the_descriptors_had_run_out(start_daemon, connect, line):
    daemon = start_daemon(before_exec=limited(128, 128))
    daemon.wait_until_found(9)
    clients = [connect() for _ in range(200)]
    served = []
    for client in clients:
        client.send("GET VER\n")
    eventually(lambda: len(daemon.descriptors()) > 90)
    line.wait_until_polled(9, 3)
    for client in clients[:60]:
        assert client.receive_line() == b"VER MZV-2.0.0\n"
        client.close()
    # Whoever had to wait is let in now.
    for client in clients[60:]:
        served.append(client.receive_line(10))
        client.close()
    assert set(served) == {b"VER MZV-2.0.0\n"}
    assert connect().get("DRI") == "RUNNING"


def test_clients_do_not_take_the_descriptor_that_the_port_needs(start_daemon, connect, line):
    daemon = start_daemon(before_exec=limited(128, 128))
    daemon.wait_until_found(9)
    clients = [connect() for _ in range(300)]
    for client in clients:
        client.send("GET VER\n")
    eventually(lambda: len(daemon.descriptors()) > 90)
    assert clients[0].receive_line() == b"VER MZV-2.0.0\n"
    line.unplug()
    eventually(lambda: clients[0].get("DRI") == "ERR_SCANNING (EIO)")
    # Time enough for those who still wait to be let in.
    mark = daemon.mark()
    eventually(lambda: sum("availablePorts" in m for m in daemon.messages(mark)) >= 3)
    mark = daemon.mark()
    line.plug()
    daemon.wait_until_found(9, since=mark)
    eventually(lambda: clients[0].get("DRI") == "RUNNING")


def test_a_client_that_never_reads_does_not_grow_the_daemon_and_loses_nothing(found, connect):
    client = connect()
    request, reply = b"GET VER\n", b"VER MZV-2.0.0\n"
    before = found.resident_kib()
    sent = 0
    client.socket.settimeout(0.5)
    # Replies are nearly twice as long as requests: the daemon cannot take all this.
    with pytest.raises(TimeoutError):
        while sent < 400_000_000:
            sent += client.socket.send(request * 4096)
    assert found.resident_kib() - before < (400_000 if SANITIZED else 8_000)
    other = connect()
    assert other.get("VER") == "MZV-2.0.0"
    # Now it reads: every whole request has its reply.
    wanted = sent // len(request) * len(reply)
    received = 0
    client.socket.settimeout(10)
    while received < wanted:
        part = client.socket.recv(1 << 20)
        assert part
        received += len(part)
    assert received == wanted


def test_replies_do_not_wait_for_acknowledgements(found, connect):
    client = connect()
    started = time.monotonic()
    for _ in range(100):
        assert client.get("VER") == "MZV-2.0.0"
        assert client.set("XYZ 1") == "ack"
    # With delayed small segments this takes 40 ms a round.
    assert time.monotonic() - started < 2.0


def test_peers_that_vanish_without_a_word_are_looked_for(found, connect):
    client = connect()
    assert client.get("VER") == "MZV-2.0.0"
    options = subprocess.run(
        ["ss", "--no-header", "--tcp", "--numeric", "--options", f"sport = :{PORT}"],
        stdout=subprocess.PIPE,
        check=True,
    ).stdout.decode()
    assert "timer:(keepalive," in options
    seconds = options.split("timer:(keepalive,")[1].split(",")[0]
    # Not the two hours that the system waits by itself.
    assert "hr" not in seconds and ("sec" in seconds or "min" in seconds), seconds


def test_a_flooding_client_does_not_keep_the_line_from_being_polled(found, line, connect):
    client = connect()
    client.socket.settimeout(5)
    line.wait_until_polled(9, 2)
    mark, ends = line.mark(), time.monotonic() + 1.0
    while time.monotonic() < ends:
        client.send("GET VER\n" * 500)
        client.receive(500 * 14)
    assert len(line.since(mark, lambda r: r.is_read(2000))) >= (5 if SANITIZED else 10)


def test_no_request_of_a_long_burst_loses_its_line_ending(found, connect):
    for offset in range(9):
        client = connect()
        client.send("\n" * offset + "GET VER\n" * 20_000)
        assert client.receive(14 * 20_000) == b"VER MZV-2.0.0\n" * 20_000
