"""Measures the cost of gripper-gateway: idle, and with viewers of its stream."""

import socket
import threading
import time

import mqtt_face
from line_section import GRIPPERS
from rig import cpu_of_threads, end, status_of, wait_until_listening
from tables import table

PORT = 63353
VIEWERS = (0, 1, 12, 100)


def run(rig, quick):
    seconds = 5 if quick else 30
    rows = []
    with rig.simulator(GRIPPERS[0]):
        daemon = rig.daemon_with_value()
        gateway = rig.spawn(
            [rig.programs / "gripper-gateway", "--config", "/dev/null"]
            + ["--pair-socket", rig.work / "pair.sock"]
        )
        wait_until_listening(PORT, gateway)
        for count in VIEWERS:
            rows.append([count, *measure(gateway.pid, count, seconds)])
        end(gateway)
        head = ["viewers", "CPU", "resident MB", "private MB", "messages/s"]
        table(f"gripper-gateway, one gripper that does not move, {seconds} s", head, rows)
        mqtt_face.measure(rig, seconds)
        end(daemon)


def measure(pid, viewers, seconds):
    streams = [Stream() for _ in range(viewers)]
    time.sleep(1)
    cpu, messages = cpu_of_threads(pid), sum(stream.messages for stream in streams)
    started = time.monotonic()
    time.sleep(seconds)
    passed = time.monotonic() - started
    cpu = cpu_of_threads(pid) - cpu
    messages = sum(stream.messages for stream in streams) - messages
    status = status_of(pid)
    for stream in streams:
        stream.close()
    return [
        f"{cpu / passed:.2%}",
        f"{status['VmRSS'] / 1024:.1f}",
        f"{status['RssAnon'] / 1024:.1f}",
        f"{messages / passed:.0f}",
    ]


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
