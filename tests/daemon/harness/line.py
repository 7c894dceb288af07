"""A pty as the serial line, with scripted slaves.

A slave is a register image without behaviour: it stores writes and returns the stored values. A
test that gives a slave a `script` decides every byte and its time. For grippers that behave like
real ones, use the simulator.
"""

import os
import select
import termios
import threading
import time
import tty

from . import modbus
from .requestlog import RequestLog
from .waiting import eventually


def version_registers(version):
    """Returns the three identity registers of a version such as "TA3-1.6.14"."""
    name, numbers = version.split("-")
    a, b, c = (int(n) for n in numbers.split("."))
    letters = name.encode("latin-1").ljust(3, b"\0")
    return [letters[0] << 8 | letters[1], letters[2] << 8 | a, b << 8 | c]


SYNCHRONISATION = 0x7F


class Slave:
    """One register image.

    `script(request)` returns the bytes of the answer, b"" for silence, a list of (delay in s,
    bytes), or None for the plain answer.
    """

    def __init__(self, slave_id, version="TA3-1.6.14", serial=42, year=2021):
        self.id = slave_id
        self.line = None
        self.registers = {}
        self.put(500, *version_registers(version))
        self.put(510, 0x4142, 0x4300, serial & 0xFFFF, serial >> 16)
        self.put(514, year)
        self.put(600, 0, 0, 0, 0, 0, 0)
        self.put(1000, 0, 0, 0)
        self.put(2000, 0, 0, 0)
        self.script = None
        self.listening = True

    def put(self, address, *values):
        for offset, value in enumerate(values):
            self.registers[address + offset] = value

    def get(self, address, count=1):
        return [self.registers.get(address + n, 0) for n in range(count)]

    def plain_answer(self, request):
        if request.function == modbus.READ:
            return modbus.read_answer(self.id, self.get(request.address, request.count))
        self.put(request.address, *request.values)
        return modbus.write_answer(self.id, request.address, request.count)

    def answer(self, request):
        if not self.listening:
            return []
        scripted = self.script(request) if self.script else None
        if scripted is None:
            scripted = self.plain_answer(request)
        return [(0.0, scripted)] if isinstance(scripted, bytes) else scripted


class Line(RequestLog):
    """The line and its adapter: `link` points to the pty while the adapter is plugged in."""

    def __init__(self, *slaves, link="/dev/ttyTool"):
        super().__init__()
        self.link = link
        self.slaves = {slave.id: slave for slave in slaves}
        for slave in slaves:
            slave.line = self
        self.garbage = []
        # The answer to a synchronisation byte; None if there is no bootloader.
        self.bootloader_answer = None
        self._master = None
        self._thread = None
        self._wake = None

    def __enter__(self):
        return self.plug()

    def __exit__(self, *_):
        self.unplug()

    def __getitem__(self, slave_id):
        return self.slaves[slave_id]

    def plug(self):
        self._master, slave = os.openpty()
        tty.setraw(slave)
        os.symlink(os.ttyname(slave), self.link)
        os.close(slave)
        self._wake = os.pipe()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()
        return self

    def unplug(self):
        """Hangs up the line, as a removed USB adapter does."""
        if self._master is None:
            return
        os.unlink(self.link)
        os.write(self._wake[1], b"x")
        self._thread.join()
        os.close(self._master)
        for end in self._wake:
            os.close(end)
        self._master = None

    def baud_rate(self):
        speeds = {termios.B19200: 19200, termios.B115200: 115200, termios.B9600: 9600}
        attributes = termios.tcgetattr(self._master)
        assert attributes[4] == attributes[5]
        return speeds.get(attributes[5], attributes[5])

    def send(self, data):
        """Sends bytes that answer no request."""
        os.write(self._master, data)

    def wait_until_quiet(self, quiet=0.15, timeout=5.0):
        """Waits until the line has been silent for `quiet` seconds."""

        def silent():
            with self._changed:
                last = self.requests[-1].at if self.requests else 0.0
            return time.monotonic() - last > quiet

        eventually(silent, timeout, "silence on the line")

    # The serving thread

    def _serve(self):
        buffer = bytearray()
        due = []
        while True:
            now = time.monotonic()
            wait = max(0.0, min([at for at, _ in due], default=now + 1.0) - now)
            readable, _, _ = select.select([self._master, self._wake[0]], [], [], wait)
            if self._wake[0] in readable:
                return
            now = time.monotonic()
            for at, data in [entry for entry in due if entry[0] <= now]:
                due.remove((at, data))
                os.write(self._master, data)
            if self._master not in readable:
                continue
            try:
                data = os.read(self._master, 4096)
            except OSError:
                # No process has the port open, and no event reports when one opens it.
                time.sleep(0.002)
                buffer.clear()
                due.clear()
                continue
            buffer += data
            due += self._take_requests(buffer, time.monotonic())

    def _take_requests(self, buffer, now):
        due = []
        while buffer:
            if self.bootloader_answer is not None and buffer[0] == SYNCHRONISATION:
                del buffer[0]
                due.append((now, self.bootloader_answer))
                continue
            try:
                request, used = modbus.cut_request(buffer, now)
            except AssertionError:
                with self._changed:
                    self.garbage.append(bytes(buffer))
                buffer.clear()
                return due
            if request is None:
                return due
            del buffer[:used]
            slave = self.slaves.get(request.slave)
            answers = slave.answer(request) if slave else []
            for delay, data in answers:
                if data and delay <= 0:
                    os.write(self._master, data)
                elif data:
                    due.append((now + delay, data))
            self.keep(request)
        return due
