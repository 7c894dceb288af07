"""fleet/prometheus with the real Prometheus: every expression has results, every alert fires and ends."""

import contextlib
import json
import re
import subprocess

import pytest
from harness.effort import effort
from harness.simulator import Simulator
from harness.waiting import eventually
from prometheusrig import FILES, Prometheus
from scrapes import scrape

# A busy machine lets the server wait.
QUERY_TIME = 20


@pytest.fixture
def prometheus(tmp_path):
    with Prometheus(tmp_path / "prometheus") as server:
        yield server


class Robot:
    """A line, a daemon and a gateway, each of which a test can end and start."""

    def __init__(self, start_daemon, start_gateway, *grippers):
        self.start_daemon, self.start_gateway = start_daemon, start_gateway
        self.ids = sorted(int(each.split("=")[0]) for each in grippers)
        self.line = Simulator(*grippers, "--activation-ms", "100")

    def start(self):
        self.daemon = self.start_daemon().wait_until_found(*self.ids)
        self.restart_gateway()
        self.operator = self.gateway.operator()
        return self

    def restart_gateway(self):
        self.gateway = self.start_gateway("--expect", ",".join(map(str, self.ids)))
        self.gateway.wait_for(lambda state: len(state["grippers"]) == len(self.ids))

    def move(self, position, **values):
        self.keep_control()
        return self.operator.do("grippers/9/move", position=position, **values)

    def activate(self, gripper=9):
        self.keep_control()
        return self.operator.do(f"grippers/{gripper}/activate")

    def scan(self):
        self.keep_control()
        return self.operator.do("scan", timeout=20)

    def keep_control(self):
        self.operator.take_control(takeOver=True)

    def lose_a_part(self, times=1):
        for _ in range(times):
            before = scrape(self.gateway).value("gripper_objects_lost_total", id=9)
            self.move(0)
            self.line.command("object 9 60")
            self.move(100)
            self.line.command("object 9 none")
            eventually(
                lambda: scrape(self.gateway).value("gripper_objects_lost_total", id=9) == before + 1
            )


@pytest.fixture
def robot(start_daemon, start_gateway):
    with contextlib.ExitStack() as lines:

        def start(*grippers):
            made = Robot(start_daemon, start_gateway, *grippers)
            lines.enter_context(made.line)
            return made.start()

        yield start


def expressions_of(title):
    """The expressions of the panel with this title in the dashboard."""
    return [each["expr"] for panel in panels() if panel["title"] == title for each in panel["targets"]]


def panels():
    return json.loads((FILES / "dashboard.json").read_text(encoding="utf-8"))["panels"]


def expressions():
    """The expressions of the dashboard, without its variables."""
    found = [each["expr"] for panel in panels() for each in panel.get("targets", [])]
    assert len(found) > 20
    return [each.replace("$robot", ".*").replace("$__rate_interval", "4s") for each in found]


def metrics_in(expression):
    return re.findall(r"\bgripperd?[_:][\w:]+", expression)


@pytest.mark.parametrize(
    "words", [["check", "rules", "rules.yml"], ["check", "config", "prometheus.yml"],
              ["test", "rules", "rules_test.yml", "rules_weeks_test.yml"]], ids=" ".join
)
def test_promtool_accepts(words):
    run = subprocess.run(["promtool", *words], cwd=FILES, capture_output=True, text=True, timeout=100)
    assert run.returncode == 0, run.stdout + run.stderr


def test_the_documentation_has_every_metric_and_alert():
    text = (FILES.parents[1] / "docs/fleet.md").read_text(encoding="utf-8")
    rules = (FILES / "rules.yml").read_text(encoding="utf-8")
    assert set(re.findall(r"^\| `(Gripper\w+)`", text, re.MULTILINE)) == set(
        re.findall(r"alert: (\w+)", rules)
    )
    used = {name for each in expressions() for name in metrics_in(each) if ":" not in name}
    assert set(re.findall(r"`(gripperd?_\w+)", text)) == {
        re.sub(r"_seconds_(bucket|count|sum)$", "_seconds", name) for name in used
    }


