"""Measures a running fleet: the delay of states, and the costs."""

import os
import random
import time

from .children import Failed, processor_seconds, resident_bytes
from .robot import VACUUM

CHANGE_SECONDS = 2


def measure(fleet, seconds):
    """Measures while the fingers of every robot move, and the position of its other gripper changes at random times."""
    changes = random_changes(fleet.robots, seconds)
    first_position = len(fleet.broker.positions)
    costs = Costs(fleet)
    begin = time.monotonic()
    made = [make(fleet, begin, *change) for change in changes]
    sleep_until(fleet, begin + seconds)
    lines = list(costs.lines())
    # The last states are under way.
    deadline = time.monotonic() + CHANGE_SECONDS
    while len(delays := delays_of(made, fleet.broker.positions[first_position:])) < len(made):
        if time.monotonic() > deadline:
            break
        time.sleep(0.1)
    print(f"{fleet.count} robots with two grippers, {seconds} s, load of the machine {os.getloadavg()[0]:.1f}")
    print(
        f"state delay: median {percentile(delays, 0.5):.3f} s, 95th percentile {percentile(delays, 0.95):.3f} s, "
        f"longest {delays[-1]:.3f} s, {len(delays)} of {len(made)} changes arrived"
    )
    print(*lines, sep="\n")
    if len(delays) < len(made):
        raise Failed("the broker has not shown every change")


class Costs:
    """The costs of a fleet since this object was made."""

    def __init__(self, fleet):
        self.fleet = fleet
        self.kinds = {
            "gripperd": [each.daemon.pid for each in fleet.robots],
            "gripper-gateway": [each.gateway.pid for each in fleet.robots],
            "gripper-simulator": [each.simulator.pid for each in fleet.robots],
            "mosquitto": [fleet.broker.process.pid],
            "prometheus": [fleet.prometheus.process.pid],
            "fleet/demo": [os.getpid()],
        }
        self.begin = time.monotonic()
        self.counts = self._counts()
        self.processor = self._processor()

    def _counts(self):
        return self.fleet.broker.messages, self.fleet.broker.bytes, self.fleet.prometheus.samples()

    def _processor(self):
        return {kind: sum(map(processor_seconds, pids)) for kind, pids in self.kinds.items()}

    def lines(self):
        passed = time.monotonic() - self.begin
        messages, size, samples = (
            (after - before) / passed for before, after in zip(self.counts, self._counts())
        )
        yield f"MQTT: {messages:.1f} messages a second, {size / 1000:.1f} kB a second"
        yield f"Prometheus: {samples:.1f} samples a second"
        yield "mean of one program    processor of one core    resident memory"
        processor = self._processor()
        for kind, pids in self.kinds.items():
            share = (processor[kind] - self.processor[kind]) / passed / len(pids)
            megabytes = sum(map(resident_bytes, pids)) / len(pids) / 1e6
            yield f"  {kind:20} {share:12.2%} {megabytes:20.1f} MB"


def random_changes(robots, seconds):
    """Returns (time, robot, position). A random time is at no fixed place of the daemon's cycle."""
    changes = [
        ((turn + random.random() / 2) * CHANGE_SECONDS, robot, turn % 255 + 1)
        for turn in range(max(1, seconds // CHANGE_SECONDS))
        for robot in robots
    ]
    return sorted(changes, key=lambda change: change[0])


def make(fleet, begin, at, robot, position):
    """Changes a position. Returns the time, the robot and the position."""
    sleep_until(fleet, begin + at)
    changed = time.monotonic()
    answer = robot.command(f"pin {VACUUM} 2002 {position << 8}")
    if answer[-1] != "ok":
        raise Failed(f"the simulator of {robot.name}: {answer}")
    return changed, robot.name, position


def sleep_until(fleet, deadline):
    fleet.check()
    while (left := deadline - time.monotonic()) > 0:
        time.sleep(min(left, 1))
        fleet.check()


def delays_of(changes, positions):
    """Returns the times from a change to its first state, in order. Changes without a state are missing."""
    delays = []
    for changed, *state in changes:
        times = [at for at, *shown in positions if shown == state and at > changed]
        if times:
            delays.append(min(times) - changed)
    return sorted(delays)


def percentile(ordered, share):
    """Returns the value that this share of the values does not exceed."""
    if not ordered:
        raise Failed("no change has arrived")
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]
