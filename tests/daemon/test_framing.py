"""Requests in several packets and from several clients. The scanner's unit test covers all forms."""

import time

import pytest

VERSION = b"MZV-2.0.0"


@pytest.fixture
def client(daemon, connect):
    return connect()


def assert_no_text_is_left(client):
    """The next request gets its own answer and nothing else."""
    client.send("GET PCO\n")
    assert client.receive_line() == b"PCO 0\n"
    assert client.receive_until_silent(0.05) == b""


def test_a_request_split_at_every_byte_is_answered_once(client):
    client.send("S")
    for byte in "ET MUTE 0":
        client.send(byte)
        time.sleep(0.005)
    assert client.receive_until_silent(0.05) == b""
    client.send("\r")
    assert client.receive(3) == b"ack"
    client.send("\n")
    assert_no_text_is_left(client)


def test_a_get_split_before_its_line_ending_is_answered_bare(client):
    client.send("GET V")
    assert client.receive_until_silent(0.05) == b""
    client.send("ER")
    assert client.receive(9) == VERSION
    client.send("\n")
    assert_no_text_is_left(client)


def test_a_get_inside_an_unfinished_set_is_answered_and_the_set_is_lost(client):
    client.send("SET MUTE 0 GET VER")
    assert client.receive(9) == VERSION
    client.send("\n")
    assert_no_text_is_left(client)


def test_one_client_does_not_complete_the_request_of_another(daemon, connect):
    one, other = connect(), connect()
    one.send("GET V")
    assert one.receive_until_silent(0.05) == b""
    other.send("ER\n")
    assert other.receive_until_silent(0.1) == b""
    one.send("ER\n")
    assert one.receive_line() == b"VER " + VERSION + b"\n"


def test_the_unfinished_request_of_a_client_ends_with_its_connection(daemon, connect):
    mark = daemon.mark()
    first = connect()
    first.send("GET V")
    assert first.receive_until_silent(0.05) == b""
    first.close()
    daemon.wait_for_line("socket->deleteLater", mark)
    second = connect()
    second.send("ER\n")
    assert_no_text_is_left(second)


def test_a_client_starts_with_slave_9_and_a_new_id_applies_from_the_next_packet(client):
    client.send("SET SID 2\nGET FWV\n")
    assert client.receive(18) == b"ackFWV TA3-1.6.14\n"
    assert client.get("FWV") == "TE1-2.0.2"
