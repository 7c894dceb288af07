"""Brokers that misbehave."""

import contextlib
import json
import signal
import socket
import struct
import subprocess
import threading
import time

import pytest
from gatewayrig import Gateway, writes
from harness.effort import effort
from harness.waiting import eventually
from mqttfixtures import (
    ALLOW, GROWTH_KIB, KEEP_ALIVE_SECONDS, OPTIONS, add, broker, connect_peer, daemon, line, pin,
    position_is, scripted, small_send_buffers, taken,
)
from mqttrig import (
    NODE, Broker, accepted, acknowledge_messages, command, message, only_mqtt_3, without_answer,
)


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
