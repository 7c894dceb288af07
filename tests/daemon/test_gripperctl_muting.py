"""gripperctl with a scripted daemon: it never leaves polling muted."""

import signal
import threading
import time

import pytest
from harness import gripperctl
from harness.gripperctl import ScriptedDaemon, fail, ctl, run_to_end, start_ctl


class HoldingDaemon(ScriptedDaemon):
    """Answers the request `held` only after a release, and has new values from then on."""

    def __init__(self, held, reply=b"ack", **values):
        self.held, self.reply, self.later_values = held, reply, values
        self.release = threading.Event()
        super().__init__()

    def __exit__(self, *details):
        super().__exit__(*details)
        self.release.set()

    def usual(self, request):
        if request != self.held:
            return super().usual(request)
        self.release.wait(10)
        self.values.update(self.later_values)
        return self.reply

    def start(self, *words):
        """Returns a client whose request waits for the release."""
        process = start_ctl("--host", self.host, *words)
        self.wait_for(self.held)
        return process


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT])
def test_rename_interrupted_unmutes_on_a_connection_of_its_own(number):
    with HoldingDaemon("SET NID 2") as daemon:
        process = daemon.start("rename", "9", "2")
        process.send_signal(number)
        code, _, error = run_to_end(process)
        assert code == gripperctl.INTERRUPTED
        assert "gripperd continues the renaming" in error
        assert daemon.sets() == ["MUTE 1", "SCN_BLOCK 1", "SID 9", "NID 2", "MUTE 0"]


def test_rename_that_gets_no_answer_unmutes():
    with HoldingDaemon("SET NID 2") as daemon:
        fail(gripperctl.TIMED_OUT, "--host", daemon.host, "--timeout", "2", "rename", "9", "2")
        assert daemon.sets() == ["MUTE 1", "SCN_BLOCK 1", "SID 9", "NID 2", "MUTE 0"]


def test_rename_that_loses_its_connection_unmutes():
    with HoldingDaemon("SET NID 2") as daemon:
        process = daemon.start("rename", "9", "2")
        daemon.drop()
        code, _, error = run_to_end(process)
        assert code == gripperctl.NO_CONNECTION
        assert "lost the connection" in error
        assert daemon.sets() == ["MUTE 1", "SCN_BLOCK 1", "SID 9", "NID 2", "MUTE 0"]


def test_rename_scans_for_new_grippers_first():
    with ScriptedDaemon(changes={"SET SCN_BLOCK 1": {"SID": "[2, 9]"}}) as daemon:
        text = fail(gripperctl.REFUSED, "--host", daemon.host, "rename", "9", "2")
        assert "id 2 is in use" in text
        assert daemon.sets() == ["MUTE 1", "SCN_BLOCK 1", "MUTE 0"]


def test_unanswered_muting_is_undone():
    def answer(request):
        if request != "SET MUTE 1":
            return daemon.usual(request)
        daemon.drop()
        return None

    with ScriptedDaemon(answer) as daemon:
        fail(gripperctl.NO_CONNECTION, "--host", daemon.host, "rename", "9", "2")
        assert daemon.sets() == ["MUTE 1", "MUTE 0"]


def test_polling_that_stays_muted_is_reported():
    with HoldingDaemon("SET NID 2") as daemon:
        process = daemon.start("rename", "9", "2")
    code, _, error = run_to_end(process)
    assert code == gripperctl.NO_CONNECTION
    assert "polling may still be muted: unmute it with gripperctl set MUTE 0" in error


def test_upgrade_interrupted_waits_for_the_answer_and_unmutes():
    with HoldingDaemon("SET UPG 1") as daemon:
        process = daemon.start("upgrade", "--yes")
        process.send_signal(signal.SIGINT)
        threading.Timer(0.5, daemon.release.set).start()
        code, _, _ = run_to_end(process)
        assert code == gripperctl.INTERRUPTED
        assert daemon.release.is_set()
        assert daemon.sets() == ["SID 9", "MUTE 1", "UPG 1", "MUTE 0"]


