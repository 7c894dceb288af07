"""gripperctl watch, in a terminal and without one."""

import json
import os
import re
import signal

import pytest
from harness import gripperctl
from harness.children import binary
from harness.gripperctl import ScriptedDaemon, fail, start_ctl, succeed
from harness.terminal import COLUMNS, Terminal
from harness.twogrippers import daemon, folder, simulator  # noqa: F401
from harness.waiting import eventually


@pytest.fixture
def moved(daemon):
    """Gripper 9 is at 128."""
    succeed("activate", "--wait")
    succeed("move", "128", "--speed", "255", "--wait")


@pytest.fixture
def terminal(tmp_path):
    terminal = Terminal(tmp_path)
    yield terminal
    terminal.close()


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


def port_of(scripted):
    return int(scripted.host.split(":")[1])


def gone():
    """The address of a daemon that has ended."""
    with ScriptedDaemon() as scripted:
        return scripted.host


def test_the_live_view_continues_after_an_outage(terminal):
    with ScriptedDaemon() as scripted:
        terminal.type(
            f"{binary('gripperctl')} --host {scripted.host} watch --interval 0.05; echo ended with $?"
        )
        terminal.wait_for(r"^gripperd 0 on \S+  link RUNNING")
        scripted.values["DRI"] = "ERR_TIMEOUT"
        terminal.wait_for(r"^gripperd 0 on \S+  link ERR_TIMEOUT")
        terminal.wait_for(r"^ 9 link down since \d\d:\d\d:\d\d[+-]\d\d:\d\d$")
        scripted.values.update(DRI="RUNNING", SID="[]", STA="?")
        terminal.wait_for(r"^ 9 missing since ")
    terminal.wait_for(r"^gripperd on \S+  link no connection")
    terminal.wait_for(r"^ 9 no connection since ")
    with ScriptedDaemon(port=port_of(scripted), VER="1"):
        terminal.wait_for(r"^gripperd 1 on \S+  link RUNNING")
        terminal.wait_for(r"^ 9 Pello  active ")
        terminal.press("C-c")
        terminal.wait_for("^ended with 0")


def test_the_bar_marks_position_and_request(terminal):
    with ScriptedDaemon() as scripted:
        terminal.type(f"{binary('gripperctl')} --host {scripted.host} watch --interval 0.05")
        for position, requested, drawn in [
            ("0", "000", r"\|-+"),
            ("255", "255", r"#+\|"),
            ("57", "255", r"#+-+\|"),
            ("255", "000", r"\|#+"),
            ("113", "170", r"#+-+\|-+"),
            ("1", "255", r"#-+\|"),
        ]:
            scripted.values.update(POS=position, PRE=requested)
            terminal.wait_for(rf"\[{drawn}\] +{position} -> +{int(requested)} ")


def test_a_narrow_terminal_shows_current_and_fault(terminal):
    with ScriptedDaemon(COU="31", FLT="05", POS="77", OBJ="1", PRE="200") as scripted:
        terminal.type(f"{binary('gripperctl')} --host {scripted.host} watch --interval 0.05")
        whole = r"^ 9 Pello  active     \[[#|-]+\]  77 -> 200  current  31  moving  fault 05$"
        for columns, pattern in [
            (110, whole),
            (80, whole),
            (70, r"^ 9 Pello  active      77 -> 200  current  31  moving  fault 05$"),
            (40, r"^ 9  77  current  31  moving  fault 05$"),
            (30, r"^ 9  77  current  31 fault 05$"),
        ]:
            terminal.resize(columns)
            terminal.wait_for(pattern)


@pytest.mark.parametrize("prefix,is_coloured", [("", True), ("NO_COLOR=1 ", False)])
def test_a_fault_is_highlighted(terminal, prefix, is_coloured):
    with ScriptedDaemon(SID="[2, 9]", FLT="05") as scripted:
        terminal.type(f"{prefix}{binary('gripperctl')} --host {scripted.host} watch --interval 0.05")
        terminal.wait_for(r"^ 9 .* fault 05$")
        line = next(line for line in terminal.shown("-e") if "fault 05" in line)
        assert ("\x1b[" in line.split("fault 05")[0]) == is_coloured
        scripted.values["FLT"] = "00"
        terminal.wait_for(r"^ 9 .* fault 00$")
        line = next(line for line in terminal.shown("-e") if "fault 00" in line)
        assert "\x1b[" not in line.split("fault 00")[0]


def test_several_hosts_in_one_view(terminal):
    with ScriptedDaemon(SID="[2]") as first, ScriptedDaemon(SID="[9]") as second:
        hosts = f"--host {first.host} --host {second.host} --host {gone()}"
        terminal.type(f"{binary('gripperctl')} {hosts} watch --interval 0.05; echo ended with $?")
        terminal.wait_for(rf"^gripperd 0 on {first.host}  link RUNNING")
        terminal.wait_for(rf"^gripperd 0 on {second.host}  link RUNNING")
        terminal.wait_for(r"^gripperd on \S+  link no connection")
        assert terminal.wait_for("^ 2 Pello ") and terminal.wait_for("^ 9 Pello ")
        assert sum("Ctrl-C ends" in line for line in terminal.shown()) == 1
        terminal.press("C-c")
        terminal.wait_for("^ended with 0")


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
    fingers = [words_of(line) for line in lines[1::2]]
    for values in fingers:
        assert values["gripper"] == "9" and values["link"] == "RUNNING"
        assert values["position"] == values["requested"] == "128"
        assert values["object"] == "reached" and values["fault"] == "0"


def test_json_lines_for_scripts(moved):
    lines = succeed("--json", "--gripper", "9", "watch", "--interval", "0.05", "--count", "2")
    for line in lines.splitlines():
        assert [g["position"] for g in json.loads(line)["grippers"]] == [128]


