"""How requests are cut out of what a client sends."""

import time

import pytest
from harness.daemon import SANITIZED
from harness.line import Line, Slave

FLOODS = True
VERSION = b"MZV-2.0.0"


@pytest.fixture(scope="module")
def module_line():
    with Line(Slave(9), Slave(2, "TE1-2.0.2")) as line:
        yield line


@pytest.fixture(scope="module")
def daemon(module_line, start_module_daemon):
    return start_module_daemon().wait_until_found(9, 2)


@pytest.fixture
def client(daemon, connect):
    return connect()


def assert_clean(client):
    """Nothing more comes than the answer to a request sent now."""
    client.send("GET PCO\n")
    assert client.receive_line() == b"PCO 0\n"
    assert client.receive_until_silent(0.05) == b""


@pytest.mark.parametrize(
    "request_text, reply",
    [
        ("GET VER", VERSION),
        ("GET VER\n", b"VER " + VERSION + b"\n"),
        ("GET VER\r", b"VER " + VERSION + b"\n"),
        ("GET VER\r\n", b"VER " + VERSION + b"\n"),
        ("GET VER   \r\n", b"VER " + VERSION + b"\n"),
        ("GET VER   ", VERSION),
        ("GET VER\n\n\r\n\n", b"VER " + VERSION + b"\n"),
        ("get ver\n", b"VER " + VERSION + b"\n"),
        ("gEt vEr", VERSION),
        ("xyzGET VER\n", b"VER " + VERSION + b"\n"),
        ("GET GET VER\n", b"?"),
        ("GET VERSION\n", VERSION),
        ("GET _9A\n", b"_9A ?\n"),
        ("GET ABC\n", b"ABC ?\n"),
        ("GET ABC", b"?"),
        ("GET SCN_BLOCK\n", b"?"),
        ("GET V-R\n", b""),
        ("GET  VER\n", b""),
        ("GETVER\n", b""),
        ("GET\tVER\n", b""),
        ("GET\nVER\n", b""),
        ("SET MUTE 0\n", b"ack"),
        ("SET MUTE 0\r", b"ack"),
        ("SET   MUTE   0   \r\n\r\n", b"ack"),
        ("set mute 0\n", b"ack"),
        ("junkSET MUTE 0\n", b"ack"),
        ("SET MUTE 0", b""),
        ("SET\tMUTE 0\n", b""),
        ("SETMUTE 0\n", b""),
        ("SET\n", b""),
        ("SET AB 1\n", b""),
        ("SET ABCDEFGHIJ 1\n", b""),
        ("SET MUTE +0\n", b""),
        ("SET 111 222\n", b"ack"),
        ("SET MUTE 0\nSET MUTE 0\n", b"ackack"),
        ("GET VER\nGET PCO\n", b"VER " + VERSION + b"\nPCO 0\n"),
        ("GET VERGET PCO", VERSION + b"0"),
        ("GET VERSET MUTE 0\n", VERSION + b"ack"),
        ("SET MUTE 0\nGET VER", b"ack" + VERSION),
        # A SET takes what follows for further names as long as it can.
        ("SET MUTE 0 GET VER\n", b"ack"),
    ],
)
def test_answers_exactly(client, request_text, reply):
    client.send(request_text)
    assert client.receive(len(reply)) == reply
    # What was left over must not become part of the next request.
    client.send("\n;GET DST\n")
    if request_text.startswith("SET MUTE 0") and not reply:
        assert client.receive(3) == b"ack"
    assert client.receive_line() == b"DST 0\n"
    assert client.receive_until_silent(0.05) == b""


def test_a_set_is_answered_only_when_its_line_ending_comes(client):
    client.send("SET MUTE 0")
    assert client.receive_until_silent(0.2) == b""
    client.send("\n")
    assert client.receive(3) == b"ack"
    assert_clean(client)


def test_a_request_split_at_every_byte_is_answered_once(client):
    client.send("S")
    for byte in "ET MUTE 0":
        client.send(byte)
        time.sleep(0.005)
    assert client.receive_until_silent(0.05) == b""
    client.send("\r")
    assert client.receive(3) == b"ack"
    client.send("\n")
    assert_clean(client)


def test_a_get_split_before_its_line_ending_is_answered_bare(client):
    client.send("GET V")
    assert client.receive_until_silent(0.05) == b""
    client.send("ER")
    assert client.receive(9) == VERSION
    client.send("\n")
    assert_clean(client)


def test_a_get_inside_an_unfinished_set_is_answered_and_the_set_is_lost(client):
    client.send("SET MUTE 0 GET VER")
    assert client.receive(9) == VERSION
    client.send("\n")
    assert_clean(client)


