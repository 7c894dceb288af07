"""A thousand clients that send without reading, and read everything at the end."""

import itertools
import random
import selectors
import socket
import time

import pytest
from harness.client import PORT
from harness.daemon import SANITIZED, SMALL_QUARANTINE
from harness.effort import effort
from harness.load import Bystander, Memory
from harness.simulator import Simulator
from harness.waiting import eventually

FLOODS = True

CLIENTS = 1000
# Each output belongs to one client, so its value shows the last processed request.
OUTPUTS = list(itertools.product((9, 2, 3, 4), ("POS", "SPE", "FOR")))
# At least the clients with an output send far more requests than the daemon keeps replies for.
HEAVY = effort(len(OUTPUTS), CLIENTS)
HEAVY_PARTS, LIGHT_PARTS = effort(1000, 400), 2

# Requests without line endings: a reply depends on whether the ending is in the same read. Every
# client and every part of its burst begins at another of these names.
VALUES = {"VER": "MZV-2.0.0", "UPG": "0", "PCO": "0", "ABC": "?"}
NAMES = random.Random(1).choices(list(VALUES), weights=(6, 3, 1, 1), k=20_000) * 2
REQUESTS = [f"GET {name}".encode() for name in NAMES]
REPLIES = [VALUES[name].encode() for name in NAMES]
GETS_PER_PART = 500

# The kept replies, the replies to one more read, and spare room of the buffer.
KEPT_KIB = 256 + 128 + 128
# Memory for each client, with its last bytes.
CLIENT_KIB = 48 if SANITIZED else 20


class Silent:
    def __init__(self, number):
        self.number = number
        self.parts = HEAVY_PARTS if number < HEAVY else LIGHT_PARTS
        self.requests = (self._request(part) for part in range(self.parts))
        self.replies = (self._reply(part) for part in range(self.parts))
        self.unsent, self.expected = b"", b""
        self.finished = False
        # With small segments and buffers, the daemon has to keep what the kernel cannot.
        self.socket = socket.socket()
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, 1400)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 65536)
        self.socket.settimeout(10)
        self.socket.connect(("127.0.0.1", PORT))
        if number < len(OUTPUTS):
            self.socket.sendall(b"SET SID %d\n" % OUTPUTS[number][0])
            assert self.socket.recv(3) == b"ack"
        self.socket.setblocking(False)

    def _first(self, part):
        return (self.number * 7 + part * GETS_PER_PART) % (len(NAMES) // 2)

    def _request(self, part):
        first = self._first(part)
        command = b"SET MOD 2\n"
        if self.number < len(OUTPUTS):
            command = b"SET %s %d\n" % (OUTPUTS[self.number][1].encode(), self.value(part))
        return b"".join(REQUESTS[first : first + GETS_PER_PART]) + command

    def _reply(self, part):
        first = self._first(part)
        replies = b"".join(REPLIES[first : first + GETS_PER_PART])
        return replies + (b"ack" if self.number < len(OUTPUTS) else b"nak")

    def value(self, part):
        """Returns a new value for each SET. The last value differs for each client."""
        return (part + self.number + 10) % 256

    def send(self):
        """Returns whether any bytes could be sent."""
        moved = False
        while True:
            self.unsent = self.unsent or next(self.requests, b"")
            if not self.unsent:
                return moved
            try:
                sent = self.socket.send(self.unsent)
            except BlockingIOError:
                return moved
            self.unsent, moved = self.unsent[sent:], True

    def all_sent(self):
        self.unsent = self.unsent or next(self.requests, b"")
        return not self.unsent

    def read(self):
        """Compares the received bytes with the expected ones."""
        try:
            data = self.socket.recv(65536)
        except BlockingIOError:
            return
        assert data, f"client {self.number}: the connection ended"
        while data:
            self.expected = self.expected or next(self.replies, b"")
            assert self.expected, f"client {self.number}: {data!r} after the last reply"
            size = min(len(data), len(self.expected))
            assert data[:size] == self.expected[:size], f"client {self.number}: {data[:80]!r}"
            data, self.expected = data[size:], self.expected[size:]
        self.expected = self.expected or next(self.replies, b"")
        self.finished = not self.expected


def send_until_stuck(clients, daemon):
    """Sends until no client can send more and the daemon is idle."""
    idle_since = time.monotonic()
    while time.monotonic() < idle_since + 0.3:
        before = daemon.cpu_seconds()
        if any([client.send() for client in clients]) or daemon.cpu_seconds() > before + 0.02:
            idle_since = time.monotonic()
        else:
            time.sleep(0.05)


def read_everything(clients):
    with selectors.DefaultSelector() as selector:
        for client in clients:
            selector.register(client.socket, selectors.EVENT_READ | selectors.EVENT_WRITE, client)
        while selector.get_map():
            ready = selector.select(timeout=10)
            assert ready, f"{len(selector.get_map())} clients received nothing for 10 s"
            for key, events in ready:
                client = key.data
                if events & selectors.EVENT_WRITE:
                    client.send()
                    if client.all_sent():
                        selector.modify(client.socket, selectors.EVENT_READ, client)
                if events & selectors.EVENT_READ:
                    client.read()
                if client.finished:
                    selector.unregister(client.socket)


def outputs(simulator):
    def value(slave_id, name):
        _, position, speed_and_force = simulator.registers(slave_id, 1000, 3)
        return {"POS": position, "SPE": speed_and_force >> 8, "FOR": speed_and_force & 0xFF}[name]

    return [value(*output) for output in OUTPUTS]


@pytest.fixture
def clients():
    """A list for the test's clients; the fixture closes them."""
    connected = []
    yield connected
    for client in connected:
        client.socket.close()


def test_unread_replies_wait_and_all_arrive(start_daemon, clients, figure):
    # The simulator is another process, so its grippers answer in time.
    with Simulator("9=TA3-1.6.14", "2=TB1-1.4.3", "3=TA3-1.6.14", "4=TB1-1.4.3") as line:
        daemon = start_daemon(environment=SMALL_QUARANTINE).wait_until_found(2, 3, 4, 9)
        for number in range(CLIENTS):
            clients.append(Silent(number))
        owners = clients[: len(OUTPUTS)]
        memory = Memory(daemon)
        with Bystander(daemon) as bystander:
            send_until_stuck(clients, daemon)
            growth = memory.growth_kib()
            stuck = sum(not client.all_sent() for client in clients)
            last = [client.value(HEAVY_PARTS - 1) for client in owners]
            assert outputs(line) != last
            read_everything(clients)
        eventually(lambda: outputs(line) == last, what=lambda: (outputs(line), last))
        for client in clients:
            with pytest.raises(BlockingIOError):
                client.socket.recv(1)
    replies = HEAVY * HEAVY_PARTS * GETS_PER_PART * sum(map(len, REPLIES)) // len(REPLIES) // 1024
    figure(
        f"{growth} KiB more resident memory at most, "
        f"{HEAVY} of {CLIENTS} with {replies} KiB of replies"
    )
    figure(f"{stuck} clients could not send everything before reading")
    figure(bystander.check())
    # The kernel enlarges some buffers, so a few clients can send everything.
    assert stuck > 0.8 * HEAVY
    assert growth < HEAVY * KEPT_KIB + CLIENTS * CLIENT_KIB
