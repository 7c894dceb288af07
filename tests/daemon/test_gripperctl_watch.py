"""gripperctl with the real daemon and simulated grippers: watch, record, plot."""

import json
import os
import re
import shutil
import signal
import socket
import subprocess
import xml.etree.ElementTree

import pytest
from harness import gripperctl
from harness.children import binary
from harness.gripperctl import ScriptedDaemon, fail, start_ctl, succeed
from harness.simulator import Simulator
from harness.waiting import eventually

ROWS, COLUMNS = 12, 110


@pytest.fixture(scope="module")
def simulator():
    with Simulator("9=TA3-1.6.14", "2=TE1-2.0.2", "--activation-ms", "100") as running:
        yield running


@pytest.fixture(scope="module")
def daemon(simulator, start_module_daemon):
    return start_module_daemon().wait_until_found(9, 2)


@pytest.fixture
def moved(daemon):
    """Gripper 9 is at 128."""
    succeed("activate", "--wait")
    succeed("move", "128", "--speed", "255", "--wait")


class Terminal:
    """A real terminal: a tmux server for this test only."""

    def __init__(self, folder):
        self.socket = str(folder / "tmux")
        self.tmux("-f", "/dev/null", "new-session", "-d", "-x", str(COLUMNS), "-y", str(ROWS),
                  "env PS1='$ ' sh")
        self.wait_for(r"^\$")

    def tmux(self, *words):
        return subprocess.run(
            ["tmux", "-S", self.socket, *words], check=True, capture_output=True, text=True,
            timeout=10, env={**os.environ, "TERM": "xterm", "LC_ALL": "C.UTF-8", "SHELL": "/bin/sh"},
        ).stdout

    def type(self, text):
        self.tmux("send-keys", text, "Enter")

    def press(self, key):
        self.tmux("send-keys", key)

    def shown(self):
        return self.tmux("capture-pane", "-p").splitlines()

    def state(self):
        """Returns (is on the alternate screen, has a cursor)."""
        flags = self.tmux("display-message", "-p", "#{alternate_on} #{cursor_flag}").split()
        return tuple(word == "1" for word in flags)

    def wait_for(self, pattern, timeout=5.0):
        expression = re.compile(pattern)
        return eventually(
            lambda: next((found for line in self.shown() if (found := expression.search(line))), None),
            timeout, lambda: f"{pattern} in {self.shown()}",
        )


@pytest.fixture
def terminal(tmp_path):
    terminal = Terminal(tmp_path)
    yield terminal
    terminal.tmux("kill-server")


def test_a_live_view_in_a_terminal(moved, terminal):
    terminal.type(f"{binary('gripperctl')} watch --interval 0.1; echo ended with $?")
    terminal.wait_for(r"^gripperd MZV-2\.0\.0 on 127\.0\.0\.1:63352  link RUNNING  \d\d:\d\d:\d\d")
    bar = terminal.wait_for(r"^ 9 Pello  active     \[([#|-]+)\] 128 -> 128  current +\d+  reached")[1]
    assert abs(bar.index("|") - len(bar) / 2) <= 1
    assert set(bar[: bar.index("|")]) == {"#"} and set(bar[bar.index("|") + 1 :]) == {"-"}
    assert terminal.wait_for(r"^ 2 Zentra inactive")
    assert terminal.state() == (True, False)
    assert all(len(line) <= COLUMNS for line in terminal.shown())
    # The view shows the requested position before the gripper has reached it.
    succeed("move", "255", "--speed", "0")
    bar = terminal.wait_for(r"^ 9 .*\[(#+-+\|)\] .*-> 255 .* moving")[1]
    assert bar.endswith("-|")
    terminal.press("C-c")
    terminal.wait_for("^ended with 0")
    # The terminal shows its former content again.
    terminal.wait_for("gripperctl watch")
    assert not any("link RUNNING" in line for line in terminal.shown())
    assert terminal.state() == (False, True)


def test_the_live_view_stops_and_continues(daemon, terminal):
    terminal.type(f"{binary('gripperctl')} watch --interval 0.1")
    for _ in range(2):
        terminal.wait_for("link RUNNING")
        terminal.press("C-z")
        terminal.wait_for("Stopped")
        assert terminal.state() == (False, True)
        terminal.type("fg")
    terminal.wait_for("link RUNNING")
    assert terminal.state() == (True, False)
    terminal.press("C-c")
    eventually(lambda: terminal.state() == (False, True))


def test_the_live_view_restores_the_terminal_when_the_connection_is_lost(terminal):
    with ScriptedDaemon() as scripted:
        terminal.type(f"{binary('gripperctl')} --host {scripted.host} watch; echo ended with $?")
        terminal.wait_for("link RUNNING")
        scripted.drop()
        terminal.wait_for("lost the connection")
        terminal.wait_for("^ended with 3")


def test_an_upgrade_asks_on_a_terminal_and_accepts_no(terminal):
    with ScriptedDaemon() as scripted:
        terminal.type(f"{binary('gripperctl')} --host {scripted.host} upgrade; echo ended with $?")
        terminal.wait_for(r"Write new firmware into gripper 9 \(TA3-1\.0\.0, serial ABC-1\)\?")
        terminal.type("n")
        terminal.wait_for("^ended with 130")
        assert scripted.sets() == ["SID 9"]


