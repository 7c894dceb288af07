"""The broker, the gateway or the daemon goes away, and comes back; certificates; brokers that misbehave."""

import contextlib
import json
import pathlib
import re
import signal
import socket
import struct
import subprocess
import threading
import time

import pytest
from gatewayrig import Gateway, insecure_tls, writes
from harness.children import binary
from harness.client import Client
from harness.daemon import SANITIZED
from harness.effort import effort
from harness.simulator import Simulator
from harness.waiting import eventually
from mqttrig import (
    NODE, TLS_PORT, Broker, Peer, ScriptedBroker, accepted, acknowledge_messages, certificates,
    command, message, only_mqtt_3, without_answer,
)

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


def test_a_killed_gateway_is_offline(broker, daemon, start_gateway, connect_peer):
    gateway = start_gateway(*OPTIONS)
    peer = connect_peer()
    peer.wait_for("status", lambda each: each["state"] == "online")
    since = peer.mark()
    gateway.process.kill()
    offline = peer.wait_for(
        "status", lambda each: each["state"] == "offline", since, KEEP_ALIVE_SECONDS * 1.5
    )
    assert offline.is_retained
    gateway.process.wait()


def test_a_gateway_that_ends_is_offline(broker, daemon, start_gateway, connect_peer):
    gateway = start_gateway(*OPTIONS)
    peer = connect_peer()
    peer.wait_for("status", lambda each: each["state"] == "online")
    gateway.finish()
    peer.wait_for("status", lambda each: each["state"] == "offline")
    broker.wait_for_line(f"Received DISCONNECT from gripperd-{NODE}")


@pytest.mark.skipif(effort(True, False), reason="takes 15 s: scripts/robustness")
def test_a_gateway_that_hangs_is_offline(broker, daemon, start_gateway, connect_peer):
    gateway = start_gateway(*OPTIONS)
    peer = connect_peer()
    peer.wait_for("status", lambda each: each["state"] == "online")
    gateway.process.send_signal(signal.SIGSTOP)
    try:
        # mosquitto looks for dead clients every 5 s.
        limit = KEEP_ALIVE_SECONDS * 1.5 + 6
        peer.wait_for("status", lambda each: each["state"] == "offline", timeout=limit)
    finally:
        gateway.process.send_signal(signal.SIGCONT)
    peer.wait_for("status", lambda each: each["state"] == "online", peer.mark(), 15)


def retained_at(peer):
    """Returns all that a broker retains, without times."""
    times = ("time", "since")
    return {
        word: {name: each for name, each in value.items() if name not in times}
        for word, value in peer.retained.items()
    }


def test_the_broker_restarts(broker, line, daemon, start_gateway, connect_peer):
    add(line, "2=TE1-2.0.2")
    start_gateway(*OPTIONS)
    pin(line, 20)
    first = connect_peer()
    eventually(lambda: len(first.retained) == 7)
    first.wait_for("gripper/2/state", lambda each: not each["stale"])
    first.wait_for("gripper/9/state", position_is(20))
    wanted = retained_at(first)
    assert [each["id"] for each in wanted["grippers"]["grippers"]] == [2, 9]
    assert wanted["status"]["state"] == "online" and wanted["link"]["state"] == "connected"
    for position in range(30, 30 + effort(2, 20)):
        broker.stop()
        pin(line, position)
        wanted["gripper/9/state"]["position"] = position
        broker.start()
        peer = connect_peer()
        eventually(lambda: retained_at(peer) == wanted, 5, lambda: (wanted, retained_at(peer)))


def test_an_event_waits_for_the_broker(broker, line, daemon, start_gateway, connect_peer):
    gateway = start_gateway(*ALLOW)
    taken(connect_peer())
    broker.stop()
    page = gateway.operator()
    page.do("grippers/9/activate")
    page.do("grippers/9/move", position=60)
    broker.start()
    peer = connect_peer()
    event = peer.wait_for("gripper/9/event", lambda each: each["kind"] == "arrived", timeout=8)
    assert event.value["serial"] == "SIM-1009"


