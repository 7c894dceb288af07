"""The broker and Prometheus, and what they know of the robots."""

import itertools
import json
import os
import re
import shutil
import time
import urllib.parse
import urllib.request

import paho.mqtt.client as mqtt

from .children import Failed
from .robot import FINGERS, METRICS_PORT, SERVER, VACUUM

BROKER_PORT, PROMETHEUS_PORT = 1883, 9090


def program(name):
    path = shutil.which(name, path=os.environ["PATH"] + ":/usr/sbin")
    if not path:
        raise Failed(f"{name} is missing: scripts/install-dependencies fleet")
    return path


class Broker:
    """mosquitto, and a subscriber that counts its messages and keeps what it retains."""

    def __init__(self, children, folder):
        config = folder / "mosquitto.conf"
        # Without a user, root becomes one that does not exist in this namespace.
        config.write_text(f"listener {BROKER_PORT} {SERVER}\nallow_anonymous true\nuser root\n", "utf-8")
        self.process = children.spawn("servers", "mosquitto", [program("mosquitto"), "-c", config])
        self.messages = 0
        self.bytes = 0
        self.retained = {}
        # The time, the robot and the position of each state of a gripper that stands still.
        self.positions = []
        self.client = mqtt.Client("fleet-demo")
        self.client.on_connect = lambda *_: self.client.subscribe("gripperd/#")
        self.client.on_message = self._take

    def connect(self, check):
        for _ in attempts("mosquitto does not listen", 20):
            check()
            try:
                self.client.connect(SERVER, BROKER_PORT)
                break
            except OSError:
                continue
        self.client.loop_start()

    def _take(self, _client, _data, message):
        now = time.monotonic()
        self.messages += 1
        self.bytes += len(message.topic) + len(message.payload)
        _, robot, *words = message.topic.split("/")
        value = json.loads(message.payload) if message.payload else None
        self.retained[robot, "/".join(words)] = value
        if value and words == ["gripper", str(VACUUM), "state"]:
            self.positions.append((now, robot, value["position"]))

    def shows(self, robot):
        """Whether this robot is online with values of both grippers."""
        status = self.retained.get((robot.name, "status")) or {}
        states = [self.retained.get((robot.name, f"gripper/{each}/state")) or {} for each in (VACUUM, FINGERS)]
        return status.get("state") == "online" and all(each.get("stale") is False for each in states)

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()


class Prometheus:
    """Prometheus with the files of fleet/prometheus."""

    def __init__(self, children, folder, files, robots, interval):
        folder = folder / "prometheus"
        shutil.copytree(files, folder)
        config = folder / "prometheus.yml"
        text = re.sub(r"(_interval|_timeout): \S+", rf"\1: {interval}s", config.read_text("utf-8"))
        config.write_text(text, "utf-8")
        for example in (folder / "robots").iterdir():
            example.unlink()
        targets = [
            {"targets": [f"{each.address}:{METRICS_PORT}"], "labels": {"hall": "1", "robot": each.name}}
            for each in robots
        ]
        # JSON is YAML, too.
        (folder / "robots/hall-1.yml").write_text(json.dumps(targets), "utf-8")
        self.process = children.spawn(
            "servers", "prometheus",
            [program("prometheus"), f"--config.file={folder}/prometheus.yml", f"--storage.tsdb.path={folder}/data"]
            + [f"--web.listen-address={SERVER}:{PROMETHEUS_PORT}", "--log.level=warn"],
        )

    def _get(self, path):
        with urllib.request.urlopen(f"http://{SERVER}:{PROMETHEUS_PORT}{path}", timeout=10) as answer:
            return answer.read().decode()

    def robots_with(self, expression):
        try:
            answer = self._get("/api/v1/query?" + urllib.parse.urlencode({"query": expression}))
        except OSError:
            # It is not ready yet.
            return set()
        return {each["metric"]["robot"] for each in json.loads(answer)["data"]["result"]}

    def samples(self):
        """The number of samples that it has stored."""
        found = re.findall(r"^prometheus_tsdb_head_samples_appended_total\S* (\S+)$", self._get("/metrics"), re.M)
        return sum(float(each) for each in found)


def attempts(failure, seconds):
    """Counts attempts, with pauses. Fails after this time."""
    deadline = time.monotonic() + seconds
    for number in itertools.count():
        yield number
        if time.monotonic() > deadline:
            raise Failed(failure() if callable(failure) else failure)
        time.sleep(0.1)
