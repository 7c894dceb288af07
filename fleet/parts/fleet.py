"""The fleet: robots, their programs, the broker and Prometheus."""

import contextlib
import pathlib
import shutil
import socket
import tempfile
import threading

from . import interruption
from .children import Children, Failed
from .robot import SERVER, Program, Robot, make_network
from .servers import BROKER_PORT, PROMETHEUS_PORT, Broker, Prometheus, attempts

MOVEMENT_SECONDS = 3.0

__all__ = ["Failed", "Fleet"]


class Fleet:
    def __init__(self, programs, root, count, interval):
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="gripper-fleet-"))
        self.children = Children(self.work)
        self.programs = programs
        self.root = root
        self.count = count
        self.interval = interval
        self.broker = None
        self.traffic = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        interruption.end()
        if self.traffic:
            self.traffic.stop()
        if self.broker:
            self.broker.close()
        self.children.end()
        shutil.rmtree(self.work)

    def start(self):
        make_network()
        isolated = self.root / "scripts/isolated"
        numbers = range(1, self.count + 1)
        self.robots = [Robot(each, self.children, self.programs, isolated) for each in numbers]
        for robot in self.robots:
            robot.connect_cable()
        self.broker = Broker(self.children, self.work)
        files = self.root / "fleet/prometheus"
        self.prometheus = Prometheus(self.children, self.work, files, self.robots, self.interval)
        for robot in self.robots:
            robot.start_line()
        for robot in self.robots:
            robot.start_daemon()
        programs = [Program(robot) for robot in self.robots]
        for program in programs:
            program.connect()
        for robot in self.robots:
            robot.start_gateway(self.work)
        # Threads begin after the last child: a child must not copy a lock that a thread holds.
        self.broker.connect(self.children.check)
        self.traffic = Traffic(programs)

    def check(self):
        self.children.check()
        if self.traffic and self.traffic.problem:
            raise Failed(f"the program of a robot: {self.traffic.problem}")

    def missing(self):
        """The names of the robots that are not visible in both servers."""
        seen = self.prometheus.robots_with("gripperd_grippers == 2")
        return [each.name for each in self.robots if each.name not in seen or not self.broker.shows(each)]

    def wait_until_visible(self):
        # A scrape interval, and a start on a busy machine.
        for _ in attempts(lambda: f"not visible: {', '.join(self.missing())}", 60 + 3 * self.count):
            self.check()
            if not self.missing():
                return

    def admit(self, broker_listener, prometheus_listener):
        """Passes connections to these sockets of the machine's network on to the servers."""
        for listener, port in ((broker_listener, BROKER_PORT), (prometheus_listener, PROMETHEUS_PORT)):
            threading.Thread(target=_forward, args=(listener, (SERVER, port)), daemon=True).start()


class Traffic(threading.Thread):
    """Lets every robot work. The movements of the robots are spread over time."""

    def __init__(self, programs):
        super().__init__(daemon=True)
        self.programs = programs
        self.problem = None
        self._ended = threading.Event()
        self.start()

    def run(self):
        try:
            while True:
                for program in self.programs:
                    if self._ended.wait(MOVEMENT_SECONDS / len(self.programs)):
                        return
                    program.step()
        except (OSError, Failed) as problem:
            self.problem = problem

    def stop(self):
        self._ended.set()
        self.join(30)
        for program in self.programs:
            program.close()


def _forward(listener, address):
    while True:
        near, _ = listener.accept()
        try:
            far = socket.create_connection(address)
        except OSError:
            near.close()
            continue
        for source, target in ((near, far), (far, near)):
            threading.Thread(target=_copy, args=(source, target), daemon=True).start()


def _copy(source, target):
    with contextlib.suppress(OSError):
        while data := source.recv(65536):
            target.sendall(data)
        target.shutdown(socket.SHUT_WR)