def test_upgrade_interrupted_during_flashing_leaves_the_line_to_the_flasher():
    with ScriptedDaemon(changes={"SET UPG 1": {"UPG": "1"}}) as daemon:
        process = start_ctl("--host", daemon.host, "upgrade", "--yes")
        daemon.wait_for("SET UPG 1")
        process.stderr.readline()
        assert "writing the firmware" in process.stderr.readline()
        process.send_signal(signal.SIGINT)
        code, _, error = run_to_end(process)
        assert code == gripperctl.INTERRUPTED
        assert "the flasher continues" in error
        assert daemon.sets() == ["SID 9", "MUTE 1", "UPG 1"]


def test_upgrade_interrupted_before_the_flasher_is_seen_leaves_the_line_to_it():
    with HoldingDaemon("SET UPG 1", UPG="1") as daemon:
        process = daemon.start("upgrade", "--yes")
        process.send_signal(signal.SIGINT)
        threading.Timer(0.3, daemon.release.set).start()
        code, _, error = run_to_end(process)
        assert code == gripperctl.INTERRUPTED
        assert "the flasher continues" in error
        assert daemon.sets() == ["SID 9", "MUTE 1", "UPG 1"]


def test_a_second_interruption_ends_at_once():
    with HoldingDaemon("SET UPG 1") as daemon:
        process = daemon.start("upgrade", "--yes")
        for _ in range(2):
            process.send_signal(signal.SIGINT)
            threading.Event().wait(0.2)
        assert run_to_end(process, 2)[0] == -signal.SIGINT


def test_a_jump_that_is_refused_is_unmuted():
    with ScriptedDaemon(refused=["SET UPG 1"]) as daemon:
        text = fail(gripperctl.REFUSED, "--host", daemon.host, "upgrade", "--yes")
        assert "Polling continues, and gripper 9 runs firmware TA3-1.0.0" in text
        assert daemon.sets() == ["SID 9", "MUTE 1", "UPG 1", "MUTE 0", "SCN_BLOCK 1", "SID 9"]


def test_a_failed_upgrade_is_reported_though_its_last_scan_is_interrupted():
    def answer(request):
        return None if request == "SET SCN_BLOCK 1" else daemon.usual(request)

    with ScriptedDaemon(answer, refused=["SET UPG 1"]) as daemon:
        process = start_ctl("--host", daemon.host, "upgrade", "--yes")
        daemon.wait_for("SET SCN_BLOCK 1")
        process.send_signal(signal.SIGINT)
        code, _, error = run_to_end(process)
        assert code == gripperctl.REFUSED
        assert "not found in its bootloader" in error and "interrupted" in error


def test_other_commands_are_refused_during_an_upgrade():
    with ScriptedDaemon(UPG="1") as daemon:
        for words in (["scan"], ["rename", "9", "2"], ["upgrade", "--yes"]):
            text = fail(gripperctl.REFUSED, "--host", daemon.host, *words)
            assert "an upgrade is under way" in text
        assert "SCN_BLOCK 1" not in daemon.sets() and "MUTE 1" not in daemon.sets()


def test_an_upgrade_is_refused_when_another_client_was_faster():
    with ScriptedDaemon(changes={"SET UPG 1": {"UPG": "1"}}, refused=["SET UPG 1"]) as daemon:
        text = fail(gripperctl.REFUSED, "--host", daemon.host, "upgrade", "--yes")
        assert "an upgrade is under way" in text
        assert daemon.sets() == ["SID 9", "MUTE 1", "UPG 1"]


def flashing_and_then(values, seconds=0.0):
    """Returns an answer function: the daemon flashes for this time and then has these values."""
    seen = []

    def answer(daemon, request):
        if request == "SET UPG 1":
            daemon.values["UPG"] = "1"
        elif request == "GET UPG" and daemon.values["UPG"] == "1":
            seen.append(time.monotonic())
            if len(seen) > 1 and seen[-1] - seen[0] >= seconds:
                daemon.values.update(UPG="0", **values)
        return daemon.usual(request)

    return answer


