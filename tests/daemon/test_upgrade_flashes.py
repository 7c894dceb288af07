"""Upgrades from end to end: daemon, flasher, stm32flash, bootloader."""

import os
import subprocess

import pytest
from harness.benches import benches
from harness.children import binary
from harness.daemon import QUIT_LIMIT
from harness.flashbench import FINGERS, VACUUM, FlashBench
from harness.upgrades import children_of, is_alive
from harness.waiting import eventually


@pytest.fixture
def make_bench(start_daemon, connect, tmp_path):
    with benches(FlashBench, start_daemon, connect, tmp_path) as make:
        yield make


@pytest.mark.parametrize("versions", [FINGERS, VACUUM], ids=["TA", "TE"])
def test_an_upgrade_ends_with_the_new_version(make_bench, versions):
    bench = make_bench(versions)
    assert bench.client.get("FWV") == versions[0]
    assert bench.client.set("UPG 1", timeout=15) == "ack"
    assert bench.client.get("UPG") == "1"
    bench.wait_for_the_end()
    bench.wait_for_the_new_version()
    assert bench.client.get("UPG") == "0"
    assert bench.client.get("DRI") == "RUNNING"
    assert bench.client.get("SID") == "[9]"
    text = "\n".join(bench.messages())
    assert "Wrote and verified 100 %" in text
    assert bench.messages().count("unmuteOnUpgradeFinished") == 1


def test_a_daemon_stopped_during_the_flash_leaves_no_process_on_the_line(make_bench):
    bench = make_bench(bits=19200, size=20000)
    bench.start()
    family = eventually(lambda: len(found := children_of(bench.daemon.pid)) == 2 and found)
    status, seconds = bench.daemon.stop()
    assert status == 0
    assert seconds < QUIT_LIMIT
    eventually(lambda: not any(is_alive(pid) for pid in family), 0.5)


def test_after_a_killed_flasher_a_flash_by_hand_succeeds(make_bench, tmp_path):
    bench = make_bench(bits=40000, size=6000)
    bench.start()
    family = eventually(lambda: len(found := children_of(bench.daemon.pid)) == 2 and found)
    os.kill(family[0], 9)
    bench.wait_for_the_end()
    eventually(lambda: not any(is_alive(pid) for pid in family), 0.5)
    assert bench.client.get("UPG") == "0"
    # The gripper has no firmware, so discovery does not find it.
    eventually(lambda: bench.client.get("SID") == "[]")
    assert bench.client.set("MUTE 1") == "ack"
    bench.line.command("restart 9")
    command = [binary("romflasher"), "-p", "/dev/ttyTool", "-b", "19200", "-f", bench.image, "-g"]
    assert subprocess.run(command, timeout=60, cwd=tmp_path).returncode == 0
    assert bench.client.set("MUTE 0") == "ack"
    bench.wait_for_the_new_version()


def test_a_failing_flasher_logs_its_reason_and_polling_continues(make_bench):
    bench = make_bench()
    bench.line.command("fault 9 nackWrite always")
    bench.start()
    bench.wait_for_the_end()
    # The daemon reads standard output and standard error of the flasher in any order.
    messages = [m for m in bench.messages() if m.startswith('"')]
    assert any("flash it again" in message for message in messages)
    # The daemon searches repeatedly and finds no gripper.
    mark = bench.daemon.mark()
    for _ in range(2):
        bench.daemon.wait_for_line("availablePorts", mark)
        mark = bench.daemon.mark()


def test_a_missing_image_ends_the_upgrade_and_polling_continues(make_bench):
    bench = make_bench()
    bench.image.unlink()
    assert bench.client.set("UPG 1", timeout=15) == "ack"
    bench.wait_for_the_end()
    assert any(m.startswith('"') and bench.image.name in m for m in bench.messages())
    # The flasher has started the present firmware.
    bench.line.wait_until_polled(9, 2)
    assert bench.client.get("FWV") == FINGERS[0]
