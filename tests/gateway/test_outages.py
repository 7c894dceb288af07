"""The daemon, the line, the gateway or the phone goes away, and comes back."""

import signal
import time

import pytest
from gatewayrig import OtherMachineGateway, Page, writes
from harness.benches import benches
from harness.effort import effort
from harness.flashbench import FlashBench
from harness.netsplit import FAR, NEAR, OtherMachine
from harness.simulator import Simulator
from harness.waiting import eventually


@pytest.fixture
def line():
    with Simulator("9=TA3-1.6.14", "--activation-ms", "100") as simulated:
        yield simulated


def found(state):
    return [each["id"] for each in state["grippers"] if not each["stale"]] == [9]


def test_the_gateway_starts_before_the_daemon(line, start_daemon, start_gateway):
    gateway = start_gateway()
    page = gateway.page()
    state = gateway.wait_for(lambda each: each["line"]["state"] == "no-daemon")
    assert state["line"]["stale"] and state["grippers"] == []
    assert page.get("/healthz").status == 503
    start_daemon()
    gateway.wait_for(found)
    assert page.get("/healthz").status == 200


def test_the_daemon_is_killed_and_comes_back(line, start_daemon, start_gateway):
    daemon = start_daemon().wait_until_found(9)
    gateway = start_gateway()
    gateway.wait_for(found)
    operator = gateway.operator()
    operator.do("grippers/9/activate")
    assert operator.do("grippers/9/move", position=70)["position"] == 70
    assert line.registers(9, 2002)[0] >> 8 == 70
    # The picture is one look older than the outcome.
    eventually(lambda: operator.gripper(9)["position"] == 70)
    stream = operator.stream()
    stream.wait_for("picture")
    killed_at = time.monotonic()
    daemon.kill()
    stream.wait_for("change", lambda each: each["line"]["state"] == "no-daemon")
    assert time.monotonic() - killed_at < 2
    gone = operator.gripper(9)
    assert gone["stale"] and gone["position"] == 70
    answer = operator.post("grippers/9/move", {"lease": operator.key, "position": 10})
    assert answer.status in (409, 503)
    assert operator.post("grippers/9/stop").code == "unavailable"
    mark = line.mark()
    start_daemon().wait_until_found(9)
    gateway.wait_for(found)
    line.wait_until_polled(9, 2)
    # The daemon writes what it has found, and nothing new: the position stays requested.
    assert all(each.values[1] & 0xFF in (0, 70) for each in writes(line, mark) if each.count > 1)
    assert operator.gripper(9)["position"] == 70
    stream.validate()
    stream.close()


def test_the_line_is_unplugged_and_plugged(line, start_daemon, start_gateway):
    start_daemon().wait_until_found(9)
    gateway = start_gateway()
    gateway.wait_for(found)
    line.unplug()
    state = gateway.wait_for(lambda each: each["line"]["state"] == "gone")
    assert state["line"]["stale"] and state["grippers"][0]["stale"]
    page = gateway.page()
    age = page.state()["line"]["valueAgeSeconds"]
    eventually(lambda: page.state()["line"]["valueAgeSeconds"] > age)
    line.plug()
    gateway.wait_for(found, 15)
    kinds = [(each["kind"], each["detail"]) for each in page.state()["events"]]
    assert ("link", "gone") in kinds and kinds[-1] == ("link", "connected")


def test_a_gripper_that_does_not_answer(start_daemon, start_gateway):
    with Simulator("9=TA3-1.6.14", "2=TE1-2.0.2") as line:
        start_daemon().wait_until_found(9, 2)
        gateway = start_gateway()
        gateway.wait_for(lambda state: len(state["grippers"]) == 2)
        line.command("fault 9 deaf")
        state = gateway.wait_for(
            lambda each: any(g["missingSeconds"] is not None for g in each["grippers"]), 15
        )
        missing = next(each for each in state["grippers"] if each["id"] == 9)
        assert not missing["present"] and missing["stale"] and missing["serial"] == "SIM-1009"
        assert state["events"][-1]["kind"] == "missing"
        line.command("clear 9")
        assert gateway.operator().do("scan")["ids"] == [2, 9]
        gateway.wait_for(lambda each: all(g["present"] for g in each["grippers"]))


