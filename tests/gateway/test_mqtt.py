"""The gateway and a real broker: what it publishes, and which commands it takes."""

import contextlib
import json
import os
import random
import time

import pytest
from gatewayrig import Gateway, writes
from harness.client import Client
from harness.effort import effort
from harness.figures import percentile
from harness.processor import seconds_without_processor
from harness.waiting import eventually
from mqttrig import NODE, Broker, Peer, command

OPTIONS = ("--mqtt", "127.0.0.1", "--mqtt-node", NODE)


@pytest.fixture(scope="module")
def broker(tmp_path_factory):
    with Broker(tmp_path_factory.mktemp("broker")) as broker:
        yield broker


@pytest.fixture(scope="module")
def served_daemon(simulated, start_module_daemon):
    return start_module_daemon()


@pytest.fixture(scope="module")
def found_line(simulated, served_daemon):
    with contextlib.closing(Client()) as client:
        # On a busy machine, the first scan may miss a gripper.
        eventually(lambda: client.get("SID") == "[2, 9]" or client.set("SCN_BLOCK 1") != "ack", 20)
    return simulated


@pytest.fixture(scope="module")
def gateway(broker, found_line, tmp_path_factory):
    gateway = Gateway(
        tmp_path_factory.mktemp("gateway"), *OPTIONS, "--allow", "activate,move,stop,led",
    )
    try:
        gateway.wait_until_ready()
        gateway.wait_for(lambda state: len(state["grippers"]) == 2)
        yield gateway
        gateway.finish()
    finally:
        gateway.kill()


@contextlib.contextmanager
def peer_of(**options):
    peer = Peer(**options)
    try:
        yield peer
    finally:
        peer.close()


@contextlib.contextmanager
def other_gateway(folder, node, *options):
    """A second gateway of the same line."""
    other = Gateway(folder, "--mqtt", "127.0.0.1", "--mqtt-node", node, "--port", "63354", *options)
    try:
        other.wait_until_ready()
        yield other
        other.finish()
    finally:
        other.kill()


@pytest.fixture
def peer(broker):
    with peer_of() as peer:
        yield peer


@pytest.fixture
def ready(gateway, peer):
    """A peer of a gateway that takes commands: it knows no ids of the 5 s before its start."""
    peer.wait_for("gripper/9/state", lambda each: not each["stale"])

    def accepted():
        since = peer.mark()
        return peer.result(9, command("stop"), since)["code"] == "ok"

    eventually(accepted, 10, "a command that the gateway takes")
    return peer


@pytest.fixture
def active(ready):
    assert ready.result(9, command("activate"))["code"] == "ok"
    return ready


# The picture


def test_every_topic_is_retained(gateway, peer):
    assert peer.wait_for("status").value["state"] == "online"
    link = peer.wait_for("link", lambda each: each["state"] == "connected").value
    assert link["version"] == "MZV-2.0.0" and not link["stale"]
    grippers = peer.wait_for("grippers", lambda each: len(each["grippers"]) == 2).value["grippers"]
    assert grippers[1] == {"id": 9, "serial": "SIM-1009", "present": True}
    info = peer.wait_for("gripper/2/info").value
    assert (info["family"], info["kind"], info["serial"]) == ("Zentra", "vacuum", "SIM-1002")
    state = peer.wait_for("gripper/9/state").value
    assert state["serial"] == "SIM-1009" and not state["stale"]
    assert set(peer.retained) == {
        "status", "link", "grippers", "gripper/2/info", "gripper/2/state", "gripper/9/info",
        "gripper/9/state",
    }


def test_the_state_follows_within_500_ms(broker, served_daemon, gateway, peer, found_line, figure):
    """A busy machine has the time for which the programs wait for a processor in addition. After a wait of
    15 ms, the daemon may have missed an answer, and asks again in its next round."""
    programs = (broker.process.pid, served_daemon.pid, gateway.pid, found_line.process.pid, os.getpid())
    delays, next_rounds = [], []
    peer.wait_for("gripper/9/state")
    for position in range(1, effort(20, 200) + 1):
        since = peer.mark()
        before = seconds_without_processor(*programs)
        begin = time.monotonic()
        found_line.command(f"pin 9 2002 {position << 8}")
        state = peer.wait_for("gripper/9/state", lambda s: s["position"] == position, since)
        waited = seconds_without_processor(*programs) - before
        delays.append(state.at - begin - waited)
        next_rounds.append(0.5 if waited > 0.015 else 0)
    found_line.command("release 9 2002")
    worst = percentile(delays, 0.95)
    figure(f"a position reaches a subscriber after {worst * 1000:.0f} ms (95th percentile)")
    assert percentile(delays, 0.5) < 0.5
    assert percentile([delay - more for delay, more in zip(delays, next_rounds)], 0.95) < 0.5


