"""gripperctl with a scripted daemon: its requests, and how it reads the replies."""

import json
import re
import signal
import socket
import subprocess
import time

import pytest
from harness import gripperctl
from harness.children import binary
from harness.gripperctl import ScriptedDaemon, as_json, fail, ctl, run_to_end, start_ctl, succeed


@pytest.mark.parametrize(
    "words",
    [
        [],
        ["fly"],
        ["move"],
        ["move", "1", "2"],
        ["move", "256"],
        ["move", "-1"],
        ["move", "far"],
        ["move", "1", "--speed", "256"],
        ["move", "1", "--speed", "fast"],
        ["move", "1", "--speed", "1", "--speed", "2"],
        ["scan", "--speed", "1"],
        ["status", "more"],
        ["status", "--gripper", "0"],
        ["status", "--host", "a:b:c"],
        ["status", "--host", "a:0"],
        ["status", "--timeout", "0"],
        ["status", "--timeout", "nan"],
        ["status", "--timeout", "inf"],
        ["status", "--unknown"],
        ["get"],
        ["get", "POSITION"],
        ["set", "1"],
        ["set", "POS", "256"],
        ["set", "POS", "0100"],
        ["set", "POS", "-1"],
        ["set", "POZ", "1"],
        ["set", "POS", "1", "2"],
        ["set", "NID", "3"],
        ["set", "UPG", "1"],
        ["set", "SID", "2", "POS", "9"],
        ["rename", "9"],
        ["rename", "9", "9"],
        ["rename", "9", "1"],
        ["rename", "9", "5"],
        ["rename", "9", "8"],
        ["rename", "x", "2"],
        ["led", "pink"],
        ["led", "off", "red"],
        ["upgrade"],
        ["plot", "a.csv", "-o", "a.gif"],
    ],
    ids=" ".join,
)
def test_wrong_usage_is_reported_and_sets_nothing(words):
    with ScriptedDaemon() as daemon:
        given = [] if any(word.startswith("--host") for word in words) else ["--host", daemon.host]
        fail(gripperctl.USAGE, *given, *words)
        assert daemon.sets() in ([], ["SID 9"])


def test_rename_to_an_id_that_no_scan_finds_names_the_possible_ids():
    assert "9, 2, 3, 4" in fail(gripperctl.USAGE, "rename", "9", "7")


def test_nothing_listens():
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
    text = fail(gripperctl.NO_CONNECTION, "--host", f"127.0.0.1:{port}", "status")
    assert f"nothing listens on 127.0.0.1:{port}: is gripperd running? See systemctl" in text


def test_an_unknown_host():
    text = fail(gripperctl.NO_CONNECTION, "--host", "no-such-host.invalid", "status")
    assert "no-such-host" in text and text.rstrip().endswith("check the address")


@pytest.mark.parametrize("answer", [b"HTTP/1.1 400 Bad Request\n", b"x" * 9000], ids=["http", "long"])
def test_another_service_listens(answer):
    with ScriptedDaemon(lambda _: answer) as daemon:
        assert "does not answer like gripperd" in fail(
            gripperctl.NO_CONNECTION, "--host", daemon.host, "status"
        )


def test_no_answer_in_time():
    with ScriptedDaemon(lambda _: None) as daemon:
        text = fail(gripperctl.TIMED_OUT, "--host", daemon.host, "--timeout", "0.3", "status")
        assert 'no answer to "GET DRI" within 0.3 s' in text


def test_a_connection_that_is_lost_while_waiting():
    with ScriptedDaemon(STA="0") as daemon:
        process = start_ctl("--host", daemon.host, "activate", "--wait")
        daemon.wait_for("SET GTO 0 ACT 1")
        daemon.drop()
        code, _, error = run_to_end(process)
        assert code == gripperctl.NO_CONNECTION
        assert "lost the connection" in error


@pytest.mark.parametrize("ids,words,chosen", [
    ("[2, 9]", [], "SID 9"),
    ("[2, 3]", ["--gripper", "3"], "SID 3"),
])
def test_chosen_gripper(ids, words, chosen):
    with ScriptedDaemon(SID=ids) as daemon:
        succeed("--host", daemon.host, *words, "get", "POS")
        assert daemon.sets() == [chosen]


