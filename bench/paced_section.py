"""Measures replies to single requests of many clients, and their effect on the visits."""

from line_section import GRIPPERS, VISIT_HEAD, frames_during, throttle, visit_figures
from rig import DAEMON_PORT, ECHO_PORT, POSITION, Client, wait_until_served
from tables import median, table
from visits import visits_of

CLIENTS = 50
RATE = 1000
VALUE = f"POS {POSITION}\n"
NO_VALUE = "POS ?\n"


def run(rig, quick):
    seconds, rounds = (2, 1) if quick else (10, 3)
    with rig.simulator(GRIPPERS[0]) as simulator:
        bench = Paced(rig, simulator, seconds)
        for _ in range(rounds):
            bench.one_round()
        bench.print_replies(rounds)
        bench.print_visits()


class Paced:
    """Measures in rounds. Keeps a list of results for each name."""

    def __init__(self, rig, simulator, seconds):
        self.rig, self.simulator, self.seconds = rig, simulator, seconds
        self.daemon = rig.daemon_with_value()
        self.echo = rig.echo()
        self.replies = {}
        self.visits = {}

    def one_round(self):
        for setting, name in ((1, "polling, throttled"), (0, "polling, not throttled")):
            throttle(setting)
            self.measure_visits(name + ", no client")
            self.measure_replies(name, VALUE, visits=True)
        self.set("MUTE 1")
        self.measure_replies("muted", VALUE)
        self.set("MUTE 0")
        self.simulator.command("unplug")
        wait_until_served("POS", "?")
        self.measure_replies("no gripper", NO_VALUE)
        self.simulator.command("plug")
        wait_until_served("POS", str(POSITION))
        self.measure_replies("Qt echo", VALUE, self.echo.pid, ECHO_PORT)

    def set(self, pairs):
        with Client() as client:
            client.set(pairs)

    def measure_visits(self, name):
        found = visits_of(frames_during(self.simulator, self.seconds))
        self.visits.setdefault(name, []).append(found)

    def measure_replies(self, name, reply, pid=None, port=DAEMON_PORT, visits=False):
        first = len(self.simulator.frames)
        result = self.rig.load(
            "paced",
            port,
            "GET POS\n",
            reply,
            clients=CLIENTS,
            rate=RATE,
            seconds=self.seconds,
            server=pid or self.daemon.pid,
        )
        self.replies.setdefault(name, []).append(result)
        if visits:
            found = visits_of(self.simulator.frames[first:])
            self.visits.setdefault(name + f", {RATE}/s", []).append(found)

    def print_replies(self, rounds):
        muted = [r["p99"] for r in self.replies["muted"]]
        rows = []
        for name, results in self.replies.items():
            to_muted = median([r["p99"] / m for r, m in zip(results, muted)])
            rows.append(
                [
                    name,
                    f"{median([r['replies'] / r['seconds'] for r in results]):.0f}",
                    *(f"{median([r[k] for r in results]):.0f}" for k in ("p50", "p99", "p999")),
                    f"{max(r['max'] for r in results):.0f}",
                    f"{median([r['due_p999'] for r in results]):.0f}",
                    f"{max(r['due_max'] for r in results):.0f}",
                    f"{to_muted:.2f}",
                    f"{median([r['server_cpu'] / r['seconds'] for r in results]):.1%}",
                    f"{median([r['late_p999'] for r in results]):.0f}",
                    sum(r["wrong"] + r["missing"] for r in results),
                ]
            )
        head = ["server", "replies/s", "p50 us", "p99 us", "p99.9 us", "max us"]
        head += ["p99.9 from due", "max from due", "p99 of muted"]
        head += ["CPU", "load late p99.9 us", "not as expected"]
        title = f"{CLIENTS} clients, {RATE} requests a second in all"
        table(f"{title}: medians of {rounds} rounds of {self.seconds} s", head, rows)

    def print_visits(self):
        rows = [
            [name, *visit_figures(*found)]
            for name, rounds in self.visits.items()
            for found in rounds
        ]
        table("Visits meanwhile, a round each; ms", ["polling", *VISIT_HEAD], rows)
