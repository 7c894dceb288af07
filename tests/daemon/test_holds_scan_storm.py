"""Requests of many clients that wait for the line at the same moment, inside each other."""

import re
import resource
import select
import time

import pytest
from harness import modbus
from harness.daemon import QUIT_LIMIT, SANITIZED
from harness.effort import effort
from harness.figures import percentile
from harness.line import Line, Slave
from harness.moving import quiet_client
from harness.stalls import StallWatch
from harness.waiting import eventually

LIMIT = 32  # requests that wait inside each other
ANSWER_LIMIT = 1.0 if SANITIZED else 0.25
STACK_KIB = 256


class Replies:
    """Collects what arrives for many clients, and in which order they are complete."""

    def __init__(self, clients):
        self.clients = dict(enumerate(clients))
        self.received = {number: b"" for number in self.clients}
        self.ended = set()
        self.order = []

    def take(self, seconds):
        """Whatever comes within this time; in the order of its coming as far as one can see."""
        sockets = {
            client.socket: number
            for number, client in self.clients.items()
            if number not in self.ended
        }
        for socket in select.select(list(sockets), [], [], seconds)[0]:
            number = sockets[socket]
            part = socket.recv(4096)
            if not part:
                self.ended.add(number)
                continue
            if part.startswith((b"ack", b"nak")) and not self.received[number]:
                self.order.append(number)
            self.received[number] += part

    def take_all(self, wanted, prober, timeout, meanwhile=lambda: None):
        """Until all of `wanted` (number: bytes) is there. How long `prober` waited for its answers."""
        latencies, ends = [], time.monotonic() + timeout
        while missing := {n: self.received[n] for n in wanted if self.received[n] != wanted[n]}:
            assert time.monotonic() < ends, f"not all has come: {missing}"
            asked_at = time.monotonic()
            assert prober.get("VER") == "MZV-2.0.0"
            latencies.append(time.monotonic() - asked_at)
            meanwhile()
            self.take(0.01)
        return latencies


def in_milliseconds(latencies):
    return (
        f"{percentile(latencies, 0.5) * 1000:.1f} ms (median), "
        f"{percentile(latencies, 0.99) * 1000:.1f} ms (99 %), {max(latencies) * 1000:.1f} ms (worst)"
    )


def stack_kib(daemon):
    with open(f"/proc/{daemon.pid}/status", encoding="ascii") as status:
        return int(re.search(r"VmStk:\s+(\d+) kB", status.read()).group(1))


def with_little_stack():
    """Room for the requests that may wait inside each other, and not for all."""
    if not SANITIZED:
        resource.setrlimit(resource.RLIMIT_STACK, (STACK_KIB * 1024, STACK_KIB * 1024))


def spoilt(slave_id):
    """No gripper, and costs a scan less time than silence."""
    slave = Slave(slave_id)
    slave.script = lambda request: b"\xff" * 11
    return slave


def unhurried(slave_id):
    """Leaves time for a request to come while the daemon waits for the first answer of a probe."""
    slave = Slave(slave_id)
    slave.script = lambda r: [(0.02, slave.plain_answer(r))] if is_probe(r) else None
    return slave


def is_probe(request):
    return request.is_read(500)


class ShownGrippers:
    """What SID shows all the time, but for the seconds after the machine has stood still.

    Answers come too late in such a time, and the scan that misses them takes a second, as does the
    one that finds the gripper again.
    """

    def __init__(self, client):
        self.client = client
        self.seen = set()
        self.left_out = 0
        self.watch = StallWatch()
        self.stalled_at = -STALL_COUNTS_FOR

    def look(self):
        now, ids = time.monotonic(), self.client.get("SID")
        if self.watch.worst() > STALL_LIMIT:
            self.stalled_at = now
            self.watch.start_over()
        if now - self.stalled_at < STALL_COUNTS_FOR:
            self.left_out += 1
        else:
            self.seen.add(ids)
        return ids


GRIPPERS = (9, 2, 3)
ALL = "[2, 3, 9]"
INTO_A_PROBE = 10
STALL_LIMIT = 0.03
STALL_COUNTS_FOR = 3.0


