"""Measures what MQTT and metrics of gripper-gateway cost on top of the page, while nothing moves."""

import os
import shutil
import subprocess
import time
import urllib.request

from rig import cpu_of_threads, end, status_of, wait_until_listening
from tables import table

PAGE_PORT = 63353
BROKER_PORT = 1883
TLS_PORT = 8883


def measure(rig, seconds):
    """Call it while a daemon with a gripper runs."""
    config = rig.work / "mosquitto.conf"
    certificate, key, log = (rig.work / f"broker.{word}" for word in ("pem", "key", "log"))
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
        + ["-subj", "/CN=localhost", "-days", "2", "-out", certificate, "-keyout", key],
        check=True, capture_output=True,
    )
    config.write_text(
        f"listener {BROKER_PORT} 127.0.0.1\nlistener {TLS_PORT} 127.0.0.1\n"
        f"certfile {certificate}\nkeyfile {key}\nallow_anonymous true\nuser root\n"
        f"log_dest file {log}\n", "utf-8"
    )
    program = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
    if not program:
        raise FileNotFoundError("mosquitto: run scripts/install-dependencies bench")
    broker = rig.spawn([program, "-c", config])
    wait_until_listening(TLS_PORT, broker)
    face = ["--mqtt-node", "bench", "--allow", "move,stop", "--mqtt"]
    rows = []
    for name, options, is_scraped in (
        ("the page alone", ["--no-metrics"], False),
        ("MQTT", ["--no-metrics", *face, "127.0.0.1"], False),
        ("MQTT with TLS, metrics read every second", ["--mqtt-ca", certificate, *face, "localhost"], True),
    ):
        gateway = rig.spawn(
            [rig.programs / "gripper-gateway", "--config", "/dev/null"]
            + ["--pair-socket", rig.work / "pair.sock", *options]
        )
        wait_until_listening(PAGE_PORT, gateway)
        time.sleep(2)
        if options[-2:-1] == ["--mqtt"] and log.read_text("utf-8").count("as gripperd-bench") < len(rows):
            raise RuntimeError(f"{name}: the gateway has not connected")
        rows.append((name, *cost(gateway.pid, seconds, is_scraped)))
        end(gateway)
    end(broker)
    table(
        f"gripper-gateway and a broker, one gripper that does not move, {seconds} s",
        ["on top of the page", "CPU", "resident MB", "private MB"],
        [
            [name, *(f"{value - alone:{form}}" for value, alone, form in zip(values, page, (".2%", ".1f", ".1f")))]
            for (_, *page), (name, *values) in ((rows[0], row) for row in rows[1:])
        ],
    )


def cost(pid, seconds, is_scraped):
    begin, started = cpu_of_threads(pid), time.monotonic()
    for _ in range(seconds):
        if is_scraped:
            urllib.request.urlopen(f"http://localhost:{PAGE_PORT}/metrics", timeout=5).read()
        time.sleep(1)
    share = (cpu_of_threads(pid) - begin) / (time.monotonic() - started)
    status = status_of(pid)
    return share, status["VmRSS"] / 1024, status["RssAnon"] / 1024
