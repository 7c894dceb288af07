"""Operations of clients during polling: requests never overlap on the line."""

import collections
import concurrent.futures
import json
import pathlib
import subprocess
import sys

from harness.children import spawn
from harness.effort import effort

ISOLATED = pathlib.Path(__file__).parents[2] / "scripts" / "isolated"
# More lines stall each other on two cores.
SIDE_BY_SIDE = 6
LATENCIES_MS = [0, 4, 8, 15, 22, 30]


def lines():
    """Returns (latency, grippers, {operation: count}) for each line. Each has its own namespaces."""
    if not effort(0, 1):
        return [
            (0, 4, {"SCN_BLOCK": 2, "BLD": 1, "UPG": 1}),
            (8, 1, {"NID": 1, "SCN_BLOCK": 1}),
            (15, 1, {"SCN_BLOCK": 2, "BLD": 2, "UPG": 1}),
            (15, 3, {"NID": 1, "SCN_BLOCK": 1}),
            (30, 4, {"SCN_BLOCK": 2, "BLD": 1, "UPG": 1}),
        ]
    several = {"SCN_BLOCK": 84, "BLD": 84, "UPG": 84}
    return [
        line
        for latency in LATENCIES_MS
        for line in (
            (latency, 1, several),
            (latency, 4, several),
            (latency, 1, {"NID": 84}),
            (latency, 3, {"NID": 84}),
        )
    ]


def run(number, latency, grippers, counts):
    command = [str(ISOLATED), "--net", sys.executable, "-B", "-m", "harness.busyline"]
    command += [str(latency), str(grippers), str(number)]
    with spawn(
        command + [f"{name}={count}" for name, count in counts.items()],
        cwd=pathlib.Path(__file__).parent,
        stdout=subprocess.PIPE,
    ) as process:
        output, _ = process.communicate()
    if process.returncode:
        return latency, grippers, {"failed": [f"status {process.returncode}, see standard error"]}
    return latency, grippers, json.loads(output)


def test_operations_at_random_moments_never_overlap(figure):
    with concurrent.futures.ThreadPoolExecutor(SIDE_BY_SIDE) as pool:
        runs = [pool.submit(run, number, *line) for number, line in enumerate(lines())]
    done, failed, stalled, requests = collections.Counter(), [], [], 0
    for latency, grippers, tally in [each.result() for each in runs]:
        done.update(tally.get("done", {}))
        requests += tally.get("requests", 0)
        failed += [(latency, grippers, entry) for entry in tally["failed"]]
        stalled += [(latency, grippers, entry) for entry in tally.get("stalled", [])]
    figure(
        f"{dict(done)} done among {requests} requests, {len(failed)} failed, "
        f"{len(stalled)} more during stalls of the machine: {stalled}"
    )
    assert not failed, "\n".join(map(str, failed))
