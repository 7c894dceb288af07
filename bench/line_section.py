"""Measures visits, commands, starts and a pulled cable, as grippers and clients see them."""

import random
import time

from rig import DAEMON_PORT, POSITION, Client, end, wait_until_listening, wait_until_served
from tables import median, quantile, table
from visits import clock_offset, gaps, periods, visit_before, visits_of, writes_of

GRIPPERS = ["9=TA3-1.6.14", "2=TE1-2.0.2", "3=TB1-1.4.3", "4=TF1-2.0.2"]
THROTTLES = ((1, "throttled"), (0, "not throttled"))
SETTLING = 0.5
LONGEST_WAIT = 5.0


def run(rig, quick):
    visit_table(rig, seconds=3 if quick else 15)
    delivery_table(rig, count=20 if quick else 150)
    set_table(rig, count=20 if quick else 150)
    start_table(rig, count=3 if quick else 15)
    cable_table(rig, count=2 if quick else 12)


def throttle(setting):
    set_and_settle(f"THROTTLE {setting}")


def set_and_settle(pairs):
    with Client() as client:
        client.set(pairs)
    time.sleep(SETTLING)


def frames_during(simulator, seconds):
    first = len(simulator.frames)
    time.sleep(seconds)
    return simulator.frames[first:]


def visit_table(rig, seconds):
    rows = []
    for count in (1, 2, 4):
        with rig.simulator(*GRIPPERS[:count]) as simulator:
            daemon = rig.daemon_with_value()
            for setting, name in THROTTLES:
                throttle(setting)
                found = visits_of(frames_during(simulator, seconds))
                rows.append([count, name, *visit_figures(*found)])
            end(daemon)
    head = ["grippers", "polling", *VISIT_HEAD]
    table(f"Visits during {seconds} s; ms", head, rows)


VISIT_HEAD = ["visits", "dropped", "duration", "p99", "max", "period", "p99", "max"]
VISIT_HEAD += ["gap", "p99", "max"]


def visit_figures(visits, dropped):
    """Returns the columns of VISIT_HEAD."""
    if len(visits) < 2:
        return [len(visits), dropped, *["-"] * (len(VISIT_HEAD) - 2)]
    durations = [visit.duration for visit in visits]
    return [
        len(visits),
        dropped,
        *spread(durations),
        *spread(periods(visits)),
        *spread(gaps(visits)),
    ]


def spread(values):
    """Returns the median, p99 and the largest value."""
    return [f"{value:.1f}" for value in (median(values), quantile(values, 0.99), max(values))]


def delivery_table(rig, count):
    """Measures how long a visit takes to deliver its last value to a client."""
    rows = []
    with rig.simulator(GRIPPERS[0]) as simulator:
        daemon = rig.daemon_with_value()
        for setting, name in THROTTLES:
            throttle(setting)
            first = len(simulator.frames)
            delivered = [deliver_counter(simulator, number) for number in range(1, count + 1)]
            frames = simulator.frames[first:]
            (visits, _), offset = visits_of(frames), clock_offset(frames)
            durations = []
            for seen in delivered:
                at = (seen - offset) * 1000
                if visit := visit_before(visits, at):
                    durations.append(at - visit.start)
            rows.append([name, *spread(durations)])
        end(daemon)
    head = ["polling", "median", "p99", "max"]
    table(f"First request of a visit to its last value at a client, ms, {count} visits", head, rows)


def deliver_counter(simulator, number):
    """Changes the counter. Returns the time at which a client gets the new value."""
    simulator.command(f"pin 9 604 {number}")
    return wait_until_served("NPA", str(number), step=0.0002)


def set_table(rig, count):
    rows = []
    with rig.simulator(GRIPPERS[0]) as simulator:
        daemon = rig.daemon_with_value()
        for setting, name in THROTTLES:
            throttle(setting)
            first = len(simulator.frames)
            with Client() as client:
                delays = [time_set(simulator, client, number) for number in range(count)]
            offset = clock_offset(simulator.frames[first:])
            on_line = [(at / 1000 + offset - sent) * 1000 for sent, at, _ in delays]
            acknowledged = [(ack - sent) * 1000 for sent, _, ack in delays]
            rows.append([name, *spread(on_line), f"{median(acknowledged):.2f}"])
        end(daemon)
    head = ["polling", "median", "p99", "max", "reply"]
    table(f"SET at a client to the write on the line, ms, {count} times", head, rows)


def time_set(simulator, client, number):
    """Returns the times of a SET: sent (our clock), written (the simulator's clock), acknowledged."""
    # Sends at a random moment of a visit or of the pause after it.
    time.sleep(random.uniform(0.06, 0.16))
    first = len(simulator.frames)
    sent = time.monotonic()
    # The daemon writes only changed values.
    client.set(f"POS {number % 200 + 1}")
    acknowledged = time.monotonic()
    deadline = sent + LONGEST_WAIT
    while not (writes := writes_of(simulator.frames[first:])):
        assert time.monotonic() < deadline, "a SET never reached the line"
        time.sleep(0.002)
    return sent, writes[0].at, acknowledged


def start_table(rig, count):
    rows = []
    for grippers in (1, 4):
        listening, served = [], []
        with rig.simulator(*GRIPPERS[:grippers]):
            for _ in range(count):
                started = time.monotonic()
                daemon = rig.start_daemon()
                at = wait_until_listening(DAEMON_PORT, daemon, step=0.0005)
                listening.append((at - started) * 1000)
                served.append((wait_until_served("POS", str(POSITION)) - started) * 1000)
                end(daemon)
        rows.append([grippers, "listening", *spread(listening)])
        rows.append([grippers, "first value", *spread(served)])
    table(f"Start, ms, {count} times", ["grippers", "until", "median", "p99", "max"], rows)


def cable_table(rig, count):
    noticed, served = [], []
    with rig.simulator(GRIPPERS[0]) as simulator:
        daemon = rig.daemon_with_value()
        for _ in range(count):
            pulled = time.monotonic()
            simulator.command("unplug")
            noticed.append((wait_until_served("POS", "?") - pulled) * 1000)
            # The daemon looks for the port once a second. The port returns at a random moment.
            time.sleep(random.uniform(0.5, 1.5))
            plugged = time.monotonic()
            simulator.command("plug")
            served.append((wait_until_served("POS", str(POSITION)) - plugged) * 1000)
        end(daemon)
    rows = [["pulled until no value", *spread(noticed)], ["back until a value", *spread(served)]]
    table(f"A pulled cable, ms, {count} times", ["", "median", "p99", "max"], rows)
