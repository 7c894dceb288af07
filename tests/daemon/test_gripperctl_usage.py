"""gripperctl with a scripted daemon: its command line, its settings, and status and wait for scripts."""

import datetime
import json
import os
import pty
import re
import shutil
import signal
import socket
import subprocess
import threading
import time

import pytest
from harness import gripperctl
from harness.children import binary
from harness.gripperctl import ScriptedDaemon, as_json, ctl, fail, run_to_end, start_ctl, succeed


def commands():
    return re.findall(r"^  (\w+)", succeed("--help").split("Commands:")[1].split("Options:")[0], re.MULTILINE)


@pytest.mark.parametrize("words,said", [
    (["stats"], 'there is no command "stats"; did you mean status? See gripperctl --help'),
    (["fly"], 'there is no command "fly"; see gripperctl --help'),
    ([], "no command given; see gripperctl --help"),
    (["move", "1", "--sped", "3"], "move does not take --sped; did you mean --speed? See gripperctl move --help"),
    (["scan", "--wait"], "scan does not take --wait; see gripperctl scan --help"),
    (["scan", "9"], 'scan does not take "9"; see gripperctl scan --help'),
    (["rename", "9"], "rename needs OLD NEW; see gripperctl rename --help"),
    (["move", "-1"], 'a position is a number from 0 (open) to 255 (closed), not "-1"'),
    (["move", "-100"], 'a position is a number from 0 (open) to 255 (closed), not "-100"'),
    (["move", "0x10"], 'a position is a number from 0 (open) to 255 (closed), not "0x10"'),
    (["move", "1", "--speed", "-5"], '--speed takes a number from 0 to 255, not "-5"; see gripperctl move --help'),
    (["move", "1", "--speed", "1.5"], '--speed takes a number from 0 to 255, not "1.5"; see gripperctl move --help'),
    (["move", "1", "--speed", "1", "--speed", "2"], "--speed is given twice; see gripperctl move --help"),
    (["move", "1", "--force"], "--force needs a value; see gripperctl move --help"),
    (["status", "--gripper", "-2"], '--gripper takes a number from 1 to 9, not "-2"; see gripperctl status --help'),
    (["set", "POS", "-1"], '"-1" is not a number from 0 to 255'),
    (["set", "POS"], "POS needs a number (0 to 255); see gripperctl set --help"),
    (["set", "SPE"], "SPE needs a number (0 to 255)"),
    (["set", "FOR", "GTO", "1"], "FOR needs a number (0 to 255)"),
    (["set", "POZ", "1"], 'there is no variable "POZ" to set; did you mean POS? See gripperctl set --help'),
    (["set", "1"], 'there is no name before "1"'),
    (["get", "POSITION"], 'unlike "POSITION"'),
    (["wait", "activ"], 'wait takes one of daemon, gripper, active, still, object, lost, not "activ"; did you mean active?'),
    (["status", "--expect", "2,x"], '--expect takes ids such as 2,9, not "2,x"'),
], ids=lambda value: " ".join(value) if isinstance(value, list) else None)
def test_the_message_names_the_mistake(words, said):
    with ScriptedDaemon() as daemon:
        assert said in fail(gripperctl.USAGE, "--host", daemon.host, *words)
        assert daemon.sets() == []


def test_an_unknown_value_gets_a_suggestion():
    with ScriptedDaemon(POZ="?") as daemon:
        assert "did you mean POS or PON?" in fail(gripperctl.REFUSED, "--host", daemon.host, "get", "POZ")


def test_variables_whose_value_has_no_meaning_need_none():
    with ScriptedDaemon() as daemon:
        assert succeed("--host", daemon.host, "set", "SCN") == "ack\n"
        assert daemon.sets() == ["SCN 1"]


def test_options_may_be_anywhere():
    with ScriptedDaemon(GTO="1", OBJ="3", PRE="007") as daemon:
        for words in (["--speed", "5", "--wait", "move", "7"], ["move", "--wait", "7", "--speed=5"]):
            assert succeed(*words, "--host", daemon.host).startswith("gripper 9 reached")
        assert daemon.sets() == ["SID 9", "POS 7 SPE 5 FOR 0 GTO 1"] * 2
        # The value of an option is no command.
        assert "no host" in fail(gripperctl.NO_CONNECTION, "--host", "scan", "status")


