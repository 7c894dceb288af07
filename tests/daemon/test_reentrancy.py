"""Requests that arrive while another request waits for the line."""

from harness.modbus import Request
from harness.waiting import eventually


def start_blocking_scan(line, client):
    mark = line.mark()
    client.send("SET SCN_BLOCK\n")
    line.wait_for(Request.is_probe, 1, mark)


def test_a_later_packet_of_the_same_client_is_answered_during_its_own_scan(found, line, connect):
    client = connect()
    start_blocking_scan(line, client)
    client.send("GET VER\n")
    assert client.receive_line(0.5) == b"VER MZV-2.0.0\n"
    assert client.receive(3) == b"ack"


def test_other_clients_are_answered_during_a_scan(found, line, connect):
    client = connect()
    start_blocking_scan(line, client)
    other = connect()
    assert other.get("DRI", timeout=0.5) == "SCANNING"
    assert other.set("XYZ 1", timeout=0.5) == "ack"
    assert client.receive(3) == b"ack"


def test_a_scan_within_a_scan_of_the_same_client_is_carried_out(found, line, connect):
    client = connect()
    start_blocking_scan(line, client)
    client.send("SET SCN_BLOCK\nGET VER\n")
    assert client.receive(3 + 14 + 3) == b"ackVER MZV-2.0.0\nack"
    eventually(lambda: client.get("SID") == "[9]")


def test_the_rest_of_a_packet_is_not_lost_to_a_request_during_the_wait(found, line, connect):
    client = connect()
    mark = line.mark()
    client.send("SET SCN_BLOCK\nGET V")
    line.wait_for(Request.is_probe, 1, mark)
    client.send("ER\n")
    # The later packet completes the request, so the daemon answers it at once.
    assert client.receive_line(0.5) == b"VER MZV-2.0.0\n"
    assert client.receive(3) == b"ack"


def test_commands_of_a_client_that_closes_at_once_are_carried_out_in_order(found, line, connect):
    line.wait_until_polled(9, 2)
    for round_number in range(20):
        goal = 100 + round_number
        client = connect()
        client.send("SET POS 1\n" * 5 + f"GET POS\nSET POS {goal} SPE {goal}\n")
        client.close()
        eventually(lambda: line[9].get(1000, 3) == [0, goal, goal << 8])


def test_commands_of_a_client_that_resets_are_carried_out(found, line, connect):
    line.wait_until_polled(9, 2)
    for round_number in range(20):
        goal = 100 + round_number
        client = connect()
        # A reset drops the bytes that the daemon has not yet read. The reply to another client
        # shows that the daemon has had a turn.
        client.send(f"SET POS {goal}\n")
        assert connect().get("VER") == "MZV-2.0.0"
        client.reset()
        eventually(lambda: line[9].get(1001) == [goal])


def test_commands_after_the_scan_of_a_client_that_closes_are_carried_out(found, line, connect):
    assert connect().set("MUTE 1") == "ack"
    line.wait_until_quiet()
    client = connect()
    client.send("SET SCN_BLOCK\nSET SID 9\nSET MUTE 0\n")
    mark = line.mark()
    client.close()
    # Polling continues only after all three commands.
    line.wait_for(lambda r: r.slave == 4 and r.is_probe(), 1, mark)
    eventually(lambda: len(line.since(mark, lambda r: r.is_read(2000))) > 2)


def test_commands_sent_during_its_scan_by_a_client_that_closes_are_carried_out(
    found, line, connect
):
    assert connect().set("MUTE 1") == "ack"
    line.wait_until_quiet()
    client = connect()
    start_blocking_scan(line, client)
    client.send("SET MUTE 0\n")
    client.close()
    line.wait_until_polled(9, 2)


def test_clients_that_vanish_within_nested_scans_leave_no_trace(found, line, connect):
    line.wait_until_polled(9)
    before, log_mark = found.descriptors(), found.mark()
    for _ in range(3):
        clients = [connect() for _ in range(4)]
        for client in clients:
            start_blocking_scan(line, client)
        for client in clients:
            client.reset()

    def logged(prefix):
        return len([m for m in found.messages(log_mark) if m.startswith(prefix)])

    eventually(lambda: logged("socket->deleteLater") == 12, timeout=20)
    assert logged("onClientSocketConnection") == logged("onClientSocketDisconnect") == 12
    line.wait_until_polled(9, timeout=15)
    eventually(lambda: len(found.descriptors()) == len(before))


def test_a_half_closed_client_gets_the_replies_of_all_that_it_sent(found, line, connect):
    for _ in range(20):
        client = connect()
        client.send("GET VER\n" * 50 + "SET XYZ 1\n")
        client.half_close()
        assert client.receive_to_end() == b"VER MZV-2.0.0\n" * 50 + b"ack"
