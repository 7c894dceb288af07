"""A real Prometheus with the files of fleet/prometheus, in which hours are seconds."""

import json
import pathlib
import re
import shutil
import signal
import subprocess
import urllib.parse
import urllib.request

from gatewayrig import PORT
from harness.children import spawn
from harness.waiting import eventually

FILES = pathlib.Path(__file__).parents[2] / "fleet/prometheus"
ADDRESS = "127.0.0.1:9090"
# Two samples must lie in the shortest range, also on a busy machine.
SCRAPE_INTERVAL = "300ms"
SHORTENED = [
    (r"for: \S+", "for: 1s"),
    (r"\[5m\]", "[3s]"),
    (r"\[1h\]", "[15s]"),
    (r"\[1d\]", "[4s]"),
    (r"offset 1w", "offset 5s"),
    (r">= 50", ">= 2"),
]


class Prometheus:
    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        shutil.copytree(FILES, self.folder, dirs_exist_ok=True)
        rules = self.folder / "rules.yml"
        text = rules.read_text(encoding="utf-8")
        for pattern, short in SHORTENED:
            text, count = re.subn(pattern, short, text)
            assert count, f"no {pattern} in rules.yml"
        rules.write_text(text, encoding="utf-8")
        config = self.folder / "prometheus.yml"
        text, count = re.subn(
            r"(_interval|_timeout): \S+", rf"\1: {SCRAPE_INTERVAL}", config.read_text(encoding="utf-8")
        )
        assert count == 3, text
        config.write_text(text, encoding="utf-8")
        for robots in (self.folder / "robots").iterdir():
            robots.unlink()
        # JSON is YAML, too.
        target = [{"targets": [f"localhost:{PORT}"], "labels": {"robot": "press-a"}}]
        (self.folder / "robots/hall-1.yml").write_text(json.dumps(target), encoding="utf-8")
        self.log = (self.folder / "log").open("wb")
        self.process = spawn(
            ["prometheus", f"--config.file={config}", f"--storage.tsdb.path={self.folder / 'data'}"]
            + [f"--web.listen-address={ADDRESS}", "--log.level=warn"],
            stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log,
        )

    def __enter__(self):
        try:
            return self._wait_until_ready()
        except BaseException:
            self.close()
            raise

    def __exit__(self, *_):
        self.close()

    def _wait_until_ready(self):
        def ready():
            assert self.process.poll() is None, self.output()
            try:
                with urllib.request.urlopen(f"http://{ADDRESS}/-/ready", timeout=5) as answer:
                    return answer.status == 200
            except OSError:
                return False

        eventually(ready, 60, self.output)
        return self

    def close(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(20)
        finally:
            self.process.kill()
            self.process.wait()
            self.log.close()

    def output(self):
        return (self.folder / "log").read_text(encoding="utf-8")

    def _get(self, path, **parameters):
        url = f"http://{ADDRESS}/api/v1/{path}?{urllib.parse.urlencode(parameters)}"
        with urllib.request.urlopen(url, timeout=10) as answer:
            return json.load(answer)["data"]

    def query(self, expression):
        """Returns the samples of an instant query: (labels, value)."""
        result = self._get("query", query=expression)["result"]
        return [(each["metric"], float(each["value"][1])) for each in result]

    def label_values(self, series, label):
        return sorted({each[label] for each, _ in self.query(series)})

    def rules(self):
        """Returns the expressions of all rules, as Prometheus has read them."""
        groups = self._get("rules")["groups"]
        return {rule["name"]: rule for group in groups for rule in group["rules"]}

    def firing(self):
        """Returns the labels of the alerts that fire, by the name of the alert."""
        alerts = {}
        for each in self._get("alerts")["alerts"]:
            if each["state"] == "firing":
                alerts.setdefault(each["labels"]["alertname"], []).append(each["labels"])
        return alerts

    def wait_for(self, wanted, timeout=30.0):
        """Waits until exactly these alerts fire. Returns them."""
        return eventually(
            lambda: (alerts := self.firing()).keys() == set(wanted) and (alerts or True),
            timeout, lambda: f"{sorted(wanted)}, not {self.firing()}",
        )
