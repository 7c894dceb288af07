"""The connections of the C++ client library, at a scripted daemon."""

import time

import pytest
from harness.clientcheck import ClientCheck
from harness.gripperctl import ScriptedDaemon

MOVE = "SET POS 10 SPE 255 FOR 100 GTO 1"


@pytest.fixture
def check():
    with ClientCheck() as library:
        yield library


def connected(check, daemon):
    check.call("line " + daemon.host)
    check.call("gripper 9")
    return check


class Dropping(ScriptedDaemon):
    """Closes the connection at some requests, each of them once."""

    def __init__(self, *requests):
        super().__init__(answer=self.drop_once)
        self.to_drop = list(requests)

    def drop_once(self, request):
        if request in self.to_drop:
            self.to_drop.remove(request)
            self.drop()
            return None
        return self.usual(request)


def test_a_set_without_a_reply_is_unknown_and_not_repeated(check):
    with Dropping(MOVE) as daemon:
        answer = connected(check, daemon).fail("ConnectionLost", "move 10 255 100")
        assert answer.endswith(" unknown: " + MOVE)
        assert daemon.requests.count(MOVE) == 1
        assert check.image()["STA"] == "3"
        assert daemon.requests.count(MOVE) == 1


def test_a_get_is_repeated_after_the_selection_of_the_gripper(check):
    with Dropping("GET GTO") as daemon:
        assert connected(check, daemon).image()["STA"] == "3"
        # Bytes of the first packet may still be read after the drop.
        last = len(daemon.requests) - 1 - daemon.requests[::-1].index("SET SID 9")
        assert daemon.requests[last + 1] == "GET PRE"
        assert daemon.requests.count("SET SID 9") == 2


def test_a_connection_that_ends_between_two_calls_is_opened_again(check):
    with ScriptedDaemon() as daemon:
        connected(check, daemon)
        daemon.drop()
        check.call("led 1 0 0")
        assert daemon.sets() == ["SID 9", "SID 9", "LBP 1 LRD 1 LGN 0 LBL 0"]


def test_a_connection_that_ends_during_a_movement_ends_the_call(check):
    with ScriptedDaemon(PRE="000") as daemon:
        connected(check, daemon).begin("move 10 255 100")
        daemon.wait_for(MOVE)
        daemon.drop()
        answer = check.end()[-1]
        assert answer.startswith("error ConnectionLost: ")
        assert answer.endswith(" unknown: " + MOVE)
        assert daemon.sets() == ["SID 9", MOVE[4:]]


def test_after_a_time_out_a_new_connection_is_used(check):
    silent = [True]

    def answer(request):
        return None if request.startswith("SET POS") and silent[0] else daemon.usual(request)

    with ScriptedDaemon(answer) as daemon:
        began = time.monotonic()
        text = connected(check, daemon).fail("TimedOut", "move 10 255 100 0.3")
        assert 0.25 < time.monotonic() - began < 0.6
        assert text.endswith(" unknown: " + MOVE)
        silent[0] = False
        assert check.image()["STA"] == "3"
        assert daemon.sets() == ["SID 9", MOVE[4:], "SID 9"]


def test_another_server_is_a_protocol_error(check):
    with ScriptedDaemon(lambda request: b"HTTP/1.1 400 Bad Request\r\n\r\n") as daemon:
        check.call("line " + daemon.host)
        assert "HTTP/1.1" in check.fail("ProtocolError", "grippers")
        check.fail("ProtocolError", "gripper 9")


def test_a_watch_reports_a_lost_connection(check):
    with ScriptedDaemon() as daemon:
        connected(check, daemon).begin("watch 6 20")
        assert check.next_line().startswith("image ")
    items = check.end()[:-1]
    assert items[-1].startswith("outage NoConnection 9 "), items
    ages = [float(item.split()[3]) for item in items if item.startswith("outage")]
    assert ages[0] == 0.0 and ages == sorted(ages)