def test_at_most_five_states_a_second(active):
    since = active.mark()
    active.result(9, command("move", position=0, speed=255))
    active.result(9, command("move", position=255, speed=0))
    states = [each.at for each in active.all("gripper/9/state", since)]
    assert len(states) > 3
    # A message may be late on its way, so this counts those of a second.
    assert all(later - sooner > 0.9 for sooner, later in zip(states, states[6:]))


def test_a_missing_gripper_is_an_event(gateway, peer, found_line):
    since = peer.mark()
    found_line.command("fault 2 deaf")
    try:
        event = peer.wait_for("gripper/2/event", lambda e: e["kind"] == "missing", since, 15)
        assert event.value["serial"] == "SIM-1002" and event.quality == 1 and not event.is_retained
        assert peer.wait_for("gripper/2/state", lambda s: not s["present"], since).is_retained
        gone = {"id": 2, "serial": "SIM-1002", "present": False}
        peer.wait_for("grippers", lambda each: gone in each["grippers"], since)
    finally:
        found_line.command("clear 2")
        with contextlib.closing(Client()) as client:
            client.set("SCN_BLOCK 1")
    peer.wait_for("gripper/2/event", lambda each: each["kind"] == "found", since, 10)


def test_topics_of_a_gripper_that_left_are_cleared(gateway, peer, tmp_path):
    """A gripper may leave while no gateway runs."""
    topics = [f"gripperd/robot8/gripper/4/{word}" for word in ("info", "state")]
    received = []
    peer.client.message_callback_add("gripperd/robot8/#", lambda _c, _d, m: received.append(m))
    peer.client.subscribe("gripperd/robot8/gripper/4/+")
    for topic in topics:
        peer.client.publish(topic, b"old", 1, True).wait_for_publish(5)
    eventually(lambda: len(received) == 2)
    with other_gateway(tmp_path, "robot8"):
        eventually(lambda: {m.topic for m in received if m.payload == b""} == set(topics), 10)


# Commands


def test_a_movement_and_its_result(active, gateway):
    since = active.mark()
    request = command("move", position=90, speed=255, force=20, serial="SIM-1009")
    result = active.result(9, request, since)
    assert result["code"] == "ok" and result["object"] == "reached" and result["position"] == 90
    assert result["do"] == "move" and result["gripper"] == 9
    event = active.wait_for("gripper/9/event", lambda each: each["kind"] == "arrived", since)
    assert event.quality == 1
    gateway.wait_for_line(f"move gripper 9, role operate, from MQTT, id {request['id']}")
    assert not gateway.page().gripper(9)["commandedByOther"]


def test_objects_and_faults_are_events(active, found_line):
    since = active.mark()

    def wait_for_event(kind):
        event = active.wait_for("gripper/9/event", lambda each: each["kind"] == kind, since)
        assert event.quality == 1 and not event.is_retained
        return event.value

    assert active.result(9, command("move", position=0, speed=255))["code"] == "ok"
    found_line.command("object 9 120")
    try:
        met = active.result(9, command("move", position=255, speed=255), since)
        assert met["object"] == "met"
        assert wait_for_event("object-met")["serial"] == "SIM-1009"
    finally:
        found_line.command("object 9 none")
    wait_for_event("object-lost")
    found_line.command("faultcode 9 10")
    try:
        assert wait_for_event("fault")["code"] == 10
    finally:
        found_line.command("faultcode 9 0")
    assert wait_for_event("fault-cleared")["code"] == 10


def test_a_page_with_control_comes_first(active, gateway):
    page = gateway.operator()
    try:
        assert active.result(9, command("move", position=5))["code"] == "held"
        assert active.result(9, command("stop"))["code"] == "ok"
    finally:
        page.request("DELETE", "/api/v1/control", {"key": page.key})
    assert active.result(9, command("move", position=6))["code"] == "ok"


def stale(peer):
    peer.publish(9, command("move", seconds=-60, position=random.randrange(256)))


def expired(peer):
    peer.publish(9, command("move", seconds=-0.05, position=random.randrange(256)))


def too_far_ahead(peer):
    peer.publish(9, command("move", seconds=5.6, position=random.randrange(256)))


def retained(peer):
    peer.publish(9, command("move", position=random.randrange(256)), retain=True)


def without_expiry(peer):
    request = command("move", position=3)
    del request["expires"]
    peer.publish(9, request)


def not_allowed(peer):
    peer.publish(9, command(random.choice(["deactivate", "release", "mode", "scan", "rename", "upgrade"])))


