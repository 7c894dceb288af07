"""The daemon on a line of simulated grippers, with and without faults."""

import pytest
from harness.simulator import Simulator
from harness.waiting import eventually


@pytest.fixture(scope="module")
def simulator():
    with Simulator("9=TA3-1.6.14", "2=TE1-2.0.2", "--activation-ms", "300") as running:
        yield running


@pytest.fixture(scope="module")
def daemon(simulator, start_module_daemon):
    return start_module_daemon().wait_until_found(9, 2)


@pytest.fixture
def client(simulator, daemon, connect):
    client = connect()
    simulator.command("clear")
    simulator.command("object 9 none")
    assert client.set("ACT 0 GTO 0") == "ack"
    eventually(lambda: client.get("STA") == "0")
    return client


def activate(client):
    assert client.set("ACT 1") == "ack"
    eventually(lambda: client.get("STA") == "3")
    eventually(lambda: client.get("ACT") == "1")


def test_an_activation_takes_a_while_and_ends_in_status_3(client):
    assert client.set("ACT 1") == "ack"
    eventually(lambda: client.get("STA") == "1")
    assert client.get("ACT") == "0"
    eventually(lambda: client.get("STA") == "3")
    assert client.get("ACT") == "1"


def test_positions_of_a_motion_rise_to_its_end(client):
    activate(client)
    assert client.set("POS 200 SPE 50 FOR 10 GTO 1") == "ack"
    seen = set()

    def arrived():
        seen.add(int(client.get("POS")))
        return client.get("OBJ") == "3"

    eventually(arrived)
    assert client.get("POS") == "200"
    assert client.get("PRE") == "200"
    assert len(seen) > 5


def test_an_object_stops_it_and_is_reported_with_the_current(client, simulator):
    activate(client)
    simulator.command("object 9 140")
    assert client.set("POS 255 SPE 255 FOR 200 GTO 1") == "ack"
    eventually(lambda: client.get("OBJ") == "2")
    assert client.get("POS") == "140"
    eventually(lambda: int(client.get("COU")) > 100)


def test_a_motion_increases_its_counter(client):
    activate(client)
    before = int(client.get("NCY"))
    assert client.set("POS 250 SPE 255 GTO 1") == "ack"
    eventually(lambda: client.get("POS") == "250")
    eventually(lambda: int(client.get("NCY")) == before + 1)


def test_a_fault_code_is_shown_and_cleared(client, simulator):
    activate(client)
    simulator.command("faultcode 9 12")
    eventually(lambda: client.get("FLT") == "12")
    assert client.set("ACT 0") == "ack"
    eventually(lambda: client.get("FLT") == "00")


def test_vacuum_builds_up_and_its_pump_is_counted(client):
    assert client.set("SID 2") == "ack"
    activate(client)
    starts = int(client.get("NPA"))
    assert client.set("POS 100 SPE 5 GTO 1") == "ack"
    eventually(lambda: client.get("VST") == "1")
    eventually(lambda: client.get("VST") == "2")
    eventually(lambda: int(client.get("NPA")) == starts + 1)
    assert client.set("GTO 0 ACT 0") == "ack"


KINDS = ["silent", "badCrc", "truncated", "exception", "wrongId", "wrongFunction", "noise", "echo"]


@pytest.mark.parametrize("kind", KINDS + ["deaf"])
def test_one_fault_is_one_failure(client, simulator, daemon, kind):
    simulator.wait_until_polled(9)
    mark = daemon.mark()
    simulator.command(f"fault 9 {kind} 1 on 2000")
    daemon.wait_for_line("fail counter", mark)
    simulator.wait_until_polled(9, 2)
    failures = [m for m in daemon.messages(mark) if "fail counter" in m]
    assert failures == ["gripper->updateInput() fail counter:  1"]
    assert client.get("DRI") == "RUNNING"


def test_a_gripper_removed_from_the_line_is_dropped_and_found_again(client, simulator, daemon):
    mark = daemon.mark()
    simulator.command("remove 2")
    daemon.wait_until_found(9, since=mark)
    assert client.get("SID") == "[9]"
    simulator.command("add 2=TE1-2.0.2")
    assert client.set("SCN_BLOCK") == "ack"
    assert client.get("SID") == "[2, 9]"
