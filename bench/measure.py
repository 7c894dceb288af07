"""Runs the sections of scripts/bench, inside scripts/isolated --net."""

import argparse
import os
import pathlib
import signal
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/daemon"))

from harness import ports

import client_section
import cutting_section
import gateway_section
import idle_section
import line_section
import paced_section
import requests_section
from rig import Rig, machine

SECTIONS = {
    "requests": requests_section.run,
    "paced": paced_section.run,
    "line": line_section.run,
    "idle": idle_section.run,
    "cutting": cutting_section.run,
    "client": client_section.run,
    "gateway": gateway_section.run,
}


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench", allow_abbrev=False)
    parser.add_argument("--programs", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--own-programs", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true", help="shorter runs, fewer rounds")
    parser.add_argument("sections", nargs="*", metavar="SECTION", help=", ".join(SECTIONS))
    options = parser.parse_args()
    unknown = [name for name in options.sections if name not in SECTIONS]
    if unknown:
        parser.error(f"unknown section {unknown[0]} (known: {' '.join(SECTIONS)})")
    if os.readlink("/proc/self/ns/net") == os.environ.get("GRIPPERD_OUTER_NET"):
        parser.error("needs namespaces of its own: run scripts/bench")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    ports.hide_the_machines_ports()

    for line in machine():
        print(line)
    for name in options.sections or SECTIONS:
        measure(name, options)


def measure(name, options):
    """Runs a section. Its failure does not stop the other sections."""
    try:
        with Rig(options.programs, options.own_programs) as rig:
            SECTIONS[name](rig, options.quick)
    except Exception as error:
        print(f"\nNOT MEASURED  the rest of {name}: {error!r}", flush=True)


try:
    main()
except KeyboardInterrupt:
    sys.exit(130)
