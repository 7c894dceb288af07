"""gripperctl hz, ping and raw."""

import json
import os
import re
import signal
import subprocess
import time

import pytest
from harness import gripperctl
from harness.children import binary
from harness.gripperctl import ScriptedDaemon, as_json, ctl, fail, run_to_end, start_ctl, succeed

STEP_MS = 100


def test_hz_shows_how_often_values_are_new():
    def answer(request):
        daemon.values["POS"] = str(int(time.monotonic() * 1000 / STEP_MS) % 256)
        return daemon.usual(request)

    with ScriptedDaemon(answer) as daemon:
        result = as_json("--host", daemon.host, "hz", "--seconds", "2")
        assert result["gripper"] == 9 and 1.9 < result["seconds"] < 2.5
        assert abs(result["medianMs"] - STEP_MS) <= 15, result
        assert result["minMs"] <= result["medianMs"] <= result["maxMs"]
        assert abs(result["rate"] - 1000 / STEP_MS) < 2
        assert 10 <= result["newValues"] <= 21 and result["reads"] > 2 * result["newValues"]
        text = succeed("--host", daemon.host, "hz", "--seconds", "1")
        assert re.fullmatch(
            r"gripper 9: \d+ new values in 1\.\d s; every \d+ ms \(\d+ to \d+ ms\), \d+\.\d per second\n",
            text,
        )
        assert set(daemon.sets()) == {"SID 9"}


def test_hz_of_a_gripper_that_rests():
    with ScriptedDaemon() as daemon:
        text = succeed("--host", daemon.host, "hz", "--seconds", "0.1")
        assert " 0 new values in 0." in text and "only a gripper that moves shows new values" in text
        assert as_json("--host", daemon.host, "hz", "--seconds", "0.1")["newValues"] == 0
        assert "not list gripper 3" in fail(
            gripperctl.NO_GRIPPER, "--host", daemon.host, "--gripper", "3", "hz"
        )


def test_hz_ends_at_ctrl_c_with_its_result():
    with ScriptedDaemon() as daemon:
        process = start_ctl("--host", daemon.host, "hz", "--seconds", "60")
        daemon.wait_for("GET POS")
        process.send_signal(signal.SIGINT)
        code, out, error = run_to_end(process)
        assert code == gripperctl.INTERRUPTED and out.startswith("gripper 9: 0 new values")
        assert error.endswith("gripperctl: interrupted\n")


def test_ping_shows_every_reply_and_a_summary():
    with ScriptedDaemon() as daemon:
        lines = succeed("--host", daemon.host, "ping", "--count", "3", "--interval", "0.02").splitlines()
        ms = r"(\d+\.?\d*) ms"
        times = [float(re.fullmatch(rf"{i}: {ms}", lines[i - 1])[1]) for i in (1, 2, 3)]
        low, mean, high = map(float, re.fullmatch(
            rf"3 of 3 replies, min {ms}, mean {ms}, max {ms}", lines[3]
        ).groups())
        assert (low, high) == (min(times), max(times)) and abs(mean - sum(times) / 3) < 0.002
        result = as_json("--host", daemon.host, "ping", "--count", "2", "--interval", "0.02")
        assert (result["sent"], result["received"]) == (2, 2)
        assert 0 < result["minMs"] <= result["meanMs"] <= result["maxMs"]
        assert daemon.sets() == []


def test_ping_measures_the_time_of_the_reply():
    def answer(request):
        time.sleep(0.1)
        return daemon.usual(request)

    with ScriptedDaemon(answer) as daemon:
        assert 100 <= as_json("--host", daemon.host, "ping", "--count", "1")["minMs"] < 200


def test_ping_fails_if_a_reply_is_missing():
    replies = iter([b"DRI RUNNING\n", None, b"DRI RUNNING\n"])
    with ScriptedDaemon(lambda request: next(replies)) as daemon:
        words = ["--json", "--host", daemon.host, "--timeout", "0.2", "ping", "--count", "3"]
        run = ctl(*words, "--interval", "0.02")
        assert run.returncode == gripperctl.TIMED_OUT
        result = json.loads(run.stdout)
        assert (result["sent"], result["received"], result["exitCode"]) == (3, 2, 4)
        assert "replies are missing: no answer" in run.stderr


def test_ping_ends_at_ctrl_c_with_its_result():
    with ScriptedDaemon() as daemon:
        process = start_ctl("--host", daemon.host, "ping", "--count", "1000")
        assert process.stdout.readline().startswith("1: ")
        process.send_signal(signal.SIGINT)
        code, out, error = run_to_end(process)
        assert code == gripperctl.INTERRUPTED and out.startswith("1 of 1 replies")
        assert error == "gripperctl: interrupted\n"