def test_every_command_takes_its_example():
    with ScriptedDaemon() as daemon:
        for command in commands():
            example = succeed(command, "--help").split("Example:\n  gripperctl ")[1].split()
            assert example[0] == command
            words = [*example, "--host", daemon.host, "--help"]
            assert succeed(*words).startswith("Usage: ")


def test_help_is_narrow_and_names_the_options_of_its_command():
    for text in [succeed("--help"), *(succeed(command, "--help") for command in commands())]:
        assert all(len(line) <= 100 for line in text.splitlines())
    text = succeed("upgrade", "--help")
    assert "--expect VERSION" in text and "--host" in text and "--speed" not in text


def test_a_movement_always_carries_speed_and_force():
    with ScriptedDaemon(SPE="70", FOR="8") as daemon:
        succeed("--host", daemon.host, "move", "5")
        succeed("--host", daemon.host, "close", "--force", "0")
        assert [words for words in daemon.sets() if words != "SID 9"] == [
            "POS 5 SPE 70 FOR 8 GTO 1",
            "POS 255 SPE 70 FOR 0 GTO 1",
        ]


@pytest.mark.parametrize("again", [[], ["--again"]])
def test_an_activation_switches_go_to_off(again):
    with ScriptedDaemon(STA="3" if again else "0", GTO="1") as daemon:
        succeed("--host", daemon.host, "activate", *again)
        assert daemon.sets() == ["SID 9", "GTO 0 ACT 1"]


def test_an_activation_under_way_continues_without_go_to():
    with ScriptedDaemon(STA="1", GTO="1") as daemon:
        succeed("--host", daemon.host, "activate")
        assert daemon.sets() == ["SID 9", "GTO 0"]


def on_terminal(words, answer):
    """Runs gripperctl with a terminal as its standard input. Returns (exit code, standard error)."""
    ours, theirs = pty.openpty()
    with os.fdopen(ours, "w", encoding="ascii") as terminal:
        terminal.write(answer)
        terminal.flush()
        run = subprocess.run(
            [binary("gripperctl"), *words], stdin=theirs, capture_output=True, text=True, timeout=20, check=False
        )
    os.close(theirs)
    return run.returncode, run.stderr


def test_stopping_a_vacuum_gripper_is_confirmed():
    with ScriptedDaemon(FWV="TE1-2.0.2") as daemon:
        text = fail(gripperctl.USAGE, "--host", daemon.host, "stop")
        assert "lets its part fall: confirm it with --yes" in text
        code, error = on_terminal(["--host", daemon.host, "stop"], "n\n")
        assert code == gripperctl.INTERRUPTED
        assert "Gripper 9 (Zentra) holds by vacuum: stopping lets its part fall. Stop it? [y/N]" in error
        assert "GTO 0" not in daemon.sets()
        assert on_terminal(["--host", daemon.host, "stop"], "y\n")[0] == gripperctl.DONE
        assert daemon.sets()[-1] == "GTO 0"
        succeed("--host", daemon.host, "stop", "--yes")
        assert daemon.sets().count("GTO 0") == 2


def test_stopping_fingers_is_not_confirmed():
    with ScriptedDaemon(POS="57") as daemon:
        assert succeed("--host", daemon.host, "stop") == "gripper 9 has stopped at 57\n"
        assert daemon.sets() == ["SID 9", "GTO 0"]


# Where the address comes from.


def environment(home, **variables):
    return {**os.environ, "HOME": str(home), **variables}


def write_settings(home, text):
    (home / ".config").mkdir(exist_ok=True)
    (home / ".config" / "gripperctl.toml").write_text(text, encoding="latin-1")