def test_scans_of_many_clients_at_the_same_moment(start_daemon, connect, figure):
    """The first ones come while another one waits for an answer, which they wait for too."""
    count = effort(20, 200)
    with Line(*(unhurried(slave_id) for slave_id in GRIPPERS), spoilt(4)) as line:
        daemon = start_daemon(before_exec=with_little_stack).wait_until_found(*GRIPPERS)
        clients = [connect() for _ in range(count)]
        disturber, prober = connect(), connect()
        line.wait_until_polled(3)
        line_mark, log_mark, started = line.mark(), daemon.mark(), time.monotonic()
        for number, client in enumerate(clients):
            mark = line.mark()
            client.send("SET SCN_BLOCK\nGET VER\n")
            disturber.send(f"SET THROTTLE {number % 2}\nSET MUTE {number % 2}\n")
            if number < INTO_A_PROBE:
                asked = GRIPPERS[number % 3]
                line.wait_for(lambda r, asked=asked: is_probe(r) and r.slave == asked, since=mark)
        disturber.send("SET MUTE 0\n")
        shown = ShownGrippers(prober)
        latencies = Replies(clients).take_all(
            {number: b"ackVER MZV-2.0.0\n" for number in range(count)},
            prober,
            30 + 2 * count,
            shown.look,
        )
        seconds = time.monotonic() - started
        shown.look()
        assert disturber.receive((2 * count + 1) * 3) == b"ack" * (2 * count + 1)
        probed = [r.slave for r in line.since(line_mark, is_probe)]
        scans = sum("Connected serial port" in text for text in daemon.messages(log_mark))
        for slave_id in GRIPPERS:
            line.wait_until_polled(slave_id, 2)
        assert shown.look() == ALL
        figure(
            f"{count} scans asked for, {scans} carried out within {seconds:.1f} s, "
            f"{[probed.count(slave_id) for slave_id in GRIPPERS]} probes of {list(GRIPPERS)}; "
            f"SID all the time {' or '.join(sorted(shown.seen))} ({shown.left_out} looks left out "
            f"when the machine stood still); GET VER meanwhile "
            f"{in_milliseconds(latencies)}; stack {stack_kib(daemon)} KiB"
        )
        assert shown.seen == {ALL}
        assert scans >= count
        assert percentile(latencies, 0.95) < ANSWER_LIMIT


def restart_slowly(request):
    answer = modbus.write_answer(9, request.address, request.count)
    return [(0.035, answer)] if request.is_write(400) else None


class Queue:
    """Clients whose requests wait inside each other, and wait for their turn past the limit.

    Each waits for the line, and 35 ms for the gripper, which is found in its bootloader at once.
    The innermost that is carried out is a scan, which takes most of a second: so long the others
    wait for sure. The first jump after it closes the link; the others need no reset then.
    """

    def __init__(self, line, daemon, connect):
        line[9].script = restart_slowly
        line.bootloader_answer = b"\x79"
        self.daemon = daemon
        self.connect = connect
        self.prober = quiet_client(line, connect)
        self.clients = []
        self.mark = daemon.mark()

    @staticmethod
    def request(number):
        """At both its ends the log tells of a name that nobody knows."""
        waits = "SCN_BLOCK" if number == LIMIT - 1 else "BLD 1"
        return f"SET XNB {number} {waits} XNB {number}\nGET VER\n"

    def replies(self):
        return {number: b"ackVER MZV-2.0.0\n" for number in range(len(self.clients))}

    def ask(self, count):
        """One after the other, each when the one before it has been heard."""
        self.clients = [self.connect() for _ in range(count)]
        for client in self.clients:
            assert client.get("VER") == "MZV-2.0.0"
        for number in range(count):
            self.send(number, self.request(number))

    def send(self, number, data):
        self.clients[number].send(data)
        # A turn of the event loop that has begun before may not have seen the data yet.
        for _ in range(2):
            assert self.prober.get("VER") == "MZV-2.0.0"

    def told(self, name="XNB"):
        """The numbers of the requests with this name, as each begins and ends."""
        texts = [re.search(name + r" (\d+)", text) for text in self.daemon.messages(self.mark)]
        return [int(found.group(1)) for found in texts if found]

    def begun(self):
        return list(dict.fromkeys(self.told()))

    def ended(self):
        told = self.told()
        return [n for i, n in enumerate(told) if n in told[:i]]

    def most_at_once(self):
        under_way, most = set(), 0
        for number in self.told():
            under_way ^= {number}
            most = max(most, len(under_way))
        return most

    def numbers_that_wait(self):
        return range(LIMIT, len(self.clients))