@pytest.mark.parametrize("word", ["event", "result"])
def test_what_the_broker_has_not_acknowledged_comes_again(
    word, scripted, line, daemon, start_gateway
):
    lost, again = [], []
    refused = message(f"gripperd/{NODE}/gripper/9/command", b"{}")

    def serve(peer, _):
        if lost:
            peer.sendall(accepted())
            again.extend(value for _, value in acknowledge_messages(peer))
            return
        peer.sendall(accepted() + refused)
        for topic, value in acknowledge_messages(peer, but=word):
            if topic.endswith(word):
                lost.append(value)
                peer.shutdown(socket.SHUT_RDWR)

    gateway = start_gateway(*ALLOW)
    gateway.wait_for(lambda state: any(not each["stale"] for each in state["grippers"]))
    scripted(serve)
    eventually(lambda: lost, 10)
    eventually(lambda: lost[0] in again, 10, lambda: (lost, again))


def test_a_gateway_that_ends_publishes_the_last_results(
    broker, line, daemon, start_gateway, connect_peer
):
    """The broker has not even acknowledged an event."""
    add(line, "2=TE1-2.0.2")
    gateway = start_gateway(*ALLOW)
    peer = connect_peer()
    taken(peer)
    assert peer.result(9, command("activate"))["code"] == "ok"
    request = command("move", position=255, speed=0)
    peer.publish(9, request)
    gateway.wait_for_line(f"MQTT, id {request['id']}")
    broker.process.send_signal(signal.SIGSTOP)
    try:
        line.command("faultcode 2 10")
        gateway.wait_for(lambda state: "fault" in [each["kind"] for each in state["events"]])
        gateway.finish()
    finally:
        broker.process.send_signal(signal.SIGCONT)
    offline = peer.wait_for("status", lambda each: each["state"] == "offline")
    result = peer.wait_for("gripper/9/result", lambda each: each["id"] == request["id"])
    assert result.value["code"] == "shutdown"
    assert peer.messages.index(result) < peer.messages.index(offline)


def test_the_gateway_starts_before_the_broker(tmp_path, start_gateway, connect_peer):
    gateway = start_gateway(*OPTIONS)
    gateway.wait_for_line("MQTT broker 127.0.0.1:1883: Connection refused")
    events = gateway.page().state()["events"]
    assert ("broker", "Connection refused") in [(each["kind"], each["detail"]) for each in events]
    with Broker(tmp_path):
        gateway.wait_for_line("MQTT broker 127.0.0.1:1883: connected")
        connect_peer().wait_for("status", lambda each: each["state"] == "online")
        lines = [line for line in gateway.lines if "MQTT broker" in line]
        assert len(lines) == 2, lines


# Commands that come at a wrong time


def test_no_command_waits_for_the_daemon(broker, line, daemon, start_daemon, start_gateway, connect_peer):
    start_gateway(*ALLOW)
    peer = connect_peer()
    taken(peer)
    assert peer.result(9, command("activate"))["code"] == "ok"
    assert peer.result(9, command("move", position=70))["code"] == "ok"
    daemon.kill()
    peer.wait_for("link", lambda each: each["state"] == "no-daemon")
    request = command("move", position=10)
    assert peer.result(9, request)["code"] == "unavailable"
    mark = line.mark()
    start_daemon().wait_until_found(9)
    peer.wait_for("gripper/9/state", lambda s: not s["stale"], peer.mark(), 10)
    line.wait_until_polled(9, 3)
    assert all(each.values[1] >> 8 in (0, 70) for each in writes(line, mark) if each.count > 1)
    # A broker that delivers the command once more changes nothing.
    since = peer.mark()
    assert peer.result(9, request, since)["code"] in ("repeated", "expired")


def test_no_command_waits_for_the_line(broker, line, daemon, start_gateway, connect_peer):
    """The daemon itself would keep the SET until the line is back."""
    start_gateway(*ALLOW)
    peer = connect_peer()
    taken(peer)
    line.unplug()
    peer.wait_for("link", lambda each: each["state"] == "gone" and each["stale"], timeout=10)
    assert peer.result(9, command("activate"))["code"] == "unavailable"
    since, mark = peer.mark(), line.mark()
    line.plug()
    peer.wait_for("gripper/9/state", lambda each: not each["stale"], since, 15)
    line.wait_until_polled(9, 3)
    assert all(set(each.values) == {0} for each in writes(line, mark))


