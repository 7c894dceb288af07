"""Upgrades by the C++ client library."""

import pytest
from harness.benches import benches
from harness.clientcheck import ClientCheck
from harness.flashbench import FINGERS, FlashBench
from harness.upgrades import put_flasher
from harness.waiting import eventually


@pytest.fixture
def make_bench(start_daemon, connect, tmp_path):
    with benches(FlashBench, start_daemon, connect, tmp_path) as make:
        yield make


@pytest.fixture
def check():
    with ClientCheck() as library:
        yield library


def is_polled(bench):
    bench.line.wait_until_polled(9)
    return True


def test_an_upgrade_returns_the_new_version(make_bench, check):
    make_bench()
    check.call("gripper 9")
    check.begin("upgrade")
    assert check.end(60) == ["jumping", "writing", "searching", "done", f"ok {FINGERS[1]}"]
    assert check.call("get FWV") == FINGERS[1]


def test_another_version_than_the_expected_one_is_refused(make_bench, check):
    bench = make_bench()
    check.call("gripper 9")
    assert FINGERS[1] in check.fail("Refused", "upgrade TA3-9.9.9", 60)
    assert is_polled(bench)


def test_a_missing_flasher_is_refused_and_polling_continues(make_bench, check, tmp_path):
    bench = make_bench()
    check.call("gripper 9")
    (tmp_path / "romflasher").unlink()
    assert "nothing was written" in check.fail("Refused", "upgrade", 60)
    bench.line.command("restart 9")
    eventually(lambda: bench.client.get("SID") == "[9]", 10)
    assert is_polled(bench)


def test_a_flasher_that_ends_at_once_leaves_no_incomplete_firmware(make_bench, check, tmp_path):
    make_bench()
    put_flasher(tmp_path, "exit 2")
    check.call("gripper 9")
    text = check.fail("GripperMissing", "upgrade", 60)
    assert "most likely before it wrote anything" in text and "switch it off and on" in text
    assert "incomplete" not in text


def test_a_second_upgrade_is_refused(make_bench, check, tmp_path):
    make_bench()
    put_flasher(tmp_path, "sleep 2")
    check.call("gripper 9")
    check.begin("upgrade")
    assert [check.next_line() for _ in range(2)] == ["jumping", "writing"]
    with ClientCheck("gripper 9") as other:
        assert "under way" in other.fail("Refused", "upgrade")
        assert "under way" in other.fail("Refused", "scan")
    # The stand-in wrote nothing, and the gripper stays in its bootloader.
    text = check.end(60)[-1]
    assert text.startswith("error GripperMissing: ") and "incomplete" in text


def test_a_gripper_in_its_bootloader_protects_others(start_daemon, connect, tmp_path, check):
    with benches(FlashBench, start_daemon, connect, tmp_path) as make:
        bench = make(FINGERS, "2=TA3-1.6.13")
        assert bench.client.set("SID 2") == "ack"
        assert bench.client.set("BLD 1", timeout=15) == "ack"
        check.call("gripper 9")
        assert "nothing was written" in check.fail("Refused", "upgrade", 60)
        assert check.call("get FWV") == FINGERS[0]