def connections_to(address):
    """Returns the number of open connections to another machine."""
    number = "".join(f"{int(part):02X}" for part in reversed(address.split(".")))
    with open("/proc/net/tcp", encoding="ascii") as table:
        return sum(line.split()[2].startswith(number) for line in table)


def test_the_phone_vanishes_in_a_movement(line, start_daemon, start_gateway):
    """Its radio is off: the gateway gets no end of a connection."""
    start_daemon().wait_until_found(9)
    with OtherMachine() as machine:
        gateway = start_gateway("--listen", "127.0.0.1", "--listen", NEAR, "--plain-http")
        gateway.wait_for(found)
        phone = Page(OtherMachineGateway(machine))
        phone.pair(gateway.pair_code("operate"))
        phone.take_control()
        phone.do("grippers/9/activate")
        stream = phone.stream()
        stream.wait_for("picture")
        moving = phone.begin("grippers/9/move", position=255, speed=0)
        viewer = gateway.page()
        eventually(lambda: viewer.gripper(9)["moving"])
        mark = line.mark()
        machine.vanish()
        # The movement ends as requested. The lease and the stream end, and nothing else happens.
        eventually(lambda: viewer.job(moving)["outcome"], 10)
        assert viewer.job(moving)["outcome"]["code"] == "ok"
        gateway.wait_for(lambda state: state["control"] is None)
        eventually(lambda: connections_to(FAR) == 0, 20, "the end of the stream")
        line.wait_until_polled(9, 5)
        assert writes(line, mark) == []
        stream.close()


def test_nothing_is_commanded_by_itself(line, start_daemon, start_gateway):
    """Not at the start, not after the return of the daemon, not at the end of a lease or of the program."""
    daemon = start_daemon().wait_until_found(9)
    line.wait_until_polled(9, 2)
    mark = line.mark()
    gateway = start_gateway()
    gateway.wait_for(found)
    gateway.operator()
    line.unplug()
    gateway.wait_for(lambda state: state["line"]["state"] == "gone")
    line.plug()
    gateway.wait_for(lambda state: found(state) and state["control"] is None, 15)
    line.wait_until_polled(9, 2)
    gateway.finish()
    # After a scan, the daemon itself writes the present outputs of a gripper: nothing moves.
    assert all(set(each.values) == {0} for each in writes(line, mark))
    assert daemon.is_running()


@pytest.fixture
def flash(start_daemon, connect, tmp_path):
    with benches(FlashBench, start_daemon, connect, tmp_path) as make:
        yield make


def begin_upgrade(gateway):
    page = gateway.operator("maintain")
    job = page.begin("grippers/9/upgrade", serial="SIM-1009")
    page.key = None
    return page, job


def test_an_upgrade_from_the_page(flash, start_gateway):
    bench = flash()
    gateway = start_gateway()
    gateway.wait_for(found)
    page, job = begin_upgrade(gateway)
    stream = page.stream()
    outcome = page.outcome(job, 40)
    assert outcome["code"] == "ok" and outcome["firmware"] == bench.after
    stream.wait_for("job", lambda each: each["stage"] == "writing")
    stream.wait_for("job", lambda each: each["state"] == "done")
    stream.wait_for("change", lambda each: each["line"]["state"] == "upgrading")
    eventually(lambda: page.gripper(9)["firmware"] == bench.after)
    stream.validate()
    stream.close()


@pytest.mark.parametrize("way", effort([signal.SIGKILL], [signal.SIGKILL, signal.SIGTERM]))
def test_the_gateway_ends_in_an_upgrade(flash, start_gateway, way):
    bench = flash(bits=19200, size=1500)
    gateway = start_gateway()
    gateway.wait_for(found)
    page, job = begin_upgrade(gateway)
    eventually(lambda: page.job(job)["stage"] == "writing", 15)
    gateway.process.send_signal(way)
    gateway.process.wait(10)
    assert bench.client.get("UPG") == "1"
    bench.wait_for_the_end()
    bench.wait_for_the_new_version()
