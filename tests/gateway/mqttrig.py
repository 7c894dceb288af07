"""An MQTT broker as a child process, and a client of it that checks the forms of all messages."""

import contextlib
import itertools
import json
import pathlib
import queue
import shutil
import socket
import struct
import subprocess
import threading
import time

import jsonschema
import paho.mqtt.client as mqtt
from harness.children import spawn
from harness.waiting import eventually
from paho.mqtt.subscribeoptions import SubscribeOptions

PORT = 1883
TLS_PORT = 8883
NODE = "robot7"
SCHEMA = json.loads(
    (pathlib.Path(__file__).parents[2] / "gateway/mqtt/messages.schema.json").read_text("utf-8")
)
_numbers = itertools.count(1)


def validate(topic, value):
    """Checks a message against the definition that the last word of its topic names."""
    name = topic.split("/")[-1]
    root = {"$ref": f"#/definitions/{name}", "definitions": SCHEMA["definitions"]}
    jsonschema.Draft7Validator(root, format_checker=jsonschema.FormatChecker()).validate(value)


def now_ms():
    return int(time.time() * 1000)


def command(do, seconds=4.9, **members):
    """Returns a command with a new id."""
    return {"id": f"c{next(_numbers)}", "expires": now_ms() + int(seconds * 1000), "do": do, **members}


class Broker:
    """mosquitto. `lines` are those of its configuration after the listener."""

    def __init__(self, folder, *lines, port=PORT):
        self.folder = pathlib.Path(folder)
        self.port = port
        self.log = []
        self.process = None
        config = self.folder / f"mosquitto-{port}.conf"
        # As root, mosquitto becomes another user, which cannot read the folder of a test.
        text = [f"listener {port} 127.0.0.1", "user root", "log_dest stderr", "log_type all", *lines]
        if not any(line.startswith("allow_anonymous") for line in lines):
            text.append("allow_anonymous true")
        config.write_text("\n".join(text) + "\n", "utf-8")
        self.config = config

    def start(self):
        program = shutil.which("mosquitto", path="/usr/sbin:/usr/bin:/usr/local/sbin")
        assert program, "no mosquitto here: scripts/install-dependencies test"
        self.process = spawn(
            [program, "-c", str(self.config)],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
        )
        self._reader = threading.Thread(target=self._read, args=(self.process.stderr,), daemon=True)
        self._reader.start()

        def listening():
            assert self.process.poll() is None, self.log
            with contextlib.suppress(ConnectionRefusedError):
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return True
            return False

        eventually(listening, 10, "the broker's port")
        return self

    def _read(self, stream):
        for line in stream:
            self.log.append(line.rstrip("\n"))

    def mark(self):
        return len(self.log)

    def wait_for_line(self, text, since=0, timeout=5.0):
        return eventually(
            lambda: next((line for line in self.log[since:] if text in line), None),
            timeout, lambda: f"no line with {text!r} in {self.log[since:]}",
        )

    def stop(self):
        if self.process and self.process.returncode is None:
            self.process.kill()
            self.process.wait()
            self._reader.join(5)
            self.process.stderr.close()

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()


class Message:
    def __init__(self, message):
        self.at = time.monotonic()
        self.topic = message.topic
        self.is_retained = bool(message.retain)
        self.quality = message.qos
        self.value = json.loads(message.payload) if message.payload else None
        if self.value is not None:
            validate(self.topic, self.value)

    def __repr__(self):
        return f"{self.topic}{' (retained)' if self.is_retained else ''} {self.value}"


class Peer:
    """A client that subscribes to everything but commands, and publishes commands."""

    def __init__(self, port=PORT, node=NODE, prepare=lambda _: None):
        self.prefix = f"gripperd/{node}/"
        self.messages = []
        self.retained = {}
        self.problem = None
        self._changed = threading.Condition()
        self.client = mqtt.Client(f"peer-{next(_numbers)}", protocol=mqtt.MQTTv5)
        prepare(self.client)
        self.client.on_message = self._take
        connected = queue.Queue()
        self.client.on_connect = lambda *_: self._subscribe()
        self.client.on_subscribe = lambda *_: connected.put(True)
        self.client.connect("127.0.0.1", port, 30)
        self.client.loop_start()
        connected.get(timeout=10)

    def _subscribe(self):
        words = ["status", "link", "grippers", "gripper/+/info", "gripper/+/state"]
        words += ["gripper/+/event", "gripper/+/result"]
        options = SubscribeOptions(qos=1, retainAsPublished=True)
        self.client.subscribe([(self.prefix + word, options) for word in words])

    def _take(self, _client, _data, message):
        try:
            taken = Message(message)
        except Exception as problem:  # the thread of paho would hide it
            self.problem = problem
            return
        with self._changed:
            self.messages.append(taken)
            if taken.is_retained:
                self.retained[taken.topic[len(self.prefix):]] = taken.value
                if taken.value is None:
                    del self.retained[taken.topic[len(self.prefix):]]
            self._changed.notify_all()

    def mark(self):
        with self._changed:
            return len(self.messages)

    def wait_for(self, word, wanted=lambda _: True, since=0, timeout=5.0):
        """Returns the first message of a topic whose value `wanted` accepts."""
        deadline = time.monotonic() + timeout
        with self._changed:
            while True:
                assert self.problem is None, self.problem
                for message in self.messages[since:]:
                    is_wanted = message.topic == self.prefix + word and message.value is not None
                    if is_wanted and wanted(message.value):
                        return message
                left = deadline - time.monotonic()
                assert left > 0, f"no {word} like this in {self.messages[since:][-12:]}"
                self._changed.wait(left)

    def all(self, word, since=0):
        with self._changed:
            assert self.problem is None, self.problem
            return [each for each in self.messages[since:] if each.topic == self.prefix + word]

    def publish(self, gripper, payload, retain=False, quality=1):
        """Publishes a command. Returns when the broker has it."""
        if not isinstance(payload, (bytes, bytearray)):
            payload = json.dumps(payload).encode()
        info = self.client.publish(f"{self.prefix}gripper/{gripper}/command", payload, quality, retain)
        info.wait_for_publish(5)
        assert info.is_published()

    def result(self, gripper, payload, since=0, timeout=10.0, **options):
        """Publishes a command and returns its result."""
        self.publish(gripper, payload, **options)
        return self.wait_for(
            f"gripper/{gripper}/result", lambda each: each["id"] == payload["id"], since, timeout
        ).value

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()
        assert self.problem is None, self.problem


