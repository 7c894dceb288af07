"""Both client libraries give the same calls the same effects and times, with a scripted daemon."""

import contextlib
import time

import pytest
from harness.clientcheck import ClientCheck
from harness.gripperctl import ScriptedDaemon
from harness.pythonclient import blocking
from harness.waiting import eventually

MOVE = "SET POS 150 SPE 255 FOR 100 GTO 1"
AT_150 = {"PRE": "150", "GTO": "1", "POS": "150", "OBJ": "3", "SPE": "255", "FOR": "100"}
LISTS = ["[9]", "[2, 3, 4, 9]"]
REQUEST_SHOWS = 1.5
MAX_ABSENCE = 3
MISSING = {"STA": "?", "DRI": "SCANNING"}


def settling(listed):
    """The time after which a gripper has a request and the daemon has read its effect."""
    return 0.1 + 0.2 * len(listed.split(","))


class Cpp:
    """Calls of the C++ library. Each returns its result or the type of its error, as a text."""

    def __init__(self, host, timeout):
        self.check = ClientCheck(f"line {host} 0 {timeout}")

    def line(self, call, *numbers):
        answer = self.check.run(" ".join(map(str, (call, *numbers))))
        kind, _, text = answer.partition(" ")
        return text if kind == "ok" else text.partition(":")[0]

    gripper = line

    def set(self, name, value):
        return self.gripper("set", name, value)

    def wait_until_running(self, ids):
        return self.line("wait-until-running", 1, *ids)

    def watch(self, ids):
        return self.line("watch-line", 1, 20, *ids)

    def mute(self):
        return self.line("maintenance")

    def select(self):
        assert self.line("gripper", 9) == ""

    def close(self):
        with self.check:
            pass


class Python:
    """As Cpp, for the Python library."""

    def __init__(self, host, timeout):
        self._line = blocking.Line(host, timeout=timeout)
        self._gripper = None

    def line(self, call, *numbers):
        return self._result(self._line, call, numbers)

    def gripper(self, call, *numbers):
        return self._result(self._gripper, call, numbers)

    def set(self, name, value):
        return self.gripper("set", {name: value})

    def wait_until_running(self, ids):
        return self.line("wait_until_running", ids, 1)

    def watch(self, ids):
        return self.line("watch", ids, 20)

    def mute(self):
        return self._result(self._line.maintenance(), "__enter__", ())

    def select(self):
        self._gripper = self._line.gripper(9)

    def close(self):
        self._line.close()
        if self._gripper is not None:
            self._gripper.disconnect()

    def _result(self, called, call, numbers):
        try:
            result = getattr(called, call)(*numbers)
        except blocking.GripperError as error:
            return type(error).__name__
        return "" if result is None else type(result).__name__


@pytest.fixture(params=[Cpp, Python])
def start(request):
    """start(daemon) returns the library of one language, connected to the scripted daemon."""
    with contextlib.ExitStack() as stack:
        def connect(daemon, timeout=5):
            library = request.param(daemon.host, timeout)
            stack.callback(library.close)
            return library

        yield connect


def seconds_of(call):
    begin = time.monotonic()
    call()
    return time.monotonic() - begin


@pytest.mark.parametrize("listed", LISTS)
def test_a_stop_sends_before_it_reads(start, listed):
    """If go-to is off at once, an earlier request may be on its way."""
    with ScriptedDaemon(SID=listed, **{**AT_150, "GTO": "0"}) as daemon:
        library = start(daemon)
        library.select()
        began = len(daemon.requests)
        seconds = seconds_of(lambda: library.gripper("stop"))
        assert daemon.requests[began] == "SET GTO 0"
        assert daemon.sets() == ["SID 9", "GTO 0"]
    assert settling(listed) <= seconds < settling(listed) + 1


def test_a_stop_ends_when_go_to_is_off(start):
    with ScriptedDaemon(SID=LISTS[1], **AT_150) as daemon:
        library = start(daemon)
        library.select()
        images = []

        def answer(request):
            if request == "GET GTO":
                images.append(request)
                daemon.values["GTO"] = str(int(len(images) < 3))
            return daemon.usual(request)

        daemon.answer = answer
        assert library.gripper("stop") == ""
        assert len(images) == 3


