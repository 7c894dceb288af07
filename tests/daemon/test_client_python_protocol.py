"""The protocol core of the Python client library, and its waits: no I/O and no clock."""

import random

import pytest
from harness.protocoltable import names, rows
from harness.pythonclient import blocking
from gripperd_client import _model, _protocol, _waits

IDS_REPLY = b"SID [2, 9]\n"


def read(request, *parts):
    reader = _protocol.ReplyReader(request)
    for part in parts:
        assert not reader.is_complete
        reader.feed(part)
    return reader


def gets(*wanted):
    return _protocol.get_request(wanted)


SET = _protocol.set_request([("POS", 80), ("GTO", 1)])


def test_requests_are_the_bytes_of_the_protocol():
    assert SET.data == b"SET POS 80 GTO 1\n"
    assert gets("pos", "STA").data == b"GET POS\nGET STA\n"
    for wrong in ("PO", "POSI", "P S", "", "PÖS", "POS\n"):
        with pytest.raises(blocking.InvalidValue):
            gets(wrong)


@pytest.mark.parametrize("text, acknowledged", [(b"ack", True), (b"nak", False)])
def test_the_reply_to_a_set_is_three_bytes(text, acknowledged):
    assert read(SET, text).is_acknowledged is acknowledged
    assert read(SET, text[:1], text[1:2], text[2:]).is_acknowledged is acknowledged


def test_replies_come_in_any_pieces():
    request = gets("POS", "FLT", "SID")
    reply = b"POS 80\nFLT 00\n" + IDS_REPLY
    chance = random.Random(1)
    for _ in range(300):
        cuts = sorted(chance.sample(range(1, len(reply)), chance.randint(0, 6)))
        parts = [reply[a:b] for a, b in zip([0, *cuts], [*cuts, len(reply)])]
        assert read(request, *parts).values == ["80", "00", "[2, 9]"]


@pytest.mark.parametrize(
    "request_, parts",
    [
        (SET, [b"acq"]),
        (SET, [b"POS 80\n"]),
        (SET, [b"a", b"k"]),
        (SET, [b"ack\n"]),
        (SET, [b"ackack"]),
        (gets("POS"), [b"ack"]),
        (gets("POS"), [b"PRE 80\n"]),
        (gets("POS"), [b"POS80\n"]),
        (gets("POS"), [b"pos 80\n"]),
        (gets("POS"), [b"\n"]),
        (gets("POS"), [b"Q"]),
        (gets("POS"), [b"POS 80\nPOS 80\n"]),
        (gets("POS"), [b"POS 80\nP"]),
        (gets("POS", "STA"), [b"STA 3\nPOS 80\n"]),
        (gets("POS"), [b"POS " + b"9" * 5000]),
    ],
)
def test_other_bytes_are_an_error_at_once(request_, parts):
    with pytest.raises(blocking.ProtocolError):
        read(request_, *parts)


def test_bytes_after_the_reply_are_an_error():
    reader = read(SET, b"ack")
    with pytest.raises(blocking.ProtocolError):
        reader.feed(b"a")


def test_an_endless_reply_needs_bounded_memory():
    reader = _protocol.ReplyReader(gets("SNU"))
    reader.feed(b"SNU ")
    with pytest.raises(blocking.ProtocolError):
        for taken in range(100_000):
            reader.feed(b"x" * 100)
    assert taken < 50


def test_values_are_decoded_by_their_type():
    assert _protocol.decode_number("FLT", "07") == 7
    assert _protocol.decode_number("NCY", "4294967295") == 4294967295
    assert _protocol.decode_flag("GTO", "1") is True and _protocol.decode_flag("GTO", "0") is False
    assert _protocol.decode_ids("SID", "[2, 9]") == (2, 9) and _protocol.decode_ids("SID", "[]") == ()
    decoders = (_protocol.decode_number, _protocol.decode_flag, _protocol.decode_text)
    assert [decode("POS", "?") for decode in decoders] == [None, None, None]
    for text in ("", "-1", "1.5", "1_0", " 1", "٣", "x"):
        with pytest.raises(blocking.ProtocolError):
            _protocol.decode_number("POS", text)
    for text in ("2", "9,2", "[9,2]", "[9, ]", "[9", "?"):
        with pytest.raises(blocking.ProtocolError):
            _protocol.decode_ids("SID", text)
    with pytest.raises(blocking.ProtocolError):
        _protocol.decode_flag("GTO", "2")


def test_the_tables_are_those_of_the_daemon():
    for ours, keyword in ((blocking.GET_VARIABLES, "get"), (blocking.SET_VARIABLES, "set")):
        assert {row.name for row in ours} == set(names(keyword))
        for row in rows(keyword):
            same = next(own for own in ours if own.name == row["name"])
            assert (same.needs_gripper, same.range) == (row["needsGripper"], row["range"])


