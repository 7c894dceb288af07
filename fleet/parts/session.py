"""The session of a person with a running fleet."""

import os
import select
import sys


def introduce(broker_port, prometheus_port):
    # Debian's Prometheus has these pages only.
    page = f"http://localhost:{prometheus_port}/classic"
    print(
        f"""
Prometheus    {page}/graph
alerts        {page}/alerts
MQTT broker   localhost:{broker_port}

In another terminal (package mosquitto-clients):
  mosquitto_sub -p {broker_port} -v -t 'gripperd/+/status' -t 'gripperd/+/gripper/+/event'
In Prometheus:
  sum by (robot) (rate(gripper_moves_total[1m])) * 60
Here, a robot and a command for its simulator (docs/simulator.md):
  1 faultcode 9 5     the alert GripperFault, for 5 minutes; 1 faultcode 9 0 clears the fault
  2 unplug            the alert GripperLinkDown after 30 s; then 2 plug
Ctrl-C ends all programs.
""",
        flush=True,
    )


def serve(fleet):
    """Carries out the commands of standard input until a signal comes."""
    inputs = [sys.stdin.fileno()]
    while True:
        fleet.check()
        if select.select(inputs, [], [], 0.5)[0]:
            data = os.read(inputs[0], 4096)
            for line in data.decode(errors="replace").splitlines():
                carry_out(fleet, line)
            if not data:
                inputs = []


def carry_out(fleet, line):
    number, _, command = line.strip().partition(" ")
    command = command.strip()
    # The simulator answers nothing to a comment.
    if not number or command.startswith("#"):
        return
    if not command:
        print("a robot and a command, for example: 1 help", flush=True)
    elif not number.isdecimal() or not 1 <= int(number) <= fleet.count:
        print(f"there is no robot {number}: 1 to {fleet.count}", flush=True)
    elif command.split()[0] == "quit":
        print("Ctrl-C ends all programs", flush=True)
    else:
        print(*fleet.robots[int(number) - 1].command(command), sep="\n", flush=True)