def test_no_command_waits_for_a_daemon_that_hangs(broker, line, daemon, start_gateway, connect_peer):
    start_gateway(*ALLOW)
    peer = connect_peer()
    taken(peer, 0.5)
    assert peer.result(9, command("activate"))["code"] == "ok"
    line.wait_until_polled(9, 2)
    daemon.process.send_signal(signal.SIGSTOP)
    request = command("move", seconds=1, position=200)
    peer.publish(9, request)
    ends = time.monotonic() + 1.5
    eventually(lambda: time.monotonic() > ends)
    mark = line.mark()
    daemon.process.send_signal(signal.SIGCONT)
    result = peer.wait_for("gripper/9/result", lambda each: each["id"] == request["id"]).value
    assert result["code"] in ("expired", "unavailable")
    line.wait_until_polled(9, 5)
    assert not [each for each in writes(line, mark) if each.values[1] >> 8 == 200]


def test_no_command_waits_for_the_gateway(broker, line, daemon, start_gateway, connect_peer):
    """The broker delivers late: it holds messages for a gateway that does not read."""
    gateway = start_gateway(*ALLOW)
    peer = connect_peer()
    taken(peer, 0.5)
    assert peer.result(9, command("activate"))["code"] == "ok"
    line.wait_until_polled(9, 2)
    mark = line.mark()
    gateway.process.send_signal(signal.SIGSTOP)
    late = [command("move", seconds=0.5, position=100 + number) for number in range(5)]
    for request in late:
        peer.publish(9, request)
    ends = time.monotonic() + 0.6
    eventually(lambda: time.monotonic() > ends)
    gateway.process.send_signal(signal.SIGCONT)
    for request in late:
        result = peer.wait_for("gripper/9/result", lambda each: each["id"] == request["id"]).value
        assert result["code"] == "expired"
    line.wait_until_polled(9, 3)
    assert writes(line, mark) == []


def test_the_broker_keeps_no_command_for_a_gateway_that_is_away(
    broker, line, daemon, start_gateway, connect_peer
):
    gateway = start_gateway(*ALLOW)
    peer = connect_peer()
    taken(peer)
    gateway.kill()
    request = command("stop")
    peer.publish(9, request)
    mark, since = line.mark(), peer.mark()
    start_gateway(*ALLOW)
    peer.wait_for("gripper/9/state", lambda each: not each["stale"], since, 15)
    # The broker delivers in order, so its own delivery would precede this refusal.
    assert peer.result(9, command("release"), since)["code"] in ("too-early", "not-allowed")
    assert len(peer.all("gripper/9/result", since)) == 1
    # A broker might deliver it again. An earlier process may have carried it out.
    result = peer.result(9, request, since)
    assert result["code"] in ("too-early", "expired")
    line.wait_until_polled(9, 3)
    assert writes(line, mark) == []


def test_no_old_value_is_fresh_after_the_daemon_died(
    broker, line, daemon, start_gateway, connect_peer
):
    gateway = start_gateway(*OPTIONS)
    peer = connect_peer()
    peer.wait_for("gripper/9/state", lambda each: not each["stale"])
    daemon.kill()
    gateway.kill()
    since = peer.mark()
    start_gateway(*OPTIONS)
    peer.wait_for("link", lambda each: each["state"] == "no-daemon", since)
    eventually(lambda: not [word for word in peer.retained if word.startswith("gripper/")])
    assert peer.retained["status"]["state"] == "online"
    assert peer.retained["grippers"]["grippers"] == []


# Brokers that misbehave


def test_a_broker_that_says_nothing(line, daemon, start_gateway):
    with without_answer():
        gateway = start_gateway(*ALLOW)
        gateway.wait_for(lambda state: state["grippers"])
        before = gateway.resident_kib()
        page = gateway.operator()
        assert page.do("grippers/9/activate")["code"] == "ok"
        for position in range(effort(10, 200)):
            pin(line, position)
            eventually(lambda: page.gripper(9)["position"] == position, 1)
        gateway.wait_for_line("the broker does not answer", timeout=15)
        assert gateway.resident_kib() - before < GROWTH_KIB
        assert page.get("/healthz").status == 200


