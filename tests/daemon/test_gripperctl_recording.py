"""gripperctl record and plot."""

import os
import re
import shutil
import signal
import socket
import xml.etree.ElementTree

import pytest
from harness import gripperctl
from harness.gripperctl import ScriptedDaemon, fail, start_ctl, succeed
from harness.twogrippers import daemon, folder, simulator  # noqa: F401
from harness.waiting import eventually

HEADER = "time,seconds,gripper,position,requested,current,object,fault,link"


def rows_of(path):
    """A dict for each line; a line that is being written may be shorter."""
    lines = path.read_text().splitlines()[1:]
    return [dict(zip(HEADER.split(","), line.split(","))) for line in lines]


@pytest.fixture(scope="module")
def recording(daemon, tmp_path_factory):
    path = tmp_path_factory.mktemp("recording") / "grip.csv"
    succeed("activate", "--wait")
    succeed("move", "0", "--wait")
    process = start_ctl("record", path, "--interval", "0.05", "--seconds", "1.5")
    assert "recording into" in process.stderr.readline()
    succeed("move", "200", "--speed", "160", "--wait")
    out, _ = process.communicate(timeout=10)
    assert process.returncode == gripperctl.DONE
    lines = path.read_text().splitlines()
    assert out == f"{len(lines) - 1} lines in {path}\n"
    return path


def test_a_recording_holds_every_gripper_over_the_time(recording):
    rows = rows_of(recording)
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


def test_a_recording_of_a_gripper_that_does_not_exist(daemon, tmp_path):
    path = tmp_path / "new.csv"
    assert "not list gripper 4" in fail(gripperctl.NO_GRIPPER, "--gripper", "4", "record", path)
    assert not path.exists()


def test_a_recording_has_a_row_for_every_outage(tmp_path):
    path = tmp_path / "outages.csv"

    def wait_for_row(*cause):
        """Waits for a further row with values, or for the row of an outage."""
        def count():
            found = [(row["link"], row["position"]) for row in rows_of(path)] if path.exists() else []
            return found.count(cause or ("RUNNING", "7"))

        before = count()
        eventually(lambda: count() > before)

    def wait_for_periods():
        """Waits until the gripper was read several times more."""
        before = scripted.requests.count("GET DRI")
        eventually(lambda: scripted.requests.count("GET DRI") > before + 3)

    with ScriptedDaemon(POS="7") as scripted:
        process = start_ctl("--host", scripted.host, "record", path, "--interval", "0.02")
        wait_for_row()
        scripted.values.update(SID="[]", STA="?")
        wait_for_row("MISSING", "")
        wait_for_periods()
        scripted.values.update(SID="[9]", STA="3", DRI="ERR_SCANNING (a, b)")
        wait_for_row("ERR_SCANNING (a  b)", "")
        wait_for_periods()
        scripted.values["DRI"] = "RUNNING"
        wait_for_row()
        wait_for_row()
    wait_for_row("NO_CONNECTION", "")
    port = int(scripted.host.split(":")[1])
    with ScriptedDaemon(POS="7", port=port):
        wait_for_row()
        process.send_signal(signal.SIGINT)
        process.communicate(timeout=5)
    assert process.returncode == gripperctl.DONE
    rows = rows_of(path)
    outages = [row for row in rows if row["link"] != "RUNNING"]
    assert [row["link"] for row in outages] == ["MISSING", "ERR_SCANNING (a  b)", "NO_CONNECTION"]
    for row in outages:
        assert row["gripper"] == "9" and float(row["seconds"]) > 0
        assert {row[name] for name in HEADER.split(",")[3:8]} == {""}
    succeed("plot", path)


def test_a_recording_of_several_hosts_is_refused(tmp_path):
    path = tmp_path / "new.csv"
    fail(gripperctl.USAGE, "--host", "one", "--host", "two", "record", path)
    assert not path.exists()