def test_a_stop_needs_no_open_connection(start):
    with ScriptedDaemon(**{**AT_150, "GTO": "0"}) as daemon:
        library = start(daemon)
        library.select()
        daemon.drop()
        assert library.gripper("stop") == ""
        assert daemon.sets() == ["SID 9", "SID 9", "GTO 0"]


def test_a_stop_of_a_missing_gripper_ends_at_once(start):
    with ScriptedDaemon(STA="?") as daemon:
        library = start(daemon)
        library.select()
        results = []
        assert seconds_of(lambda: results.append(library.gripper("stop"))) < 1
        assert results == ["GripperMissing"]
        assert daemon.sets() == ["SID 9", "GTO 0"]


@pytest.mark.parametrize("begin", ["GET FWV", MOVE])
def test_a_gripper_that_is_missing_for_a_moment_still_moves(start, begin):
    """A lost link empties the list for a moment, before or after the SET."""
    images = []

    def answer(request):
        if request == begin and not images:
            images.append(begin)
            # The first image of a call that finds a lost link still shows the gripper.
            daemon.values.update({"DRI": "ERR_TIMEOUT"} if begin.startswith("GET") else MISSING)
        # Every image has one.
        elif request == "GET SID" and images:
            images.append(request)
            daemon.values.update(MISSING if len(images) < 10 else {**AT_150, "STA": "3", "DRI": "RUNNING"})
        return daemon.usual(request)

    with ScriptedDaemon(PRE="20", GTO="1") as daemon:
        library = start(daemon)
        library.select()
        daemon.answer = answer
        assert library.gripper("move", 150, 255, 100).startswith("Reached")
        assert len(images) >= 10


def test_a_gripper_that_stays_missing_after_a_command_ends_it(start):
    with ScriptedDaemon(changes={MOVE: MISSING}) as daemon:
        library = start(daemon)
        library.select()
        results = []
        seconds = seconds_of(lambda: results.append(library.gripper("move", 150, 255, 100)))
        assert results == ["GripperMissing"]
        assert MAX_ABSENCE <= seconds < MAX_ABSENCE + 2


@pytest.mark.parametrize(
    "command",
    [
        lambda library: library.set("POS", 3),
        lambda library: library.gripper("led", 1, 0, 1),
        lambda library: library.gripper("move", 150, 255, 100),
        lambda library: library.gripper("activate"),
        lambda library: library.gripper("deactivate"),
        lambda library: library.gripper("release"),
    ],
    ids=["set", "led", "move", "activate", "deactivate", "release"],
)
def test_a_command_sends_nothing_to_a_missing_gripper(start, command):
    with ScriptedDaemon() as daemon:
        library = start(daemon)
        library.select()
        daemon.values.update(MISSING)
        assert command(library) == "GripperMissing"
        assert daemon.sets() == ["SID 9"]


def test_a_set_reads_the_gripper_before_it_sends(start):
    with ScriptedDaemon() as daemon:
        library = start(daemon)
        library.select()
        began = len(daemon.requests)
        assert library.set("POS", 3) == ""
        requests = daemon.requests[began:]
        assert "GET STA" in requests and requests[-1] == "SET POS 3"


def test_a_set_that_needs_no_gripper_only_sends(start):
    with ScriptedDaemon() as daemon:
        library = start(daemon)
        library.select()
        daemon.values.update(MISSING)
        began = len(daemon.requests)
        assert library.set("MUTE", 0) == ""
        assert daemon.requests[began:] == ["SET MUTE 0"]


def test_another_server_ends_the_wait_for_the_line(start):
    with ScriptedDaemon(lambda request: b"HTTP/1.1 400 Bad Request\r\n\r\n") as server:
        assert start(server).wait_until_running([9]) == "ProtocolError"


@pytest.mark.parametrize("id", [-1, 0, 10, 256])
def test_an_id_that_no_gripper_has_is_refused_and_nothing_is_sent(start, id):
    with ScriptedDaemon() as daemon:
        library = start(daemon)
        assert library.line("gripper", id) == "InvalidValue"
        assert library.line("rename", id, 2) == "InvalidValue"
        assert library.wait_until_running([9, id]) == "InvalidValue"
        assert library.watch([9, id]) == "InvalidValue"
        assert daemon.requests == []


