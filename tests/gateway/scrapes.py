"""Scrapes of the gateway, and what they contain."""

import re

METRICS = "/metrics"
_SAMPLE = re.compile(r"(\w+)(?:\{(.*)\})? (\S+)")
_LABEL = re.compile(r'(\w+)="((?:[^"\\]|\\.)*)"')


class Scrape:
    """The samples of one answer: by name and labels."""

    def __init__(self, text):
        self.text = text
        self.samples = {}
        for line in text.splitlines():
            if line.startswith("#"):
                continue
            name, labels, value = _SAMPLE.fullmatch(line).groups()
            key = name, frozenset(_LABEL.findall(labels or ""))
            assert key not in self.samples, f"twice: {line}"
            self.samples[key] = float(value)

    def value(self, name, **labels):
        """Returns None for a sample that is not there."""
        wanted = frozenset((key, str(value)) for key, value in labels.items())
        return self.samples.get((name, wanted))


def scrape(gateway):
    answer = gateway.page().get(METRICS)
    assert answer.status == 200, answer.body
    assert answer.headers["Content-Type"] == "text/plain; version=0.0.4; charset=utf-8"
    return Scrape(answer.body.decode())