@pytest.mark.parametrize("words,code", [
    ([], gripperctl.REFUSED),
    (["--expect", "TA3-1.0.0"], gripperctl.DONE),
])
def test_an_unchanged_version_is_no_success_unless_it_was_expected(words, code):
    after = flashing_and_then({})
    with ScriptedDaemon(lambda request: after(daemon, request)) as daemon:
        run = ctl("--host", daemon.host, "upgrade", "--yes", *words)
        assert run.returncode == code
        assert "firmware TA3-1.0.0, as before" in run.stdout + run.stderr


@pytest.mark.parametrize("seconds,said", [
    (0.0, "the flasher ended at once, most likely before it wrote anything"),
    (1.5, "does not answer after the upgrade: its firmware may be incomplete"),
])
def test_a_gripper_that_does_not_come_back_after_flashing(seconds, said):
    after = flashing_and_then({"SID": "[2]"}, seconds)
    with ScriptedDaemon(lambda request: after(daemon, request), SID="[2, 9]") as daemon:
        text = fail(gripperctl.NO_GRIPPER, "--host", daemon.host, "upgrade", "--yes")
        assert said in text and "witch it off and on" in text
        # The daemon has unmuted polling itself.
        requests = ["SID 9", "MUTE 1", "SCN_BLOCK 1", "UPG 1"] + ["SCN_BLOCK 1"] * 3
        assert daemon.sets() == requests


def test_polling_stays_muted_after_a_jump_to_the_bootloader():
    with ScriptedDaemon() as daemon:
        run = ctl("--host", daemon.host, "set", "BLD", "1")
        assert run.returncode == gripperctl.DONE
        assert "polling stays muted until" in run.stderr
        assert daemon.sets() == ["SID 9", "MUTE 1", "BLD 1"]


@pytest.mark.parametrize("reply,code,last", [
    (b"ack", gripperctl.DONE, "BLD 1"),
    (b"nak", gripperctl.REFUSED, "MUTE 0"),
])
def test_a_jump_that_is_interrupted_ends_with_its_answer(reply, code, last):
    with HoldingDaemon("SET BLD 1", reply) as daemon:
        process = daemon.start("set", "BLD", "1")
        process.send_signal(signal.SIGINT)
        threading.Timer(0.3, daemon.release.set).start()
        assert run_to_end(process)[0] == code
        assert daemon.sets()[-1] == last


def test_the_link_shows_a_flasher_that_ended_unseen():
    looks = []

    def answer(request):
        if request == "GET DRI" and "UPG 1" in daemon.sets():
            looks.append(1)
            # Polling continues, finds the port closed and opens it.
            daemon.values["DRI"] = "ERR_SCANNING (EIO)" if 3 < len(looks) < 9 else "RUNNING"
        return daemon.usual(request)

    with ScriptedDaemon(answer) as daemon:
        text = fail(gripperctl.REFUSED, "--host", daemon.host, "upgrade", "--yes")
        assert "firmware TA3-1.0.0, as before" in text


def test_the_link_shows_a_flasher_that_ended_before_the_first_get():
    with ScriptedDaemon(changes={"SET UPG 1": {"DRI": "ERR_SCANNING (EIO)"}}) as daemon:
        text = fail(gripperctl.REFUSED, "--host", daemon.host, "upgrade", "--yes")
        assert "firmware TA3-1.0.0, as before" in text


def test_an_unchanged_link_shows_that_no_flasher_started():
    with ScriptedDaemon() as daemon:
        text = fail(gripperctl.REFUSED, "--host", daemon.host, "upgrade", "--yes")
        assert "the flasher did not start: nothing was written" in text
        assert daemon.sets()[:4] == ["SID 9", "MUTE 1", "UPG 1", "MUTE 0"]
