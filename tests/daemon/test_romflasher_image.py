"""The flasher with an image that changes during the flash, or that it cannot write."""

import os

import pytest
from harness.children import binary, spawn
from harness.flashing import (
    BOTH, OWN, PROGRAM, ROM, FlashSimulator, arguments, flash, lock_of_this_process, make_image,
)

QUICK = "--bootloader-boot-ms=100"


def truncate(path):
    os.truncate(path, 300)


def overwrite(path):
    """Overwrites the image as a copy to the same file does."""
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


# If the flasher cannot write an image, the gripper keeps its firmware, and -g starts it.

NOTHING = "nothing was written"
STARTED = NOTHING + ", and the present firmware was started"
WAITING = NOTHING + ": switch the gripper off and on to start the present firmware"


@pytest.fixture
def bench(kind):
    with FlashSimulator(kind, QUICK) as simulator:
        yield simulator.into_bootloader()


def missing(path):
    pass


def empty(path):
    path.touch()


def device(path):
    path.symlink_to("/dev/zero")


ROM_ONLY = pytest.mark.parametrize("kind", [ROM], ids=["rom"])
USELESS = [missing, empty, os.mkdir, os.mkfifo, device]
ROOM = {ROM: 1 << 20, OWN: 1 << 19}


@BOTH
def test_an_image_that_cannot_be_written_is_refused_before_the_line_is_touched(bench, tmp_path):
    mark, room = len(bench.chunks), ROOM[bench.kind]

    def too_large(path):
        path.write_bytes(b"x" * (room + 1))

    reasons = {}
    for number, make in enumerate([*USELESS, too_large]):
        path = tmp_path / str(number)
        make(path)
        result = flash(bench, path)
        assert result.returncode == 2, make
        assert str(path) in result.stderr
        assert STARTED not in result.stderr
        reasons[make] = result.stderr
    assert "does not exist" in reasons[missing]
    assert "is empty" in reasons[empty]
    assert f"has {room + 1} bytes, but there is room for {room} only" in reasons[too_large]
    assert bench.chunks[mark:] == []
    assert bench.state() == "bootloader"


def starts_after(bench, path, code, **options):
    result = flash(bench, path, "-g", **options)
    assert result.returncode == code
    assert result.stderr.count("\n") == 1
    return result.stderr


@BOTH
def test_g_starts_the_present_firmware(bench, tmp_path):
    text = starts_after(bench, tmp_path / "missing.bin", 2)
    assert "missing.bin does not exist; " + STARTED in text
    assert bench.state() == "firmware"
    assert bench.version() == bench.before


@ROM_ONLY
def test_a_refused_start_of_the_present_firmware_is_reported(bench, tmp_path):
    bench.command(f"fault {bench.id} refuseGo")
    assert WAITING in starts_after(bench, tmp_path, 2)


@ROM_ONLY
def test_without_stm32flash_it_says_that_nothing_was_written(bench, tmp_path):
    path = make_image(tmp_path, bench.after, 600)
    text = starts_after(bench, path, 2, env={**os.environ, "PATH": str(tmp_path)})
    assert "stm32flash cannot be started" in text and WAITING in text


@ROM_ONLY
def test_a_locked_line_is_not_touched_to_start_the_firmware(bench, tmp_path):
    mark = len(bench.chunks)
    path = make_image(tmp_path, bench.after, 600)
    with lock_of_this_process():
        text = starts_after(bench, path, 3)
        assert WAITING in text and f"process {os.getpid()} ({PROGRAM})" in text
        assert WAITING in starts_after(bench, tmp_path / "missing.bin", 2)
    assert bench.chunks[mark:] == []
