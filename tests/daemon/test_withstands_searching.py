"""Endless scans: in one request, from many clients, and during the search for a port."""

import signal
import time

import pytest
from harness.daemon import QUIT_LIMIT
from harness.figures import percentile
from harness.line import Line, Slave
from harness.ports import ENVIRONMENT, FakePorts
from harness.processor import ProcessorWait
from harness.waiting import eventually

FLOODS = True


def waits_of(client, daemon, seconds):
    """Returns the reply times of repeated GETs, without the time that a busy machine adds."""
    waits, ends = [], time.monotonic() + seconds
    while time.monotonic() < ends:
        processor_wait, asked = ProcessorWait(daemon), time.monotonic()
        assert client.get("VER") == "MZV-2.0.0"
        took = time.monotonic() - asked
        waits.append(max(0.0, took - processor_wait.seconds()))
        time.sleep(0.005)
    return waits


def test_other_clients_have_their_turn_between_the_scans_of_one_request(
    found, line, connect, figure
):
    mark = line.mark()
    connect().send("SET" + " SCN_BLOCK" * 1000 + "\n")
    waits = waits_of(connect(), found, 4.0)
    scans = len(line.since(mark, lambda r: r.slave == 4 and r.is_read(500)))
    assert scans >= 2
    assert percentile(waits, 0.99) < 0.1
    status, seconds = found.stop()
    assert status == 0
    assert seconds < QUIT_LIMIT
    figure(
        f"{scans} scans in 4 s, a GET {percentile(waits, 0.99) * 1000:.1f} ms (99 %), "
        f"quit within {seconds * 1000:.0f} ms"
    )


@pytest.mark.parametrize("ports", [(), ("ttyUSB0", "ttyUSB1", "ttyUSB2")])
def test_scans_without_a_line_delay_no_client(start_daemon, connect, ports, figure):
    with FakePorts(*ports):
        daemon = start_daemon(environment=ENVIRONMENT)
        other = connect()
        connect().send("SET" + " SCN_BLOCK" * 20_000 + "\n")
        lines = [connect() for _ in range(20)]
        for client in lines:
            client.send("SET SCN_BLOCK\n" * 500)
        waits = waits_of(other, daemon, 3.0)
        status, seconds = daemon.stop(signal.SIGTERM)
    assert status == 0
    assert seconds < QUIT_LIMIT
    assert percentile(waits, 0.5) < 0.5
    figure(
        f"a GET {percentile(waits, 0.5) * 1000:.1f} ms (median), {max(waits) * 1000:.0f} ms (longest), "
        f"quit within {seconds * 1000:.0f} ms"
    )


def test_a_gripper_after_a_silent_port_is_found_while_clients_scan(
    start_daemon, connect, figure
):
    """Each scan begins inside the former scan, which still probes the silent port."""
    with FakePorts("ttyUSB0"), Line(), Line(Slave(2), link="/dev/ttyUSB0"):
        start_daemon(environment=ENVIRONMENT)
        client = connect()
        for _ in range(5):
            client.send("SET SCN_BLOCK\n")
            time.sleep(0.7)
        started = time.monotonic()
        other = connect()
        eventually(lambda: other.get("SID") == "[2]", 15)
        figure(f"found {time.monotonic() - started:.1f} s after the last scan request")
