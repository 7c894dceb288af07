"""Measures image() of the Python client library beside a bare exchange of the same bytes."""

import asyncio
import pathlib
import socket
import sys
import time

from rig import DAEMON_PORT
from tables import median, quantile, table

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "client" / "python"))

from gripperd_client import Line, aio  # noqa: E402
from gripperd_client._model import IMAGE_REQUEST  # noqa: E402

HEAD = ["exchange", "median us", "over the bare exchange us", "p99 us"]


def report(quick):
    """Prints the table. The daemon runs, with gripper 9."""
    rounds = 2000 if quick else 20_000
    bare = measured_bare(rounds)
    kinds = {
        "bare socket": bare,
        "image(), blocking": measured_blocking(rounds),
        "image(), asyncio": asyncio.run(measured_in_loop(rounds)),
    }
    rows = [
        [
            name,
            f"{median(times):.0f}",
            f"{median(times) - median(bare):.0f}",
            f"{quantile(times, 0.99):.0f}",
        ]
        for name, times in kinds.items()
    ]
    table(f"Python client: {rounds} exchanges of {len(IMAGE_REQUEST.names)} GETs in one packet", HEAD, rows)


def measured_bare(rounds):
    """Sends the bytes of image() and reads the replies, without looking at them."""
    lines = len(IMAGE_REQUEST.names)
    with socket.create_connection(("127.0.0.1", DAEMON_PORT), 10) as daemon:
        daemon.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

        def exchange():
            daemon.sendall(IMAGE_REQUEST.data)
            seen = 0
            while seen < lines:
                seen += daemon.recv(65536).count(b"\n")

        return [timed(exchange) for _ in range(rounds)]


def measured_blocking(rounds):
    with Line() as line, line.gripper(9) as gripper:
        return [timed(gripper.image) for _ in range(rounds)]


async def measured_in_loop(rounds):
    times = []
    async with aio.Line() as line:
        async with await line.gripper(9) as gripper:
            for _ in range(rounds):
                started = time.perf_counter()
                await gripper.image()
                times.append((time.perf_counter() - started) * 1e6)
    return times


def timed(call):
    started = time.perf_counter()
    call()
    return (time.perf_counter() - started) * 1e6