@pytest.mark.parametrize("listed", LISTS)
def test_the_same_position_again_waits_for_the_write(start, listed):
    with ScriptedDaemon(SID=listed, **AT_150) as daemon:
        library = start(daemon)
        library.select()
        results = []
        seconds = seconds_of(lambda: results.append(library.gripper("move", 150, 255, 100)))
        assert results[0].startswith("Reached")
    assert settling(listed) <= seconds < settling(listed) + 1


def test_another_position_needs_no_wait(start):
    with ScriptedDaemon(changes={MOVE: AT_150}, SID=LISTS[1], PRE="20", GTO="1") as daemon:
        library = start(daemon)
        library.select()
        assert seconds_of(lambda: library.gripper("move", 150, 255, 100)) < settling(LISTS[1])


def test_a_lost_link_restarts_the_wait_for_the_write(start):
    down, running_since = [], []

    def answer(request):
        if request == MOVE:
            down.extend(range(20))
        elif request == "GET DRI" and MOVE in daemon.requests:
            if down:
                down.pop()
                return b"DRI ERR_TIMEOUT\n"
            running_since.append(time.monotonic())
        return daemon.usual(request)

    with ScriptedDaemon(answer, **AT_150) as daemon:
        library = start(daemon)
        library.select()
        assert library.gripper("move", 150, 255, 100).startswith("Reached")
        # The first running image comes at most one pause between two looks after the last stale one.
        assert time.monotonic() - running_since[0] >= settling("[9]") - 0.1


@pytest.mark.parametrize("change", [{"GTO": "0"}, {"PRE": "20"}])
def test_another_client_that_replaces_the_same_request_interferes(start, change):
    with ScriptedDaemon(changes={MOVE: change}, **AT_150) as daemon:
        library = start(daemon)
        library.select()
        results = []
        seconds = seconds_of(lambda: results.append(library.gripper("move", 150, 255, 100)))
        assert results == ["Interference"]
        assert REQUEST_SHOWS <= seconds < REQUEST_SHOWS + 1


def test_a_request_that_does_not_show_is_no_interference_for_a_while(start):
    with ScriptedDaemon(changes={MOVE: {"PRE": "70"}}, PRE="20", GTO="1") as daemon:
        library = start(daemon)
        library.select()
        began = time.monotonic()
        assert library.gripper("move", 150, 255, 100) == "Interference"
        assert time.monotonic() - began >= REQUEST_SHOWS


def test_a_gripper_gets_a_new_id_although_scans_miss_it(start):
    """A slave that answers late is missing after a scan. A disturbed line is no failed rename."""
    scans = iter(["[9]", "[2, 9]", "[9]", "[4, 9]"])

    def answer(request):
        if request in ("SET SCN_BLOCK 1", "SET NID 4"):
            daemon.values["SID"] = next(scans)
        if request.startswith("SET SID ") and request[8:] not in daemon.values["SID"]:
            return b"nak"
        return daemon.usual(request)

    with ScriptedDaemon(answer, SID="[2, 9]") as daemon:
        library = start(daemon)
        assert library.line("rename", 2, 4) == ""
        assert list(scans) == []
        assert daemon.sets().count("NID 4") == 1
        eventually(lambda: daemon.sets()[-1] == "SID 4")


@pytest.mark.parametrize("scanned, error", [("[2, 9]", "Refused"), ("[9]", "GripperMissing")])
def test_a_rename_that_fails_names_the_id(start, scanned, error):
    def answer(request):
        if request == "SET NID 4":
            daemon.values["SID"] = scanned
        if request.startswith("SET SID ") and request[8:] not in daemon.values["SID"]:
            return b"nak"
        return daemon.usual(request)

    with ScriptedDaemon(answer, SID="[2, 9]") as daemon:
        assert start(daemon).line("rename", 2, 4) == error


@pytest.mark.parametrize(
    "timeout, call",
    [(1, lambda library: library.mute()), (5, lambda library: library.line("rename", 2, 4, 1))],
    ids=["maintenance", "rename"],
)
def test_a_line_that_does_not_become_silent_in_time_is_unmuted(start, timeout, call):
    """A disturbed line is silent after 2 s only."""
    with ScriptedDaemon(SID="[2, 9]", DRI="ERR_TIMEOUT") as daemon:
        library = start(daemon, timeout)
        results = []
        seconds = seconds_of(lambda: results.append(call(library)))
        assert results == ["TimedOut"]
        assert 1 <= seconds < 1.5
        assert daemon.sets() == ["MUTE 1", "MUTE 0"]
