"""A robot: a simulated line, gripperd and gripper-gateway in namespaces of their own."""

import contextlib
import socket
import subprocess
import time

from .children import Failed

BRIDGE = "fleet"
SERVER = "10.63.0.1"
DAEMON_PORT, METRICS_PORT = 63352, 63354
FINGERS, VACUUM = 9, 2
FOUND = f"[{VACUUM}, {FINGERS}]"


def ip(words, inside=()):
    done = subprocess.run([*inside, "ip", *words.split()], stderr=subprocess.PIPE, text=True)
    if done.returncode != 0:
        raise Failed(f"ip {words}: {done.stderr.strip()}")


def make_network():
    ip(f"link add name {BRIDGE} type bridge")
    ip(f"address add {SERVER}/16 dev {BRIDGE}")
    ip(f"link set {BRIDGE} up")


class Robot:
    def __init__(self, number, children, programs, isolated):
        self.number = number
        self.name = f"robot-{number}"
        self.address = f"10.63.1.{number}"
        self.children = children
        self.programs = programs
        # The namespaces last as long as this process.
        self.holder = children.spawn(
            "namespaces", f"namespaces of {self.name}",
            [isolated, "--net", "sh", "-c", "echo isolated; exec cat"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        )

    def connect_cable(self):
        if not self.holder.process.stdout.readline():
            self.holder.process.wait()
            self.holder.check()
        cable = f"cable{self.number}"
        ip(f"link add {cable} type veth peer name eth0 netns {self.holder.pid}")
        ip(f"link set {cable} master {BRIDGE} up")
        inside = self._inside("--net")
        ip(f"address add {self.address}/16 dev eth0", inside)
        ip("link set eth0 up", inside)

    def _inside(self, *namespaces):
        return ["nsenter", "--target", str(self.holder.pid), *namespaces]

    def _spawn(self, program, *words, **options):
        return self.children.spawn(
            program, f"{program} of {self.name}",
            [*self._inside("--net", "--mount"), self.programs / program, *words], **options
        )

    def start_line(self):
        number = self.number
        self.simulator = self._spawn(
            "gripper-simulator",
            "--gripper", f"{FINGERS}=TA3-1.6.14", "--serial", f"{FINGERS}=F-{number}",
            "--gripper", f"{VACUUM}=TE1-2.0.2", "--serial", f"{VACUUM}=V-{number}",
            stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        )
        self.read_line()

    def read_line(self):
        line = self.simulator.process.stdout.readline()
        if not line:
            self.simulator.process.wait()
            self.simulator.check()
        return line.decode().rstrip("\n")

    def command(self, text):
        """Sends a command to the simulator. Returns the lines of its answer."""
        # read_line() reports a simulator that has ended.
        with contextlib.suppress(BrokenPipeError):
            self.simulator.process.stdin.write(text.encode() + b"\n")
            self.simulator.process.stdin.flush()
        lines = [self.read_line()]
        while not lines[-1].startswith(("ok", "error")):
            lines.append(self.read_line())
        return lines

    def start_daemon(self):
        self.daemon = self._spawn("gripperd")

    def start_gateway(self, folder):
        self.gateway = self._spawn(
            "gripper-gateway",
            "--config", "/dev/null", "--pair-socket", folder / f"{self.name}.pair",
            "--expect", f"{VACUUM},{FINGERS}", "--metrics-listen", f"{self.address}:{METRICS_PORT}",
            # Nothing else is in this network.
            "--mqtt", SERVER, "--plain-mqtt", "--mqtt-node", self.name,
        )


class Program:
    """The program of a robot: it moves the fingers to and fro, as a client of the daemon."""

    def __init__(self, robot):
        self.robot = robot
        self.goal = 0

    def connect(self):
        """Returns when the daemon has found both grippers."""
        deadline = time.monotonic() + 60
        while True:
            self.robot.children.check()
            if time.monotonic() > deadline:
                raise Failed(f"gripperd of {self.robot.name} does not find its grippers")
            try:
                self.socket = socket.create_connection((self.robot.address, DAEMON_PORT), 20)
                break
            except OSError:
                time.sleep(0.05)
        self.reader = self.socket.makefile("rb")
        while self.get("DRI") != "RUNNING" and time.monotonic() < deadline:
            time.sleep(0.1)
        # On a busy machine, the first scan may miss a gripper.
        while self.get("SID") != FOUND:
            self.set("SCN_BLOCK 1")
            if time.monotonic() > deadline:
                raise Failed(f"gripperd of {self.robot.name} does not find its grippers")
        # Now the connection addresses the fingers.
        self.set(f"SID {FINGERS}")

    def get(self, name):
        self.socket.sendall(f"GET {name}\n".encode())
        return self.reader.readline().decode().rstrip("\n")[len(name) + 1:]

    def set(self, pairs):
        self.socket.sendall(f"SET {pairs}\n".encode())
        if len(self.reader.read(3)) < 3:
            raise Failed(f"gripperd of {self.robot.name} closed a connection")

    def step(self):
        """Starts the next movement. An inactive gripper needs an activation first."""
        status = self.get("STA")
        if status == "0":
            self.set("ACT 1")
        elif status == "3":
            self.goal = 200 - self.goal
            self.set(f"POS {self.goal} SPE 100 FOR 50 GTO 1")

    def close(self):
        self.socket.close()
