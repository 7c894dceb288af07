"""Measures what the calls of the client library cost beside a bare socket exchange."""

import json
import subprocess

import client_python
from tables import median, table

GRIPPER = 9


def run(rig, quick):
    pairs, rounds = (2_000, 3) if quick else (20_000, 5)
    with rig.simulator(f"{GRIPPER}=TA3-1.6.14"):
        rig.daemon_with_value()
        results = [measure(rig, pairs) for _ in range(rounds)]
        client_python.report(quick)
    images, exchanges = ([result[key] for result in results] for key in ("image", "exchange"))
    rows = [
        ["bare exchange", f"{median(exchanges):.1f}", "1.00"],
        [
            "C++, image()",
            f"{median(images):.1f}",
            f"{median([i / e for i, e in zip(images, exchanges)]):.2f}",
        ],
    ]
    title = f"All values of a gripper in one packet: medians of {rounds} rounds of {pairs}"
    table(title, ["client", "us", "of the bare exchange"], rows)


def measure(rig, pairs):
    child = rig.spawn(
        [rig.own_programs / "bench-client", GRIPPER, pairs], stdout=subprocess.PIPE, text=True
    )
    text, _ = child.communicate()
    assert child.returncode == 0, f"bench-client ended with {child.returncode}"
    return json.loads(text)
