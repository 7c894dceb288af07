"""Start, end and log of the daemon's process."""

import os
import re
import signal
import socket

import pytest
from harness.client import PORT
from harness.daemon import LOG_LINE, QUIT_LIMIT, Daemon

QUIT_SIGNALS = [signal.SIGQUIT, signal.SIGINT, signal.SIGTERM, signal.SIGHUP]


def assert_quits(daemon, number=signal.SIGTERM):
    status, seconds = daemon.stop(number)
    assert status == 0, daemon.lines[-20:]
    assert seconds < QUIT_LIMIT


@pytest.mark.parametrize("number", QUIT_SIGNALS)
def test_quit_signal_ends_the_polling_daemon_with_status_0(found, line, number):
    line.wait_until_polled(9)
    assert_quits(found, number)


def test_quit_signal_before_the_first_discovery_ends_with_status_0(tmp_path):
    for _ in range(10):
        daemon = Daemon(tmp_path).wait_until_listening()
        try:
            assert_quits(daemon)
            if daemon.lines == []:
                return
        finally:
            daemon.kill()
    pytest.fail("ten times the first discovery came before the signal")


def test_quits_while_muted(found, line, connect):
    assert connect().set("MUTE 1") == "ack"
    line.wait_until_quiet()
    assert_quits(found)


def test_a_second_quit_signal_does_no_harm(found):
    for number in QUIT_SIGNALS:
        found.process.send_signal(number)
    assert found.wait_for_end() == 0


def test_other_signals_keep_their_default_action(found):
    with open(f"/proc/{found.pid}/status", encoding="ascii") as status:
        fields = dict(entry.rstrip("\n").split(":\t") for entry in status)
    masks = {name: int(fields[name], 16) for name in ("SigCgt", "SigBlk")}
    caught = {n for n in range(1, 32) if masks["SigCgt"] >> (n - 1) & 1}
    assert set(QUIT_SIGNALS) <= caught
    assert signal.SIGUSR1 not in caught and signal.SIGALRM not in caught
    assert masks["SigBlk"] == 0


def test_ends_the_connections_of_its_clients_when_it_quits(found, connect):
    clients = [connect() for _ in range(3)]
    assert clients[2].get("VER") == "MZV-2.0.0"
    assert_quits(found)
    for client in clients:
        assert client.receive_to_end() == b""


def assert_aborts(daemon):
    try:
        assert daemon.wait_for_end() == -signal.SIGABRT
        fatal = f"Fatal: Unable to start the server on port {PORT} ((null):0, (null))"
        assert daemon.lines == [fatal]
    finally:
        daemon.kill()


def test_a_port_in_use_is_a_fatal_line_and_an_abort(tmp_path):
    with socket.create_server(("127.0.0.1", PORT)):
        assert_aborts(Daemon(tmp_path))


def test_listens_on_any_address_of_both_families(found):
    with socket.create_connection(("127.0.0.1", PORT)) as four:
        four.sendall(b"GET VER")
        assert four.recv(9, socket.MSG_WAITALL) == b"MZV-2.0.0"
    try:
        six = socket.create_connection(("::1", PORT))
    except OSError as error:
        assert not os.path.exists("/proc/net/if_inet6"), error
        return
    with six:
        six.sendall(b"GET VER")
        assert six.recv(9, socket.MSG_WAITALL) == b"MZV-2.0.0"


def test_arguments_are_not_inspected(start_daemon, connect):
    start_daemon(arguments=["--help", "--version", "-x", "/dev/ttyUSB7"])
    assert connect().get("VER") == "MZV-2.0.0"


def test_every_log_line_has_the_form_and_no_source_location(found, line, connect):
    client = connect()
    assert client.set("XYZ 1") == "ack"
    client.close()
    line[9].listening = False
    found.wait_for_line("fail counter:  5 ")
    found.wait_for_line("socket->deleteLater")
    assert_quits(found)
    assert len(found.lines) > 8
    for text in found.lines:
        assert LOG_LINE.match(text), text


def test_connection_and_disconnection_are_logged_with_the_socket(found, connect):
    mark = found.mark()
    client = connect()
    opened = found.wait_for_line("onClientSocketConnection", mark)
    client.close()
    found.wait_for_line("socket->deleteLater", mark)
    address = re.search(r"\((0x[0-9a-f]+)", opened).group(1)
    texts = found.messages(mark)
    assert len(texts) == 3
    for text, prefix in zip(
        texts, ("onClientSocketConnection: ", "onClientSocketDisconnect: ", "socket->deleteLater: ")
    ):
        assert re.fullmatch(rf"{prefix} \w+\({address}\)", text), text
