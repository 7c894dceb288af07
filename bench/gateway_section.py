"""Measures the cost of gripper-gateway: idle, with viewers of its stream, and with scrapes of its metrics."""

import http.client
import os
import socket
import threading
import time

import mqtt_face
from line_section import GRIPPERS
from rig import cpu_of_threads, end, status_of, wait_until_listening
from tables import table

PORT = 63353
VIEWERS = (0, 1, 12, 100)
# The last one is 15 times as often as in fleet/prometheus.
METRICS = (("off", ["--no-metrics"], 0), ("not scraped", [], 0), ("a scrape a second", [], 1))


def run(rig, quick):
    seconds = 5 if quick else 30
    rows = []
    metrics = []
    with rig.simulator(GRIPPERS[0]):
        daemon = rig.daemon_with_value()
        gateway = start(rig)
        for count in VIEWERS:
            rows.append([count, *measure(gateway.pid, count, seconds)])
        end(gateway)
        for name, options, scrapes_per_second in METRICS:
            gateway = start(rig, *options)
            metrics.append([name, *cost_of_metrics(gateway.pid, seconds, scrapes_per_second)])
            end(gateway)
        mqtt_face.measure(rig, seconds)
        end(daemon)
    head = ["viewers", "CPU", "resident MB", "private MB", "messages/s"]
    table(f"gripper-gateway, one gripper that does not move, {seconds} s", head, rows)
    head = ["metrics", "CPU", "resident MB", "private MB"]
    table(f"gripper-gateway and its metrics, no viewer, {seconds} s", head, metrics)


def start(rig, *options):
    gateway = rig.spawn(
        [rig.programs / "gripper-gateway", "--config", "/dev/null"]
        + ["--pair-socket", rig.work / "pair.sock", *options]
    )
    wait_until_listening(PORT, gateway)
    return gateway


def measure(pid, viewers, seconds):
    streams = [Stream() for _ in range(viewers)]
    time.sleep(1)
    messages = sum(stream.messages for stream in streams)
    started = time.monotonic()
    figures = cost(pid, lambda: time.sleep(seconds))
    passed = time.monotonic() - started
    messages = sum(stream.messages for stream in streams) - messages
    for stream in streams:
        stream.close()
    return [*figures, f"{messages / passed:.0f}"]


def cost_of_metrics(pid, seconds, scrapes_per_second):
    def act():
        end_at = time.monotonic() + seconds
        while time.monotonic() < end_at:
            if scrapes_per_second:
                scrape()
            time.sleep(1 / max(1, scrapes_per_second))

    time.sleep(1)
    return cost(pid, act)


def cost(pid, act):
    """Returns the processor time while `act` runs, and the memory afterwards."""
    cpu = cpu_of_threads(pid)
    started = time.monotonic()
    act()
    passed = time.monotonic() - started
    cpu = cpu_of_threads(pid) - cpu
    status = status_of(pid)
    return [
        f"{cpu / passed:.2%}",
        f"{status['VmRSS'] / 1024:.1f}",
        f"{status['RssAnon'] / 1024:.1f}",
    ]


def scrape():
    connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=5)
    connection.request("GET", "/metrics", headers={"Host": f"localhost:{PORT}"})
    answer = connection.getresponse()
    text = answer.read()
    connection.close()
    if answer.status != 200 or b"gripperd_up 1" not in text:
        raise RuntimeError(f"a scrape returned {answer.status}: {text[:200]!r}")


def cpu_of_threads(pid):
    seconds = 0
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/schedstat", encoding="ascii") as stat:
            seconds += int(stat.read().split()[0]) / 1e9
    return seconds


class Stream:
    """A viewer. It counts the messages."""

    def __init__(self):
        self.messages = 0
        self.socket = socket.create_connection(("127.0.0.1", PORT), 5)
        self.socket.settimeout(None)
        self.socket.sendall(f"GET /api/v1/stream HTTP/1.1\r\nHost: localhost:{PORT}\r\n\r\n".encode())
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        while data := self.socket.recv(65536):
            self.messages += data.count(b"event: ")

    def close(self):
        self.socket.shutdown(socket.SHUT_RDWR)
        self.reader.join()
        self.socket.close()