@pytest.mark.parametrize("ids,words,code,said", [
    ("[3]", [], gripperctl.NO_GRIPPER, "not list gripper 9 (listed: 3): use --gripper ID"),
    ("[2, 3]", [], gripperctl.NO_GRIPPER, "not list gripper 9 (listed: 2, 3): use --gripper ID"),
    ("[2, 3]", ["--gripper", "9"], gripperctl.NO_GRIPPER, "not list gripper 9 (listed: 2, 3)"),
    ("[]", [], gripperctl.NO_GRIPPER, "has found no gripper (link: RUNNING)"),
])
def test_no_gripper_is_guessed(ids, words, code, said):
    with ScriptedDaemon(SID=ids) as daemon:
        assert said in fail(code, "--host", daemon.host, *words, "move", "7")
        assert daemon.sets() == []


def test_values_of_the_former_movement_do_not_end_this_one():
    """The former movement has ended; the values show the new request only at the third GET."""
    looks = []

    def answer(request):
        if request == "GET PRE":
            looks.append(1)
            daemon.values["PRE"] = "040" if len(looks) < 4 else "090"
            daemon.values["OBJ"] = "3" if len(looks) < 4 or len(looks) > 6 else "1"
            daemon.values["POS"] = "40" if len(looks) < 7 else "90"
        return daemon.usual(request)

    with ScriptedDaemon(answer, GTO="1", OBJ="3", PRE="040", POS="40") as daemon:
        assert succeed("--host", daemon.host, "move", "90", "--wait") == "gripper 9 reached 90\n"
        assert len(looks) >= 7


def changing(times, trigger):
    """Returns an answer function: values change at these seconds after the trigger request."""
    begin = []

    def answer(daemon, request):
        if begin:
            passed = time.monotonic() - begin[0]
            for seconds, values in times:
                if passed >= seconds:
                    daemon.values.update(values)
        elif re.fullmatch(trigger, request):
            begin.append(time.monotonic())
        return daemon.usual(request)

    return answer


def test_a_request_that_was_replaced_before_it_showed_does_not_end_a_movement():
    """The gripper has accepted a movement to 100, and shortly afterwards one to 0."""
    times = [
        (0.15, {"PRE": "100", "OBJ": "1", "POS": "9"}),
        (0.25, {"PRE": "000", "POS": "5"}),
        (0.6, {"OBJ": "3", "POS": "0"}),
    ]
    answer = changing(times, "SET POS .*")
    values = {"GTO": "1", "OBJ": "3", "PRE": "000", "POS": "2"}
    with ScriptedDaemon(lambda request: answer(daemon, request), **values) as daemon:
        assert succeed("--host", daemon.host, "open", "--wait") == "gripper 9 reached 0\n"


def test_values_of_a_link_that_is_down_are_not_judged():
    times = [
        (0.0, {"STA": "2", "POS": "50", "DRI": "ERR_TIMEOUT"}),
        (0.9, {"POS": "20", "DRI": "RUNNING"}),
        (1.1, {"POS": "0"}),
    ]
    answer = changing(times, "SET ARD .*")
    with ScriptedDaemon(lambda request: answer(daemon, request), POS="50") as daemon:
        text = succeed("--host", daemon.host, "release", "--wait")
        assert "has let go and is at 0;" in text


def test_an_active_gripper_with_a_fault_is_no_success():
    with ScriptedDaemon(FLT="05") as daemon:
        text = fail(gripperctl.REFUSED, "--host", daemon.host, "activate")
        assert "has fault 5" in text and "activate --again" in text
        assert daemon.sets() == ["SID 9"]


def test_a_running_activation_is_awaited_and_not_repeated():
    answer = changing([(0.3, {"STA": "3"})], "GET STA")
    with ScriptedDaemon(lambda request: answer(daemon, request), STA="1") as daemon:
        assert succeed("--host", daemon.host, "activate", "--wait") == "gripper 9 is active\n"
        assert daemon.sets() == ["SID 9"]


@pytest.mark.parametrize("words", [["move", "90"], ["activate", "--again"]], ids=" ".join)
def test_a_former_value_is_not_reported_as_the_result(words):
    with ScriptedDaemon(OBJ="3", POS="40") as daemon:
        result = as_json("--host", daemon.host, *words)
        assert result["gripper"] == 9 and "was asked to" in result["text"]
        assert not {"object", "position", "current", "status", "fault"} & set(result)


def test_ctrl_c_leaves_the_movement_running_and_says_so():
    with ScriptedDaemon(GTO="1", OBJ="1", PRE="009") as daemon:
        process = start_ctl("--host", daemon.host, "move", "9", "--wait")
        assert "moving to 9" in process.stderr.readline()
        process.send_signal(signal.SIGINT)
        code, _, error = run_to_end(process)
        assert code == gripperctl.INTERRUPTED
        assert "gripper 9 continues to 9. gripperctl --gripper 9 set GTO 0 stops it" in error