def test_a_retained_command_after_the_broker_hung(broker, line, daemon, start_gateway, connect_peer):
    """The broker does not say that it has no MQTT 5. It says nothing."""
    peer = connect_peer()
    broker.process.send_signal(signal.SIGSTOP)
    try:
        gateway = start_gateway(*ALLOW)
        begin = time.monotonic()
        gateway.wait_for_line("the broker does not answer", timeout=15)
        assert 4 < time.monotonic() - begin < 8
    finally:
        broker.process.send_signal(signal.SIGCONT)
    gateway.wait_for_line("MQTT broker 127.0.0.1:1883: connected", timeout=15)
    taken(peer)
    assert peer.result(9, command("activate"))["code"] == "ok"
    line.wait_until_polled(9, 2)
    mark = line.mark()
    assert peer.result(9, command("move", position=200), retain=True)["code"] == "retained"
    line.wait_until_polled(9, 3)
    assert writes(line, mark) == []


def test_a_broker_that_reads_slowly(scripted, line, daemon, start_gateway, small_send_buffers):
    """It gets fewer states, and then the latest. It answers to pings, so the connection lasts."""
    bytes_per_read = effort(10, 100)
    reads_fast = threading.Event()

    def read_slowly(peer, _):
        peer.sendall(accepted())
        while not reads_fast.wait(0.05):
            data = peer.recv(bytes_per_read)
            broker.bytes += data
            peer.sendall(b"\xd0\0" * data.count(b"\xc0\0"))

    ids = (2, 3, 4, 9)
    add(line, *(f"{number}=TA3-1.6.14" for number in ids[:-1]))
    broker = scripted(read_slowly)
    broker.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
    gateway = start_gateway(*OPTIONS)
    page = gateway.page()
    gateway.wait_for(lambda state: len(state["grippers"]) == len(ids))
    gateway.wait_for_line("connected")
    rounds = effort(20, 400)
    for position in range(rounds):
        for number in ids:
            line.command(f"pin {number} 2002 {position % 250 << 8}")
        eventually(lambda: {each["position"] for each in page.state()["grippers"]} == {position % 250}, 5)
    for number in ids:
        line.command(f"pin {number} 2002 {251 << 8}")
    gateway.wait_for(lambda state: {each["position"] for each in state["grippers"]} == {251})
    reads_fast.set()
    latest = b'"position":251,'
    eventually(lambda: broker.bytes.count(latest) >= len(ids), 10, lambda: broker.bytes[-3000:])
    assert len(ids) < broker.bytes.count(b"/state\0{") < rounds * len(ids) / 2
    assert len(broker.levels) == 1


def test_a_broker_whose_disk_is_full(tmp_path, line, daemon, start_gateway, connect_peer):
    disk = tmp_path / "disk"
    disk.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16k", "tmpfs", disk], check=True)
    try:
        (disk / "full").write_bytes(b"x" * 8192)
        lines = ["persistence true", f"persistence_location {disk}/", "autosave_on_changes true",
                 "autosave_interval 1"]
        with Broker(tmp_path, *lines) as broker:
            start_gateway(*ALLOW)
            peer = connect_peer()
            taken(peer)
            sizes = set()
            for position in range(1, 11):
                # Each file that the broker gives up frees space for the next one.
                with contextlib.suppress(OSError), open(disk / "full", "ab", buffering=0) as file:
                    while True:
                        file.write(b"x" * 1024)
                since = peer.mark()
                pin(line, position)
                peer.wait_for("gripper/9/state", position_is(position), since)
                sizes.add((disk / "mosquitto.db").stat().st_size)
            assert 0 in sizes, "the broker could save its state"
            assert peer.result(9, command("stop"))["code"] == "ok"
            broker.stop()
            pin(line, 99)
            broker.start()
            connect_peer().wait_for("gripper/9/state", position_is(99), timeout=5)
    finally:
        subprocess.run(["umount", disk], check=True)


def test_a_broker_without_mqtt_5(scripted, start_gateway):
    old = scripted(only_mqtt_3)
    gateway = start_gateway(*ALLOW)
    gateway.wait_for_line("connected")
    eventually(lambda: old.levels == [5, 4] and b"/link" in old.bytes, 10,
               lambda: (old.levels, old.bytes))
    assert f"gripperd/{NODE}/gripper/+/command".encode() in old.bytes
    gateway.finish()


