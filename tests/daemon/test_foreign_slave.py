"""The daemon and a Modbus slave of other authors."""

import os
import select
import subprocess
import sys
import threading
import tty

import pytest
from harness.children import spawn
from harness.line import version_registers
from harness.waiting import eventually

# A plain register image on a serial port. It prints every written block.
SERVER = """
import sys
from pymodbus.datastore import ModbusServerContext, ModbusSlaveContext, ModbusSparseDataBlock
from pymodbus.server import StartSerialServer
from pymodbus.transaction import ModbusRtuFramer

class Image(ModbusSparseDataBlock):
    def setValues(self, address, values, use_as_default=False):
        super().setValues(address, values, use_as_default)
        if values:
            print("set", address, *values, flush=True)

registers = {int(k): int(v) for k, v in (word.split("=") for word in sys.argv[2:])}
slave = ModbusSlaveContext(hr=Image(registers), zero_mode=True)
StartSerialServer(
    context=ModbusServerContext(slaves={9: slave}, single=False),
    framer=ModbusRtuFramer, port=sys.argv[1], baudrate=115200, timeout=0.005,
    ignore_missing_slaves=True,
)
"""


class Cable:
    """Two connected ptys."""

    def __init__(self, link):
        self.link = link
        self.masters, slaves = zip(*(os.openpty() for _ in range(2)))
        for slave in slaves:
            tty.setraw(slave)
        self.slaves = slaves
        os.symlink(os.ttyname(slaves[0]), link)
        self.far_end = os.ttyname(slaves[1])
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self._relay, daemon=True)
        self.thread.start()

    def _relay(self):
        while not self.ended.is_set():
            for readable in select.select(self.masters, [], [], 0.1)[0]:
                other = self.masters[1 - self.masters.index(readable)]
                os.write(other, os.read(readable, 4096))

    def close(self):
        os.unlink(self.link)
        self.ended.set()
        self.thread.join()
        for end in (*self.masters, *self.slaves):
            os.close(end)


class PymodbusSlave:
    def __init__(self, port, registers):
        words = [f"{address}={value}" for address, value in registers.items()]
        self.process = spawn(
            [sys.executable, "-c", SERVER, port, *words],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
        )
        self.written = []
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def _read(self):
        for line in self.process.stdout:
            words = line.split()
            self.written.append([int(word) for word in words[1:]])

    def close(self):
        self.process.terminate()
        self.process.wait(5)
        self.thread.join(5)
        self.process.stdout.close()


@pytest.fixture(scope="module")
def slave():
    registers = {address: 0 for address in (*range(600, 606), *range(1000, 1003))}
    registers.update(zip(range(500, 503), version_registers("TB1-1.4.3")))
    registers.update(zip(range(510, 515), (0x5859, 0x5A00, 123, 0, 2019)))
    registers.update(zip(range(600, 606), (5, 1, 6, 0, 7, 0)))
    registers.update(zip(range(2000, 2003), (0x3900, 0x0264, 0x6408)))
    cable = Cable("/dev/ttyTool")
    server = PymodbusSlave(cable.far_end, registers)
    yield server
    server.close()
    cable.close()


@pytest.fixture(scope="module")
def daemon(slave, start_module_daemon):
    return start_module_daemon().wait_until_found(9, timeout=20)


def test_it_is_discovered_with_its_identity(daemon, connect):
    client = connect()
    assert client.get("SID") == "[9]"
    assert client.get("FWV") == "TB1-1.4.3"
    assert client.get("SNU") == "XYZ-0123"
    assert client.get("PYE") == "2019"


def test_its_status_and_counters_are_polled(daemon, connect):
    client = connect()
    eventually(lambda: client.get("DRI") == "RUNNING")
    got = [client.get(name) for name in ("ACT", "STA", "GTO", "FLT", "PRE", "POS", "COU")]
    assert got == ["1", "3", "1", "02", "100", "100", "8"]
    assert [client.get(name) for name in ("NCY", "PON", "NPA")] == ["65541", "6", "7"]


def test_values_that_clients_set_are_written_to_it(daemon, connect, slave):
    assert connect().set("POS 200 SPE 17 FOR 34 GTO 1 LBL 1") == "ack"
    eventually(lambda: slave.written[-1:] == [[1000, 0x0940, 200, 0x1122]], what=lambda: slave.written)


def test_a_scan_finds_it_again(daemon, connect):
    client, mark = connect(), daemon.mark()
    assert client.set("SCN_BLOCK") == "ack"
    daemon.wait_until_found(9, since=mark)
    assert client.get("SID") == "[9]"
    eventually(lambda: client.get("DRI") == "RUNNING")
