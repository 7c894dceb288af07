"""Measures what the MQTT face of gripper-gateway costs on top of the page, while nothing moves."""

import os
import shutil
import time

from rig import cpu_of_threads, end, status_of, wait_until_listening
from tables import table

PAGE_PORT = 63353
BROKER_PORT = 1883


def measure(rig, seconds):
    """Call it while a daemon with a gripper runs."""
    config = rig.work / "mosquitto.conf"
    config.write_text(f"listener {BROKER_PORT} 127.0.0.1\nallow_anonymous true\nuser root\n", "utf-8")
    program = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
    if not program:
        raise FileNotFoundError("mosquitto: run scripts/install-dependencies bench")
    broker = rig.spawn([program, "-c", config])
    wait_until_listening(BROKER_PORT, broker)
    rows = []
    for name, options in (
        ("the page alone", []),
        ("with MQTT", ["--mqtt", "127.0.0.1", "--mqtt-node", "bench", "--allow", "move,stop"]),
    ):
        gateway = rig.spawn(
            [rig.programs / "gripper-gateway", "--config", "/dev/null"]
            + ["--pair-socket", rig.work / "pair.sock", *options]
        )
        wait_until_listening(PAGE_PORT, gateway)
        time.sleep(2)
        rows.append((name, *cost(gateway.pid, seconds)))
        end(gateway)
    end(broker)
    rows.append(("difference", *(after - before for before, after in zip(rows[0][1:], rows[1][1:]))))
    table(
        f"gripper-gateway and a broker, one gripper that does not move, {seconds} s",
        ["", "CPU", "resident MB", "private MB"],
        [[name, f"{cpu:.2%}", f"{resident:.1f}", f"{private:.1f}"] for name, cpu, resident, private in rows],
    )


def cost(pid, seconds):
    begin, started = cpu_of_threads(pid), time.monotonic()
    time.sleep(seconds)
    share = (cpu_of_threads(pid) - begin) / (time.monotonic() - started)
    status = status_of(pid)
    return share, status["VmRSS"] / 1024, status["RssAnon"] / 1024
