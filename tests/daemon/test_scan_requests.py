"""Scans that clients request."""

from harness.line import Line, Slave
from harness.modbus import Request
from harness.waiting import eventually


def test_a_scan_request_is_answered_at_once_and_carried_out_later(found, line, connect):
    client, mark = connect(), line.mark()
    assert client.set("SCN", timeout=0.5) == "ack"
    line.wait_for(Request.is_probe, 4, mark)
    assert [r.slave for r in line.since(mark, Request.is_probe)][:4] == [9, 2, 3, 4]
    eventually(lambda: client.get("DRI") == "RUNNING")


def test_a_requested_scan_keeps_the_port_open(found, line, connect):
    client = connect()
    assert client.get("SID") == "[9]"
    before, log_mark, mark = found.descriptors(), found.mark(), line.mark()
    assert client.set("SCN") == "ack"
    line.wait_for(lambda r: r.is_probe() and r.slave == 3, 1, mark)
    assert found.descriptors() == before
    found.wait_until_found(9, since=log_mark)
    assert [m for m in found.messages(log_mark) if "availablePorts" in m] == []


def test_status_is_scanning_while_a_requested_scan_runs(found, line, connect):
    client, mark = connect(), line.mark()
    assert client.set("SCN") == "ack"
    line.wait_for(Request.is_probe, 1, mark)
    assert client.get("DRI") == "SCANNING"
    eventually(lambda: client.get("DRI") == "RUNNING")


def test_a_requested_scan_waits_for_the_write_that_is_due(found, line, connect):
    client = connect()
    line.wait_until_polled(9, 3)
    mark = line.mark()
    assert client.set("POS 77 SCN") == "ack"
    line.wait_for(Request.is_probe, 1, mark)
    requests = line.since(mark)
    writes = [i for i, r in enumerate(requests) if r.is_write()]
    probes = [i for i, r in enumerate(requests) if r.is_probe()]
    assert writes and writes[0] < probes[0]
    assert requests[writes[0]].values == [0, 77, 0]


def test_two_scan_requests_before_the_scan_are_one(found, line, connect):
    client = connect()
    line.wait_until_polled(9)
    mark, log_mark = line.mark(), found.mark()
    assert client.set("SCN SCN SCN") == "ack"
    found.wait_until_found(9, since=log_mark)
    line.wait_until_polled(9, 5)
    assert len(line.since(mark, Request.is_probe)) == 4


def test_a_blocking_scan_is_acknowledged_when_it_is_over(found, line, connect):
    client, mark = connect(), line.mark()
    assert client.set("SCN_BLOCK") == "ack"
    assert [r.slave for r in line.since(mark, Request.is_probe)] == [9, 2, 3, 4]
    assert (client.get("SID"), client.get("DRI")) == ("[9]", "RUNNING")


def test_a_blocking_scan_does_not_wait_for_the_pause(start_daemon, connect):
    with Line(Slave(9)) as line:
        line[9].listening = False
        daemon = start_daemon()
        daemon.wait_for_line(r": \(\) ")
        line[9].listening = True
        assert connect().set("SCN_BLOCK", timeout=5) == "ack"
        assert connect().get("SID") == "[9]"
        assert len([m for m in daemon.messages() if "availablePorts" in m]) == 2


def test_no_tick_runs_during_a_blocking_scan(found, line, connect):
    client = connect()
    assert client.set("MUTE 1") == "ack"
    line.wait_until_quiet()
    mark = line.mark()
    client.send("SET SCN_BLOCK\n")
    line.wait_for(Request.is_probe, 1, mark)
    # Polling is not muted from now on, so only the scan prevents ticks.
    assert connect().set("MUTE 0 THROTTLE 0") == "ack"
    line.wait_for(lambda r: r.is_probe() and r.slave == 4, 1, mark)
    addresses = [(r.slave, r.address) for r in line.since(mark)]
    assert addresses == [
        *((9, address) for address in (500, 514, 510, 2000, 600, 602, 604)),
        (2, 500),
        (3, 500),
        (4, 500),
    ]
    assert client.receive(3) == b"ack"


def test_a_scan_may_replace_every_gripper_while_the_loop_waits(start_daemon, connect):
    with Line(*(Slave(n) for n in (9, 2, 3, 4))) as line:
        daemon = start_daemon().wait_until_found(2, 3, 4, 9)
        client = connect()
        for gone in (2, 3, 4, 9):
            line[gone].listening = False
            client.send("SET SCN_BLOCK\n")
            assert client.receive(3, timeout=10) == b"ack"
        eventually(lambda: client.get("SID") == "[]")
        for slave_id in (2, 3, 4, 9):
            line[slave_id].listening = True
        eventually(lambda: client.get("SID") == "[2, 3, 4, 9]", timeout=15)
        line.wait_until_polled(3, timeout=10)
        assert daemon.is_running()
