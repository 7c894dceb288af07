"""Measures the cost of an idle daemon and of idle clients."""

import resource
import time

from line_section import GRIPPERS, THROTTLES, set_and_settle
from rig import POSITION, cpu_seconds, end, status_of
from tables import table

REQUEST, REPLY = "GET POS\n", f"POS {POSITION}\n"
IDLE_CLIENTS = (0, 1000)
# The tick continues while polling is muted: the last row shows its cost.
POLLING = [(f"THROTTLE {setting}", name) for setting, name in THROTTLES]
POLLING += [("MUTE 1 THROTTLE 0", "muted, not throttled")]
MANY_CLIENTS = 10_000
RESERVED_DESCRIPTORS = 100


def run(rig, quick):
    idle_table(rig, seconds=5 if quick else 30)
    clients_table(rig, rounds=1 if quick else 3)


def idle_table(rig, seconds):
    rows = []
    with rig.simulator(GRIPPERS[0]):
        for pairs, name in POLLING:
            daemon = rig.daemon_with_value()
            set_and_settle(pairs)
            for clients in IDLE_CLIENTS:
                if clients:
                    with rig.hold(clients, REQUEST, REPLY):
                        rows.append([name, clients, *watch(daemon.pid, seconds)])
                else:
                    rows.append([name, clients, *watch(daemon.pid, seconds)])
            end(daemon)
    head = ["polling", "idle clients", "CPU", "wake-ups/s", "preempted/s", "resident MB"]
    table(f"One gripper and no requests, {seconds} s", head + ["private MB"], rows)


def watch(pid, seconds):
    before, cpu = status_of(pid), cpu_seconds(pid)
    started = time.monotonic()
    time.sleep(seconds)
    passed = time.monotonic() - started
    after, cpu = status_of(pid), cpu_seconds(pid) - cpu

    def per_second(name):
        return f"{(after[name] - before[name]) / passed:.0f}"

    return [
        f"{cpu / passed:.2%}",
        per_second("voluntary_ctxt_switches"),
        per_second("nonvoluntary_ctxt_switches"),
        f"{after['VmRSS'] / 1024:.1f}",
        f"{after['RssAnon'] / 1024:.1f}",
    ]


def clients_table(rig, rounds):
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1] - RESERVED_DESCRIPTORS
    rows = []
    with rig.simulator(GRIPPERS[0]):
        for clients in (1000, min(MANY_CLIENTS, most)):
            for _ in range(rounds):
                daemon = rig.daemon_with_value()
                before = status_of(daemon.pid)["VmRSS"]
                with rig.hold(clients, REQUEST, REPLY, server=daemon.pid) as held:
                    opened = status_of(daemon.pid)["VmRSS"]
                time.sleep(1)
                closed = status_of(daemon.pid)["VmRSS"]
                rows.append([clients, *client_figures(held.result, before, opened, closed)])
                end(daemon)
    head = ["clients", "all answered s", "CPU s", "MB before", "with them", "MB per 1,000"]
    head += ["1 s after them", "not as expected"]
    title = "Clients that connect at once, send one request each and stay; a row for each round"
    table(title, head, rows)


def client_figures(result, before, opened, closed):
    replies = result["replies"]
    return [
        f"{result['seconds']:.3f}",
        f"{result['server_cpu']:.3f}",
        f"{before / 1024:.1f}",
        f"{opened / 1024:.1f}",
        f"{(opened - before) / 1024 * 1000 / max(1, replies):.2f}",
        f"{closed / 1024:.1f}",
        result["wrong"] + result["missing"],
    ]