def wrong_serial(peer):
    peer.publish(9, command("move", position=7, serial="SIM-1002"))


def unknown_gripper(peer):
    peer.publish(random.choice([3, 247]), command("move", position=7))


def too_large(peer):
    peer.publish(9, command("move", position=7, text="x" * random.choice([1024, 5000, 100_000])))


def malformed(peer):
    request = command("move", position=7)
    texts = [
        b"", b"\0", b"[]", b"null", b"{", b"\xff\xfe", b"[" * 900, b'{"id": 1}',
        {**request, "position": 256}, {**request, "position": -1}, {**request, "position": "7"},
        {**request, "expires": str(request["expires"])}, {**request, "expires": -1},
        {**request, "expires": 2**64}, {**request, "expires": request["expires"] / 1000},
        {**request, "id": ""}, {**request, "id": "a\nb"}, {**request, "id": "x" * 65},
        {**request, "more": 1}, {**request, "do": 1}, {**request, "position": None},
    ]
    peer.publish(9, random.choice(texts))


REFUSED = [stale, expired, too_far_ahead, retained, without_expiry, not_allowed, wrong_serial,
           unknown_gripper, too_large, malformed]


def quiet(line):
    """Waits until the daemon has written what it had to, and returns a mark."""
    line.wait_until_polled(9, 3)
    return line.mark()


def clear_retained(peer):
    peer.client.publish(peer.prefix + "gripper/9/command", b"", 1, True).wait_for_publish(5)


def test_refused_commands_write_nothing(active, found_line):
    mark = quiet(found_line)
    since = active.mark()
    for _ in range(effort(2, 50)):
        for publish_wrong in REFUSED:
            publish_wrong(active)
        clear_retained(active)
        # The broker delivers in order, so this refusal is the last one.
        active.result(9, command("release"), since)
    results = [m.value for m in active.messages[since:] if m.topic.endswith("/result")]
    codes = {each["code"] for each in results}
    assert codes == {"expired", "too-far-ahead", "retained", "no-expiry", "not-allowed", "serial",
                     "unknown-gripper", "too-large", "bad-request"}
    assert all(code != "ok" for code in codes)
    found_line.wait_until_polled(9, 3)
    assert writes(found_line, mark) == []
    # The same command with nothing wrong writes.
    assert active.result(9, command("move", position=7))["code"] == "ok"
    assert writes(found_line, mark)


def test_a_doubled_command_is_carried_out_once(active, found_line):
    assert active.result(9, command("move", position=0))["code"] == "ok"
    for _ in range(effort(3, 50)):
        request = command("move", position=40)
        since = active.mark()
        assert active.result(9, request, since)["code"] == "ok"
        assert active.result(9, command("move", position=0))["code"] == "ok"
        mark = quiet(found_line)
        again = active.mark()
        for _ in range(3):
            active.publish(9, request)
        eventually(lambda: len(active.all("gripper/9/result", again)) == 3)
        codes = {each.value["code"] for each in active.all("gripper/9/result", again)}
        assert codes <= {"repeated", "expired"}
        found_line.wait_until_polled(9, 2)
        assert writes(found_line, mark) == []


def test_each_command_of_a_burst_has_a_result(active):
    """Most of them are refused, because the gripper has enough others."""
    since = active.mark()
    burst = [command("stop") for _ in range(effort(300, 900))]
    for request in burst:
        active.client.publish(active.prefix + "gripper/9/command", json.dumps(request), 1)

    def results():
        return {each.value["id"]: each.value["code"] for each in active.all("gripper/9/result", since)}

    eventually(lambda: len(results()) == len(burst), 20, lambda: len(results()))
    assert "ok" in results().values()


def test_large_messages_silence_no_gateway(active):
    """The broker has 20 places for messages on their way to a client."""
    since = active.mark()
    for _ in range(25):
        too_large(active)
        active.publish(9, command("move", position=7, text="x" * 100_000))
    assert active.result(9, command("stop"), since)["code"] == "ok"
    refused = active.all("gripper/9/result", since)[:-1]
    assert [each.value["code"] for each in refused] == ["too-large"] * 50


def test_without_allow_no_message_is_a_command(broker, gateway, found_line, tmp_path):
    with other_gateway(tmp_path, "robot9"), peer_of(node="robot9") as peer:
        peer.wait_for("gripper/9/state")
        mark = quiet(found_line)
        for do in ("activate", "stop", "move"):
            peer.publish(9, command(do))
        found_line.wait_until_polled(9, 3)
        assert writes(found_line, mark) == []
        assert peer.all("gripper/9/result") == []
    assert not any("SUBSCRIBE from gripperd-robot9" in line for line in broker.log)
