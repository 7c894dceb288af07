#!/usr/bin/env python3
"""Grips parts with gripper 9, which has fingers, until Ctrl-C.

    grip.py HOST

It needs the package gripperd_client. It keeps a part through a restart of the daemon or of itself.
"""
import sys
import time

from gripperd_client import ConnectionLost, Fault, Gripper, GripperMissing, Image, Interference
from gripperd_client import Line, NotActive, Object, ProtocolError, TimedOut

GRIPPER = 9
SPEED, FORCE = 255, 100
CARRY_SECONDS = 1.0
WAIT_AFTER = (ConnectionLost, TimedOut, ProtocolError, GripperMissing, NotActive, Interference)


def holds_part(image: Image) -> bool:
    """The fingers push against an object. An image without fresh values is no proof."""
    return not image.stale and image.go_to is True and image.object == Object.MET


def grip(gripper: Gripper) -> None:
    if not holds_part(gripper.image()):
        gripper.open(SPEED, FORCE)
    # This also restores the force of a held part, which a scan sets to 0.
    result = gripper.close(SPEED, FORCE)
    if not result.stalled:
        print("no part", flush=True)
        return
    print(f"holds a part at {result.position}", flush=True)
    carry(gripper)


def carry(gripper: Gripper) -> None:
    """Here the robot would move. The part may get lost meanwhile."""
    end = time.monotonic() + CARRY_SECONDS
    while time.monotonic() < end:
        image = gripper.image()
        if not image.stale and not holds_part(image):
            print("lost the part", flush=True)
            return
        time.sleep(0.05)
    gripper.open(SPEED, FORCE)


def work(line: Line) -> None:
    line.wait_until_running([GRIPPER])
    with line.gripper(GRIPPER) as gripper:
        # Sends nothing to an active gripper without a fault, so a held part stays. Otherwise it opens
        # the fingers: with a fault, the robot should put down its part first.
        gripper.activate()
        while True:
            grip(gripper)


def main(host: str) -> None:
    with Line(host) as line:
        while True:
            try:
                work(line)
            except Fault as fault:
                print(f"fault {fault.code}: activates again", flush=True)
                time.sleep(1)
            except WAIT_AFTER as error:
                # A SET may or may not be carried out. work() looks at the gripper before it commands.
                print(f"waits: {error}", flush=True)
                time.sleep(1)


if __name__ == "__main__":
    try:
        main(sys.argv[1])
    except KeyboardInterrupt:
        # The gripper keeps its part.
        sys.exit(130)
