"""The discovery of the grippers on a line."""

import os
import signal
import time

from harness import modbus
from harness.line import Line, Slave
from harness.modbus import Request
from harness.waiting import eventually


def test_probes_9_2_3_4_in_this_order_and_no_other(start_daemon):
    slaves = [Slave(slave_id) for slave_id in (1, 5, 6, 7, 8)]
    with Line(*slaves) as line:
        daemon = start_daemon()
        daemon.wait_for_line(r": \(\) ")
        assert [r.slave for r in line.since(0)] == [9, 2, 3, 4]
        line.wait_for(Request.is_probe, 8)
        assert {r.slave for r in line.since(0)} == {9, 2, 3, 4}


def test_logs_the_port_and_then_the_ids(start_daemon):
    with Line(Slave(9), Slave(2)):
        daemon = start_daemon().wait_until_found(9, 2)
    assert daemon.messages()[:3] == [
        'availablePorts:  ""',
        'Connected serial port : "ttyTool"',
        "(2, 9)",
    ]


def test_opens_the_port_at_115200_baud(found, line):
    assert line.baud_rate() == 115200


def test_every_probe_waits_200_ms_before_it_asks(start_daemon):
    with Line() as line:
        start_daemon()
        asked = [r.at for r in line.wait_for(Request.is_probe, 4)]
    # The deadline of an unanswered probe adds 62 ms.
    gaps = [later - earlier for earlier, later in zip(asked, asked[1:])]
    assert all(0.255 < gap < 0.4 for gap in gaps), gaps


def test_without_a_port_tries_again_every_second(start_daemon):
    daemon = start_daemon()
    eventually(lambda: len([m for m in daemon.messages() if "availablePorts" in m]) >= 4)
    times = [at for at, text in zip(daemon.times, daemon.lines) if "availablePorts" in text]
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert all(0.98 < gap < 1.4 for gap in gaps), gaps


def test_pauses_a_second_after_a_scan_that_found_nothing(start_daemon):
    with Line() as line:
        daemon = start_daemon()
        asked = [r.at for r in line.wait_for(Request.is_probe, 5, timeout=10)]
        ended = next(at for at, text in zip(daemon.times, daemon.lines) if ": () " in text)
    # The first probe of a scan comes 200 ms after its start.
    assert 1.1 < asked[4] - ended < 1.5


def test_status_is_scanning_until_the_first_gripper_is_found(start_daemon, connect):
    with Line(Slave(9)) as line:
        line[9].listening = False
        daemon = start_daemon()
        client = connect()
        assert client.get("DRI") == "SCANNING"
        daemon.wait_for_line(r": \(\) ")
        assert client.get("DRI") == "SCANNING"
        line[9].listening = True
        daemon.wait_until_found(9)
        eventually(lambda: client.get("DRI") == "RUNNING")


def test_a_path_that_is_not_a_serial_port_is_skipped(start_daemon, connect):
    with open("/dev/ttyTool", "w", encoding="ascii"):
        pass
    try:
        daemon = start_daemon()
        eventually(lambda: len([m for m in daemon.messages() if "availablePorts" in m]) >= 2)
        assert not any("Connected" in m for m in daemon.messages())
        assert connect().get("DRI") == "SCANNING"
    finally:
        os.unlink("/dev/ttyTool")


def test_polling_begins_with_the_second_gripper(start_daemon):
    with Line(Slave(9), Slave(2)) as line:
        daemon = start_daemon().wait_until_found(9, 2)
        mark = line.mark()
        polled = line.wait_for(lambda r: r.is_read(2000), 4, mark)
        assert daemon.is_running()
    assert [r.slave for r in polled] == [9, 2, 9, 2]


def test_a_scan_finds_new_grippers_and_drops_missing_ones(start_daemon, connect):
    with Line(Slave(9), Slave(2), Slave(4)) as line:
        line[4].listening = False
        start_daemon().wait_until_found(9, 2)
        client = connect()
        line[2].listening = False
        line[4].listening = True
        assert client.set("SCN_BLOCK") == "ack"
        assert client.get("SID") == "[4, 9]"
        assert client.set("SID 2") == "nak"
        assert client.get("POS") == "?"


def test_a_scan_that_finds_nothing_empties_the_list_and_closes_the_port(found, line, connect):
    client = connect()
    assert os.path.realpath("/dev/ttyTool") in found.descriptors()
    line[9].listening = False
    assert client.set("SCN_BLOCK") == "ack"
    assert client.get("SID") == "[]"
    eventually(lambda: os.listdir("/run/lock") == [])
    line[9].listening = True
    eventually(lambda: client.get("SID") == "[9]")


def test_a_found_gripper_starts_from_the_state_of_the_device(found, line, connect):
    client = connect()
    assert client.set("POS 77 SPE 88 GTO 1") == "ack"
    eventually(lambda: line[9].get(1001) == [77])
    # The gripper is active and moves to 140.
    line[9].put(2000, 0x3900, 140, 0)
    # Without muting, the scan could start inside a tick, which would write to the old gripper.
    assert client.set("MUTE 1") == "ack"
    line.wait_until_quiet()
    assert client.set("SCN_BLOCK") == "ack"
    mark = line.mark()
    assert client.set("MUTE 0") == "ack"
    written = line.wait_for(lambda r: r.is_write(1000), 1, mark)[0]
    assert written.values == [0x0900, 140, 0]
    assert client.get("SPE") == "0"


def test_a_late_answer_of_one_probe_does_not_spoil_the_next(start_daemon, connect):
    late, good = Slave(3), Slave(4)
    late.script = lambda request: [(0.12, late.plain_answer(request))]
    with Line(late, good):
        start_daemon().wait_until_found(4)
        client = connect()
        for _ in range(2):
            assert client.set("SCN_BLOCK") == "ack"
            assert client.get("SID") == "[4]"


def test_noise_between_the_requests_does_not_spoil_the_next(start_daemon, connect):
    noisy, good = Slave(3), Slave(4)
    # The noise arrives in three pieces while the daemon expects no answer.
    noisy.script = lambda request: [(0.1, b"\x04"), (0.15, b"\x03\x06"), (0.2, b"\xff" * 20)]
    with Line(noisy, good):
        start_daemon().wait_until_found(4)
        client = connect()
        for _ in range(2):
            assert client.set("SCN_BLOCK") == "ack"
            assert client.get("SID") == "[4]"


def test_unread_input_in_the_kernel_is_discarded_before_a_request(found, line, connect):
    """Answers that arrived while the daemon was stopped are discarded."""
    client = connect()
    line[9].put(2002, 0x6400)
    line.wait_until_polled(9)
    stale = modbus.read_answer(9, [0x3900, 0, 0xFF00])
    for _ in range(20):
        line.wait_for(lambda r: r.is_read(604), 1, line.mark())
        # The daemon reads the last answer of the visit first.
        time.sleep(0.012)
        found.process.send_signal(signal.SIGSTOP)
        line.send(stale + b"\x09\x03")
        time.sleep(0.06)
        found.process.send_signal(signal.SIGCONT)
        line.wait_until_polled(9)
        assert client.get("POS") == "100"
    assert [m for m in found.messages() if "fail counter" in m] == []