def test_a_gripper_that_ignores_the_request():
    with ScriptedDaemon(GTO="1", OBJ="3", PRE="040") as daemon:
        text = fail(
            gripperctl.TIMED_OUT, "--host", daemon.host, "--timeout", "0.5", "move", "9", "--wait"
        )
        assert "polling may be muted" in text


def test_a_result_that_cannot_be_written_is_no_success():
    with ScriptedDaemon() as daemon, open("/dev/full", "w", encoding="ascii") as full:
        for words in (["status"], ["--json", "get", "STA"], ["watch", "--count", "3"]):
            process = start_ctl("--host", daemon.host, *words, stdout=full)
            code, _, error = run_to_end(process)
            assert code == gripperctl.LOCAL
            assert "cannot write the result: No space left on device" in error


@pytest.mark.parametrize("words", [["--help"], ["move", "--help"], ["--version"], ["completion", ""]], ids=" ".join)
def test_a_text_that_cannot_be_written_is_no_success(words):
    with open("/dev/full", "w", encoding="ascii") as full:
        code, _, error = run_to_end(start_ctl(*words, stdout=full))
    assert (code, error) == (
        gripperctl.LOCAL, "gripperctl: cannot write the result: No space left on device\n"
    )


@pytest.mark.parametrize("closed", ["<&-", ">&-", "<&- >&- 2>&-"])
def test_nothing_is_printed_into_the_connection(closed):
    with ScriptedDaemon() as daemon:
        words = [binary("gripperctl"), "--host", daemon.host, "status"]
        run = subprocess.run(["bash", "-c", f'exec "$@" {closed}', "bash", *words], check=False)
        assert run.returncode == gripperctl.DONE
        assert all(re.fullmatch(r"GET \w{3}|SET SID 9", r) for r in daemon.requests), daemon.requests


def test_problems_are_json_for_scripts():
    with ScriptedDaemon(STA="0") as daemon:
        run = ctl("--host", daemon.host, "--json", "move", "9")
        assert run.returncode == gripperctl.REFUSED
        assert '"exitCode":1' in run.stdout and "activate" in run.stdout


def test_a_problem_is_one_line_of_json_with_all_details():
    with ScriptedDaemon(XYZ="?") as daemon:
        run = ctl("--host", daemon.host, "--json", "get", "STA", "XYZ")
        assert run.returncode == gripperctl.REFUSED
        result = json.loads(run.stdout)
        assert (result["STA"], result["XYZ"], result["exitCode"]) == ("3", "?", 1)
        assert "no value of XYZ" in result["error"]


# Each of these commands fails here.
@pytest.mark.parametrize("words", [
    [], ["fly"], ["move"], ["--speed"], ["status", "--gripper", "3"], ["get", "XYZ"], ["set", "MOD", "2"],
    ["activate", "--wait"], ["move", "9", "--wait"], ["open"], ["release"], ["led", "pink"],
    ["scan"], ["rename", "9", "2"], ["upgrade", "--yes"], ["upgrade"], ["watch", "--gripper", "3"],
    ["record", "/no/such.csv"], ["plot", "/no/such.csv"],
], ids=" ".join)
def test_every_problem_is_one_line_of_json(words):
    def answer(request):
        return b"nak" if request == "SET MOD 2" else daemon.usual(request)

    with ScriptedDaemon(answer, STA="0", FLT="05", XYZ="?", UPG="1") as daemon:
        run = ctl("--json", "--host", daemon.host, "--timeout", "0.3", *words)
        result = json.loads(run.stdout)
        assert result["exitCode"] == run.returncode != gripperctl.DONE
        assert "gripperctl: " + result["error"] in run.stderr


@pytest.mark.parametrize("words,pairs", [
    (["red", "blue"], "LBP 1 LRD 1 LGN 0 LBL 1"),
    (["off"], "LBP 1 LRD 0 LGN 0 LBL 0"),
    (["auto"], "LBP 0 LRD 0 LGN 0 LBL 0"),
])
def test_leds(words, pairs):
    with ScriptedDaemon() as daemon:
        succeed("--host", daemon.host, "led", *words)
        assert daemon.sets() == ["SID 9", pairs]


def test_each_raw_request_is_one_packet():
    with ScriptedDaemon() as daemon:
        assert succeed("--host", daemon.host, "set", "pos", "3", "GTO", "1") == "ack\n"
        assert daemon.sets() == ["SID 9", "POS 3 GTO 1"]
        assert succeed("--host", daemon.host, "get", "ver") == "0\n"
        assert succeed("--host", daemon.host, "get", "DRI", "SID") == "DRI RUNNING\nSID [9]\n"