@pytest.fixture
def line():
    # The link stays open though the scan should miss one or two of them.
    with Line(Slave(9), Slave(2), Slave(3)) as plugged:
        yield plugged


@pytest.fixture
def queue(line, start_daemon, connect):
    return Queue(line, start_daemon().wait_until_found(*GRIPPERS), connect)


def test_past_the_limit_they_wait_for_their_turn(queue, figure):
    count = effort(40, 200)
    queue.ask(count)
    replies = Replies(queue.clients)
    latencies = replies.take_all(queue.replies(), queue.prober, 30 + count)
    eventually(lambda: len(queue.told()) == 2 * count)
    assert queue.begun() == list(range(count))
    assert [n for n in queue.ended() if n >= LIMIT] == list(queue.numbers_that_wait())
    assert [n for n in replies.order if n >= LIMIT] == list(queue.numbers_that_wait())
    assert queue.most_at_once() == LIMIT
    assert percentile(latencies, 0.95) < ANSWER_LIMIT
    figure(
        f"{count} requests, {queue.most_at_once()} at most inside each other, begun in the order of "
        f"their coming; GET VER meanwhile {in_milliseconds(latencies)}"
    )


def test_what_a_waiting_client_sends_later_is_not_begun_before_it(queue):
    queue.ask(LIMIT + 4)
    waiting = queue.numbers_that_wait()
    for number in waiting:
        queue.send(number, f"SET XLT {number}\n")
    # Who is under way, and not waiting for a turn, is answered at once.
    queue.send(0, "SET XLT 0\n")
    assert queue.clients[0].receive(14 + 3, ANSWER_LIMIT) == b"VER MZV-2.0.0\nack"
    assert queue.told("XLT") == [0]
    assert queue.begun() == list(range(LIMIT)), "too late: they do not wait any more"
    replies = Replies(queue.clients)
    # The first one waits for the gripper, and what comes after it is answered in its wait.
    in_the_wait = {LIMIT: b"VER MZV-2.0.0\nackack"}
    after_it = {number: b"ackVER MZV-2.0.0\nack" for number in waiting}
    replies.take_all({**after_it, **in_the_wait}, queue.prober, 30)
    names = [
        re.search(r"(XNB|XLT) (\d+)", text).groups()
        for text in queue.daemon.messages(queue.mark)
        if "UNHANDLED" in text
    ]
    for number in waiting:
        assert names.index(("XNB", str(number))) < names.index(("XLT", str(number)))


def test_clients_that_vanish_while_they_wait_do_no_harm(queue, line):
    before = len(queue.daemon.descriptors())
    count = LIMIT + 8
    queue.ask(count)
    queue.clients[LIMIT + 2].half_close()
    vanished = (LIMIT, LIMIT + 3, LIMIT + 4, count - 1)
    for number in vanished[::2]:
        queue.clients[number].close()
    for number in vanished[1::2]:
        queue.clients[number].reset()
    assert queue.begun() == list(range(LIMIT)), "too late: they do not wait any more"
    replies = Replies(queue.clients)
    replies.ended.update(vanished)
    wanted = {n: reply for n, reply in queue.replies().items() if n not in vanished}
    replies.take_all(wanted, queue.prober, 30)
    # Theirs are carried out like the others.
    eventually(lambda: len(queue.told()) == 2 * count)
    assert queue.begun() == list(range(count))
    for client in queue.clients:
        client.close()
    assert queue.prober.set("MUTE 0") == "ack"
    line.wait_until_polled(9, 2)
    eventually(lambda: len(queue.daemon.descriptors()) == before)


def test_quitting_is_immediate_while_hundreds_wait(queue, figure):
    queue.ask(effort(200, 800))
    status, seconds = queue.daemon.stop()
    begun = len(queue.begun())
    assert status == 0
    assert seconds < QUIT_LIMIT
    assert begun < len(queue.clients), "none waited any more"
    figure(f"{len(queue.clients)} requests, {begun} of them begun: quit within {seconds * 1000:.0f} ms")