def test_plain_lines_where_there_is_no_terminal(moved):
    lines = succeed("watch", "--interval", "0.05", "--count", "3").splitlines()
    assert len(lines) == 6
    fingers = [dict(word.split("=") for word in line.split()[1:]) for line in lines[1::2]]
    for values in fingers:
        assert values["gripper"] == "9" and values["link"] == "RUNNING"
        assert values["position"] == values["requested"] == "128"
        assert values["object"] == "reached" and values["fault"] == "0"


def test_json_lines_for_scripts(moved):
    lines = succeed("--json", "--gripper", "9", "watch", "--interval", "0.05", "--count", "2")
    for line in lines.splitlines():
        assert [g["position"] for g in json.loads(line)["grippers"]] == [128]


def test_output_without_a_reader_ends_the_watch(daemon):
    process = start_ctl("watch", "--interval", "0.05")
    assert "gripper=" in process.stdout.readline()
    process.stdout.close()
    assert process.wait(5) == gripperctl.DONE
    process.stderr.close()


@pytest.mark.parametrize("command", ["watch", "record"])
def test_a_gripper_that_does_not_exist(daemon, command, tmp_path):
    words = [tmp_path / "new.csv"] if command == "record" else []
    assert "not list gripper 4" in fail(gripperctl.NO_GRIPPER, "--gripper", "4", command, *words)
    assert list(tmp_path.iterdir()) == []


# Recording and plotting


@pytest.fixture(scope="module")
def recording(daemon, tmp_path_factory):
    path = tmp_path_factory.mktemp("recording") / "grip.csv"
    succeed("activate", "--wait")
    succeed("move", "0", "--wait")
    process = start_ctl("record", path, "--interval", "0.05", "--seconds", "1.5")
    assert "recording into" in process.stderr.readline()
    succeed("move", "200", "--speed", "255", "--wait")
    out, _ = process.communicate(timeout=10)
    assert process.returncode == gripperctl.DONE
    lines = path.read_text().splitlines()
    assert out == f"{len(lines) - 1} lines in {path}\n"
    return path


def test_a_recording_holds_every_gripper_over_the_time(recording):
    header, *lines = recording.read_text().splitlines()
    rows = [dict(zip(header.split(","), line.split(","))) for line in lines]
    fingers = [row for row in rows if row["gripper"] == "9"]
    assert len(fingers) == len(rows) / 2 >= 15
    seconds = [float(row["seconds"]) for row in fingers]
    assert seconds == sorted(seconds) and seconds[0] < 0.2 and 1.3 < seconds[-1] < 1.7
    positions = [int(row["position"]) for row in fingers]
    assert positions == sorted(positions) and positions[0] == 0 and positions[-1] == 200
    assert len(set(positions)) > 4
    assert any(int(row["current"]) > 0 for row in fingers)
    assert {row["link"] for row in rows} == {"RUNNING"}


def test_a_recording_ends_at_ctrl_c(daemon, tmp_path):
    path = tmp_path / "short.csv"
    process = start_ctl("record", path)
    eventually(lambda: path.exists() and path.read_text().count("\n") > 4)
    process.send_signal(signal.SIGINT)
    out, _ = process.communicate(timeout=5)
    assert process.returncode == gripperctl.DONE
    assert out.startswith(f"{path.read_text().count(chr(10)) - 1} lines in")


def test_a_recording_without_a_daemon_leaves_the_file_alone(tmp_path):
    path = tmp_path / "old.csv"
    path.write_text("precious")
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
    fail(gripperctl.NO_CONNECTION, "--host", f"127.0.0.1:{port}", "record", path)
    assert path.read_text() == "precious"
    assert "cannot write" in fail(gripperctl.LOCAL, "record", tmp_path / "no" / "such.csv")


def test_a_recording_is_drawn(recording, tmp_path):
    assert succeed("plot", recording) == f"drew {recording.with_suffix('.svg')}\n"
    tree = xml.etree.ElementTree.parse(recording.with_suffix(".svg"))
    texts = {"".join(e.itertext()).strip() for e in tree.iter("{http://www.w3.org/2000/svg}text")}
    assert {"position", "current", "seconds", "gripper 2", "gripper 9"} <= texts
    picture = tmp_path / "a picture's name.png"
    succeed("plot", recording, "-o", picture)
    assert picture.read_bytes().startswith(b"\x89PNG\r\n")


def test_drawing_needs_gnuplot(recording, tmp_path):
    picture = tmp_path / "grip.svg"
    text = fail(
        gripperctl.LOCAL, "plot", recording, "-o", picture, env={**os.environ, "PATH": str(tmp_path)}
    )
    assert "sudo apt install gnuplot-nox" in text
    assert not picture.exists()
    assert shutil.which("gnuplot"), "the other tests need it"


@pytest.mark.parametrize("content,said", [
    (None, "cannot read"),
    ("", "line 1 is not part of a recording"),
    ("1,2,3\n", "line 1 is not part of a recording"),
    ("HEADER\nx,0.1,9,far,0,0,-,0,RUNNING\n", "line 2 is not part of a recording"),
    ("HEADER\nx,0.1,9\n", "line 2 is not part of a recording"),
    ("HEADER\n", "has no values from a running link"),
    ("HEADER\nx,0.1,9,1,0,0,-,0,ERR_TIMEOUT\n", "has no values from a running link"),
])
def test_a_file_that_is_not_a_recording(tmp_path, content, said):
    path = tmp_path / "some.csv"
    header = "time,seconds,gripper,position,requested,current,object,fault,link"
    if content is not None:
        path.write_text(content.replace("HEADER", header))
    assert said in fail(gripperctl.LOCAL, "plot", path)
