"""gripperctl with the real daemon and simulated grippers: status and movements."""

import os
import re
import time

import pytest
from harness import gripperctl
from harness.gripperctl import as_json, fail, ctl, start_ctl, succeed
from harness.simulator import Simulator
from harness.waiting import eventually


@pytest.fixture(scope="module")
def simulator():
    options = ("--serial", "9=QRS-0017", "--year", "9=2023", "--activation-ms", "100")
    with Simulator("9=TA3-1.6.14", "2=TE1-2.0.2", *options) as running:
        yield running


@pytest.fixture(scope="module")
def daemon(simulator, start_module_daemon):
    daemon = start_module_daemon().wait_until_found(9, 2)
    # Ten times as many visits make the tests faster.
    succeed("set", "THROTTLE", "0")
    return daemon


@pytest.fixture
def client(simulator, daemon, connect):
    """All state as after the start, except the positions of the fingers."""
    client = connect()
    for command in ("clear", "release 9", "object 9 none", "object 2 none"):
        simulator.command(command)
    for slave_id in ("2", "9"):
        assert client.set(f"SID {slave_id}") == "ack"
        assert client.set("ACT 0 GTO 0 ATR 0 SPE 255 FOR 0") == "ack"
        eventually(lambda: client.get("STA") == "0")
    return client


@pytest.fixture
def active(client):
    assert succeed("activate", "--wait") == "gripper 9 is active\n"
    assert client.get("STA") == "3"
    return client


def test_status_shows_every_gripper(client):
    head, names, vacuum, fingers = succeed("status").splitlines()
    assert head == "driver MZV-2.0.0, link RUNNING"
    assert names.split() == "ID FAMILY FIRMWARE SERIAL YEAR STATUS POS OBJECT FAULT CYCLES".split()
    assert vacuum.split()[:3] == ["2", "Zentra", "TE1-2.0.2"]
    assert fingers.split()[:6] == ["9", "Pello", "TA3-1.6.14", "QRS-0017", "2023", "inactive"]
    assert fingers.index("Pello") == names.index("FAMILY")


def test_status_is_json_for_scripts(client):
    result = as_json("status", "--gripper", "9")
    assert result["driver"] == "MZV-2.0.0" and result["link"] == "RUNNING"
    (fingers,) = result["grippers"]
    assert fingers["id"] == 9 and fingers["serialNumber"] == "QRS-0017" and fingers["year"] == 2023
    assert fingers["position"] == int(client.get("POS"))
    assert fingers["cycles"] == int(client.get("NCY"))


def test_get_prints_what_the_daemon_answers(client):
    assert succeed("get", "FLT") == "00\n"
    assert succeed("get", "fwv", "SID", "--gripper", "2") == "FWV TE1-2.0.2\nSID [2, 9]\n"
    run = ctl("get", "XYZ")
    assert (run.returncode, run.stdout) == (gripperctl.REFUSED, "?\n")
    assert "no value of XYZ" in run.stderr


def test_set_reaches_the_gripper(client):
    assert succeed("set", "MSC", "77") == "ack\n"
    assert client.get("MSC") == "77"
    assert "nak" in fail(gripperctl.REFUSED, "set", "MOD", "2")


def test_leds_reach_the_gripper(client):
    succeed("led", "red", "green")
    assert [client.get(name) for name in ("LBP", "LRD", "LGN", "LBL")] == ["1", "1", "1", "0"]


def test_an_active_gripper_is_activated_again_only_on_request(active, simulator):
    assert succeed("activate") == "gripper 9 is active already\n"
    mark = simulator.mark()
    assert succeed("activate", "--again", "--wait") == "gripper 9 is active\n"
    writes = simulator.since(mark, lambda r: r.slave == 9 and r.is_write(1000))
    assert [r.values[0] >> 8 & 1 for r in writes][:2] == [0, 1]
    assert active.get("STA") == "3"


def test_activation_that_shows_a_fault(client, simulator):
    simulator.command("faultcode 9 7")
    assert "has fault 7" in fail(gripperctl.REFUSED, "activate", "--wait")


