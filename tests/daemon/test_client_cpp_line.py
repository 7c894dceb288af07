"""The calls of the C++ client library for the line: lists, scans, watches, maintenance."""

import time

import pytest
from harness.clientcheck import ClientCheck, values
from harness.simulator import Simulator
from harness.waiting import eventually

QUICK = ["--boot-ms=200", "--activation-ms=300"]


@pytest.fixture(scope="module")
def line(start_module_daemon):
    with Simulator("9=TA3-1.6.14", "2=TE1-2.0.2", *QUICK) as simulator:
        start_module_daemon().wait_until_found(2, 9)
        yield simulator


@pytest.fixture
def check(line):
    with ClientCheck("wait-until-running 30 9", "gripper 9") as library:
        yield library


def test_the_line_shows_its_grippers_and_its_state(check):
    assert check.call("grippers") == "[2, 9]"
    assert check.call("state") == "RUNNING running"
    shown = values(check.call("line-image"))
    assert shown == {"DRI": "RUNNING", "SID": "[2, 9]", "UPG": "0", "VER": "MZV-2.0.0",
                     "DST": "0", "PCO": "0"}


def test_a_missing_gripper_is_an_error_of_the_constructor(check):
    assert check.fail("GripperMissing", "gripper 5").endswith(" id: 5")


def test_a_scan_finds_a_gripper_that_was_lost(check, line, connect):
    line.command("fault 9 deaf")
    eventually(lambda: connect().get("SID") == "[2]", 10)
    image = check.image()
    assert (image["present"], image["stale"], image["POS"]) == ("0", "1", "none")
    for command in ("move 10 255 100", "activate", "stop", "led 1 1 1", "set POS 3", "release"):
        check.fail("GripperMissing", command)
    check.call("set MUTE 0")
    line.command("clear 9")
    assert check.call("scan") == "[2, 9]"
    assert check.image()["present"] == "1"


def test_maintenance_mutes_polling_until_its_end(check, line):
    check.call("maintenance")
    silent = line.mark()
    time.sleep(0.3)
    assert line.since(silent) == []
    check.call("end-maintenance")
    line.wait_until_polled(9)
    check.call("maintenance")
    check.call("leave-maintenance")
    line.wait_until_polled(9)


def test_a_watch_shows_images_and_outages(check, line):
    check.begin("watch 60 20")
    assert check.next_line().startswith("image ")
    line.command("unplug")
    try:
        items = iter(check.next_line, None)
        outage = next(item for item in items if item.startswith("outage "))
        assert outage.startswith("outage LinkDown 9 0.0"), outage
    finally:
        line.command("plug")
    answer = check.end()
    assert answer[-2].startswith("image "), answer


def test_a_watch_of_the_line_shows_all_grippers(check):
    check.begin("watch-line 6 50")
    shown = [values(item[6:])["id"] for item in check.end()[:-1]]
    assert shown == ["2", "9"] * 3


def test_nothing_listens(check):
    check.call("line 127.0.0.1 1")
    assert "nothing listens on 127.0.0.1:1:" in check.fail("ConnectionLost", "grippers")
    assert "nothing listens" in check.fail("TimedOut", "wait-until-running 0.2")


@pytest.mark.parametrize("host", ["::1", "[::1]:63352", "localhost", "127.0.0.1:63352"])
def test_addresses(line, host):
    with ClientCheck(f"line {host}") as check:
        assert check.call("grippers") == "[2, 9]"


def test_a_gripper_gets_another_id(check):
    check.fail("Refused", "rename 2 9")
    check.fail("GripperMissing", "rename 4 3")
    check.call("rename 2 3")
    assert check.call("grippers") == "[3, 9]"
