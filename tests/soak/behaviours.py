"""The kinds of clients. Each function is one round of a client."""

import re
import socket
import threading
import time

from replies import FORMS, LONG_PATIENCE, NAMES, PATIENCE, StrictClient
from world import SLOWNESS, InvariantFailed

# The daemon answers a GET from memory, so the reply waits only for the running step of the loop.
PROBE_LIMIT = 0.25 * SLOWNESS
PROBE_MEDIAN_LIMIT = 0.005 * SLOWNESS
PROBE_P99_LIMIT = 0.050 * SLOWNESS

IDS = (9, 2, 3, 4)


def poller(world, rng, slave_id):
    """Requests random variables all the time."""
    with StrictClient(world, f"poller of {slave_id}") as client:
        client.set_expecting(f"SID {slave_id}", ("ack", "nak"))
        while world.pause(0.02):
            client.get_all(*rng.sample(NAMES, 16))


def commander(world, rng, slave_id):
    """Moves a gripper at a steady pace."""
    with StrictClient(world, f"commander of {slave_id}") as client:
        client.set_expecting(f"SID {slave_id}", ("ack", "nak"))
        while world.pause(0.1):
            kind = rng.randrange(6)
            if kind == 0:
                client.set_expecting(f"ACT {rng.randrange(2)}")
            elif kind == 1:
                client.set_expecting(f"LGN {rng.randrange(2)} MSC {rng.randrange(256)}")
            elif kind == 2:
                client.set_expecting(f"MOD {rng.randrange(3)}", ("ack", "nak"))
            else:
                client.set_expecting(f"POS {rng.randrange(256)} SPE {rng.randrange(256)} FOR 10 GTO 1")


def get_and_drop(world, rng):
    with StrictClient(world, "ask and drop") as client:
        client.get_all(*rng.sample(NAMES, rng.randrange(1, 5)))
    with StrictClient(world, "drop unread") as client:
        client.send("GET POS\nSET POS 1 SPE 7\nGET SNU\n"[: rng.randrange(35)])
    world.pause(0.05 * rng.random())


def resetter(world, rng):
    client = StrictClient(world, "resetter")
    client.send("GET POS\n" * rng.randrange(50))
    if rng.random() < 0.5:
        world.pause(0.01)
    client.reset()
    world.pause(0.1 * rng.random())


def half_closer(world, rng):
    with StrictClient(world, "half closer") as client:
        names = rng.choices(NAMES, k=rng.randrange(1, 40))
        client.send("".join(f"GET {name}\n" for name in names))
        client.half_close()
        lines = client.receive_to_end(PATIENCE).splitlines(keepends=True)
        forms = [FORMS[name] for name in names]
        if len(lines) != len(names) or not all(f.fullmatch(n) for f, n in zip(forms, lines)):
            raise InvariantFailed(f"half closer: {lines} to {names}")
        world.passes("replies", len(names))
    world.pause(0.1 * rng.random())


def garbage_sender(world, rng):
    """Sends bytes without zeros, which would drop the rest, or letters that resemble requests."""
    if rng.random() < 0.5:
        garbage = bytes(rng.randrange(1, 256) for _ in range(rng.randrange(2000)))
    else:
        garbage = "".join(rng.choices("GETSAID \r\n_-019", k=rng.randrange(2000))).encode()
    with StrictClient(world, "garbage sender") as client:
        client.send(garbage + b"\nGET VER\n")
        client.half_close()
        answers = client.receive_to_end(PATIENCE)
        if not answers.endswith(b"VER MZV-2.0.0\n"):
            raise InvariantFailed(f"garbage sender: {answers[-60:]!r} after {garbage[-200:]!r}")
        world.passes("replies")
    world.pause(0.2 * rng.random())


def never_reader(world, rng):
    """Sends until the daemon stops reading, then reads all replies."""
    request, value = b"GET VER\n", b"MZV-2.0.0"
    # A full receive buffer may end between a request and its line ending. Then the reply is the bare value.
    replies = re.compile(b"(?:VER %b\n|%b)*" % (value, value))
    with StrictClient(world, "never reader") as client:
        client.socket.setblocking(False)
        sent, blocked_since = 0, None
        while sent < 4_000_000 and world.pause(0):
            begin = sent % len(request)
            try:
                sent += client.socket.send((request * 4000)[begin:])
                blocked_since = None
            except BlockingIOError:
                blocked_since = blocked_since or time.monotonic()
                if time.monotonic() > blocked_since + 0.5:
                    break
                world.pause(0.02)
        world.pause(2 * rng.random())
        # The last request may be incomplete: send its rest when there is room.
        rest = request[sent % len(request) :] if sent % len(request) else b""
        expected, received, bare, unread = (sent + len(rest)) // len(request), 0, 0, b""
        deadline = time.monotonic() + LONG_PATIENCE
        while received < expected:
            try:
                data = client.socket.recv(1 << 20)
                unread += data
                end = replies.match(unread).end()
                if not data or len(unread) - end > len(request) + len(value):
                    raise InvariantFailed(f"never reader: {unread[end:][:60]!r} after {received} replies")
                received += unread.count(value, 0, end)
                bare += unread.count(value, 0, end) - unread.count(b"\n", 0, end)
                unread = unread[end:]
            except BlockingIOError:
                if time.monotonic() > deadline:
                    raise InvariantFailed(f"never reader: {received} of {expected} replies") from None
                time.sleep(0.005)
            if rest:
                try:
                    rest = rest[client.socket.send(rest) :]
                except BlockingIOError:
                    pass
        if bare > 1 + expected // 1000:
            raise InvariantFailed(f"never reader: {bare} of {expected} replies are bare values")
        world.passes("replies")
        world.count("replies read late", expected)
    world.pause(5 * rng.random())


