"""Every row of the SET variables, checked in the registers of the gripper."""

import pytest
from harness.waiting import eventually

BASELINE = (
    "ACT 0 MOD 0 GTO 0 ATR 0 ARD 0 LBP 0 LGN 0 LRD 0 LBL 0 MSC 0 POS 0 SPE 0 FOR 0 "
    "MUTE 0 THROTTLE 0"
)

# The request, and registers 1000 to 1002 after it.
OUTPUTS = [
    ("ACT 1", [0x0100, 0, 0]),
    ("MOD 1", [0x0200, 0, 0]),
    ("GTO 1", [0x0800, 0, 0]),
    ("ATR 1", [0x1000, 0, 0]),
    ("ARD 1", [0x2000, 0, 0]),
    ("LBP 1", [0x0010, 0, 0]),
    ("LRD 1", [0x0020, 0, 0]),
    ("LBL 1", [0x0040, 0, 0]),
    ("LGN 1", [0x0080, 0, 0]),
    ("MSC 171", [0, 0xAB00, 0]),
    ("POS 205", [0, 0x00CD, 0]),
    ("SPE 239", [0, 0, 0xEF00]),
    ("FOR 18", [0, 0, 0x0012]),
    ("GTO -1", [0x0800, 0, 0]),
    ("GTO 255", [0x0800, 0, 0]),
    ("POS -1", [0, 0x00FF, 0]),
    ("POS 300", [0, 0x002C, 0]),
    ("POS 999", [0, 0x00E7, 0]),
    ("POS 007", [0, 0x0007, 0]),
    # Four digits are a value of three digits and a rest that is not a pair.
    ("POS 1000", [0, 0x0064, 0]),
    ("ATR 1 ACT 1", [0x0100, 0, 0]),
    ("ACT 1 GTO 1 POS 255 SPE 255 FOR 255", [0x0900, 0x00FF, 0xFFFF]),
    ("POS 1 POS 2 POS 3", [0, 3, 0]),
    ("GTO 1 XYZ 1 POS 9", [0x0800, 9, 0]),
    ("LBP 1 LRD 1 LBL 1 LGN 1 MOD 1 ARD 1 MSC 1", [0x22F0, 0x0100, 0]),
]

# Names that a value of zero clears.
CLEARED_BY_ZERO = ["GTO", "ATR", "ARD", "LBP", "LGN", "LRD", "LBL"]

GRIPPER_NAMES = ["ACT", "MOD", "GTO", "ATR", "ARD", "LBP", "LGN", "LRD", "LBL", "MSC", "POS"]
GRIPPER_NAMES += ["SPE", "FOR", "UPG", "BLD"]


@pytest.fixture
def client(daemon, grippers, connect):
    client, mark = connect(), grippers.mark()
    assert client.set(BASELINE) == "ack"
    # A deactivation is always written, even without a change.
    is_baseline = lambda r: r.slave == 9 and r.is_write(1000) and r.values == [0, 0, 0]
    grippers.wait_for(is_baseline, since=mark)
    return client


def wait_for_registers(line, expected, slave_id=9):
    shown = lambda: [hex(word) for word in line[slave_id].get(1000, 3)]
    eventually(lambda: line[slave_id].get(1000, 3) == expected, what=shown)


@pytest.mark.parametrize("pairs, expected", OUTPUTS, ids=[pairs for pairs, _ in OUTPUTS])
def test_output_reaches_the_registers(client, grippers, pairs, expected):
    assert client.set(pairs) == "ack"
    wait_for_registers(grippers, expected)


@pytest.mark.parametrize("zero", ["0", "256", "-", ""])
@pytest.mark.parametrize("name", CLEARED_BY_ZERO)
def test_value_of_zero_clears(client, grippers, name, zero):
    assert client.set(f"{name} 1") == "ack"
    eventually(lambda: grippers[9].get(1000, 3) != [0, 0, 0])
    assert client.set(f"{name} {zero}") == "ack"
    wait_for_registers(grippers, [0, 0, 0])


@pytest.mark.parametrize("zero", ["0", "256", "-", ""])
def test_activation_with_a_value_of_zero_deactivates(client, grippers, zero):
    assert client.set("ATR 1 ACT 1") == "ack"
    wait_for_registers(grippers, [0x0100, 0, 0])
    # The deactivation also withdraws the automatic release.
    assert client.set(f"ATR 1 ACT {zero}") == "ack"
    wait_for_registers(grippers, [0, 0, 0])