def test_the_command_line_wins_over_the_environment_and_that_over_the_file(tmp_path):
    with ScriptedDaemon(VER="F") as file, ScriptedDaemon(VER="E") as variable, ScriptedDaemon(VER="L") as line:
        write_settings(tmp_path, f'host = "{file.host}"\ntimeout = 3\n')
        assert succeed("get", "VER", env=environment(tmp_path)) == "F\n"
        env = environment(tmp_path, GRIPPERCTL_HOST=variable.host)
        assert succeed("get", "VER", env=env) == "E\n"
        assert succeed("--host", line.host, "get", "VER", env=env) == "L\n"
        assert succeed("get", "VER", env=environment(tmp_path, GRIPPERCTL_HOST="")) == "F\n"


def test_the_file_has_defaults_for_every_option(tmp_path):
    with ScriptedDaemon(SID="[2, 9]", GTO="1", PRE="005", OBJ="3") as daemon:
        write_settings(tmp_path, f'host = "{daemon.host}"\ngripper = 2\njson = true\n[move]\nspeed = 40\n')
        assert '"gripper":2' in succeed("move", "5", env=environment(tmp_path))
        assert daemon.sets() == ["SID 2", "POS 5 SPE 40 FOR 0 GTO 1"]


@pytest.mark.parametrize("text,line,said", [
    ("hots = 3", 1, "there is no option --hots; did you mean --host?"),
    ("# 9 is the default\n\ngripper = 12", 3, '--gripper takes a number from 1 to 9, not "12"'),
    ('timeout = "never"', 1, '--timeout takes seconds from 0.02 to 86400, not "never"'),
    ("timeout = 2026-05-06", 1, '--timeout takes seconds from 0.02 to 86400, not "2026-05-06"'),
    ("timeout = inf", 1, '--timeout takes seconds from 0.02 to 86400, not "inf"'),
    ('host = "a:b:c"', 1, '--host "a:b:c" is no address'),
    ('json = "maybe"', 1, "--json takes true or false, not maybe"),
    ("gripper = [2, 3]", 1, "--gripper takes one value"),
    ("gripper = [{ a = 2 }]", 1, '--gripper takes a number from 1 to 9, not "{ a = 2 }"'),
    ("host = []", 1, "--host takes one value"),
    ('host = ["a",\n"b"\n', 2, "Error while parsing array: encountered end-of-file"),
    ("json = true\n[move\nspeed = 1", 2, "Error while parsing table header: expected ']'"),
    ('host = "robot', 1, "Error while parsing string: encountered end-of-file"),
    ("[mvoe]\nspeed = 1", 1, "there is no command mvoe"),
    ("gripper = { a = 2 }", 1, "there is no command gripper"),
    ("[move.on]\nspeed = 1", 1, "there is no option --on"),
    ("[[move]]\nspeed = 1", 1, "there is no option --move"),
    ("[move]\n\nspeed = 256", 3, '--speed takes a number from 0 to 255, not "256"'),
    ("[move]\nsped = 1", 2, "there is no option --sped; did you mean --speed?"),
    ("move = { speed = 1,\nforce = 2 }", 1, "Error while parsing inline table"),
    ("[watch]\ngripper = 2", 2, "there is no option --gripper"),
    ("config = 1", 1, "--config works only on the command line"),
    ('host = ["a", # one\n"b"]\ngripper = 0', 3, "--gripper takes a number"),
    ("gripper = 2\njson = true\ngripper = 3", 3, "Error while parsing key-value pair: cannot redefine"),
    ("[move]\n[scan]\n[move]", 3, "Error while parsing table header: cannot redefine"),
    ("json", 1, "Error while parsing key-value pair: encountered end-of-file"),
    ("x=", 1, "Error while parsing key-value pair: encountered end-of-file"),
    ('json = true\nhost = "r\xf6"', 2, "Encountered invalid utf-8 sequence"),
    ('host = "\0"', 1, "Error while parsing string: unescaped control characters"),
])
def test_a_wrong_entry_of_the_file_is_reported(tmp_path, text, line, said):
    write_settings(tmp_path, text)
    path = tmp_path / ".config" / "gripperctl.toml"
    problem = fail(gripperctl.USAGE, "get", "VER", env=environment(tmp_path))
    assert f"configuration file {path}, line {line}: {said}" in problem


