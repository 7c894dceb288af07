"""The calls of the C++ client library that command a gripper."""

import time

import pytest
from harness.clientcheck import ClientCheck
from harness.protocoltable import names
from harness.simulator import Simulator
from harness.waiting import eventually

QUICK = ["--boot-ms=200", "--activation-ms=300"]


@pytest.fixture(scope="module")
def line(start_module_daemon):
    with Simulator("9=TA3-1.6.14", "2=TE1-2.0.2", *QUICK) as simulator:
        simulator.daemon = start_module_daemon().wait_until_found(2, 9)
        yield simulator


@pytest.fixture
def check(line):
    """The library, with an active and open gripper 9."""
    line.command("clear")
    line.command("object 9 none")
    with ClientCheck("wait-until-running 30 2 9", "gripper 9", "activate", "open") as library:
        yield library



def test_an_image_has_the_values_of_all_variables(check):
    image = check.image()
    raw = {name: check.call(f"get {name}") for name in names("get")}
    for name in set(names("get")) - {"DRI", "SID", "UPG", "VER", "DST", "PCO"}:
        number = raw[name].isdigit()
        assert image.pop(name) == (str(int(raw[name])) if number else raw[name]), name
    assert image == {"id": "9", "line": "RUNNING", "present": "1", "stale": "0", "listed": "[2, 9]"}


def test_a_movement_ends_at_its_position_or_at_an_object(check, line):
    assert check.call("move 120 255 100").split()[:2] == ["Reached", "120"]
    line.command("object 9 140")
    result = check.call("close").split()
    assert result[:2] == ["ObjectMet", "140"] and result[3] == "stalled"
    assert int(result[2]) > 0
    assert check.call("open").split()[:2] == ["Reached", "0"]


def test_the_result_of_the_same_position_again_is_not_that_of_before(check, line):
    line.command("object 9 140")
    assert check.call("close").startswith("ObjectMet 140")
    # The object leaves, so the fingers continue to the requested position.
    line.command("object 9 none")
    assert check.call("close").split()[:2] == ["Reached", "255"]


def test_a_request_behind_an_unwritten_one_has_its_own_result(check, connect):
    """PRE, GTO and OBJ still show the same position as before, while another one is on its way."""
    other = connect()
    for _ in range(5):
        assert check.call("move 60 255 100").startswith("Reached 60")
        assert other.set("POS 200 GTO 1") == "ack"
        assert check.call("move 60 255 100").split()[:2] == ["Reached", "60"]
        eventually(lambda: other.get("POS") == "60", 1)
        assert other.get("OBJ") == "3"


def test_values_out_of_range_are_refused_before_they_are_sent(check, line):
    for command in ("move 256 255 100", "move -1 255 100", "move 1 1 300", "set XYZ 1", "set SID 2",
                    "set POS 1 NID 3", "set", "get POSITION", "move 1 1 1 0", "move 1 1 1 -1",
                    "rename 9 5", "rename 9 9", "watch 1 0"):
        check.fail("InvalidValue", command)
    assert check.image()["PRE"] == "0"


def test_an_inactive_gripper_does_not_move(check):
    check.call("deactivate")
    assert check.image()["STA"] == "0"
    assert check.fail("NotActive", "move 100 255 100").endswith(" status: 0")
    check.fail("NotActive", "release")


def test_nothing_moves_after_an_activation(check):
    check.call("move 100 255 100")
    check.call("activate again")
    image = check.image()
    assert (image["STA"], image["GTO"], image["POS"]) == ("3", "0", "0")
    time.sleep(0.3)
    assert check.image()["POS"] == "0"


def test_nothing_moves_after_an_activation_that_follows_a_power_cut(check, line):
    check.call("move 100 255 100")
    line.command("restart 9")
    eventually(lambda: check.image()["STA"] == "0")
    check.call("activate")
    image = check.image()
    assert (image["STA"], image["GTO"], image["POS"]) == ("3", "0", "0")
    time.sleep(0.3)
    assert check.image()["POS"] == "0"


