"""The clocks of the machine move while the gateway runs."""

import mmap
import struct

import pytest
from gatewayrig import COMMANDS, body, no_write
from harness.children import binary
from harness.daemon import SANITIZED
from harness.simulator import Simulator
from harness.waiting import eventually

HOUR = 3600
TOKEN_LIFETIME = 8 * HOUR


class Clocks:
    """The clocks of the gateway: the seconds by which they are ahead of those of the machine."""

    def __init__(self, folder):
        path = folder / "clocks"
        path.write_bytes(bytes(16))
        with open(path, "r+b") as file:
            self._shift = mmap.mmap(file.fileno(), 0)
        self.environment = {"LD_PRELOAD": binary("clock-shift.so"), "GRIPPERD_CLOCK_SHIFT": str(path)}
        if SANITIZED:
            self.environment["ASAN_OPTIONS"] = "verify_asan_link_order=0"

    def set(self, monotonic=0, wall=0):
        self._shift[:] = struct.pack("=qq", monotonic, wall)


@pytest.fixture
def clocks(tmp_path):
    return Clocks(tmp_path)


@pytest.fixture
def line():
    with Simulator("9=TA3-1.6.14", "--activation-ms", "100") as simulated:
        yield simulated


def found(state):
    return [each["id"] for each in state["grippers"] if not each["stale"]] == [9]


@pytest.fixture
def gateway(line, start_daemon, start_gateway, clocks):
    start_daemon().wait_until_found(9)
    # The first outputs, which the daemon writes by itself.
    line.wait_for(lambda request: request.is_write(1000))
    gateway = start_gateway(environment=clocks.environment)
    gateway.wait_for(found)
    return gateway


def test_the_lease_ends_after_its_last_renewal(gateway, line, clocks):
    operator = gateway.operator()
    clocks.set(monotonic=4)
    assert operator.post("control", {"key": operator.key}).status == 200
    with no_write(gateway, line):
        clocks.set(monotonic=4 + 5)
        answer = operator.post("grippers/9/deactivate", {"lease": operator.key})
        assert answer.status == 409 and answer.code == "no-control"
        state = operator.state()
        assert state["control"] is None and state["events"][-1]["detail"] == "ended"


def test_an_expired_token_commands_nothing(gateway, line, clocks):
    operator = gateway.operator("maintain")
    clocks.set(monotonic=TOKEN_LIFETIME - 30)
    gateway.wait_for(lambda state: found(state) and state["control"] is None)
    operator.take_control()
    assert operator.do("grippers/9/led", auto=True)["code"] == "ok"
    stream = operator.stream()
    stream.wait_for("picture")
    with no_write(gateway, line):
        clocks.set(monotonic=TOKEN_LIFETIME + 1)
        stream.wait_for_end()
        for route in COMMANDS:
            answer = operator.post(route, body(operator, route))
            assert answer.status == 401 and answer.code == "unpaired", route
        assert operator.post("control").status == 401
        assert operator.get("/api/v1/state").status == 401
        gateway.wait_for(found)


@pytest.mark.parametrize("days", [400, -400])
def test_a_jump_of_the_wall_clock_changes_only_the_times_that_people_read(gateway, line, clocks, days):
    operator = gateway.operator()
    operator.do("grippers/9/activate")
    stream = operator.stream()
    before = stream.wait_for("picture")
    mark = line.mark()
    moving = operator.begin("grippers/9/move", position=60, speed=0)
    clocks.set(wall=days * 24 * HOUR)
    after = stream.wait_for("change", lambda each: each["at"][:4] != before["at"][:4])
    assert (after["at"] > before["at"]) == (days > 0)
    assert operator.outcome(moving)["code"] == "ok"
    assert operator.post("control", {"key": operator.key}).status == 200
    messages = [each for _, kind, each in stream.messages if kind in ("picture", "change")]
    assert not any(each["line"]["stale"] for each in messages)
    clocks_seen = [each["clock"] for each in messages]
    assert clocks_seen == sorted(clocks_seen) and clocks_seen[-1] - clocks_seen[0] < 60
    times = operator.get("/api/v1/history?gripper=9").json()["t"]
    assert times == sorted(times) and times[-1] < clocks_seen[-1] + 60
    # The movement, and nothing else.
    assert {each.values[1] & 0xFF for each in line.since(mark, lambda one: one.is_write(1000))} <= {0, 60}
    stream.validate()
    stream.close()
