"""The broker, the gateway or the daemon goes away, and comes back; certificates; the network."""

import re
import signal
import socket
import subprocess
import time

import pytest
from gatewayrig import insecure_tls, writes
from harness.children import binary
from harness.effort import effort
from harness.waiting import eventually
from mqttfixtures import (
    ALLOW, KEEP_ALIVE_SECONDS, OPTIONS, add, broker, connect_peer, daemon, line, pin, position_is,
    scripted, taken,
)
from mqttrig import (
    NODE, TLS_PORT, Broker, accepted, acknowledge_messages, certificates, command, message,
)


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