def test_every_expression_has_results(robot, prometheus):
    line = robot("9=TA3-1.6.14", "2=TE1-2.0.2")
    line.activate()
    line.lose_a_part()
    missing = set(expressions()) | {each["query"] for each in prometheus.rules().values()}
    alerts = {name for name, rule in prometheus.rules().items() if rule["type"] == "alerting"}
    assert len(alerts) == 8
    # An alert has no results while all is well, but its series have.
    for rule in prometheus.rules().values():
        if rule["type"] == "alerting":
            missing.remove(rule["query"])
            prometheus.query(rule["query"])
            missing.update(metrics_in(rule["query"]))

    def none_missing():
        # A gripper with a fault does not move.
        line.activate()
        line.move(50)
        line.move(0)
        line.line.command("faultcode 9 5")
        missing.difference_update([each for each in missing if prometheus.query(each)])
        return not missing

    eventually(none_missing, QUERY_TIME, lambda: f"results of {missing}")
    assert prometheus.label_values("gripperd_up", "instance") == ["localhost:63353"]
    # The dashboard and the rules use all that the gateway says.
    used = {name for each in expressions() for name in metrics_in(each)}
    exposed = {name for name, _ in scrape(line.gateway).samples}
    assert exposed - used == set()


def daemon_down(robot, prometheus):
    robot.daemon.kill()
    prometheus.wait_for({"GripperDaemonDown"})
    yield
    robot.daemon = robot.start_daemon().wait_until_found(*robot.ids)


def fault(robot, prometheus):
    robot.activate()
    robot.line.command("faultcode 9 5")
    labels = prometheus.wait_for({"GripperFault"})["GripperFault"]
    assert [(each["id"], each["robot"]) for each in labels] == [("9", "press-a")]
    yield
    robot.activate()


def drops_parts(robot, prometheus):
    robot.activate()
    robot.lose_a_part(3)
    prometheus.wait_for({"GripperDropsParts"})
    yield


def gateway_down(robot, prometheus):
    robot.gateway.finish()
    prometheus.wait_for({"GripperGatewayDown"})
    # The first panel still counts this robot.
    samples = [prometheus.query(each) for each in expressions_of("Daemons that answer")]
    assert samples == [[({}, 0)], [({}, 1)]]
    yield
    robot.restart_gateway()


def link_down(robot, prometheus):
    robot.line.unplug()
    prometheus.wait_for({"GripperLinkDown"})
    yield
    robot.line.plug()


def missing(robot, prometheus):
    robot.line.command("fault 9 deaf")
    labels = prometheus.wait_for({"GripperMissing"})["GripperMissing"]
    assert [each["id"] for each in labels] == ["9"]
    yield
    robot.line.command("clear 9")
    robot.scan()


def slower(robot, prometheus):
    robot.activate()
    name = "gripper:move_duration_seconds:mean1d"
    # Fast movements for "a day", then slow ones until "a week" has passed since then.
    for _ in range(12):
        robot.move(100, speed=100)
        robot.move(0, speed=100)
    eventually(lambda: prometheus.query(name), QUERY_TIME)
    assert "GripperSlower" not in prometheus.firing()

    def fires():
        robot.move(100, speed=20)
        robot.move(0, speed=20)
        return "GripperSlower" in prometheus.firing()

    eventually(fires, 40)
    yield


def firmware_mixed(robot, prometheus):
    prometheus.wait_for({"GripperFirmwareMixed"})
    yield
    robot.line.command("remove 2")
    robot.scan()
    # The integrator removed it on purpose.
    robot.ids = [9]
    robot.gateway.finish()
    robot.restart_gateway()


TWO_FAMILIES = ("9=TA3-1.6.14", "2=TE1-2.0.2")
TWO_VERSIONS = ("9=TA3-1.6.14", "2=TA3-1.6.13")
SHORT = [(fault, TWO_FAMILIES), (daemon_down, TWO_FAMILIES)]
LONG = [(each, TWO_FAMILIES) for each in (drops_parts, gateway_down, link_down, missing, slower)]


@pytest.mark.parametrize(
    "trouble, grippers", SHORT + effort([], [*LONG, (firmware_mixed, TWO_VERSIONS)]),
    ids=lambda value: getattr(value, "__name__", None),
)
def test_an_alert_fires_and_ends(robot, prometheus, trouble, grippers):
    """Each trouble ends its alert, and causes no other alert."""
    line = robot(*grippers)
    # An increase needs a former value.
    eventually(lambda: prometheus.query("gripper_active"), QUERY_TIME)
    if trouble is not firmware_mixed:
        prometheus.wait_for(set())
    steps = trouble(line, prometheus)
    next(steps)
    next(steps, None)
    prometheus.wait_for(set())
