"""Clients: half-closed, fast, in long bursts."""

import subprocess
import time

from harness.client import PORT
from harness.daemon import SANITIZED

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


def test_netcat_gets_bare_values_and_replies_to_sets(found):
    assert netcat("GET VER") == b"MZV-2.0.0"
    assert netcat("SET MOD 2\nGET UPG\n") == b"nakUPG 0\n"
    assert netcat("nothing at all\n") == b""


def test_replies_do_not_wait_for_acknowledgements(found, connect):
    client = connect()
    started = time.monotonic()
    for _ in range(100):
        assert client.get("VER") == "MZV-2.0.0"
        assert client.set("XYZ 1") == "ack"
    # If TCP delays small segments, each round takes 40 ms.
    assert time.monotonic() - started < 2.0


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
