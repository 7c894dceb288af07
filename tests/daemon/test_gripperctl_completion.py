"""The words that bash, zsh and fish offer."""

import os
import pathlib
import re
import subprocess

import pytest
from harness import gripperctl
from harness.children import binary
from harness.gripperctl import ScriptedDaemon, fail, succeed
from harness.gripperctlhelp import commands, options
from harness.terminal import Terminal
from harness.waiting import eventually

ROOT = pathlib.Path(__file__).resolve().parents[2]
FOLDER = ROOT / "completion"


def offered(*words):
    """Returns (word, description) of each word that the program offers for the last word."""
    lines = succeed("completion", "--", *words).splitlines()
    return [tuple(line.split("\t")) if "\t" in line else (line, "") for line in lines]


def words_for(*words):
    return [word for word, _ in offered(*words)]


def test_commands_with_their_help():
    assert words_for("") == commands()
    assert words_for("re") == [name for name in commands() if name.startswith("re")]
    assert dict(offered(""))["status"] == "Show the driver, its link, and every gripper found."
    assert words_for("--host", "robot", "--json", "sta") == ["status"]
    assert words_for("--timeout", "1") == words_for("fly", "") == []


def test_options_of_each_command():
    for command in commands():
        found = words_for(command, "-")
        assert {word for word in found if word.startswith("--")} == options(command)
        assert ("-o" in found) == (command == "plot")
        assert all(help_text for _, help_text in offered(command, "--"))
    assert words_for("--js") == ["--json"]


def test_arguments_of_the_commands(tmp_path):
    assert words_for("led", "") == ["red", "green", "blue", "off", "auto"]
    assert words_for("rename", "9", "") == ["9", "2", "3", "4"]
    states = re.search("wait takes one of (.*), not", fail(gripperctl.USAGE, "wait", "x"))[1]
    assert words_for("wait", "") == states.split(", ")
    assert words_for("move", "") == words_for("raw", "") == words_for("move", "1", "--speed", "") == []
    assert words_for("plot", "a") == words_for("plot", "-o", "a") == words_for("record", "") == [":files"]
    assert words_for("doctor", "--bundle", "") == [":files"]
    assert words_for("status", "--host", "ro") == words_for("--host=") == [":hosts"]


def test_ids_come_from_the_named_daemon():
    with ScriptedDaemon(SID="[2, 4]") as daemon:
        assert words_for("--host", daemon.host, "--gripper", "") == ["2", "4"]
        assert words_for(f"--host={daemon.host}", "status", "--gripper=4") == ["--gripper=4"]
    assert words_for("--host", daemon.host, "--gripper", "") == []
    assert words_for("--host", "a:b:c", "--gripper", "") == []


def test_every_name_exists():
    with ScriptedDaemon() as daemon:
        for name in words_for("set", ""):
            if name != "BLD":
                succeed("--host", daemon.host, "set", name, "0")
        succeed("--host", daemon.host, "get", *words_for("get", ""))
        assert len(daemon.requests) > 20


# The shells


def in_bash(*words):
    """Returns the words that bash offers for the last word."""
    script = 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
    script += '_gripperctl; printf "%s\\n" "${COMPREPLY[@]}"'
    run = subprocess.run(
        ["bash", "-euc", script, "bash", FOLDER / "gripperctl", binary("gripperctl"), *words],
        check=True, capture_output=True, text=True,
    )
    assert run.stderr == ""
    return run.stdout.split()


def test_bash(tmp_path):
    assert in_bash("") == commands()
    assert in_bash("watch", "--in") == ["--interval"]
    (tmp_path / "a.csv").write_text("")
    assert in_bash("plot", f"{tmp_path}/a") == [f"{tmp_path}/a.csv"]
    assert in_bash("doctor", "--bu") == ["--bundle"]
    # bash splits "--host robot:63352" and "--gripper=3" in this way.
    assert in_bash("--host", "robot", ":", "63352", "sta") == ["status"]
    assert in_bash("--host", "robot", ":", "6") == []
    assert in_bash("--gripper", "=", "3", "sta") == ["status"]
    with ScriptedDaemon(SID="[2, 4]") as daemon:
        host, port = daemon.host.split(":")
        assert in_bash("--host", host, ":", port, "--gripper", "") == ["2", "4"]
        assert in_bash("--host", "=", host, ":", port, "--gripper", "=") == ["2", "4"]


@pytest.fixture
def with_program(monkeypatch):
    """gripperctl is a command, as it is for a user."""
    folder = os.path.dirname(binary("gripperctl"))
    monkeypatch.setenv("PATH", os.pathsep.join([folder, os.environ["PATH"]]))


def test_fish(with_program, tmp_path):
    def in_fish(line):
        script = f"source '{FOLDER}/gripperctl.fish'; complete -C '{line}'"
        run = subprocess.run(
            ["fish", "--no-config", "-c", script], check=True, capture_output=True, text=True,
            cwd=tmp_path, env={**os.environ, "HOME": str(tmp_path)},
        )
        assert run.stderr == ""
        return run.stdout.splitlines()

    (tmp_path / "a.csv").write_text("")
    assert in_fish("gripperctl rec") == ["record\tWrite positions and currents into a file."]
    assert [line.split("\t")[0] for line in in_fish("gripperctl watch --in")] == ["--interval"]
    assert in_fish("gripperctl plot a") == ["a.csv"]
    assert in_fish("gripperctl doctor --bundle a") == ["a.csv"]
    assert in_fish("gripperctl plot --output=a") == ["--output=a.csv"]
    with ScriptedDaemon(SID="[2, 4]") as daemon:
        assert in_fish(f"gripperctl --host {daemon.host} --gripper ") == ["2", "4"]
        assert in_fish(f"gripperctl --host={daemon.host} --gripper=") == ["--gripper=2", "--gripper=4"]


def test_zsh(with_program, tmp_path):
    (tmp_path / "a.csv").write_text("")
    terminal = Terminal(tmp_path)
    try:
        terminal.type(f"cd {tmp_path}; exec env PS1='zsh: ' zsh -f")
        terminal.wait_for("^zsh:")
        terminal.type(f"fpath=({FOLDER} $fpath); autoload -Uz compinit; compinit -u -D; clear; echo rea''dy")
        terminal.wait_for("^ready")

        def in_zsh(line, shown):
            terminal.tmux("send-keys", "-l", line)
            terminal.press("Tab")
            eventually(lambda: any(shown in text for text in terminal.shown()), 5, terminal.shown)
            # Not Ctrl-C, because the terminal then drops the next keys.
            terminal.press("C-u")
            terminal.press("C-l")
            eventually(lambda: not any(shown in text for text in terminal.shown()))

        in_zsh("gripperctl watch --in", "watch --interval")
        in_zsh("gripperctl re", "record   -- Write positions and currents into a file.")
        in_zsh("gripperctl plot a", "plot a.csv")
        in_zsh("gripperctl doctor --bu", "doctor --bundle")
        in_zsh("gripperctl plot --output=a", "--output=a.csv")
        with ScriptedDaemon(SID="[4]") as daemon:
            in_zsh(f"gripperctl --host {daemon.host} --gripper ", "--gripper 4")
            in_zsh(f"gripperctl --host {daemon.host} --gripper=", "--gripper=4")
    finally:
        terminal.close()
