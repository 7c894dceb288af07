"""Unrequested bytes on the line cost no memory and do not stop polling."""

import pytest
from harness import modbus
from harness.daemon import SANITIZED, SMALL_QUARANTINE
from harness.effort import effort
from harness.load import Memory
from harness.moving import quiet_client

FLOODS = True

MEBIBYTE = 1 << 20
# The requests and answers of another master.
CHATTER = 200 * (
    modbus.with_crc(bytes.fromhex("060307d00003")) + modbus.read_answer(6, [0x3900, 0xF3AB, 0x1234])
)
GROWTH_LIMIT_KIB = (8 if SANITIZED else 2) * 1024


@pytest.mark.parametrize("is_muted", [True, False], ids=["muted", "polled"])
def test_chatter_costs_no_memory_and_does_not_stop_polling(line, start_daemon, connect, figure, is_muted):
    daemon = start_daemon(environment=SMALL_QUARANTINE).wait_until_found(9)
    client = quiet_client(line, connect)
    if not is_muted:
        assert client.set("MUTE 0") == "ack"
    memory = Memory(daemon)
    size = effort(200 if is_muted else 20, 1024) * MEBIBYTE
    for _ in range(size // len(CHATTER)):
        line.send(CHATTER)
    assert client.get("VER") == "MZV-2.0.0"
    growth = memory.growth_kib()
    figure(f"{growth} KiB more resident memory at most, for {size // MEBIBYTE} MiB")
    assert growth < GROWTH_LIMIT_KIB
    assert client.set("MUTE 0") == "ack"
    line.wait_until_polled(9, 2, timeout=15)