def without_answer(port=PORT):
    """A listener that accepts connections and says nothing."""
    return socket.create_server(("127.0.0.1", port))


# CONNACK packets
ACCEPTED_BY_MQTT_3 = b"\x20\x02\x00\x00"
REFUSED_BY_MQTT_3 = b"\x20\x02\x00\x01"


def accepted(properties=b""):
    return bytes([0x20, 3 + len(properties), 0, 0, len(properties)]) + properties


def only_mqtt_3(peer, level):
    """It refuses other versions."""
    if level == 4:
        peer.sendall(ACCEPTED_BY_MQTT_3)
    else:
        peer.sendall(REFUSED_BY_MQTT_3)
        peer.shutdown(socket.SHUT_RDWR)


def message(topic, payload):
    """Returns a PUBLISH packet, QoS 0, for MQTT 5."""
    content = struct.pack(">H", len(topic)) + topic.encode() + b"\0" + payload
    assert len(content) < 16384
    return bytes([0x30, len(content) & 0x7F | 0x80, len(content) >> 7]) + content


def acknowledge_messages(peer, but="nothing"):
    """Yields the topic and the value of each message with QoS 1, after its acknowledgement. For MQTT 5.

    It does not acknowledge topics that end with `but`."""
    with peer.makefile("rb") as stream:
        while first := stream.read(1):
            length = shift = 0
            more = True
            while more:
                byte = stream.read(1)[0]
                length |= (byte & 0x7F) << shift
                shift, more = shift + 7, byte & 0x80
            content = stream.read(length)
            if first[0] & 0xF6 != 0x32:
                continue
            end = 2 + struct.unpack_from(">H", content)[0]
            topic = content[2:end].decode()
            if not topic.endswith(but):
                peer.sendall(b"\x40\x02" + content[end:end + 2])
            # After the number, there is the length of the properties, which is 0.
            yield topic, json.loads(content[end + 3:])


class Connect:
    """The first packet of a client."""

    def __init__(self, packet):
        # A fixed header, the remaining length in one or two bytes, "MQTT" with its length, and these.
        name = packet.index(b"MQTT")
        self.level, self.flags = packet[name + 4 : name + 6]
        self.keep_alive_seconds = int.from_bytes(packet[name + 6 : name + 8], "big")
        self.packet = packet


class ScriptedBroker:
    """It serves one connection after another: it calls `answer(peer, level)` after the first packet, and
    then reads everything.

    `connects` are the first packets of the attempts, `levels` their protocol levels."""

    def __init__(self, answer):
        self.connects = []
        self.bytes = b""
        self.answer = answer
        self.listener = without_answer()
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    @property
    def levels(self):
        return [connect.level for connect in self.connects]

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                peer, _ = self.listener.accept()
                with peer, contextlib.suppress(BrokenPipeError, ConnectionResetError):
                    self.connects.append(Connect(peer.recv(1000)))
                    self.answer(peer, self.levels[-1])
                    while data := peer.recv(4096):
                        self.bytes += data

    def close(self):
        # This also ends accept().
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


def certificates(folder, name="ca"):
    """Makes an authority, and by it a certificate for a server (localhost) and for a gateway.
    Returns a function from the name of a file to its path."""
    folder = pathlib.Path(folder) / name
    folder.mkdir()

    def path(file):
        return str(folder / file)

    def openssl(*words):
        subprocess.run(["openssl", *words], check=True, capture_output=True)

    curve = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout"]
    openssl("req", "-x509", *curve, path("ca.key"), "-out", path("ca.pem"), "-days", "2",
            "-subj", f"/CN=authority {name}")
    for subject in ("server", "gateway"):
        extensions = folder / f"{subject}.ext"
        host = "localhost" if subject == "server" else "robot7.plant"
        extensions.write_text(f"subjectAltName=DNS:{host}\n", "utf-8")
        openssl("req", "-new", *curve, path(f"{subject}.key"), "-out", path(f"{subject}.csr"),
                "-subj", f"/CN={host}")
        openssl("x509", "-req", "-in", path(f"{subject}.csr"), "-CA", path("ca.pem"),
                "-CAkey", path("ca.key"), "-CAcreateserial", "-days", "2",
                "-extfile", str(extensions), "-out", path(f"{subject}.pem"))
    return path


