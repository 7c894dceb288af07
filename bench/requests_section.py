"""Measures requests a second and latency of the daemon and of other servers, in turn."""

from rig import DAEMON_PORT, ECHO_PORT, ECHO_WITHOUT_GLIB_PORT, POSITION, REDIS_PORT
from tables import median, table

CLIENTS = (1, 50, 1000)
DEPTHS = (1, 16)
REQUEST = "GET POS\n"
LINE = f"POS {POSITION}\n"
BULK = f"${len(str(POSITION))}\r\n{POSITION}\r\n"

# Title of each ratio column, and the server that the ratio compares with.
COMPARED = {"of redis": "redis", "of echo": "Qt echo", "of that without GLib": "Qt echo, no GLib"}

HEAD = ["clients", "depth", "server", "requests/s", *COMPARED, "p50 us", "p99 us"]
HEAD += ["p99.9 us", "CPU s/100k", "load CPU", "not as expected"]


def run(rig, quick):
    seconds, rounds = (0.5, 1) if quick else (2.0, 4)
    with rig.simulator("9=TA3-1.6.14"):
        servers = [
            ("gripperd", rig.daemon_with_value().pid, DAEMON_PORT, LINE),
            ("redis", rig.redis().pid, REDIS_PORT, BULK),
            ("Qt echo", rig.echo().pid, ECHO_PORT, LINE),
            ("Qt echo, no GLib", rig.echo_without_glib().pid, ECHO_WITHOUT_GLIB_PORT, LINE),
        ]
        rows = []
        for clients in CLIENTS:
            for depth in DEPTHS:
                rows += compare(rig, servers, clients, depth, seconds, rounds)
    table(
        f"GET POS while a gripper is polled: medians of {rounds} rounds of {seconds} s", HEAD, rows
    )


def compare(rig, servers, clients, depth, seconds, rounds):
    results = {name: [] for name, *_ in servers}
    for number in range(rounds):
        # The order rotates, so that other load affects all servers alike.
        rotated = servers[number % len(servers) :] + servers[: number % len(servers)]
        for name, pid, port, reply in rotated:
            results[name].append(
                rig.load(
                    "closed",
                    port,
                    REQUEST,
                    reply,
                    clients=clients,
                    depth=depth,
                    seconds=seconds,
                    server=pid,
                )
            )
    return [row(clients, depth, name, results) for name, *_ in servers]


def row(clients, depth, name, results):
    own = results[name]
    # A ratio compares servers of the same round, so that a slower machine does not change it.
    ratios = [
        median([rate(a) / rate(b) for a, b in zip(own, results[other])])
        for other in COMPARED.values()
    ]
    return [
        clients,
        depth,
        name,
        f"{median([rate(r) for r in own]):.0f}",
        *(f"{ratio:.2f}" for ratio in ratios),
        *(f"{median([r[key] for r in own]):.0f}" for key in ("p50", "p99", "p999")),
        f"{median([r['server_cpu'] / r['replies'] * 100_000 for r in own]):.3f}",
        f"{median([r['own_cpu'] / r['seconds'] for r in own]):.0%}",
        sum(r["wrong"] + r["missing"] for r in own),
    ]


def rate(result):
    return result["replies"] / result["seconds"]