def test_what_follows_a_zero_byte_in_the_same_packet_is_dropped(client):
    client.send(b"GET V\0ER\n")
    assert client.receive_until_silent(0.1) == b""
    client.send(b"ER\0GET PCO\n")
    assert client.receive(9) == VERSION
    assert_clean(client)


def test_letters_whose_upper_case_is_ascii_become_part_of_requests(client):
    client.send("ſet mute 0\n")
    assert client.receive(3) == b"ack"
    client.send("GET ßt\n")
    assert client.receive_line() == b"SST ?\n"
    client.send("GET pıe\n")
    assert client.receive_line() == b"PIE ?\n"
    assert_clean(client)


def test_letters_beyond_ascii_are_no_name_characters(client):
    client.send("GET VÉR\n")
    assert client.receive_until_silent(0.1) == b""
    assert_clean(client)


def test_a_character_cut_by_the_packet_boundary_is_not_put_together_again(client):
    client.send(b"\xc5")
    assert client.receive_until_silent(0.1) == b""
    client.send(b"\xbfET MUTE 0\n")
    assert client.receive_until_silent(0.1) == b""
    assert_clean(client)


def test_bytes_that_are_no_utf8_do_no_harm(client):
    client.send(bytes(range(1, 256)) * 4)
    assert client.receive_until_silent(0.1) == b""
    assert_clean(client)


def test_half_a_request_of_one_client_is_not_finished_by_another(daemon, connect):
    one, other = connect(), connect()
    one.send("GET V")
    assert one.receive_until_silent(0.05) == b""
    other.send("ER\n")
    assert other.receive_until_silent(0.1) == b""
    one.send("ER\n")
    assert one.receive_line() == b"VER " + VERSION + b"\n"


def test_unconsumed_text_is_gone_with_its_client(daemon, connect):
    mark = daemon.mark()
    first = connect()
    first.send("GET V")
    assert first.receive_until_silent(0.05) == b""
    first.close()
    daemon.wait_for_line("socket->deleteLater", mark)
    second = connect()
    second.send("ER\n")
    assert_clean(second)


def test_many_requests_in_one_packet_are_answered_in_order(client):
    names = ["VER", "DST", "PCO", "UPG", "ABC"] * 400
    values = {"VER": "MZV-2.0.0", "DST": "0", "PCO": "0", "UPG": "0", "ABC": "?"}
    client.send("".join(f"GET {name}\n" for name in names))
    expected = "".join(f"{name} {values[name]}\n" for name in names).encode()
    assert client.receive(len(expected)) == expected
    assert_clean(client)


def test_a_new_client_addresses_slave_9(client):
    assert client.get("FWV") == "TA3-1.6.14"


def test_the_new_slave_id_holds_from_the_next_packet_on(client):
    client.send("SET SID 2\nGET FWV\n")
    assert client.receive(18) == b"ackFWV TA3-1.6.14\n"
    assert client.get("FWV") == "TE1-2.0.2"


def test_the_slave_id_is_each_clients_own(daemon, connect):
    one, other = connect(), connect()
    assert one.set("SID 2") == "ack"
    assert one.get("FWV") == "TE1-2.0.2"
    assert other.get("FWV") == "TA3-1.6.14"


def test_a_valid_set_of_20000_pairs_is_carried_out(daemon, client):
    mark = daemon.mark()
    client.send("SET" + " MUTE 0" * 19_999 + " MOD 2\n")
    assert client.receive(3) == b"nak"
    assert not [line for line in daemon.messages(mark) if "UNHANDLED" in line]


def test_sets_that_never_end_do_not_hold_up_other_clients(daemon, connect):
    attacker, client = connect(), connect()
    assert client.get("VER") == "MZV-2.0.0"
    for _ in range(1000):
        attacker.send("SET AAA" + " 111" * 28 + "!")
    started = time.monotonic()
    for _ in range(20):
        assert client.get("VER") == "MZV-2.0.0"
    assert time.monotonic() - started < 1.0
    attacker.send("GET PCO\n")
    assert attacker.receive_line() == b"PCO 0\n"


def test_one_endless_set_in_many_packets_costs_time_linear_in_its_length(client):
    started = time.monotonic()
    client.send("SET MUTE")
    for _ in range(2000):
        client.send(" 0 MUTE" * 28)
    client.send(" MOD 2\n")
    assert client.receive(3, timeout=20) == b"nak"
    assert time.monotonic() - started < (10.0 if SANITIZED else 3.0)


def test_a_stream_without_requests_does_not_grow_the_daemon(daemon, client):
    client.send("no request here " * 60_000)
    assert_clean(client)
    before = daemon.resident_kib()
    for _ in range(32):
        client.send("no request here " * 65_536)
    assert_clean(client)
    assert daemon.resident_kib() - before < (64_000 if SANITIZED else 4_000)