@pytest.mark.parametrize("words,member", [(["ping", "--count", "1000"], "received"), (["hz"], "newValues")])
def test_an_interrupted_measurement_is_one_line_of_json(words, member):
    with ScriptedDaemon() as daemon:
        process = start_ctl("--json", "--host", daemon.host, *words)
        daemon.wait_for_times("GET DRI", 1)
        daemon.wait_for("GET DRI" if words[0] == "ping" else "GET POS")
        process.send_signal(signal.SIGINT)
        code, out, _ = run_to_end(process)
        result = json.loads(out)
        assert code == result["exitCode"] == gripperctl.INTERRUPTED
        assert member in result and result["error"] == "interrupted"


# Raw lines

TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d"


def untimed(text):
    """Removes the time from each line, which must have one."""
    lines = [re.fullmatch(rf"{TIME} (.*)", line) for line in text.splitlines()]
    assert all(lines), text
    return [line[1] for line in lines]


@pytest.fixture(scope="module")
def daemon(start_module_daemon):
    """A real daemon without a gripper."""
    return start_module_daemon()


def test_raw_lines_wait_for_their_replies(daemon):
    out = succeed("raw", "GET SID", "SET MUTE 0", "get dst", "SET SID 5", timeout=10)
    assert untimed(out) == [
        "> GET SID", "< SID []", "> SET MUTE 0", "< ack", "> get dst", "< DST 0", "> SET SID 5", "< nak"
    ]


def test_raw_sends_what_is_no_request(daemon):
    out = succeed("raw", "hello", "", "xyzGET DST", "GET VERSION", "GET DST", timeout=10)
    assert untimed(out) == [
        "> hello", "> ", "> xyzGET DST", "< DST 0", "> GET VERSION", "< MZV-2.0.0", "> GET DST", "< DST 0"
    ]


def test_raw_lines_from_standard_input(daemon):
    def sent(text):
        run = subprocess.run(
            [binary("gripperctl"), "--json", "raw"], input=text, capture_output=True, text=True, timeout=10
        )
        assert (run.returncode, run.stderr) == (gripperctl.DONE, "")
        steps = [json.loads(line) for line in run.stdout.splitlines()]
        assert all(re.fullmatch(TIME, step["time"]) for step in steps)
        return [(step["direction"], step["line"]) for step in steps]

    assert sent("GET DST\r\nGET PCO") == [
        (">", "GET DST"), ("<", "DST 0"), (">", "GET PCO"), ("<", "PCO 0")
    ]
    assert sent("") == []
    assert len(sent(1000 * "GET DST\n")) == 2000


def test_raw_is_interactive():
    read, write = os.pipe()
    with ScriptedDaemon() as scripted, os.fdopen(write, "w") as keyboard:
        process = subprocess.Popen(
            [binary("gripperctl"), "--host", scripted.host, "raw"],
            stdin=read, stdout=subprocess.PIPE, text=True,
        )
        os.close(read)
        for value in "12":
            scripted.values["POS"] = value
            print("GET POS", file=keyboard, flush=True)
            assert process.stdout.readline().endswith(" > GET POS\n")
            assert process.stdout.readline().endswith(f" < POS {value}\n")
        keyboard.close()
        assert process.wait(5) == gripperctl.DONE
        process.stdout.close()


def test_raw_reports_missing_replies_and_continues():
    def answer(request):
        return None if request == "SET POS=5" else daemon.usual(request)

    with ScriptedDaemon(answer) as daemon:
        run = ctl("--host", daemon.host, "--timeout", "0.2", "raw", "SET POS=5", "GET DST")
        assert run.returncode == gripperctl.TIMED_OUT
        assert untimed(run.stdout) == ["> SET POS=5", "> GET DST", "< DST 0"]
        assert "no reply to 1 of the requests within 0.2 s" in run.stderr


def test_raw_reports_a_lost_connection():
    with ScriptedDaemon() as scripted:
        process = start_ctl("--host", scripted.host, "raw", stdout=subprocess.PIPE)
        code, _, _ = run_to_end(process)
        assert code == gripperctl.DONE, "the input is empty"
        scripted.answer = lambda request: scripted.drop()
        assert "lost the connection" in fail(
            gripperctl.NO_CONNECTION, "--host", scripted.host, "raw", "GET POS"
        )
