"""stm32flash alone, and the flasher with stm32flash, on simulated bootloaders."""

import hashlib
import os
import signal
import subprocess
import termios
import time

import pytest
from harness.children import binary, spawn
from harness.flashing import (
    BOTH, LOCK, OWN, PORT, ROM, FlashSimulator, arguments, flash, make_image, put_lock,
)
from harness.ports import is_not_open
from harness.waiting import eventually


@pytest.fixture
def bench(kind):
    with FlashSimulator(kind) as simulator:
        yield simulator.into_bootloader()


@pytest.fixture
def image(tmp_path):
    return lambda version, size=4099: make_image(tmp_path, version, size)


def stm32flash(simulator, path, *flags):
    start = f"0x{simulator.start:08x}"
    return subprocess.run(
        ["stm32flash", "-b", str(simulator.rate), "-m", "8n1", "-S", start, "-w", str(path),
         *flags, "-g", start, PORT],
        capture_output=True, text=True, timeout=60,
    )


# stm32flash alone


@BOTH
def test_stm32flash_starts_what_it_wrote_and_reads_it_back(bench, image, tmp_path):
    path = image(bench.after, 5000)
    assert stm32flash(bench, path, "-v").returncode == 0
    eventually(lambda: bench.state() == "firmware")
    assert bench.version() == bench.after
    bench.into_bootloader()
    back = tmp_path / "back"
    subprocess.run(
        ["stm32flash", "-b", str(bench.rate), "-m", "8n1", "-r", back, "-S",
         f"0x{bench.start:08x}:5000", PORT],
        check=True, capture_output=True, timeout=60,
    )
    assert hashlib.sha256(back.read_bytes()[:5000]).digest() == (
        hashlib.sha256(path.read_bytes()).digest()
    )


@pytest.mark.parametrize("kind", [ROM], ids=["rom"])
def test_stm32flash_without_verification_does_not_notice_a_bad_flash(bench, image):
    bench.command("fault 9 badVerify")
    assert stm32flash(bench, image(bench.after)).returncode == 0
    eventually(lambda: bench.state() == "bootloader" and bench.sent_by_master()[-1][0] == 0x08)
    assert bench.version() == bench.before


# The flasher


@BOTH
def test_flashing_ends_in_the_new_firmware(bench, image):
    result = flash(bench, image(bench.after), "-d", "-g")
    assert (result.returncode, result.stderr) == (0, "")
    assert bench.state() == "firmware"
    assert bench.version() == bench.after


@pytest.mark.parametrize("kind", [OWN], ids=["own"])
def test_the_port_stays_locked_until_the_firmware_has_booted(bench, image):
    started = time.monotonic()
    assert flash(bench, image(bench.after), "-g").returncode == 0
    assert time.monotonic() - started >= 3.0
    assert bench.state() == "firmware"


@BOTH
def test_without_g_nothing_is_started(bench, image):
    assert flash(bench, image(bench.after), "-d").returncode == 0
    assert bench.state() == "bootloader"
    assert b"\x21\xde" not in bench.sent_by_master()
    bench.command(f"restart {bench.id}")
    eventually(lambda: bench.state() == "firmware")
    assert bench.version() == bench.after


@BOTH
def test_nothing_below_the_firmware_is_read(bench, image):
    assert flash(bench, image(bench.after), "-g").returncode == 0
    sent = bench.sent_by_master()
    following = [b for a, b in zip(sent, sent[1:]) if a in (b"\x31\xce", b"\x21\xde")]
    addresses = [int.from_bytes(data[:4], "big") for data in following]
    assert len(addresses) == 18
    assert min(addresses) == bench.start
    assert {rate for _, _, rate in bench.chunks if rate is not None} == {bench.rate}


@BOTH
def test_details_are_whole_lines_one_per_ten_percent(bench, image):
    result = flash(bench, image(bench.after, 65536), "-d", "-g")
    assert "\r" not in result.stdout
    lines = result.stdout.splitlines()
    assert len([line for line in lines if line.startswith("Wrote and verified ")]) == 10
    assert lines[0].endswith(f"over {PORT}, {bench.rate} baud, 8n1")
    assert lines[-1].endswith(" done.")


@pytest.mark.parametrize("kind", [OWN], ids=["own"])
def test_closed_standard_streams_do_no_harm(bench, image):
    words = arguments(bench, image(bench.after), "-d", "-g")
    shell = ["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", binary("romflasher"), *words]
    assert subprocess.run(shell, timeout=60).returncode == 0
    assert bench.version() == bench.after


@pytest.mark.parametrize("kind", [OWN], ids=["own"])
def test_without_d_nothing_is_printed(bench, image):
    result = flash(bench, image(bench.after))
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


FAILURES = [
    ("silentBootloader", 4, "no bootloader answered: "),
    ("nackWrite", 5, "firmware not written: Failed to write memory at address "),
    ("badVerify 1", 5, "firmware not written: Failed to verify at address "),
    ("diesDuringWrite 1 5", 5, "firmware not written: Failed to write memory at address "),
    ("refuseGo", 6, "firmware written but not started: the bootloader refused "),
]