@pytest.mark.parametrize(
    "pairs, reply",
    [
        ("MOD 0", "ack"),
        ("MOD 1", "ack"),
        ("MOD 2", "nak"),
        ("MOD 255", "nak"),
        ("MOD 256", "ack"),
        ("MOD -1", "nak"),
        ("MOD 2 MOD 1", "ack"),
        ("MOD 1 MOD 2", "nak"),
        ("MOD 2 GTO 0", "nak"),
        ("MOD 2 XYZ 1", "nak"),
        ("SID 9", "ack"),
        ("SID 2", "ack"),
        ("SID 5", "nak"),
        ("SID 0", "nak"),
        ("SID 5 MOD 1", "ack"),
        ("MOD 2 SID 9", "nak"),
        ("SID 9 XYZ 5", "ack"),
        ("XYZ 1", "ack"),
        ("MUTE", "ack"),
        ("THROTTLE 1", "ack"),
    ],
)
def test_the_last_pair_with_a_verdict_decides_the_reply(client, pairs, reply):
    assert client.set(pairs) == reply
    client.send("GET PCO\n")
    assert client.receive_line() == b"PCO 0\n"


def test_wrong_mode_changes_nothing(client, grippers):
    assert client.set("MOD 1") == "ack"
    wait_for_registers(grippers, [0x0200, 0, 0])
    assert client.set("MOD 2 POS 1") == "nak"
    wait_for_registers(grippers, [0x0200, 1, 0])


def test_replies_have_no_line_ending(client):
    client.send("SET XYZ 1\nSET MOD 7\n")
    assert client.receive(6) == b"acknak"
    assert client.receive_until_silent(0.1) == b""


def test_an_undiscovered_slave_id_is_selected_too(client):
    assert client.get("FWV") == "TA3-1.6.14"
    assert client.set("SID 5") == "nak"
    assert client.get("FWV") == "?"
    assert client.set("SID 2") == "ack"
    assert client.get("FWV") == "TE1-2.0.2"


def test_slave_id_takes_the_low_8_bits(client):
    # The low 8 bits of 258 are 2.
    assert client.set("SID 258") == "ack"
    assert client.get("FWV") == "TE1-2.0.2"


def test_each_client_changes_the_gripper_it_has_selected(client, connect, grippers):
    other = connect()
    assert other.set("SID 2") == "ack"
    assert other.set("POS 22 GTO 1") == "ack"
    assert client.set("POS 99") == "ack"
    eventually(lambda: grippers[2].get(1001) == [22])
    wait_for_registers(grippers, [0, 99, 0])


@pytest.mark.parametrize("request_text", ["XYZ 1", "XYZ", "SCN_BLOC 1", "PRE 1", "SET 1", "12345 9"])
def test_unknown_name_is_logged_with_the_whole_request(client, daemon, request_text):
    mark = daemon.mark()
    assert client.set(request_text) == "ack"
    daemon.wait_for_line("UNHANDLED", mark)
    assert daemon.messages(mark) == [f'SET UNHANDLED REQUEST : "SET {request_text}\\n"']


def test_control_characters_of_a_logged_request_are_escaped(client, daemon):
    mark = daemon.mark()
    client.send("SET XYZ 1\r\n")
    assert client.receive(3) == b"ack"
    daemon.wait_for_line("UNHANDLED", mark)
    assert daemon.messages(mark) == ['SET UNHANDLED REQUEST : "SET XYZ 1\\r\\n"']


@pytest.mark.parametrize("name", GRIPPER_NAMES)
def test_gripper_name_without_a_gripper_is_unhandled(client, daemon, grippers, name):
    client.set("SID 5")
    grippers.wait_until_polled(9)
    mark, line_mark = daemon.mark(), grippers.mark()
    assert client.set(f"{name} 1") == "ack"
    daemon.wait_for_line("UNHANDLED", mark)
    assert daemon.messages(mark) == [f'SET UNHANDLED REQUEST : "SET {name} 1\\n"']
    grippers.wait_until_polled(9)
    assert grippers.since(line_mark, lambda r: r.is_write()) == []


@pytest.mark.parametrize("name", ["SCN", "SCN_BLOCK", "SID", "MUTE", "THROTTLE"])
def test_list_name_needs_no_gripper(client, daemon, name):
    client.set("SID 5")
    mark = daemon.mark()
    assert client.set(f"{name} 0") == ("nak" if name == "SID" else "ack")
    if name.startswith("SCN"):
        # The scan replaces the grippers, so wait for its end.
        daemon.wait_until_found(9, 2, since=mark)
    assert [m for m in daemon.messages(mark) if "UNHANDLED" in m] == []


def test_a_request_with_character_3_is_not_carried_out(client, grippers):
    client.send("SET PO\x03S 44\n")
    assert client.receive_until_silent(0.1) == b""
    assert client.set("POS 45") == "ack"
    wait_for_registers(grippers, [0, 45, 0])
