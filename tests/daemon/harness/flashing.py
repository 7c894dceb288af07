"""The flasher, and simulated bootloaders for it."""

import contextlib
import os
import socket
import subprocess
import termios
import threading
import time

import pytest

from . import modbus
from .children import binary
from .simulator import Simulator
from .waiting import eventually

PORT = "/dev/ttyTool"
LOCK = "/var/lock/LCK..ttyTool"
PROGRAM = os.path.basename(os.readlink("/proc/self/exe"))
# For each family: id, version before, version after, restart word, rate, address of the firmware.
ROM = (9, "TA3-1.6.13", "TA3-1.6.14", 0x2A00, 19200, 0x08000000)
OWN = (2, "TE1-2.0.1", "TE1-2.0.2", 0x3500, 115200, 0x08080000)
BOTH = pytest.mark.parametrize("kind", [ROM, OWN], ids=["rom", "own"])


class FlashSimulator(Simulator):
    """Keeps the bytes on the line in `chunks` as (direction, bytes, rate)."""

    def __init__(self, kind, *options):
        self.kind = kind
        self.id, self.before, self.after, self.word, self.rate, self.start = kind
        self.chunks = []
        self.arrived = threading.Condition()
        super().__init__(f"{self.id}={self.before}", "--boot-ms=200", *options)

    def _read(self):
        for line in self.process.stdout:
            words = line.decode().split()
            if len(words) < 3 or words[1] not in "<>":
                self._answers.put(line.decode().rstrip("\n"))
                continue
            rate = int(words.pop()[1:]) if words[-1].startswith("@") else None
            with self.arrived:
                self.chunks.append((words[1], bytes.fromhex("".join(words[2:])), rate))
                self.arrived.notify_all()

    def into_bootloader(self):
        descriptor = os.open(PORT, os.O_RDWR | os.O_NOCTTY)
        settings = termios.tcgetattr(descriptor)
        settings[4] = settings[5] = termios.B115200
        termios.tcsetattr(descriptor, termios.TCSANOW, settings)
        word = self.word.to_bytes(2, "big")
        os.write(descriptor, modbus.with_crc(bytes([self.id, 0x10, 1, 0x90, 0, 1, 2]) + word))
        eventually(lambda: self.state() in ("booting", "bootloader"))
        os.close(descriptor)
        eventually(lambda: self.state() == "bootloader")
        return self

    def state(self):
        return self.state_of(self.id)

    def version(self):
        return self.line_of(self.id).split()[2]

    def sent_by_master(self, mark=0):
        return [data for way, data, _ in self.chunks[mark:] if way == ">"]

    def wait_for_chunk(self, wanted, timeout=10.0):
        """Waits until the master has sent a chunk that `wanted` accepts."""
        deadline = time.monotonic() + timeout
        seen = 0
        with self.arrived:
            while not any(way == ">" and wanted(data) for way, data, _ in self.chunks[seen:]):
                seen = len(self.chunks)
                assert self.arrived.wait(deadline - time.monotonic()), "no such chunk"


def make_image(folder, version, size):
    path = folder / f"{version}.bin"
    subprocess.run([binary("gripper-firmware-image"), version, path, str(size)], check=True)
    return path


def arguments(simulator, path, *flags):
    return ["-p", PORT, "-b", str(simulator.rate), "-f", str(path), *flags]


def flash(simulator, path, *flags, **options):
    return subprocess.run(
        [binary("romflasher"), *arguments(simulator, path, *flags)],
        capture_output=True, text=True, timeout=60, **options,
    )


def put_lock(pid, program):
    with open(LOCK, "w", encoding="ascii") as lock:
        lock.write(f"{pid}\n{program}\n{socket.gethostname()}\n")


@contextlib.contextmanager
def lock_of_this_process():
    """Marks the port as locked by this process."""
    put_lock(os.getpid(), PROGRAM)
    try:
        yield
    finally:
        os.unlink(LOCK)