@BOTH
@pytest.mark.parametrize("fault, code, text", FAILURES)
def test_failure_has_its_code_and_one_line(bench, image, fault, code, text):
    path = image(bench.after)
    bench.command(f"fault {bench.id} {fault}")
    result = flash(bench, path, "-d", "-g")
    assert result.returncode == code
    assert result.stderr.startswith("romflasher: " + text)
    assert result.stderr.count("\n") == 1
    bench.command("clear")
    # The message asks for this: power off and on, into the bootloader, flash again.
    bench.command(f"restart {bench.id}")
    eventually(lambda: bench.state() in ("firmware", "bootloader"))
    if bench.state() == "firmware":
        bench.into_bootloader()
    assert flash(bench, path).returncode == 0
    bench.command(f"restart {bench.id}")
    eventually(lambda: bench.state() == "firmware")
    assert bench.version() == bench.after


@BOTH
def test_a_bootloader_that_was_detected_before_is_flashed(bench, image):
    path = image(bench.after)
    for count in (1, 2):
        descriptor = os.open(PORT, os.O_RDWR | os.O_NOCTTY)
        settings = termios.tcgetattr(descriptor)
        settings[4] = settings[5] = getattr(termios, f"B{bench.rate}")
        termios.tcsetattr(descriptor, termios.TCSANOW, settings)
        os.write(descriptor, b"\x7f" * count)
        eventually(lambda: bench.sent_by_master()[-1] == b"\x7f" * count)
        os.close(descriptor)
        result = flash(bench, path)
        assert (result.returncode, result.stderr) == (0, "")


def test_a_gripper_that_runs_its_firmware_is_reported(image):
    with FlashSimulator(ROM) as simulator:
        assert flash(simulator, image(simulator.after), "-g").returncode == 4
        assert simulator.state() == "firmware"


@pytest.mark.parametrize("kind", [OWN], ids=["own"])
def test_the_largest_image_fits(bench, image):
    assert flash(bench, image(bench.after, 524288)).returncode == 0


@pytest.mark.parametrize("kind", [ROM], ids=["rom"])
def test_an_image_that_looks_like_intel_hex_is_written_as_it_is(bench, tmp_path):
    path = tmp_path / "image.bin"
    path.write_bytes(b":00000001FF\n")
    assert flash(bench, path).returncode == 0
    assert any(b":00000001FF\n" in data for data in bench.sent_by_master())


def test_a_missing_port_is_reported(image):
    command = [binary("romflasher"), "-p", "/dev/ttyNone", "-b", "19200", "-f", image("TA3-1.6.14")]
    result = subprocess.run(command, capture_output=True, text=True)
    assert result.returncode == 3
    assert "/dev/ttyNone" in result.stderr


@pytest.mark.parametrize("kind", [ROM], ids=["rom"])
def test_the_lock_of_a_dead_process_is_replaced(bench, image):
    dead = subprocess.Popen(["true"])
    dead.wait()
    put_lock(dead.pid, "gripperd")
    assert flash(bench, image(bench.after)).returncode == 0
    assert not os.path.exists(LOCK)


@pytest.fixture
def slow_bench():
    with FlashSimulator(ROM, "--bootloader-bps=50000") as simulator:
        yield simulator.into_bootloader()


def slow_flashing(simulator, path):
    """Returns a flasher that has begun to write and needs a long time."""
    process = spawn(
        [binary("romflasher"), *arguments(simulator, path, "-d", "-g")],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE,
    )
    simulator.wait_for_chunk(lambda data: data == b"\x31\xce")
    return process


@pytest.mark.parametrize("signal_number", [signal.SIGKILL, signal.SIGTERM, signal.SIGINT])
def test_no_process_keeps_the_line_when_the_flasher_is_ended(slow_bench, image, signal_number):
    path = image(slow_bench.after, 20000)
    process = slow_flashing(slow_bench, path)
    process.send_signal(signal_number)
    process.wait(5)
    eventually(lambda: is_not_open(PORT), 2.0)
    process.stdout.close()
    process.stderr.close()
    # The remaining lock names no live process.
    slow_bench.command("restart 9")
    eventually(lambda: slow_bench.state() == "bootloader")
    assert flash(slow_bench, image(slow_bench.after)).returncode == 0


def test_no_process_keeps_the_line_when_the_parent_is_killed(slow_bench, image):
    path = image(slow_bench.after, 20000)
    script = "import subprocess, sys; subprocess.run(sys.argv[1:])"
    command = [binary("romflasher"), *arguments(slow_bench, path, "-g")]
    parent = spawn(["/usr/bin/python3", "-c", script, *command])
    slow_bench.wait_for_chunk(lambda data: data == b"\x31\xce")
    parent.kill()
    parent.wait(5)
    eventually(lambda: is_not_open(PORT), 2.0)


def test_the_lock_is_held_while_it_works(slow_bench, image):
    process = slow_flashing(slow_bench, image(slow_bench.after, 20000))
    with open(LOCK, encoding="ascii") as lock:
        assert lock.read().splitlines()[:2] == [str(process.pid), "romflasher"]
    second = flash(slow_bench, image(slow_bench.after))
    assert second.returncode == 3
    assert "romflasher" in second.stderr
    process.kill()
    process.communicate()