def test_times_have_their_offset_from_utc(tmp_path):
    path = tmp_path / "there.csv"
    with ScriptedDaemon() as scripted:
        succeed("--host", scripted.host, "record", path, "--seconds", "0.1",
                env={**os.environ, "TZ": "<there>-5:30"})
    for row in rows_of(path):
        assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}\+05:30", row["time"])


def texts_of(picture):
    tree = xml.etree.ElementTree.parse(picture)
    return {"".join(e.itertext()).strip() for e in tree.iter("{http://www.w3.org/2000/svg}text")}


def test_a_recording_is_drawn(recording, tmp_path):
    assert succeed("plot", recording) == f"drew {recording.with_suffix('.svg')}\n"
    texts = texts_of(recording.with_suffix(".svg"))
    assert {"position", "current", "seconds", "gripper 2", "gripper 9"} <= texts
    picture = tmp_path / "a picture's name.png"
    succeed("plot", recording, "-o", picture)
    assert picture.read_bytes().startswith(b"\x89PNG\r\n")


@pytest.fixture
def script_for(tmp_path):
    """Returns the script that gnuplot gets for the lines of a recording."""
    program = tmp_path / "bin" / "gnuplot"
    program.parent.mkdir()
    gnuplot = shutil.which("gnuplot")
    program.write_text(f"#!/bin/sh\ntee '{tmp_path}/script' | '{gnuplot}'\n")
    program.chmod(0o755)
    path = os.pathsep.join([str(program.parent), os.environ["PATH"]])

    def script_for(text, name="some.csv"):
        (tmp_path / name).write_text(text)
        succeed("plot", tmp_path / name, env={**os.environ, "PATH": path})
        return (tmp_path / "script").read_text()

    return script_for


TIME = "2026-05-06T07:08:09.010+02:00"
LIVE = [
    f"{TIME},0.000,9,1,2,3,reached,0,RUNNING",
    "t,0.200,9,4,5,6,reached,0,RUNNING",
    "t,0.200,2,7,7,0,reached,0,RUNNING",
]


@pytest.mark.parametrize("outage", [
    "t,0.100,9,,,,,,NO_CONNECTION",
    "t,0.100,9,,,,,,MISSING",
    # This is how a recording of version 1.0.0 shows an outage: with old values.
    "t,0.100,9,1,2,3,reached,0,ERR_TIMEOUT",
])
def test_an_outage_is_a_gap_in_the_curve(script_for, outage):
    script = script_for("\n".join([HEADER, LIVE[0], outage, *LIVE[1:], ""]))
    assert "$g9 << EOD\n0.000 1 2 3\n\n0.200 4 5 6\nEOD\n" in script
    assert "$g2 << EOD\n0.200 7 7 0\nEOD\n" in script


@pytest.mark.parametrize("outage,curve", [
    ("t,0.100,2,,,,,,NO_CONNECTION", "0.000 1 2 3\n\n0.200 4 5 6\n"),
    ("t,0.100,0,,,,,,ERR_TIMEOUT", "0.000 1 2 3\n\n0.200 4 5 6\n"),
    ("t,0.100,2,,,,,,MISSING", "0.000 1 2 3\n0.200 4 5 6\n"),
])
def test_an_outage_of_the_line_is_a_gap_in_every_curve(script_for, outage, curve):
    """The reading of one gripper may last as long as the outage, and then it has no row of its own."""
    script = script_for("\n".join([HEADER, LIVE[0], outage, *LIVE[1:], ""]))
    assert f"$g9 << EOD\n{curve}EOD\n" in script
    assert "$g2 << EOD\n0.200 7 7 0\nEOD\n" in script


def test_a_gripper_without_values_has_no_curve(script_for):
    script = script_for("\n".join([HEADER, "t,0.1,3,,,,,,MISSING", "t,0.1,0,,,,,,SCANNING", *LIVE]))
    assert "$g9 " in script and "$g3" not in script and "$g0" not in script


