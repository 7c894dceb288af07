"""What the tests of the MQTT face with outages and with bad brokers share. Import the fixtures by their names."""

import contextlib
import pathlib

import pytest
from harness.client import Client
from harness.daemon import SANITIZED
from harness.simulator import Simulator
from harness.waiting import eventually
from mqttrig import NODE, Broker, Peer, ScriptedBroker, command

OPTIONS = ("--mqtt", "127.0.0.1", "--mqtt-node", NODE)
ALLOW = (*OPTIONS, "--allow", "activate,move,stop")
KEEP_ALIVE_SECONDS = 10
GROWTH_KIB = 100_000 if SANITIZED else 4_000


@pytest.fixture
def line():
    with Simulator("9=TA3-1.6.14", "--activation-ms", "100") as simulated:
        yield simulated


@pytest.fixture
def daemon(line, start_daemon):
    return start_daemon().wait_until_found(9)


@pytest.fixture
def broker(tmp_path):
    with Broker(tmp_path) as broker:
        yield broker


@pytest.fixture
def connect_peer():
    """connect_peer(...) returns a client of the broker."""
    with contextlib.ExitStack() as peers:

        def connect(**options):
            return peers.enter_context(contextlib.closing(Peer(**options)))

        yield connect


@pytest.fixture
def scripted():
    """scripted(answer) returns a broker: see ScriptedBroker."""
    with contextlib.ExitStack() as brokers:
        yield lambda answer: brokers.enter_context(contextlib.closing(ScriptedBroker(answer)))


@pytest.fixture
def small_send_buffers():
    """The buffers of connections, which else take millions of short packets."""
    setting = pathlib.Path("/proc/sys/net/ipv4/tcp_wmem")
    before = setting.read_text("ascii")
    setting.write_text("4096 16384 16384", "ascii")
    yield
    setting.write_text(before, "ascii")


def position_is(position):
    return lambda state: state["position"] == position and not state["stale"]


def pin(line, position):
    line.command(f"pin 9 2002 {position << 8}")


def add(line, *grippers):
    """Adds grippers to a line of which the daemon has found some."""
    for gripper in grippers:
        line.command(f"add {gripper}")
    ids = sorted([9, *(int(gripper.split("=")[0]) for gripper in grippers)])
    with contextlib.closing(Client()) as client:
        # On a busy machine, a scan may miss a gripper.
        eventually(lambda: client.set("SCN_BLOCK 1") != "ack" or client.get("SID") == str(ids), 20)


def taken(peer, seconds=4.9):
    """Waits until the gateway takes commands that are valid for so long: it knows no ids of the 5 s
    before its start."""
    peer.wait_for("gripper/9/state", lambda each: not each["stale"], timeout=15)

    def accepted():
        since = peer.mark()
        return peer.result(9, command("stop", seconds), since)["code"] == "ok"

    eventually(accepted, 10, "a command that the gateway takes")
