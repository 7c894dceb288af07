"""Modbus RTU frames, independent of the daemon's code."""

import struct
from dataclasses import dataclass, field

READ = 0x03
WRITE = 0x10


def crc(data):
    value = 0xFFFF
    for byte in data:
        value ^= byte
        for _ in range(8):
            value = (value >> 1) ^ 0xA001 if value & 1 else value >> 1
    return value


def with_crc(data):
    return bytes(data) + struct.pack("<H", crc(data))


@dataclass
class Request:
    """One request on the line; `at` is in seconds of the monotonic clock."""

    slave: int
    function: int
    address: int
    count: int
    values: list = field(default_factory=list)
    at: float = 0.0
    raw: bytes = b""

    def is_read(self, address=None):
        return self.function == READ and address in (None, self.address)

    def is_write(self, address=None):
        return self.function == WRITE and address in (None, self.address)

    def is_probe(self):
        return self.is_read(500)


def cut_request(buffer, at):
    """Returns (request or None, its length) for the frame at the start of `buffer`."""
    if len(buffer) < 8:
        return None, 0
    slave, function, address, count = struct.unpack(">BBHH", buffer[:6])
    if function == WRITE:
        length = 9 + buffer[6]
    elif function == READ:
        length = 8
    else:
        raise AssertionError(f"not a request: {bytes(buffer).hex(' ')}")
    if len(buffer) < length:
        return None, 0
    raw = bytes(buffer[:length])
    assert raw == with_crc(raw[:-2]), f"bad CRC in request {raw.hex(' ')}"
    values = []
    if function == WRITE:
        values = list(struct.unpack(f">{count}H", raw[7:-2]))
    return Request(slave, function, address, count, values, at, raw), length


def read_answer(slave, values):
    return with_crc(struct.pack(f">BBB{len(values)}H", slave, READ, 2 * len(values), *values))


def write_answer(slave, address, count):
    return with_crc(struct.pack(">BBHH", slave, WRITE, address, count))


def exception_answer(slave, function, code):
    return with_crc(bytes([slave, function | 0x80, code]))