def test_the_broker_knows_how_to_treat_a_gateway_that_is_away(scripted, start_gateway):
    """It keeps no session, and publishes the will after one and a half keep-alives."""
    broker = scripted(only_mqtt_3)
    start_gateway(*ALLOW).wait_for_line("connected")
    clean_start, will, quality_1, retained = 0x02, 0x04, 0x08, 0x20
    for connect in broker.connects:
        assert connect.flags == clean_start | will | quality_1 | retained
        assert connect.keep_alive_seconds == KEEP_ALIVE_SECONDS
    session_expiry_and_will_delay = (b"\x11\0", b"\x18\0")
    assert not any(each in broker.connects[0].packet for each in session_expiry_and_will_delay)


def test_only_a_refusal_of_mqtt_5_leads_to_an_older_version(scripted, start_gateway):
    """With 3.1.1, the gateway would carry out a retained command."""

    def reset(peer, _):
        peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        raise ConnectionResetError

    answers = [reset, lambda peer, _: peer.shutdown(socket.SHUT_RDWR), only_mqtt_3, only_mqtt_3]
    broker = scripted(lambda peer, level: answers[len(broker.levels) - 1](peer, level))
    gateway = start_gateway(*ALLOW)
    gateway.wait_for_line("connected", timeout=20)
    assert broker.levels == [5, 5, 5, 4]


def test_a_broker_that_takes_only_short_packets_is_reported(scripted, start_gateway):
    """Without a report, subscribers would see nothing, and nobody would know why."""
    maximum_packet_size = b"\x27" + struct.pack(">I", 100)
    broker = scripted(lambda peer, _: peer.sendall(accepted(maximum_packet_size)))
    gateway = start_gateway(*ALLOW)
    gateway.wait_for_line("connected")
    gateway.wait_for_line("the broker refuses a message or the commands: Packet")
    eventually(lambda: f"gripperd/{NODE}/gripper/+/command".encode() in broker.bytes)
    assert len([line for line in gateway.lines if "MQTT broker" in line]) == 2


def test_a_broker_that_ends_within_a_packet(scripted, start_gateway):
    def answer(peer, _):
        peer.sendall(accepted() + b"\x30\x50x")
        peer.shutdown(socket.SHUT_WR)

    scripted(answer)
    gateway = start_gateway(*ALLOW)
    gateway.wait_for_line("connected")
    gateway.wait_for_line("127.0.0.1:1883: The connection was lost")


def test_an_unknown_packet_is_one_line_of_the_journal(scripted, start_gateway):
    scripted(lambda peer, _: peer.sendall(accepted() + b"\xa0\x00"))
    gateway = start_gateway(*ALLOW)
    gateway.wait_for_line("Unrecognised command 160")
    assert gateway.page().get("/").status == 200
    assert "" not in gateway.lines


