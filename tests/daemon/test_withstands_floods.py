"""Streams without requests cost no memory and delay no other client."""

import random

import pytest
from harness.daemon import SANITIZED, SMALL_QUARANTINE
from harness.effort import effort
from harness.load import VISITS_USUAL, WORST_LIMIT, Bystander, Memory, Visits

FLOODS = True

MEBIBYTE = 1 << 20
STREAM = effort(32, 1024) * MEBIBYTE
# The sanitizer needs shadow memory for all memory that it ever used.
GROWTH_LIMIT_KIB = (40 if SANITIZED else 8) * 1024


def garbage():
    """Returns random bytes without zeros: a zero would drop the rest of its packet."""
    return bytes(random.Random(1).choices(range(1, 256), k=MEBIBYTE))


STREAMS = {
    "any bytes": garbage(),
    "letters that grow in upper case": "ßſıŉ".encode() * (MEBIBYTE // 9),
    "a SET that never ends": b" AAA" * (MEBIBYTE // 4),
    "a SET of names that are values": b" 111" * (MEBIBYTE // 4),
    "keywords without a request": b"GET  SET! SETGET\tGE-" * (MEBIBYTE // 20),
}


@pytest.mark.parametrize("block", STREAMS.values(), ids=STREAMS.keys())
def test_a_stream_without_a_request_costs_no_memory_and_delays_no_client(
    line, start_daemon, connect, figure, block
):
    daemon = start_daemon(environment=SMALL_QUARANTINE).wait_until_found(9)
    line.wait_for(lambda r: r.is_write(1000))
    client = connect(timeout=20)
    assert client.get("VER") == "MZV-2.0.0"
    memory = Memory(daemon)
    with Bystander(daemon) as bystander:
        visits = Visits(line, daemon)
        client.send("SET AAA")
        for _ in range(STREAM // len(block)):
            client.send(block)
        client.send("!\nGET VER\n")
        assert client.receive_line() == b"VER MZV-2.0.0\n"
        line.wait_until_polled(9, 6)
    # Each reply waits for a turn among the reads of the stream.
    figure(bystander.check(usual=WORST_LIMIT))
    # In slow builds, a visit may take longer than its period and delay the next one.
    figure(visits.check(usual=max(0.11, VISITS_USUAL)))
    growth = memory.growth_kib()
    figure(f"{growth} KiB more resident memory at most, for {STREAM // MEBIBYTE} MiB")
    assert growth < GROWTH_LIMIT_KIB
