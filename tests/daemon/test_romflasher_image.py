"""The flasher and its image: one that changes during the flash, one that cannot be written."""

import os
import time

import pytest
from harness.children import binary, spawn
from harness.flashing import ROM, FlashSimulator, arguments, flash, make_image
from harness.waiting import eventually

QUICK = "--bootloader-boot-ms=100"


def truncate(path):
    os.truncate(path, 300)


def overwrite(path):
    """As a copy over the file does it."""
    with open(path, "r+b") as file:
        file.write(bytes(path.stat().st_size))


@pytest.mark.parametrize("change", [truncate, overwrite])
def test_an_image_that_changes_during_the_flash_is_written_as_it_was(tmp_path, change):
    with FlashSimulator(ROM, QUICK, "--bootloader-bps=50000") as bench:
        bench.into_bootloader()
        path = make_image(tmp_path, bench.after, 2000)
        process = spawn([binary("romflasher"), *arguments(bench, path, "-g")])
        bench.wait_for_chunk(lambda data: data == b"\x31\xce")
        change(path)
        assert process.wait(20) == 0
        assert bench.state() == "firmware"
        assert bench.version() == bench.after
