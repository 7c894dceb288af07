"""Measures how fast the scanner cuts requests out of text."""

import json
import subprocess

from tables import table


def run(rig, quick):
    program = rig.spawn(
        [
            rig.own_programs / "bench-cutting",
            "--benchmark_format=json",
            f"--benchmark_min_time={0.1 if quick else 1}",
        ],
        stdout=subprocess.PIPE,
        text=True,
    )
    text, _ = program.communicate()
    rows = []
    for found in json.loads(text)["benchmarks"]:
        name = found["name"]
        if found.get("error_occurred"):
            rows.append([name, found["error_message"], "-"])
        else:
            rate = found["bytes_per_second"]
            rows.append([name, f"{rate / 1e6:.0f}", f"{1e9 / rate:.2f}"])
    table("Cutting requests out of text, one core", ["input", "MB/s", "ns/byte"], rows)