def test_an_active_gripper_is_not_activated_again(check, line):
    check.call("move 100 255 100")
    writes = len(line.since(0, lambda r: r.is_write(1000)))
    check.call("activate")
    assert check.image()["POS"] == "100"
    assert len(line.since(0, lambda r: r.is_write(1000))) == writes


def test_a_fault_ends_a_movement_and_an_activation_clears_it(check, line):
    check.begin("move 255 0 100")
    eventually(lambda: line.registers(9, 2002)[0] >> 8 > 20)
    line.command("faultcode 9 12")
    assert check.end()[-1].endswith(" code: 12")
    assert check.fail("Fault", "move 3 255 100").endswith(" code: 12")
    check.call("activate")
    assert check.image()["FLT"] == "0"


def test_a_request_of_another_client_is_an_interference(check, connect):
    check.begin("move 255 0 100")
    other = connect()
    eventually(lambda: other.get("PRE") == "255")
    other.set("POS 10")
    assert check.end()[-1].startswith("error Interference: ")
    check.call("open")
    check.begin("move 255 0 100")
    eventually(lambda: other.get("PRE") == "255")
    other.set("GTO 0")
    assert check.end()[-1].startswith("error Interference: ")


def test_a_scan_of_another_client_is_no_interference(check, connect):
    check.begin("move 255 20 100")
    other = connect()
    eventually(lambda: other.get("PRE") == "255")
    assert other.set("SCN_BLOCK", timeout=10) == "ack"
    assert check.end()[-1].startswith("ok Reached 255")
    assert other.get("SPE") == "0"


def test_a_movement_that_takes_too_long_times_out_and_continues(check):
    began = time.monotonic()
    assert "did not finish moving to 255" in check.fail("TimedOut", "move 255 0 100 0.5")
    assert time.monotonic() - began < 0.7
    eventually(lambda: check.image()["POS"] == "255")


def test_stop_ends_a_movement(check, line):
    check.begin("move 255 0 100")
    eventually(lambda: line.registers(9, 2002)[0] >> 8 > 20)
    with ClientCheck("gripper 9", "stop") as other:
        position = other.image()["POS"]
        assert 20 < int(position) < 200
        assert other.image()["GTO"] == "0"
        assert check.end()[-1].startswith("error Interference: ")
        assert other.image()["POS"] == position


def test_a_release_waits_for_its_end(check):
    check.call("move 200 255 100")
    check.call("release")
    image = check.image()
    assert (image["STA"], image["POS"]) == ("2", "0")
    check.fail("Fault", "move 100 255 100")
    check.call("activate")
    check.call("release closing")
    assert check.image()["POS"] == "255"


def test_leds_and_values(check):
    check.call("led 1 0 1")
    image = check.image()
    assert [image[name] for name in ("LBP", "LRD", "LGN", "LBL")] == ["1", "1", "0", "1"]
    check.call("led-auto")
    assert check.image()["LBP"] == "0"
    check.call("set MSC 77")
    assert check.image()["MSC"] == "77"
    assert check.call("get MSC") == "77"
    assert "refused" in check.fail("Refused", "set MOD 2")


def test_a_vacuum_gripper_reports_a_leak(check, line):
    line.command("object 2 30")
    for command in ("gripper 2", "activate"):
        check.call(command)
    assert check.call("move 80 255 100").startswith("ObjectMet 30")
    assert check.image()["VST"] == "3"
    check.call("stop")
    eventually(lambda: check.image()["POS"] == "0")


def test_a_gripper_that_is_lost_during_a_movement_is_missing(check, line):
    check.begin("move 255 0 100")
    eventually(lambda: line.registers(9, 2002)[0] >> 8 > 20)
    line.command("fault 9 deaf")
    assert check.end()[-1].startswith("error GripperMissing: ")
    line.command("clear 9")
    check.call("scan")
