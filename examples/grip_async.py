#!/usr/bin/env python3
"""Grips parts with gripper 9, which has fingers, until Ctrl-C. A second task watches for lost parts.

    grip_async.py HOST

It needs the package gripperd_client. It keeps a part through a restart of the daemon or of itself.
"""
import asyncio
import sys

from gripperd_client import ConnectionLost, Fault, GripperMissing, Image, Interference, NotActive
from gripperd_client import Object, Outage, ProtocolError, TimedOut
from gripperd_client.aio import Gripper, Line

GRIPPER = 9
SPEED, FORCE = 255, 100
CARRY_SECONDS = 1.0
WAIT_AFTER = (ConnectionLost, TimedOut, ProtocolError, GripperMissing, NotActive, Interference)


def holds_part(image: Image) -> bool:
    """The fingers push against an object. An image without fresh values is no proof."""
    return not image.stale and image.go_to is True and image.object == Object.MET


async def until_lost(line: Line) -> None:
    """Returns when a fresh image shows that the part is lost. An outage is no proof."""
    async with line.watch([GRIPPER], rate=20) as images:
        async for item in images:
            if not isinstance(item, Outage) and not holds_part(item):
                return


async def grip(line: Line, gripper: Gripper) -> None:
    if not holds_part(await gripper.image()):
        await gripper.open(SPEED, FORCE)
    # This also restores the force of a held part, which a scan sets to 0.
    result = await gripper.close(SPEED, FORCE)
    if not result.stalled:
        print("no part", flush=True)
        return
    print(f"holds a part at {result.position}", flush=True)
    try:
        # Here the robot would move.
        await asyncio.wait_for(until_lost(line), CARRY_SECONDS)
    except asyncio.TimeoutError:
        await gripper.open(SPEED, FORCE)
    else:
        print("lost the part", flush=True)


async def work(line: Line) -> None:
    await line.wait_until_running([GRIPPER])
    async with await line.gripper(GRIPPER) as gripper:
        # Sends nothing to an active gripper without a fault, so a held part stays. Otherwise it opens
        # the fingers: with a fault, the robot should put down its part first.
        await gripper.activate()
        while True:
            await grip(line, gripper)


async def main(host: str) -> None:
    async with Line(host) as line:
        while True:
            try:
                await work(line)
            except Fault as fault:
                print(f"fault {fault.code}: activates again", flush=True)
            except WAIT_AFTER as error:
                # A SET may or may not be carried out. work() looks at the gripper before it commands.
                print(f"waits: {error}", flush=True)
            await asyncio.sleep(1)


if __name__ == "__main__":
    try:
        asyncio.run(main(sys.argv[1]))
    except KeyboardInterrupt:
        # The gripper keeps its part.
        sys.exit(130)