@pytest.mark.parametrize("cut", ["t", "t,0.3", "t,0.300,9,25", "t,0.300,9,255,255,0,moving,0"])
def test_a_cut_last_line_is_left_out(script_for, cut):
    script = script_for("\n".join([HEADER, *LIVE, cut]))
    assert "$g9 << EOD\n0.000 1 2 3\n0.200 4 5 6\nEOD\n" in script


def test_a_recording_that_a_spreadsheet_saved(script_for):
    script = script_for("\r\n".join([HEADER, *LIVE, ""]))
    assert "$g9 << EOD\n0.000 1 2 3\n0.200 4 5 6\nEOD\n" in script


def test_the_picture_has_a_title_times_and_aligned_panels(script_for):
    script = script_for("\n".join([HEADER, *LIVE, ""]), "the robot's.csv")
    assert f"title 'the robot''s.csv, from {TIME}' noenhanced" in script
    assert f"start = strptime('%Y-%m-%dT%H:%M:%S', '{TIME}') - 0.000\n" in script
    assert "set x2range [start + 0.000:start + 0.200]\n" in script
    panels = script.split("set multiplot")[1]
    for setting in ["lmargin at screen", "rmargin at screen", "xrange [0.000:0.200]"]:
        assert panels.count(f"set {setting}") == 1, "both panels have the same"


def test_the_upper_axis_shows_the_time_of_the_day(tmp_path):
    path = tmp_path / "some.csv"
    path.write_text("\n".join([HEADER, LIVE[0], LIVE[1].replace("0.200", "60.000"), ""]))
    succeed("plot", path)
    assert {"07:08:10", "07:09:00"} <= texts_of(path.with_suffix(".svg"))


def test_a_recording_without_valid_times(script_for):
    script = script_for("\n".join([HEADER, *LIVE[1:], ""]))
    assert "title 'some.csv' noenhanced" in script and "x2range" not in script


def test_a_picture_that_cannot_be_written(tmp_path):
    path = tmp_path / "some.csv"
    path.write_text("\n".join([HEADER, *LIVE, ""]))
    run = gripperctl.ctl("plot", path, "-o", tmp_path / "no" / "such.svg")
    assert run.returncode == gripperctl.LOCAL and "gnuplot failed" in run.stderr
    assert run.stdout == "", "the picture is not printed instead"


@pytest.mark.parametrize("name", ["some.svg", "some.png"])
def test_a_picture_on_a_full_disk(tmp_path, name):
    path = tmp_path / "some.csv"
    path.write_text("\n".join([HEADER, *LIVE, ""]))
    (tmp_path / name).symlink_to("/dev/full")
    run = gripperctl.ctl("plot", path, "-o", tmp_path / name)
    assert run.returncode == gripperctl.LOCAL and "is the disk full?" in run.stderr
    assert run.stdout == ""


@pytest.mark.parametrize("given", [[], ["-o", "|touch mark;.png"]], ids=["recording", "output"])
def test_the_name_of_a_picture_is_no_command(tmp_path, given):
    name = "|touch mark;.csv"
    (tmp_path / name).write_text("\n".join([HEADER, *LIVE, ""]))
    succeed("plot", name, *given, cwd=tmp_path)
    assert not (tmp_path / "mark").exists()


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
    ("HEADER\nx,nan,9,1,0,0,-,0,RUNNING\n", "line 2 is not part of a recording"),
    ("HEADER\nx,0.1,-9,1,0,0,-,0,RUNNING\n", "line 2 is not part of a recording"),
    ("HEADER\n", "has no values from a running link"),
    ("HEADER\nx,0.1,9,1,0,0,-,0,ERR_TIMEOUT\n", "has no values from a running link"),
])
def test_a_file_that_is_not_a_recording(tmp_path, content, said):
    path = tmp_path / "some.csv"
    if content is not None:
        path.write_text(content.replace("HEADER", HEADER))
    assert said in fail(gripperctl.LOCAL, "plot", path)