def test_an_image_is_one_batch_with_the_request_before_the_object():
    names = _model.IMAGE_REQUEST.names
    assert len(names) <= 32, "the daemon answers only 32 GETs from one state"
    assert names.index("PRE") < names.index("OBJ") and names.index("GTO") < names.index("OBJ")


@pytest.mark.parametrize(
    "text, expected",
    [
        ("127.0.0.1", ("127.0.0.1", 1)),
        ("gripper.example", ("gripper.example", 1)),
        ("gripper.example:2", ("gripper.example", 2)),
        ("::1", ("::1", 1)),
        ("[::1]", ("::1", 1)),
        ("[::1]:63352", ("::1", 63352)),
        ("fe80::2%eth0", ("fe80::2%eth0", 1)),
    ],
)
def test_forms_of_an_address(text, expected):
    assert _protocol.endpoint(text, 1) == expected


# The same texts as in tests/client/protocolcore.cpp.
@pytest.mark.parametrize("text", ["", ":", ":5", "a:", "a:0", "a:65536", "a:x", "a b", "[::1", "[]", "[::1]5",
                                  "a]", "[::1]:", "a:5 "])
def test_wrong_addresses(text):
    with pytest.raises(blocking.InvalidValue):
        _protocol.endpoint(text, 1)


def test_nothing_listens():
    with pytest.raises(blocking.ConnectionLost):
        blocking.Line("127.0.0.1", 1).image()


# Waits


def image(at, **values):
    usual = {"status": 3, "fault": 0, "go_to": True, "position": 0, "current": 5, "object": 3}
    time = _model.ReadingTime(at, 0)
    live = {"listed": (9,), "present": True, "stale": False}
    return _model.Image(id=9, time=time, **{**usual, **live, **values})


def moving(before, position=80):
    wait = _waits.MoveWait(image(0, requested_position=before), position)
    wait.on_acknowledged(0.0)
    return wait


def test_the_object_of_the_former_request_is_no_result():
    wait = moving(before=10)
    assert wait.judge(image(0.01, requested_position=10, object=3)) is None
    assert wait.judge(image(0.06, requested_position=80, object=1)) is None
    result = wait.judge(image(0.9, requested_position=80, object=2, position=55))
    assert result == blocking.ObjectMet(55, 5)


def test_the_same_request_again_has_no_result_before_its_write():
    wait = moving(before=80)
    assert wait.judge(image(0.01, requested_position=80, object=3)) is None
    # Another request, which was not written yet, appears for a moment.
    assert wait.judge(image(0.1, requested_position=20, object=1)) is None
    assert wait.judge(image(0.29, requested_position=80, object=3)) is None
    assert wait.judge(image(0.31, requested_position=80, object=3, position=80)) == blocking.Reached(80, 5)


def test_a_lost_link_restarts_the_wait_for_the_write():
    wait = moving(before=80)
    wait.on_stale(image(0.19, stale=True))
    assert wait.judge(image(0.4, requested_position=80)) is None
    assert wait.judge(image(0.5, requested_position=80)) is not None


@pytest.mark.parametrize(
    "values, error",
    [
        ({"requested_position": 50}, blocking.Interference),
        ({"requested_position": 80, "go_to": False}, blocking.Interference),
        ({"fault": 12}, blocking.Fault),
        ({"status": 0}, blocking.NotActive),
    ],
)
def test_an_end_without_a_result_is_an_error(values, error):
    wait = moving(before=10)
    wait.judge(image(0.1, requested_position=80, object=1))
    with pytest.raises(error):
        wait.judge(image(0.2, **{"requested_position": 80, **values}))


def test_a_request_that_never_appears_is_no_interference():
    wait = moving(before=10)
    assert wait.judge(image(9.0, requested_position=10)) is None
    for other in ({"requested_position": 33}, {"requested_position": 10, "go_to": False}):
        assert wait.judge(image(1.4, **other)) is None
        with pytest.raises(blocking.Interference):
            wait.judge(image(1.6, **other))
    # Another client switched go-to off before the write.
    assert wait.judge(image(0.1, requested_position=80, go_to=False)) is None
    with pytest.raises(blocking.Interference):
        wait.judge(image(9.0, requested_position=80, go_to=False))


def test_a_release_ends_when_nothing_moves():
    wait = _waits.ReleaseWait()
    assert wait.judge(image(0.0, status=2, position=50)) is None
    assert wait.judge(image(0.4, status=2, position=40)) is None
    assert wait.judge(image(0.8, status=2, position=40)) is None
    assert wait.judge(image(0.9, status=2, position=40)) is not None