def test_an_inactive_gripper_gets_no_movement(client):
    before = client.get("PRE")
    assert "is inactive and cannot move: run gripperctl activate" in fail(
        gripperctl.REFUSED, "move", "33"
    )
    assert client.get("PRE") == before != "033"


def test_movements_end_with_their_result(active, simulator):
    moved = succeed("move", "100", "--speed", "255", "--force", "9", "--wait")
    assert moved == "gripper 9 reached 100\n"
    assert (active.get("POS"), active.get("SPE"), active.get("FOR")) == ("100", "255", "9")
    # The gripper already is at this position.
    assert succeed("move", "100", "--wait") == "gripper 9 reached 100\n"
    simulator.command("object 9 140")
    assert succeed("close", "--wait") == "gripper 9 met an object at 140, on its way to 255\n"
    result = as_json("close", "--wait")
    assert result["object"] == "object" and result["position"] == 140
    assert result["requestedPosition"] == 255
    assert succeed("open", "--wait") == "gripper 9 reached 0\n"


def test_a_movement_without_waiting(active):
    assert succeed("move", "60") == "gripper 9 was asked to go to 60\n"
    eventually(lambda: active.get("POS") == "60")


def test_a_fault_on_the_way(active, simulator):
    simulator.command("faultcode 9 5")
    text = fail(gripperctl.REFUSED, "move", "200", "--wait")
    assert re.search(r"gripper 9 has fault 5 at position \d+", text)


def test_a_leak_is_reported_as_such(client, simulator):
    simulator.command("object 2 50")
    succeed("--gripper", "2", "activate", "--wait")
    moved = succeed("--gripper", "2", "move", "120", "--wait")
    assert moved == "gripper 2 leaks: level 50 instead of 120\n"


def test_release_ends_when_the_fingers_stop(active):
    succeed("move", "80", "--wait")
    assert "has let go and is at 0; it takes no movement" in succeed("release", "--wait")
    assert fail(gripperctl.REFUSED, "move", "9").endswith("gripperctl activate --wait")


@pytest.mark.parametrize("words", [["--wait"], [], ["--again", "--wait"]], ids=" ".join)
def test_nothing_moves_after_an_activation(active, words):
    """The request before the release is a closed gripper."""
    succeed("close", "--wait")
    if "--again" not in words:
        succeed("release", "--wait")
    succeed("activate", *words)
    eventually(lambda: active.get("STA") == "3" and active.get("POS") == "0")
    # This is enough time for the beginning of a movement.
    time.sleep(0.3)
    assert (active.get("POS"), active.get("GTO")) == ("0", "0")


def test_stop_leaves_the_fingers_where_they_are(active):
    succeed("open", "--speed", "255", "--wait")
    succeed("move", "255", "--speed", "0")
    eventually(lambda: int(active.get("POS")) > 2)
    assert re.fullmatch(r"gripper 9 has stopped at \d+\n", succeed("stop"))
    position = active.get("POS")
    time.sleep(0.3)
    assert active.get("POS") == position != "255"


def test_stop_drops_a_sucked_part_only_on_request(client):
    succeed("--gripper", "2", "activate", "--wait")
    succeed("--gripper", "2", "move", "90", "--speed", "255", "--wait")
    assert client.set("SID 2") == "ack"
    assert "lets its part fall" in fail(gripperctl.USAGE, "--gripper", "2", "stop")
    assert client.get("VST") == "2"
    succeed("--gripper", "2", "stop", "--yes")
    eventually(lambda: client.get("POS") == "0")


def test_wait_sees_a_part_and_its_loss(active, simulator):
    assert fail(gripperctl.TIMED_OUT, "wait", "object", "--timeout", "0.3")
    simulator.command("object 9 100")
    succeed("close", "--speed", "255")
    assert "position 100" in succeed("wait", "object")
    assert "position 100" in succeed("wait", "still")
    simulator.command("object 9 none")
    assert "gripper 9 is active" in succeed("wait", "lost")
    succeed("wait", "active")
    succeed("wait", "gripper")
    succeed("wait", "daemon")