def hostile_setter(world, rng):
    requests = [
        "AAA" + " 111" * rng.randrange(20, 2000),
        " ".join(f"XYZ {n % 1000}" for n in range(rng.randrange(10, 3000))),
        "POS 100" + "".join(f" POS {n % 256}" for n in range(rng.randrange(2000, 20000))),
        "POS -1 SPE 1000 FOR -99 LBP ---",
    ]
    with StrictClient(world, "hostile setter") as client:
        body = rng.choice(requests)
        client.send("SET " + body)
        world.pause(0.2 * rng.random())
        client.send("\nGET VER\n")
        reply = client.receive(len("ackVER MZV-2.0.0\n"))
        if reply != b"ackVER MZV-2.0.0\n":
            raise InvariantFailed(f"hostile setter: {reply!r} to SET {body[:60]}")
        world.passes("replies", 2)
    world.pause(rng.random())


def scanner(world, rng, slot):
    """Scans occasionally. Blocking scans of several scanners nest."""
    if not world.pause(4 + 12 * rng.random()):
        return
    with world.scan_slot(slot), StrictClient(world, "scanner") as client:
        if rng.random() < 0.3:
            client.set_expecting("SCN")
            world.count("scans")
        else:
            client.set_expecting("SCN_BLOCK", timeout=LONG_PATIENCE)
            world.count("blocking scans")


def tuner(world, rng):
    """Changes the throttle or mutes polling for a while, then restores the former state."""
    if not world.pause(1 + 4 * rng.random()):
        return
    with world.maintenance, StrictClient(world, "tuner") as client:
        if rng.random() < 0.7:
            client.set_expecting("THROTTLE 0")
            world.pause(5 * rng.random())
            client.set_expecting("THROTTLE 1")
        else:
            with world.suspend_judging("muted"):
                client.set_expecting("MUTE 1")
                world.pause(2 * rng.random())
                client.set_expecting("MUTE 0")


def start_all(world):
    """Starts one thread per client. Each repeats its function until the end of the run."""
    clients = [(f"poller {n}", poller, (n,)) for n in IDS]
    clients += [(f"commander {n}", commander, (n,)) for n in (9, 2)]
    single_clients = [get_and_drop, resetter, half_closer, garbage_sender, never_reader, hostile_setter]
    clients += [(f.__name__, f, ()) for f in (*single_clients, tuner)]
    clients += [(f"scanner {n}", scanner, (n,)) for n in range(2)]
    threads = []
    for name, behave, arguments in clients:
        target = (world, name, behave, arguments)
        threads.append(threading.Thread(target=_repeat, args=target, daemon=True))
        threads[-1].start()
    return threads


def _repeat(world, name, behave, arguments):
    rng = world.random(name)
    while not world.stopped.is_set():
        try:
            behave(world, rng, *arguments)
        except InvariantFailed as problem:
            world.fails("replies", str(problem))
            world.pause(1)
        except (OSError, AssertionError) as problem:
            if not world.stopped.is_set():
                world.fails("connections", f"{name}: {problem!r}")
                world.pause(1)


class Prober:
    """A well-behaved client that measures its reply times."""

    def __init__(self, world):
        self.world = world
        self.waits = []
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        try:
            with StrictClient(self.world, "prober") as client:
                while self.world.pause(0.02):
                    self._probe(client)
        except (InvariantFailed, OSError, socket.timeout) as problem:
            self.world.fails("latency", f"prober: {problem}")

    def _probe(self, client):
        # The search for a bootloader blocks the daemon, so this time is not judged.
        blocked = self.world.is_suspended("upgrade")
        began = time.monotonic()
        client.get_all("POS")
        waited = time.monotonic() - began
        if blocked or self.world.is_suspended("upgrade"):
            return
        if waited > PROBE_P99_LIMIT:
            # The watch reports a stall only after its end.
            time.sleep(0.1)
            if waited <= PROBE_P99_LIMIT + 5 * self.world.worst_stall(began):
                self.world.skip_for_stall("latency")
                return
        self.waits.append(waited)
        self.world.judge("latency", waited <= PROBE_LIMIT, f"a probe took {waited:.3f} s")