def test_a_configuration_file_is_small(tmp_path):
    path = tmp_path / ".config" / "gripperctl.toml"
    with ScriptedDaemon(VER="1") as daemon:
        settings = f'host = "{daemon.host}"\n'
        write_settings(tmp_path, settings.ljust(16384, "#"))
        assert succeed("get", "VER", env=environment(tmp_path)) == "1\n"
        for size in (16385, 10_000_000):
            write_settings(tmp_path, settings.ljust(size, "#"))
            problem = fail(gripperctl.USAGE, "get", "VER", env=environment(tmp_path))
            assert f"configuration file {path} is larger than 16384 bytes" in problem


@pytest.mark.parametrize("start,repeated,said", [
    ("[", "a.", "there is no command a"), ("x = ", "[", "exceeded maximum nested value depth"),
])
def test_a_deeply_nested_configuration_file_is_refused(tmp_path, start, repeated, said):
    write_settings(tmp_path, start + repeated * (16000 // len(repeated)) + "a]")
    assert said in fail(gripperctl.USAGE, "get", "VER", env=environment(tmp_path))


@pytest.mark.parametrize("text", [
    "[move]\nspeed = 40\n", "move = { speed = 40 } # slow\n", "move.speed = 40\n", "[move]\nspeed = '40'\n[scan]\n",
])
def test_a_section_has_every_form_of_toml(tmp_path, text):
    with ScriptedDaemon(GTO="1", PRE="005", OBJ="3") as daemon:
        write_settings(tmp_path, f'host = "{daemon.host}"\n{text}')
        succeed("move", "5", env=environment(tmp_path))
        assert daemon.sets() == ["SID 9", "POS 5 SPE 40 FOR 0 GTO 1"]


def test_a_string_may_contain_the_marks_of_toml(tmp_path):
    with ScriptedDaemon() as daemon:
        write_settings(tmp_path, f'host = "{daemon.host}"\n[status]\nexpect = "#[,=\\"" # a "remark\n')
        problem = fail(gripperctl.USAGE, "status", env=environment(tmp_path))
        assert '--expect takes ids such as 2,9, not "#[,=""' in problem


def test_an_array_may_have_several_lines(tmp_path):
    with ScriptedDaemon() as one, ScriptedDaemon() as other:
        write_settings(tmp_path, f'host = [\n  "{one.host}", # the left cell\n  "{other.host}",\n]\njson = true\n')
        lines = succeed("status", env=environment(tmp_path)).splitlines()
        assert [json.loads(line)["host"] for line in lines] == [one.host, other.host]


@pytest.mark.parametrize("make", [os.mkdir, os.mkfifo], ids=["folder", "pipe"])
def test_a_folder_or_a_pipe_is_no_configuration_file(tmp_path, make):
    path = tmp_path / ".config" / "gripperctl.toml"
    path.parent.mkdir()
    make(path)
    for words in ([], ["--config", path]):
        problem = fail(gripperctl.USAGE, *words, "get", "VER", env=environment(tmp_path))
        assert f"configuration file {path} is not a file, but a folder, a pipe or a device" in problem


def test_no_configuration_file_is_needed(tmp_path):
    write_settings(tmp_path, "wrong")
    with ScriptedDaemon(VER="1") as daemon:
        words = ["--config", "/dev/null", "--host", daemon.host, "get", "VER"]
        assert succeed(*words, env=environment(tmp_path)) == "1\n"


def test_another_file_is_named_by_an_option(tmp_path):
    with ScriptedDaemon(VER="F") as daemon:
        (tmp_path / "other").write_text(f'host = "{daemon.host}"\n', encoding="ascii")
        assert succeed("--config", tmp_path / "other", "get", "VER") == "F\n"
    assert "not readable" in fail(gripperctl.USAGE, "--config", tmp_path / "none", "get", "VER")


def test_an_ipv6_address_needs_no_brackets():
    with socket.create_server(("::1", 0), family=socket.AF_INET6) as taken:
        port = taken.getsockname()[1]
    for host in ("::1", "[::1]"):
        assert "nothing listens on [::1]:63352" in fail(gripperctl.NO_CONNECTION, "--host", host, "get", "VER")
    text = fail(gripperctl.NO_CONNECTION, "--host", f"[::1]:{port}", "get", "VER")
    assert f"nothing listens on [::1]:{port}" in text


# Status.


def test_several_hosts_have_a_part_each():
    with ScriptedDaemon(VER="A") as one, ScriptedDaemon(VER="B") as other:
        hosts = ["--host", one.host, "--host", other.host]
        text = succeed(*hosts, "status")
        assert f"{one.host}: driver A, link RUNNING\n" in text
        assert f"{other.host}: driver B, link RUNNING\n" in text
        lines = succeed("--json", *hosts, "status").splitlines()
        assert [f'"host":"{daemon.host}"' in line for daemon, line in zip((one, other), lines)] == [True, True]
        assert "only status and watch take several" in fail(gripperctl.USAGE, *hosts, "get", "VER")


def test_a_host_that_does_not_answer_hides_no_other():
    with ScriptedDaemon(VER="A") as one:
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = taken.getsockname()[1]
        run = ctl("--host", f"127.0.0.1:{port}", "--host", one.host, "status")
        assert run.returncode == gripperctl.NO_CONNECTION
        assert "driver A" in run.stdout and f"nothing listens on 127.0.0.1:{port}" in run.stderr


def test_an_empty_line_has_an_exit_code():
    with ScriptedDaemon(SID="[]", DRI="ERR_TIMEOUT") as daemon:
        for words in (["status"], ["scan"]):
            run = ctl("--host", daemon.host, *words)
            assert run.returncode == gripperctl.NO_GRIPPER
            assert "link: ERR_TIMEOUT" in run.stderr or "link ERR_TIMEOUT" in run.stderr
        assert "no grippers found" in ctl("--host", daemon.host, "status").stdout


def test_status_knows_the_grippers_that_a_monitor_expects():
    with ScriptedDaemon(SID="[2, 9]") as daemon:
        succeed("--host", daemon.host, "status", "--expect", "2,9")
        succeed("--host", daemon.host, "status", "--expect", "9")
        run = ctl("--host", daemon.host, "status", "--expect", "3,9")
        assert run.returncode == gripperctl.NO_GRIPPER
        assert "does not list gripper 3 (listed: 2, 9" in run.stderr
        assert "TA3-1.0.0" in run.stdout


@pytest.mark.parametrize("values,standstill,said", [
    ({"OBJ": "1"}, "likely", "no new values: polling may be muted (gripperctl set MUTE 0)"),
    ({"STA": "1"}, "likely", "no new values: polling may be muted (gripperctl set MUTE 0)"),
    ({"OBJ": "3", "UPG": "1"}, "upgrade", "no new values: a flasher has the line"),
    ({"OBJ": "1", "DRI": "ERR_TIMEOUT"}, "no", None),
    ({"OBJ": "3"}, "no", None),
])
def test_status_shows_that_values_stand_still(values, standstill, said):
    with ScriptedDaemon(**values) as daemon:
        lines = succeed("--host", daemon.host, "status").splitlines()
        assert lines[3:] == ([said] if said else [])
        assert as_json("--host", daemon.host, "status")["standstill"] == standstill


def test_status_sees_a_gripper_that_moves():
    def answer(request):
        if request == "GET POS" and len(daemon.requests) > 150:
            daemon.values["POS"] = "9"
        return daemon.usual(request)

    with ScriptedDaemon(answer, OBJ="1") as daemon, ScriptedDaemon() as other:
        hosts = ["--host", daemon.host, "--host", other.host]
        assert "no new values" not in succeed(*hosts, "status")
        assert daemon.values["POS"] == "9"


def test_status_fits_into_80_columns():
    values = {"FWV": "TE9-255.255.255", "SNU": "ABC-65535", "PYE": "65535", "STA": "1", "POS": "255"}
    with ScriptedDaemon(**values, OBJ="1", FLT="15", NCY="4294967295") as daemon:
        lines = succeed("--host", daemon.host, "status").splitlines()
        assert lines[2].split() == [
            "9", "Zentra", "TE9-255.255.255", "ABC-65535", "65535", "activating", "255", "moving", "15", "4294967295",
        ]
        assert max(map(len, lines)) <= 80


@pytest.mark.parametrize("version,family", [
    ("TA3-1.6.14", "Pello"), ("TB1-1.4.3", "Varno"), ("TE1-2.0.2", "Zentra"), ("TF1-2.0.2", "Sorbix"),
    ("TX1-0.0.0", ""), ("T", ""), ("", ""),
])
def test_the_second_letter_of_the_firmware_is_the_family(version, family):
    with ScriptedDaemon(FWV=version) as daemon:
        assert as_json("--host", daemon.host, "status")["grippers"][0]["family"] == family


def test_the_families_are_those_of_the_simulator():
    words = [binary("gripper-simulator"), "--gripper", "9=TZ1-1.0.0"]
    refusal = subprocess.run(words, capture_output=True, text=True, timeout=20, check=False).stderr
    simulated = re.findall(r"T[A-Z]\b", refusal.split("(")[1])
    assert len(simulated) >= 4
    with ScriptedDaemon() as daemon:
        for letter in "ABCDEFGHIJKLMNOPQRSTUVWXYZ":
            daemon.values["FWV"] = f"T{letter}1-1.0.0"
            family = as_json("--host", daemon.host, "status")["grippers"][0]["family"]
            assert bool(family) == (f"T{letter}" in simulated), letter


def test_times_carry_their_offset():
    with ScriptedDaemon() as daemon:
        for zone, offset in (("UTC0", "+00:00"), ("XST-5:30", "+05:30"), ("WST7", "-07:00")):
            env = {**os.environ, "TZ": zone}
            time = as_json("--host", daemon.host, "status", env=env)["time"]
            assert time.endswith(offset)
            age = datetime.datetime.now(datetime.timezone.utc) - datetime.datetime.fromisoformat(time)
            assert abs(age.total_seconds()) < 10


# Wait.


@pytest.mark.parametrize("state,before,after", [
    ("active", {"STA": "1"}, {"STA": "3"}),
    ("still", {"OBJ": "1"}, {"OBJ": "3"}),
    ("object", {"OBJ": "1"}, {"OBJ": "2"}),
    ("lost", {"OBJ": "2"}, {"OBJ": "1"}),
    ("object", {"FWV": "TE1-2.0.2", "VST": "1", "OBJ": "2"}, {"VST": "2", "OBJ": "3"}),
    ("lost", {"FWV": "TE1-2.0.2", "VST": "2", "OBJ": "3"}, {"VST": "3", "OBJ": "2"}),
    ("gripper", {"SID": "[2]"}, {"SID": "[2, 9]"}),
])
def test_wait_ends_when_the_state_is_there(state, before, after):
    with ScriptedDaemon(**before) as daemon:
        process = start_ctl("--host", daemon.host, "wait", state)
        daemon.wait_for_times("GET DRI", 4)
        assert process.poll() is None
        daemon.values.update(after)
        code, out, error = run_to_end(process)
        assert (code, error) == (gripperctl.DONE, f"waiting for {state} ...\n")
        assert "gripper" in out
        assert not [words for words in daemon.sets() if words != "SID 9"]


def test_wait_still_waits_for_a_standstill():
    def answer(request):
        if request == "GET POS":
            daemon.values["POS"] = str(min(9, int(daemon.values["POS"]) + 1))
        return daemon.usual(request)

    with ScriptedDaemon(answer, POS="0", OBJ="0") as daemon:
        assert "position 9" in succeed("--host", daemon.host, "wait", "still")


@pytest.mark.parametrize("state,values", [
    ("active", {"STA": "0"}), ("still", {"OBJ": "1"}), ("object", {"OBJ": "3"}), ("lost", {"OBJ": "2"}),
    ("gripper", {"SID": "[2]"}), ("object", {"SID": "[2]"}), ("active", {"DRI": "ERR_TIMEOUT"}),
])
def test_wait_has_an_exit_code_for_its_end_in_time(state, values):
    with ScriptedDaemon(**values) as daemon:
        fail(gripperctl.TIMED_OUT, "--host", daemon.host, "wait", state, "--timeout", "0.8")


def test_wait_for_an_active_gripper_ends_at_a_fault():
    with ScriptedDaemon(FLT="07") as daemon:
        assert "has fault 7" in fail(gripperctl.REFUSED, "--host", daemon.host, "wait", "active")


def test_wait_survives_the_end_of_its_connections():
    with ScriptedDaemon(OBJ="1") as daemon:
        process = start_ctl("--host", daemon.host, "wait", "object")
        daemon.wait_for("GET DRI")
        daemon.drop()
        daemon.wait_for_times("GET DRI", 3)
        daemon.values["OBJ"] = "2"
        assert run_to_end(process)[0] == gripperctl.DONE


def test_wait_for_a_daemon_that_starts():
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
    text = fail(gripperctl.TIMED_OUT, "--host", f"127.0.0.1:{port}", "wait", "daemon", "--timeout", "0.3")
    assert "nothing listens" in text
    process = start_ctl("--host", f"127.0.0.1:{port}", "wait", "daemon")
    assert process.stderr.readline() == "waiting for daemon ...\n"
    with ScriptedDaemon(port=port):
        assert run_to_end(process)[0] == gripperctl.DONE


def test_it_runs_on_a_root_without_qt(tmp_path):
    program = binary("gripperctl")
    run = subprocess.run(["ldd", program], check=True, capture_output=True, text=True)
    libraries = re.findall(r"(/\S+) \(0x", run.stdout)
    assert any("libc.so" in path for path in libraries) and "Qt" not in run.stdout
    for path in [*libraries, program]:
        copy = tmp_path / path.lstrip("/")
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(path, copy)
    # A sanitizer needs /proc.
    (tmp_path / "proc").mkdir()
    subprocess.run(["mount", "--bind", "/proc", tmp_path / "proc"], check=True)
    try:
        with ScriptedDaemon(PRE="050", OBJ="3", POS="80") as daemon:
            command = ["chroot", tmp_path, program, "--host", daemon.host, "status"]
            done = subprocess.run(command, capture_output=True, text=True, timeout=40)
    finally:
        subprocess.run(["umount", tmp_path / "proc"], check=True)
    assert (done.returncode, done.stderr) == (0, "") and "TA3-1.0.0" in done.stdout


@pytest.fixture
def hanging():
    """A daemon that answers until hang()."""
    with ScriptedDaemon(STA="0") as daemon:
        yield daemon


def hang(daemon):
    """From now on, the daemon reads requests and answers nothing."""
    hangs = threading.Event()
    daemon.answer = lambda _: hangs.set()
    assert hangs.wait(5)


def test_ctrl_c_ends_a_wait_for_a_daemon_that_hangs(hanging):
    process = start_ctl("--host", hanging.host, "wait", "active")
    hanging.wait_for("GET PRE")
    hang(hanging)
    process.send_signal(signal.SIGINT)
    assert run_to_end(process, 1.5)[0] == gripperctl.INTERRUPTED


def test_a_wait_ends_in_time_although_the_daemon_hangs(hanging):
    begin = time.monotonic()
    process = start_ctl("--host", hanging.host, "wait", "active", "--timeout", "2")
    # It looks 20 times a second.
    hanging.wait_for_times("GET PRE", 20)
    hang(hanging)
    code, _, error = run_to_end(process)
    assert code == gripperctl.TIMED_OUT and "not active within 2 s" in error
    assert time.monotonic() - begin < 2.7


def test_a_wait_continues_while_the_daemon_hangs(hanging):
    hanging.answer = lambda _: None
    process = start_ctl("--host", hanging.host, "--timeout", "20", "wait", "daemon")
    hanging.wait_for("GET DRI")
    hanging.answer = hanging.usual
    # The look that hangs ends after 2 s.
    assert run_to_end(process, 5)[0] == gripperctl.DONE
