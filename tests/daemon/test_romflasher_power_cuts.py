"""The power fails in the middle of an upgrade: the second attempt must succeed."""

import subprocess

import pytest
from harness.children import binary, spawn
from harness.flashing import BOTH, FlashSimulator, arguments, flash, make_image
from harness.waiting import eventually

CUTS = [
    # The last bytes of the master before the power cut, and the possible exit codes. A cut takes a
    # moment, so the next step may have begun.
    ("synchronisation", lambda data: data == b"\x7f", {4, 5}),
    ("get id", lambda data: data == b"\x02\xfd", {4, 5}),
    ("erase command", lambda data: data in (b"\x44\xbb", b"\x43\xbc"), {5}),
    ("sectors", lambda data: len(data) in (3, 5) and data[0] == 0 and data[-1] in (0, 8), {5}),
    ("write command", lambda data: data == b"\x31\xce", {5}),
    ("address", lambda data: data[:1] == b"\x08" and data[2:4] == b"\x01\x00", {5}),
    ("first block", lambda data: len(data) == 258, {5}),
    ("verification", lambda data: data == b"\x11\xee", {5}),
    ("last block", lambda data: len(data) == 90, {5}),
    ("go", lambda data: data == b"\x21\xde", {6, 0}),
]


@BOTH
@pytest.mark.parametrize("point, codes", [cut[1:] for cut in CUTS], ids=[cut[0] for cut in CUTS])
def test_after_a_power_cut_the_second_attempt_succeeds(kind, tmp_path, point, codes):
    with FlashSimulator(kind, "--bootloader-bps=20000") as slow:
        slow.into_bootloader()
        path = make_image(tmp_path, slow.after, 600)
        process = spawn(
            [binary("romflasher"), *arguments(slow, path, "-g")], stderr=subprocess.DEVNULL
        )
        slow.wait_for_chunk(point)
        slow.command(f"restart {slow.id}")
        assert process.wait(60) in codes
        eventually(lambda: slow.state() in ("firmware", "bootloader"))
        if slow.state() == "firmware":
            slow.into_bootloader()
        assert flash(slow, path).returncode == 0
        slow.command(f"restart {slow.id}")
        eventually(lambda: slow.state() == "firmware")
        assert slow.version() == slow.after
