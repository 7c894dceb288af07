"""Scans, muting, slave ids, upgrades and missing grippers with the Python client library."""

import asyncio
import gc
import threading
import time
import warnings

import pytest
from harness.gripperctl import ScriptedDaemon
from harness.pythonclient import *  # noqa: F403
from harness.upgrades import polls_nothing, put_flasher, put_real_flasher
from harness.waiting import eventually

FAST = {"speed": 255, "force": 100}


def test_maintenance_mutes_a_silent_line_and_unmutes_after_an_exception(line, simulator):
    class Problem(Exception):
        pass

    with pytest.raises(Problem):
        with line.maintenance():
            assert polls_nothing(simulator)
            raise Problem
    simulator.wait_until_polled(9)


def test_maintenance_unmutes_on_a_new_connection(line, simulator, flavour):
    maintenance = line.maintenance()
    with maintenance:
        inner = maintenance if flavour == "blocking" else maintenance.wrapped
        inner._muting._connection.close()
    simulator.wait_until_polled(9)


@ONLY_ASYNCIO
def test_an_upgrade_beside_a_silent_gripper_is_refused(line, gripper, simulator, folder):
    put_flasher(folder, "true")
    simulator.command("fault 2 deaf")
    gripper.set({"MUTE": 1})
    with pytest.raises(blocking.Refused) as raised:
        gripper.upgrade()
    assert "gripper 2 does not answer" in str(raised.value)
    assert not (folder / "arguments").exists()
    simulator.wait_until_polled(9)


@ONLY_BLOCKING
def test_an_upgrade(line, gripper, simulator, folder):
    stages = []
    with pytest.raises(blocking.Refused) as raised:
        gripper.upgrade(stages.append)
    assert "nothing was written" in str(raised.value)
    assert stages == [blocking.UpgradeStage.JUMPING]
    simulator.command("restart 9")
    eventually(lambda: line.scan() == (2, 9), 10)

    put_flasher(folder, "exit 2")
    with pytest.raises(blocking.GripperMissing) as raised:
        gripper.upgrade()
    text = str(raised.value)
    assert "most likely before it wrote anything" in text and "switch it off and on" in text
    assert "incomplete" not in text
    simulator.command("restart 9")
    eventually(lambda: line.scan() == (2, 9), 10)

    stages.clear()
    (folder / "romflasher").unlink()
    put_real_flasher(folder)
    assert gripper.upgrade(stages.append) == "TA3-1.6.14"
    assert stages == list(blocking.UpgradeStage)
    simulator.wait_until_polled(9)


@ONLY_BLOCKING
def test_a_scan_during_a_movement_is_not_interference(gripper, connect):
    client = connect()
    timer = threading.Timer(0.3, client.set, ["SCN"])
    timer.start()
    assert gripper.move(255, speed=0, force=0).reached
    timer.join()
    eventually(lambda: gripper.image().speed == 0)


@ONLY_ASYNCIO
def test_the_line(line, simulator, connect):
    assert line.grippers() == (2, 9)
    state = line.state()
    assert (state.text, state.running, state.scanning, state.upgrading) == ("RUNNING", True, False, False)
    assert line.image().driver == "MZV-2.0.0"
    simulator.command("add 3=TF1-2.0.2")
    assert line.scan() == (2, 3, 9)
    simulator.command("remove 3")
    line.scan()
    with pytest.raises(blocking.TimedOut) as raised:
        line.wait_until_running([2, 4], timeout=0.3)
    assert "RUNNING" in str(raised.value) and "[2, 9]" in str(raised.value)
    line.wait_until_running([2, 9], timeout=1)


@ONLY_BLOCKING
def test_a_missing_gripper(line, simulator):
    with pytest.raises(blocking.GripperMissing) as raised:
        line.gripper(5)
    assert raised.value.id == 5
    with line.gripper(2) as vacuum:
        simulator.command("fault 2 deaf")
        eventually(lambda: line.grippers() == (9,), 10)
        image = vacuum.image()
        assert (image.present, image.stale, image.position) == (False, True, None)
        assert vacuum.get("POS") == "?"
        calls = [vacuum.activate, vacuum.deactivate, vacuum.stop, vacuum.release, vacuum.led_auto]
        calls += [vacuum.open, vacuum.upgrade]
        for call in calls:
            with pytest.raises(blocking.GripperMissing):
                call()


@ONLY_ASYNCIO
def test_a_gripper_that_is_lost_during_a_movement(line, gripper, simulator):
    timer = threading.Timer(0.3, simulator.command, ["fault 9 deaf"])
    timer.start()
    with pytest.raises(blocking.GripperMissing) as raised:
        gripper.move(255, speed=0, force=0)
    timer.join()
    assert raised.value.id == 9
    simulator.command("clear 9")
    line.scan()


@pytest.fixture
def third(line, simulator):
    """A gripper with the id 3 or 4, which is gone after the test, also if a rename fails halfway."""
    simulator.command("add 3=TF1-2.0.2")
    eventually(lambda: line.scan() == (2, 3, 9), 10)
    yield
    shown = "".join(simulator.command("show"))
    simulator.command("remove 3" if "gripper 3 " in shown else "remove 4")


@ONLY_ASYNCIO
def test_a_gripper_gets_a_new_id(line, third, simulator):
    for old, new in ((9, 5), (9, 9), (0, 3)):
        with pytest.raises(blocking.InvalidValue):
            line.rename(old, new)
    with pytest.raises(blocking.Refused):
        line.rename(9, 2)
    with pytest.raises(blocking.GripperMissing):
        line.rename(5, 4)
    for old, new in ((3, 4), (4, 3)):
        line.rename(old, new)
        # A scan of a busy machine may miss one of the others.
        listed = tuple(sorted([2, new, 9]))
        eventually(lambda: line.grippers() == listed or line.scan() == listed, 10)
        simulator.wait_until_polled(new)


@ONLY_BLOCKING
def test_maintenance_unmutes_if_its_connection_dies_silently(flavour, loop):
    silent = []

    def answer(request):
        if request == "GET UPG" and not silent:
            silent.append(request)
            return None
        return scripted.usual(request)

    with ScriptedDaemon(answer) as scripted, new_line(flavour, loop, scripted.host, timeout=0.4) as line:
        with line.maintenance():
            pass
        assert scripted.sets() == ["MUTE 1", "MUTE 0"]


@ONLY_BLOCKING
def test_leds_are_on_or_off_for_every_value(flavour, loop):
    with ScriptedDaemon() as scripted, new_line(flavour, loop, scripted.host) as line:
        with line.gripper(9) as gripper:
            gripper.led(2, "yes", None)
        assert scripted.sets() == ["SID 9", "LBP 1 LRD 1 LGN 1 LBL 0"]


def test_a_line_outlives_its_event_loop():
    with ScriptedDaemon() as scripted:
        line = aio.Line(scripted.host)

        async def state():
            return (await line.state()).running

        async def close():
            await line.close()

        with warnings.catch_warnings():
            # asyncio reports each connection that its loop leaves open.
            warnings.simplefilter("ignore", ResourceWarning)
            begin = time.monotonic()
            assert asyncio.run(state()) and asyncio.run(state())
            asyncio.run(close())
            assert time.monotonic() - begin < 3
            gc.collect()