def test_a_huge_message_takes_no_memory(scripted, start_gateway):
    """A broker without MQTT 5 knows no limit of the gateway."""
    rest = 256 * 1024 * 1024 - 1

    def send_huge(peer, level):
        only_mqtt_3(peer, level)
        peer.sendall(b"\x30\xff\xff\xff\x7f")
        with contextlib.suppress(BrokenPipeError, ConnectionResetError):
            for _ in range(rest // 65536):
                peer.sendall(bytes(65536))
                # As over a network. On one machine, the library may find the next bytes again and again.
                time.sleep(0.002)

    gateway = start_gateway(*ALLOW)
    before = gateway.resident_kib()
    scripted(send_huge)
    gateway.wait_for_line("the broker sends a message that is too long", timeout=10)
    # Some megabytes arrive before the gateway looks.
    assert gateway.peak_kib() - before < 10 * GROWTH_KIB


def test_refusals_take_no_outcome_its_place(scripted, line, daemon, start_gateway):
    """The broker acknowledges late, and the gateway keeps only the latest refusals."""
    results = []

    def serve(peer, _):
        request = command("stop")
        refused = message(f"gripperd/{NODE}/gripper/9/command", b"{}")
        accepted_one = message(f"gripperd/{NODE}/gripper/9/command", json.dumps(request).encode())
        peer.sendall(accepted() + refused * 600 + accepted_one + refused * 600)
        gateway.wait_for_line("stop gripper 9 ended")
        for topic, value in acknowledge_messages(peer):
            if topic.endswith("/result"):
                results.append(value["id"] == request["id"] and value["code"])

    gateway = start_gateway(*ALLOW)
    gateway.wait_for(lambda state: any(not each["stale"] for each in state["grippers"]))
    scripted(serve)
    eventually(lambda: "ok" in results, 20, lambda: results)
    # The result that is on its way has no place.
    eventually(lambda: len(results) == 1 + 1 + 1024, 20, lambda: len(results))


def test_a_broker_that_sends_and_does_not_read(scripted, start_gateway, small_send_buffers):
    """The gateway answers to each message. It reads the next ones only after the broker has read."""
    message = b"\x32\x06\x00\x01x\x00\x01\x00"
    count = 1000

    def flood(peer, _):
        peer.sendall(accepted())
        peer.settimeout(1)
        sent = 0
        with contextlib.suppress(TimeoutError):
            while sent < 100 * count:
                peer.sendall(message * count)
                sent += count
        blocked.append(sent < 100 * count)
        peer.settimeout(None)

    blocked = []
    broker = scripted(flood)
    gateway = start_gateway(*ALLOW)
    gateway.wait_for_line("connected")
    eventually(lambda: blocked, 30)
    assert blocked == [True]
    acknowledged = b"\x40\x02\x00\x01"
    eventually(lambda: broker.bytes.count(acknowledged) >= count, 10)


@pytest.mark.skipif(effort(True, False), reason="takes 7 s: scripts/robustness")
def test_two_gateways_with_one_name(broker, start_gateway, tmp_path):
    """They take the connection from each other. Neither fills its log."""
    first = start_gateway(*OPTIONS)
    first.wait_for_line("connected")
    second_folder = tmp_path / "second"
    second_folder.mkdir()
    second = Gateway(second_folder, *OPTIONS, "--port", "63354")
    try:
        second.wait_until_ready()
        for gateway in (first, second):
            gateway.wait_for_line("The connection was lost", timeout=10)
        since = broker.mark()
        broker.wait_for_line("already connected", since, 10)
        for gateway in (first, second):
            assert len([line for line in gateway.lines if "MQTT" in line]) <= 3, gateway.lines
        second.finish()
    finally:
        second.kill()


# TLS


@pytest.fixture(scope="module")
def trusted(tmp_path_factory):
    return certificates(tmp_path_factory.mktemp("trusted"))


@pytest.fixture(scope="module")
def foreign(tmp_path_factory):
    return certificates(tmp_path_factory.mktemp("foreign"), "foreign")


@pytest.fixture(scope="module")
def tls_broker(tmp_path_factory, trusted):
    folder = tmp_path_factory.mktemp("broker")
    passwords = folder / "passwords"
    subprocess.run(["mosquitto_passwd", "-c", "-b", passwords, "robot7", "secret"], check=True,
                   capture_output=True)
    with Broker(
        folder, f"cafile {trusted('ca.pem')}", f"certfile {trusted('server.pem')}",
        f"keyfile {trusted('server.key')}", "require_certificate true", "allow_anonymous false",
        f"password_file {passwords}", port=TLS_PORT,
    ) as broker:
        yield broker


def tls_options(path, tmp_path, host="localhost", client=None, password="secret"):
    file = tmp_path / "password"
    file.write_text(password + "\n", "utf-8")
    client = client or path
    return (
        "--mqtt", host, "--mqtt-node", NODE, "--mqtt-ca", path("ca.pem"),
        "--mqtt-cert", client("gateway.pem"), "--mqtt-key", client("gateway.key"),
        "--mqtt-user", "robot7", "--mqtt-password-file", file, "--allow", "stop",
    )


def test_tls_with_certificates_and_a_password(
    tls_broker, trusted, daemon, start_gateway, connect_peer, tmp_path
):
    start_gateway(*tls_options(trusted, tmp_path))

    def prepare(client):
        context = insecure_tls()
        context.load_cert_chain(trusted("gateway.pem"), trusted("gateway.key"))
        client.tls_set_context(context)
        client.username_pw_set("robot7", "secret")

    peer = connect_peer(port=TLS_PORT, prepare=prepare)
    taken(peer)
    assert "p5" in tls_broker.wait_for_line(f"as gripperd-{NODE} ")


@pytest.mark.parametrize(
    ("wrong", "text"),
    [
        ("authority", "certificate verify failed"),
        ("host", "host name verification failed"),
        ("client", "unknown ca|does the broker accept the certificate of this gateway"),
        ("no file", "cannot read a file of --mqtt-ca, --mqtt-cert or --mqtt-key"),
        ("password", "Not authorized"),
    ],
)
def test_wrong_credentials(wrong, text, tls_broker, trusted, foreign, start_gateway, tmp_path):
    first = tls_broker.mark()
    gateway = start_gateway(
        *tls_options(
            {"authority": foreign, "no file": lambda name: f"/nonexistent/{name}"}.get(wrong, trusted),
            tmp_path,
            host="127.0.0.1" if wrong == "host" else "localhost",
            client={"client": foreign}.get(wrong, trusted),
            password="wrong" if wrong == "password" else "secret",
        )
    )
    assert re.search(text, gateway.wait_for_line("MQTT broker", timeout=10))
    shown = [each for each in gateway.page().state()["events"] if each["kind"] == "broker"]
    assert re.search(text, shown[0]["detail"])
    since = tls_broker.mark()
    if wrong != "no file":
        # The second attempt comes after a pause, and does not fill the log.
        begin = time.monotonic()
        tls_broker.wait_for_line("New connection", since, 10)
        assert time.monotonic() - begin > 0.5
    assert len([line for line in gateway.lines if "MQTT broker" in line]) == 1
    assert gateway.page().state()["line"]["state"] == "no-daemon"
    assert not any(re.search(f"as gripperd-{NODE} .p5", line) for line in tls_broker.log[first:])


# A network that drops packets, and options


@pytest.fixture
def silent_address():
    """Packets for this address vanish: they come back to a machine that is another one."""
    route = ["192.0.2.0/24", "dev", "lo"]
    subprocess.run(["ip", "route", "add", *route], check=True)
    yield "192.0.2.9"
    subprocess.run(["ip", "route", "del", *route], check=True)


def connections():
    return subprocess.run(
        ["ss", "-Htan", "dst", "192.0.2.9"], capture_output=True, text=True, check=True
    ).stdout


@pytest.mark.parametrize(
    "words",
    [
        ["--allow", "move"],
        ["--mqtt", "localhost", "--allow", "upgrade"],
        ["--mqtt", "localhost", "--allow", "rename"],
        ["--mqtt", "localhost", "--allow", "scan"],
        ["--mqtt", "localhost", "--mqtt-node", "a/b"],
        ["--mqtt", "localhost", "--mqtt-node", "#"],
        ["--mqtt", "localhost:x"],
        ["--mqtt", "localhost", "--mqtt-cert", "x"],
        ["--mqtt", "localhost", "--mqtt-password-file", "x"],
        ["--mqtt-ca", "x"],
        ["--mqtt", "broker.plant"],
    ],
)
def test_wrong_options(words):
    refused = subprocess.run(
        [binary("gripper-gateway"), "--config", "/dev/null", *words],
        capture_output=True, text=True, timeout=20,
    )
    assert refused.returncode == 2 and refused.stderr and refused.stdout == ""


def test_the_program_ends_while_it_looks_for_a_broker(silent_address, start_gateway):
    """The attempt of a thread does not delay the end."""
    gateway = start_gateway("--mqtt", silent_address, "--plain-mqtt", "--mqtt-node", NODE)
    # The attempt begins with the first look at the daemon.
    gateway.wait_for(lambda state: state["line"]["state"] == "no-daemon")
    eventually(lambda: "SYN-SENT" in connections())
    begin = time.monotonic()
    gateway.finish()
    assert time.monotonic() - begin < 3


@pytest.mark.skipif(effort(True, False), reason="takes 15 s: scripts/robustness")
def test_a_network_without_an_answer(silent_address, start_gateway):
    """The kernel would wait for two minutes."""
    gateway = start_gateway("--mqtt", silent_address, "--plain-mqtt", "--mqtt-node", NODE)
    gateway.wait_for_line("the broker does not answer", timeout=12)
    eventually(lambda: "SYN-SENT" not in connections())
    eventually(lambda: "SYN-SENT" in connections())
    assert gateway.page().get("/").status == 200
