"""Every row of the GET variables."""

import pytest

ENDINGS = ["", "\n", "\r", "\r\n"]

# The register image has a different value in every field.
VACUUM, ACTIVATED, MODE, GOTO, STATUS, OBJECT = 2, 1, 1, 1, 3, 2
STATUS_WORD = VACUUM | ACTIVATED << 8 | MODE << 9 | GOTO << 11 | STATUS << 12 | OBJECT << 14
OUTPUT = "LBP 1 LGN 1 LRD 0 LBL 1 MSC 77 SPE 88 FOR 99"

WITH_GRIPPER = {
    "ACT": "1",
    "MOD": "1",
    "GTO": "1",
    "STA": "3",
    "VST": "2",
    "OBJ": "2",
    "FLT": "05",
    "LBP": "1",
    "LGN": "1",
    "LRD": "0",
    "LBL": "1",
    "MSC": "77",
    "PRE": "007",
    "POS": "201",
    "COU": "33",
    "SNU": "ABC-0042",
    "PYE": "2021",
    "NCY": "131073",
    "PON": "4294967295",
    "NPA": "65540",
    "FWV": "TA3-1.6.14",
    "SPE": "88",
    "FOR": "99",
}
WITH_AND_WITHOUT = {
    "DST": "0",
    "PCO": "0",
    "VER": "MZV-2.0.0",
    "DRI": "RUNNING",
    "SID": "[2, 9]",
    "UPG": "0",
}
UNKNOWN_TO_GET = ["ATR", "ARD", "NID", "SCN", "BLD", "ABC", "___", "123"]


@pytest.fixture(scope="module")
def grippers(grippers):
    grippers[9].put(2000, STATUS_WORD, 0x0507, 201 << 8 | 33)
    grippers[9].put(600, 1, 2, 0xFFFF, 0xFFFF, 4, 1)
    return grippers


@pytest.fixture
def client(daemon, connect):
    return connect()


def assert_answer(client, name, ending, value):
    client.send(f"GET {name}{ending}")
    expected = f"{name} {value}\n" if ending else value
    assert client.receive(len(expected)).decode() == expected
    # The next reply must follow directly.
    client.send("GET PCO\n")
    assert client.receive_line() == b"PCO 0\n"


@pytest.mark.parametrize("ending", ENDINGS, ids=repr)
@pytest.mark.parametrize("name", list(WITH_GRIPPER))
def test_with_a_gripper_reports_its_value(client, name, ending):
    assert client.set(OUTPUT) == "ack"
    assert_answer(client, name, ending, WITH_GRIPPER[name])


@pytest.mark.parametrize("ending", ENDINGS, ids=repr)
@pytest.mark.parametrize("name", list(WITH_GRIPPER))
def test_without_a_gripper_is_a_question_mark(client, name, ending):
    assert client.set("SID 5") == "nak"
    assert_answer(client, name, ending, "?")


@pytest.mark.parametrize("ending", ENDINGS, ids=repr)
@pytest.mark.parametrize("name", list(WITH_AND_WITHOUT))
@pytest.mark.parametrize("slave_id", [9, 5])
def test_needs_no_gripper(client, name, ending, slave_id):
    client.set(f"SID {slave_id}")
    assert_answer(client, name, ending, WITH_AND_WITHOUT[name])


@pytest.mark.parametrize("ending", ENDINGS, ids=repr)
@pytest.mark.parametrize("name", UNKNOWN_TO_GET)
def test_unknown_name_is_a_question_mark(client, name, ending):
    assert_answer(client, name, ending, "?")


def test_a_get_sends_nothing_and_changes_no_output(client, grippers):
    grippers.wait_until_polled(9)
    assert client.set("MUTE 1") == "ack"
    grippers.wait_until_quiet()
    mark = grippers.mark()
    for name in [*WITH_GRIPPER, *WITH_AND_WITHOUT, *UNKNOWN_TO_GET]:
        client.get(name)
    assert client.set("MUTE 0") == "ack"
    grippers.wait_until_polled(9, 2)
    assert grippers.since(mark, lambda r: r.is_write() or r.address in (500, 510, 514)) == []


@pytest.mark.parametrize(
    "word, name, value",
    [
        *((bits, "VST", str(bits)) for bits in range(4)),
        *((bits << 9, "MOD", str(bits)) for bits in range(4)),
        *((bits << 11, "GTO", str(bits)) for bits in range(2)),
        *((bits << 12, "STA", str(bits)) for bits in range(4)),
        *((bits << 14, "OBJ", str(bits)) for bits in range(4)),
        (0x3900, "ACT", "1"),
        (0x2900, "ACT", "0"),
        (0x1100, "ACT", "0"),
        (0x3000, "ACT", "0"),
        (0x00FC, "VST", "0"),
        (0xFFFC & ~0x0600, "MOD", "0"),
    ],
)
def test_status_word_is_decoded_bit_by_bit(client, grippers, word, name, value):
    grippers[9].put(2000, word)
    grippers.wait_until_polled(9)
    assert client.get(name) == value


@pytest.mark.parametrize(
    "word, fault, echo",
    [
        (0xF3AB, "03", "171"),
        (0x0C00, "12", "000"),
        (0x0009, "00", "009"),
        (0x0F63, "15", "099"),
        (0x00FF, "00", "255"),
        (0xF000, "00", "000"),
    ],
)
def test_fault_and_request_echo_are_padded_and_masked(client, grippers, word, fault, echo):
    grippers[9].put(2001, word)
    grippers.wait_until_polled(9)
    assert (client.get("FLT"), client.get("PRE")) == (fault, echo)


@pytest.mark.parametrize("word, position, current", [(0xFF00, "255", "0"), (0x00FF, "0", "255")])
def test_position_and_current_are_the_two_bytes_of_their_word(
    client, grippers, word, position, current
):
    grippers[9].put(2002, word)
    grippers.wait_until_polled(9)
    assert (client.get("POS"), client.get("COU")) == (position, current)


def test_counters_are_low_word_first_and_follow_every_poll(client, grippers):
    grippers[9].put(600, 0xFFFF, 0, 0, 0x8000, 1, 0)
    grippers.wait_until_polled(9)
    assert [client.get(name) for name in ("NCY", "PON", "NPA")] == ["65535", "2147483648", "1"]