def words_of(line):
    return dict(word.split("=") for word in line.split()[1:])


def test_plain_lines_show_outages():
    with ScriptedDaemon(DRI="ERR_SCANNING (EIO)") as scripted:
        line = succeed("--host", scripted.host, "watch", "--count", "1").strip()
        assert words_of(line).items() >= {
            "link": "ERR_SCANNING_(EIO)", "gripper": "9", "outage": "link_down"
        }.items()
        scripted.values.update(DRI="RUNNING", SID="[]")
        line = succeed("--host", scripted.host, "watch", "--count", "1").strip()
        assert line.endswith(" link=RUNNING no grippers found")


def test_outages_in_json():
    with ScriptedDaemon() as scripted:
        process = start_ctl("--json", "--host", scripted.host, "watch", "--interval", "0.05")
        assert json.loads(process.stdout.readline())["outages"] == []
        scripted.values["DRI"] = "ERR_TIMEOUT"
        looks = (json.loads(line) for line in process.stdout)
        look = next(look for look in looks if look["outages"])
        assert look["grippers"] == [] and look["link"] == "ERR_TIMEOUT"
        assert [(o["id"], o["reason"], o["text"]) for o in look["outages"]] == [
            (9, "link_down", "ERR_TIMEOUT")
        ]
        since = look["outages"][0]["since"]
        assert next(looks)["outages"][0]["since"] == since < next(looks)["time"]
        process.send_signal(signal.SIGINT)
        process.communicate(timeout=5)
        assert process.returncode == gripperctl.DONE


def test_a_watch_shows_that_values_stand_still():
    with ScriptedDaemon(OBJ="3") as scripted:
        process = start_ctl("--json", "--host", scripted.host, "watch", "--interval", "0.05")

        def wait_for(standstill):
            """Returns the states until this one."""
            seen = []
            while standstill not in seen:
                seen.append(json.loads(process.stdout.readline())["standstill"])
            return set(seen)

        assert wait_for("possible") == {"no", "possible"}
        scripted.values["OBJ"] = "1"
        assert wait_for("likely") - {"possible"} == {"no", "likely"}
        # The daemon shows this value as a client sets it, also while polling is muted.
        scripted.values["SPE"] = "7"
        scripted.wait_for_times("GET SPE", 3)
        assert {json.loads(process.stdout.readline())["standstill"] for _ in range(10)} == {"likely"}
        scripted.values["UPG"] = "1"
        assert wait_for("upgrade") <= {"likely", "upgrade"}
        scripted.values.update(UPG="0", POS="9")
        assert wait_for("no") <= {"upgrade", "no"}
        process.send_signal(signal.SIGINT)
        process.communicate(timeout=5)


def test_a_line_shows_the_upgrade_of_its_gripper():
    with ScriptedDaemon(UPG="1") as scripted:
        line = succeed("--host", scripted.host, "watch", "--count", "1").strip()
        assert words_of(line)["standstill"] == "upgrade"


def test_the_live_view_explains_a_standstill(terminal):
    with ScriptedDaemon(OBJ="1") as scripted:
        terminal.type(f"{binary('gripperctl')} --host {scripted.host} watch --interval 0.05")
        since = r"^no new values since \d\d:\d\d:\d\d[+-]\d\d:\d\d: "
        text = terminal.wait_for(since + r"polling may be muted \(gripperctl set MUTE 0\)$")
        assert len(text[0]) <= 80
        scripted.values["UPG"] = "1"
        terminal.wait_for(since + "a flasher has the line$")
        scripted.values.update(UPG="0", POS="9")
        eventually(lambda: not any("no new values" in line for line in terminal.shown()))


def test_lines_name_the_host_among_several():
    with ScriptedDaemon() as scripted:
        dead = gone()
        hosts = ["--host", scripted.host, "--host", dead]
        lines = succeed(*hosts, "watch", "--interval", "0.05", "--count", "3").splitlines()
        assert sorted(line.rsplit("host=")[1] for line in lines) == sorted(3 * [dead, scripted.host])
        lines = succeed("--json", *hosts, "watch", "--count", "1").splitlines()
        assert {look["host"]: look["driver"] for look in map(json.loads, lines)} == {
            scripted.host: "0", dead: ""
        }


def test_a_silent_host_does_not_delay_the_others():
    with ScriptedDaemon(answer=lambda request: None) as silent, ScriptedDaemon() as scripted:
        process = start_ctl("--host", silent.host, "--host", scripted.host, "--timeout", "60",
                            "watch", "--interval", "0.05")
        for _ in range(10):
            assert scripted.host in process.stdout.readline()
        process.send_signal(signal.SIGINT)
        process.communicate(timeout=5)
        assert process.returncode == gripperctl.DONE


def test_times_have_their_offset_from_utc():
    with ScriptedDaemon() as scripted:
        zone = {**os.environ, "TZ": "<there>-5:30"}
        line = succeed("--host", scripted.host, "watch", "--count", "1", env=zone)
        assert re.match(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}\+05:30 ", line)


def test_without_a_daemon_there_is_no_watch():
    assert "nothing listens" in fail(gripperctl.NO_CONNECTION, "--host", gone(), "watch")


def test_output_without_a_reader_ends_the_watch(daemon):
    process = start_ctl("watch", "--interval", "0.05")
    assert "gripper=" in process.stdout.readline()
    process.stdout.close()
    assert process.wait(5) == gripperctl.DONE
    process.stderr.close()


def test_a_gripper_that_does_not_exist(daemon):
    assert "not list gripper 4" in fail(gripperctl.NO_GRIPPER, "--gripper", "4", "watch")
