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


def settling(listed):
    """The time after which a gripper has a request and the daemon has read its effect."""
    return 0.1 + 0.2 * len(listed.split(","))


class Cpp:
    """Calls of the C++ library. Each returns its result or the type of its error, as a text."""

    def __init__(self, host):
        self.check = ClientCheck(f"line {host}")

    def line(self, call, *numbers):
        answer = self.check.run(" ".join(map(str, (call, *numbers))))
        kind, _, text = answer.partition(" ")
        return text if kind == "ok" else text.partition(":")[0]

    gripper = line

    def select(self):
        assert self.line("gripper", 9) == ""

    def close(self):
        with self.check:
            pass


class Python:
    """As Cpp, for the Python library."""

    def __init__(self, host):
        self._line = blocking.Line(host)
        self._gripper = None

    def line(self, call, *numbers):
        return self._result(self._line, call, numbers)

    def gripper(self, call, *numbers):
        return self._result(self._gripper, call, numbers)

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
        def connect(daemon):
            library = request.param(daemon.host)
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