def test_an_address_of_the_other_family(client):
    assert succeed("--host", "::1", "get", "SID") == "[2, 9]\n"
    assert succeed("get", "SID", env={**os.environ, "GRIPPERCTL_HOST": "::1"}) == "[2, 9]\n"


def test_release_of_an_inactive_gripper(client):
    assert "cannot let go" in fail(gripperctl.REFUSED, "release")


def test_a_timeout_names_muted_polling_as_a_reason(active):
    assert active.set("MUTE 1") == "ack"
    text = fail(gripperctl.TIMED_OUT, "--timeout", "0.6", "move", "10", "--wait")
    assert "gripperctl set MUTE 0" in text
    assert succeed("set", "MUTE", "0") == "ack\n"
    eventually(lambda: active.get("POS") == "10")


def test_status_names_muted_polling_as_a_reason(active):
    succeed("open", "--speed", "255", "--wait")
    succeed("move", "255", "--speed", "0")
    eventually(lambda: active.get("OBJ") == "1")
    assert "no new values" not in succeed("status")
    assert active.set("MUTE 1") == "ack"
    assert succeed("status").endswith("no new values: polling may be muted (gripperctl set MUTE 0)\n")
    assert active.set("MUTE 0 GTO 0") == "ack"


def test_no_other_gripper_moves_instead_of_a_missing_one(active, simulator):
    succeed("--gripper", "2", "activate", "--wait")
    simulator.command("fault 9 deaf always")
    eventually(lambda: active.get("SID") == "[2]", 10)
    before = succeed("--gripper", "2", "get", "PRE", "GTO")
    assert "not list gripper 9 (listed: 2" in fail(gripperctl.NO_GRIPPER, "move", "77")
    # This is enough time for a write.
    time.sleep(0.3)
    assert succeed("--gripper", "2", "get", "PRE", "GTO") == before != "PRE 077\nGTO 1\n"
    simulator.command("clear")
    eventually(lambda: "serial QRS-0017" in succeed("scan"), 10)


def test_status_of_a_gripper_that_is_not_listed_names_the_listed_ones(daemon):
    run = ctl("--gripper", "3", "status")
    assert run.returncode == gripperctl.NO_GRIPPER
    assert "grippers found: 2, 9" in run.stdout and "no grippers" not in run.stdout


def test_a_gripper_is_removed_during_a_movement(active, simulator, daemon):
    process = start_ctl("move", "255", "--speed", "0", "--wait")
    eventually(lambda: active.get("OBJ") == "1")
    mark = daemon.mark()
    simulator.command("unplug")
    _, error = process.communicate(timeout=15)
    assert process.returncode == gripperctl.NO_GRIPPER
    assert "gripper 9 has disappeared from the line (link: ERR_SCANNING (EIO))" in error
    assert "then run gripperctl scan" in error
    assert "has found no gripper" in fail(gripperctl.NO_GRIPPER, "move", "1")
    run = ctl("status")
    assert run.returncode == gripperctl.NO_GRIPPER and "no grippers found" in run.stdout
    simulator.command("plug")
    daemon.wait_until_found(9, 2, since=mark)


def test_a_daemon_that_ends_during_a_movement(simulator, start_daemon, daemon, connect):
    """This test must be the last: it ends the daemon of this file."""
    client = connect()
    succeed("activate", "--wait")
    succeed("open", "--speed", "255", "--wait")
    process = start_ctl("move", "255", "--speed", "0", "--wait")
    assert "moving to 255" in process.stderr.readline()
    eventually(lambda: client.get("PRE") == "255")
    assert daemon.stop()[0] == os.EX_OK
    _, error = process.communicate(timeout=15)
    assert process.returncode == gripperctl.NO_CONNECTION
    assert "lost the connection" in error
    assert "is gripperd running? See systemctl status gripperd" in fail(
        gripperctl.NO_CONNECTION, "status"
    )
