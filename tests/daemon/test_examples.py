"""The programs in examples/ that grip parts, and the programs in docs/clients.md."""

import os
import queue
import re
import subprocess
import sys
import threading
import types
from unittest import mock

import pytest
from harness.children import spawn
from harness.pythonclient import PACKAGE, blocking
from harness.simulator import Simulator

EXAMPLES = PACKAGE.parents[1] / "examples"
DOCUMENT = EXAMPLES.parent / "docs" / "clients.md"
COMMANDS = {
    "shell": ["bash", EXAMPLES / "grip.sh"],
    "python": [sys.executable, "-B", EXAMPLES / "grip.py"],
    "asyncio": [sys.executable, "-B", EXAMPLES / "grip_async.py"],
}


class Program:
    """A running example and its lines."""

    def __init__(self, language):
        programs = os.environ["GRIPPERD_BIN_DIR"]
        environment = {
            **os.environ,
            "PATH": f"{programs}:{os.environ['PATH']}",
            "PYTHONPATH": str(PACKAGE),
        }
        self.process = spawn(
            [*COMMANDS[language], "127.0.0.1"],
            env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
        )
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))

    def next_line(self):
        return self.lines.get(timeout=15)

    def wait_for(self, start):
        while not (line := self.next_line()).startswith(start):
            pass
        return line


@pytest.fixture
def simulator():
    with Simulator("9=TA3-1.6.14", "--activation-ms=200") as running:
        yield running


@pytest.mark.parametrize("language", COMMANDS)
def test_example_handles_parts_faults_and_restarts(language, simulator, start_daemon):
    daemon = start_daemon().wait_until_found(9)
    with Program(language) as program:
        assert program.next_line() == "no part"
        simulator.command("object 9 140")
        assert program.wait_for("holds") == "holds a part at 140"
        simulator.command("object 9 none")
        assert program.next_line() == "lost the part"
        assert program.wait_for("no part")
        simulator.command("faultcode 9 12")
        assert program.wait_for("fault") == "fault 12: activates again"
        simulator.command("object 9 90")
        assert program.wait_for("holds") == "holds a part at 90"
        daemon.kill()
        program.wait_for("waits: ")
        mark = simulator.mark()
        start_daemon()
        assert program.wait_for("holds") == "holds a part at 90"
        # The part was never dropped: no write requested another position before.
        writes = simulator.since(mark, lambda r: r.slave == 9 and r.is_write(1000))
        assert {request.values[1] & 0xFF for request in writes} == {255}


# Programs in docs/clients.md


def blocks(language):
    return re.findall(rf"```{language}\n(.*?)```", DOCUMENT.read_text(encoding="utf-8"), re.DOTALL)


@pytest.mark.parametrize("number", [0, 1], ids=["blocking", "asyncio"])
def test_first_program_in_python(number, simulator, start_daemon):
    simulator.command("object 9 140")
    start_daemon()
    command = [sys.executable, "-B", "-W", "error", "-c", blocks("python")[number]]
    environment = {**os.environ, "PYTHONPATH": str(PACKAGE)}
    done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=30)
    assert (done.stdout, done.stderr, done.returncode) == ("holds a part at 140\n", "", 0)


def test_first_program_in_cpp_compiles(tmp_path):
    source = tmp_path / "first.cpp"
    source.write_text(blocks("cpp")[0], encoding="utf-8")
    include = PACKAGE.parent / "cpp" / "include"
    command = ["c++", "-std=c++17", "-Wall", "-Wextra", "-Werror", "-fsyntax-only", "-I", include, source]
    subprocess.run(command, check=True)


def recipe(word):
    (block,) = [block for block in blocks("python") if word in block and "class" not in block]
    return compile(block, "docs/clients.md", "exec")


def test_recipes_for_a_lost_connection_a_fault_and_a_lost_part(simulator, start_daemon, capsys):
    start_daemon().wait_until_found(9)
    with blocking.Line("127.0.0.1") as line, line.gripper(9) as gripper:
        gripper.activate()
        scope = {"line": line, "gripper": gripper, "put_part_down": lambda: print("put down")}
        lost = blocking.ConnectionLost("lost", "SET POS 120")
        with mock.patch.object(gripper, "move", side_effect=lost):
            exec(recipe("error.unknown"), scope)
        assert capsys.readouterr().out == "not certain: SET POS 120 the gripper goes to 0\n"
        simulator.command("faultcode 9 12")
        exec(recipe("fault.code"), scope)
        assert capsys.readouterr().out == "fault 12\nput down\n"
        assert gripper.image().fault == 0
        simulator.command("object 9 140")
        assert gripper.close().stalled
        simulator.command("object 9 none")
        exec(recipe("lost the part"), scope)
        assert capsys.readouterr().out == "lost the part\n"


# The node, with stand-ins for the framework


class Node:
    def __init__(self, name):
        self.name = name
        self.errors = []

    def declare_parameter(self, _name, value):
        return types.SimpleNamespace(value=value)

    def get_logger(self):
        return types.SimpleNamespace(error=self.errors.append)


class Goal:
    """The handle of a goal. It notes its end."""

    def __init__(self, position, max_effort):
        command = types.SimpleNamespace(position=position, max_effort=max_effort)
        self.request = types.SimpleNamespace(command=command)
        self.is_cancel_requested = False
        self.end = None

    def succeed(self):
        self.end = "succeeded"

    def abort(self):
        self.end = "aborted"

    def canceled(self):
        assert self.is_cancel_requested
        self.end = "cancelled"


@pytest.fixture
def node(simulator, start_daemon):
    start_daemon().wait_until_found(9)
    code = next(block for block in blocks("python") if "class GripperNode" in block)
    names = ["rclpy", "rclpy.action", "rclpy.callback_groups", "rclpy.executors", "rclpy.node"]
    modules = {name: mock.MagicMock() for name in [*names, "control_msgs", "control_msgs.action"]}
    modules["rclpy.node"].Node = Node
    modules["control_msgs.action"].GripperCommand.Result = types.SimpleNamespace
    with mock.patch.dict(sys.modules, modules):
        scope = {"__name__": "node"}
        exec(compile(code, "docs/clients.md", "exec"), scope)
        node = scope["GripperNode"]()
    yield node
    node.worker.shutdown()
    node.gripper.disconnect()


def test_the_node_has_the_results_of_its_framework(node, simulator):
    goal = Goal(0.05, 40.0)
    result = node.execute(goal)
    assert (goal.end, result.reached, result.stalled) == ("succeeded", True, False)
    assert abs(result.position - 0.05) < 0.001
    simulator.command("object 9 204")
    goal = Goal(0.0, 40.0)
    result = node.execute(goal)
    assert (goal.end, result.reached, result.stalled) == ("succeeded", False, True)
    assert abs(result.position - 0.02) < 0.001
    goal = Goal(0.1, 40.0)
    threading.Timer(0.1, setattr, [goal, "is_cancel_requested", True]).start()
    node.execute(goal)
    assert goal.end == "cancelled" and "go-to is off" in node.errors[-1]
    simulator.command("faultcode 9 12")
    goal = Goal(0.0, 40.0)
    node.execute(goal)
    assert goal.end == "aborted" and "fault 12" in node.errors[-1]
