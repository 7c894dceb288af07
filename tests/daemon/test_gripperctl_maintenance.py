"""gripperctl with the real daemon and simulated grippers: scans, ids, firmware."""

import pytest
from harness import gripperctl
from harness.gripperctl import as_json, fail, ctl, start_ctl, succeed
from harness.twogrippers import daemon, folder, simulator  # noqa: F401
from harness.upgrades import put_flasher, put_real_flasher
from harness.waiting import eventually


@pytest.fixture
def found(simulator, daemon, folder, connect):
    """The daemon has found both grippers, which run their firmware. There is no flasher."""
    (folder / "romflasher").unlink(missing_ok=True)
    simulator.command("clear")
    client = connect()
    if client.get("SID") != "[2, 9]" or "bootloader" in str(simulator.command("show")):
        simulator.command("restart 9")
        eventually(lambda: client.set("SCN_BLOCK") == "ack" and client.get("SID") == "[2, 9]")


def test_a_scan_shows_new_grippers(found, simulator):
    simulator.command("add 3=TF1-2.0.2 serial=NEW-003")
    run = ctl("scan")
    assert run.returncode == gripperctl.DONE
    lines = [line.split() for line in run.stdout.splitlines()]
    assert [line[0] for line in lines] == ["2", "3", "9"]
    assert lines[1] == ["3", "Sorbix", "TF1-2.0.2", "serial", "NEW-003"]
    assert run.stderr.startswith("scanning the line")
    simulator.command("remove 3")
    assert "no grippers" not in succeed("scan")


def test_a_gripper_that_keeps_its_id(found, simulator):
    simulator.command("fault 9 exception always 4 on 430")
    text = fail(gripperctl.REFUSED, "rename", "9", "4")
    assert "gripper 9 kept its id. Switch it off and on" in text and "it may have stored 4" in text
    simulator.wait_until_polled(9)


def upgrade_and_restart(simulator):
    """Restarts the gripper during the scan after the upgrade. Returns the result."""
    process = start_ctl("upgrade", "--yes")
    # The first scan is before the upgrade.
    while not process.stderr.readline().startswith("gripper 9: entering"):
        assert process.poll() is None
    # gripperctl may miss a flasher that ends at once.
    while not process.stderr.readline().startswith("scanning"):
        assert process.poll() is None
    simulator.command("restart 9")
    _, error = process.communicate(timeout=20)
    assert process.returncode == gripperctl.REFUSED
    return error


def test_a_missing_flasher_is_reported_and_polling_continues(found, simulator):
    text = upgrade_and_restart(simulator)
    assert "the flasher did not start: nothing was written" in text
    assert "Polling continues, and gripper 9 runs firmware TA3-1.6.13" in text
    simulator.wait_until_polled(9)


def test_a_flasher_that_fails_at_once_is_not_reported_as_missing(found, simulator, folder):
    put_flasher(folder, "exit 2")
    text = upgrade_and_restart(simulator)
    assert "gripper 9 runs firmware TA3-1.6.13, as before" in text
    assert "see the messages of the flasher in the daemon's log" in text
    simulator.wait_until_polled(9)


def test_an_upgrade_that_could_not_begin_is_not_called_incomplete(found, folder):
    put_flasher(folder, "exit 2")
    text = fail(gripperctl.NO_GRIPPER, "upgrade", "--yes")
    assert "the flasher ended at once, most likely before it wrote anything" in text
    assert "switch it off and on" in text and "incomplete" not in text


def test_a_gripper_that_refuses_its_bootloader_keeps_running(found, simulator):
    simulator.command("fault 9 exception always 3 on 400")
    text = fail(gripperctl.REFUSED, "upgrade", "--yes")
    assert "not found in its bootloader" in text
    assert "Polling continues, and gripper 9 runs firmware TA3-1.6.13" in text
    simulator.wait_until_polled(9)


def test_an_upgrade_is_refused_while_another_gripper_is_in_its_bootloader(found, simulator, folder):
    put_real_flasher(folder)
    assert ctl("--gripper", "2", "set", "BLD", "1").returncode == gripperctl.DONE
    text = fail(gripperctl.REFUSED, "upgrade", "--yes")
    assert "gripper 2 does not answer" in text and "switch it off and on" in text.lower()
    simulator.wait_until_polled(9)
    grippers = " ".join(simulator.command("show"))
    assert "gripper 9 TA3-1.6.13 serial=" in grippers
    assert "gripper 2 TE1-2.0.1 serial=SIM-1002 year=2024 bootloader" in grippers
    simulator.command("restart 2")


# These tests change the grippers, so they must be the last.


def test_an_upgrade_ends_with_both_versions(found, folder):
    put_real_flasher(folder)
    run = ctl("upgrade", "--yes")
    assert run.returncode == gripperctl.DONE, run
    assert run.stdout == "gripper 9: firmware TA3-1.6.13 -> TA3-1.6.14\n"
    stages = run.stderr.splitlines()
    assert stages[0].startswith("scanning the line")
    assert stages[1] == "gripper 9: entering its bootloader ..."
    assert stages[2] == "writing the firmware ..."


def test_a_gripper_gets_another_id(found, simulator):
    assert "id 2 is in use" in fail(gripperctl.REFUSED, "rename", "9", "2")
    assert "not list gripper 3 (listed: 2, 9)" in fail(gripperctl.NO_GRIPPER, "rename", "3", "4")
    simulator.command("add 4=TF1-2.0.2")
    assert "id 4 is in use" in fail(gripperctl.REFUSED, "rename", "9", "4")
    simulator.command("remove 4")
    eventually(lambda: succeed("get", "SID") == "[2, 9]\n")
    result = as_json("rename", "9", "3")
    assert (result["old"], result["new"]) == (9, 3)
    assert succeed("get", "SID") == "[2, 3]\n"
    simulator.wait_until_polled(3)
