"""Many clients whose requests wait for the line at the same moment, nested in each other."""

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
from harness.modbus import Request
from harness.moving import quiet_client
from harness.stalls import StallWatch
from harness.waiting import eventually

LIMIT = 32  # nested requests
ANSWER_LIMIT = 1.0 if SANITIZED else 0.25
STACK_KIB = 256


class Replies:
    """Collects the replies to many clients, and their order."""

    def __init__(self, clients):
        self.clients = dict(enumerate(clients))
        self.received = {number: b"" for number in self.clients}
        self.ended = set()
        self.order = []

    def take(self, seconds):
        """Receives everything within this time. The order within one select() is unknown."""
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
        """Receives until `wanted` (number: bytes) is complete. Returns the reply times of `prober`."""
        latencies, ends = [], time.monotonic() + timeout
        while missing := {n: self.received[n] for n in wanted if self.received[n] != wanted[n]}:
            assert time.monotonic() < ends, f"incomplete: {missing}"
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
    """Limits the stack to the size for the allowed number of nested requests."""
    if not SANITIZED:
        resource.setrlimit(resource.RLIMIT_STACK, (STACK_KIB * 1024, STACK_KIB * 1024))


def not_a_gripper(slave_id):
    """Returns a slave with wrong answers, which cost a scan less time than silence."""
    slave = Slave(slave_id)
    slave.script = lambda request: b"\xff" * 11
    return slave


def slow_slave(slave_id):
    """Returns a slave that is slow enough for requests to arrive during its probe."""
    slave = Slave(slave_id)
    slave.script = lambda r: [(0.02, slave.plain_answer(r))] if r.is_probe() else None
    return slave


class ShownGrippers:
    """All values of SID, except for some seconds after a stall of the machine.

    After a stall, answers are too late. The scan that misses a gripper takes a second, and so does
    the next scan, which finds it again.
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
            self.watch.reset_worst()
        if now - self.stalled_at < STALL_COUNTS_FOR:
            self.left_out += 1
        else:
            self.seen.add(ids)
        return ids


GRIPPERS = (9, 2, 3)
ALL = "[2, 3, 9]"
SENT_DURING_A_PROBE = 10
STALL_LIMIT = 0.03
STALL_COUNTS_FOR = 3.0


def test_scans_of_many_clients_are_all_carried_out(start_daemon, connect, figure):
    """The first scans begin while another scan waits for an answer, and wait for it too."""
    count = effort(20, 200)
    with Line(*(slow_slave(slave_id) for slave_id in GRIPPERS), not_a_gripper(4)) as line:
        daemon = start_daemon(before_exec=with_little_stack).wait_until_found(*GRIPPERS)
        clients = [connect() for _ in range(count)]
        disturber, prober = connect(), connect()
        line.wait_until_polled(3)
        line_mark, log_mark, started = line.mark(), daemon.mark(), time.monotonic()
        for number, client in enumerate(clients):
            mark = line.mark()
            client.send("SET SCN_BLOCK\nGET VER\n")
            disturber.send(f"SET THROTTLE {number % 2}\nSET MUTE {number % 2}\n")
            if number < SENT_DURING_A_PROBE:
                asked = GRIPPERS[number % 3]
                line.wait_for(lambda r, asked=asked: r.is_probe() and r.slave == asked, since=mark)
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
        probed = [r.slave for r in line.since(line_mark, Request.is_probe)]
        scans = sum("Connected serial port" in text for text in daemon.messages(log_mark))
        for slave_id in GRIPPERS:
            line.wait_until_polled(slave_id, 2)
        assert shown.look() == ALL
        figure(
            f"{count} scans requested, {scans} carried out within {seconds:.1f} s, "
            f"{[probed.count(slave_id) for slave_id in GRIPPERS]} probes of {list(GRIPPERS)}; "
            f"SID always {' or '.join(sorted(shown.seen))} ({shown.left_out} values left out "
            f"after stalls of the machine); GET VER meanwhile "
            f"{in_milliseconds(latencies)}; stack {stack_kib(daemon)} KiB"
        )
        assert shown.seen == {ALL}
        assert scans >= count
        assert percentile(latencies, 0.95) < ANSWER_LIMIT


def restart_slowly(request):
    answer = modbus.write_answer(9, request.address, request.count)
    return [(0.035, answer)] if request.is_write(400) else None


class Queue:
    """Clients that send a request which waits for the line, one after another.

    Scans nest up to the limit. A jump waits for the gripper for 35 ms, and no other request that uses
    the line begins meanwhile.
    """

    def __init__(self, line, daemon, connect):
        line[9].script = restart_slowly
        line.bootloader_answer = b"\x79"
        self.daemon = daemon
        self.connect = connect
        self.prober = quiet_client(line, connect)
        self.clients = []
        self.mark = daemon.mark()

    def replies(self):
        return {number: b"ackVER MZV-2.0.0\n" for number in range(len(self.clients))}

    def send_all(self, pair, count):
        """Sends all requests, each after the daemon has read the former one.

        The unknown name at both ends makes the log show the start and the end of each request.
        """
        self.clients = [self.connect() for _ in range(count)]
        for client in self.clients:
            assert client.get("VER") == "MZV-2.0.0"
        for number in range(count):
            self.send(number, f"SET XNB {number} {pair} XNB {number}\nGET VER\n")

    def send(self, number, data):
        self.clients[number].send(data)
        # A running turn of the event loop may not have read the data yet, so wait for two turns.
        for _ in range(2):
            assert self.prober.get("VER") == "MZV-2.0.0"

    def logged(self, name="XNB"):
        """Returns the number of a request for each start and each end in the log."""
        texts = [re.search(name + r" (\d+)", text) for text in self.daemon.messages(self.mark)]
        return [int(found.group(1)) for found in texts if found]

    def begun(self):
        return list(dict.fromkeys(self.logged()))

    def ended(self):
        logged = self.logged()
        return [n for i, n in enumerate(logged) if n in logged[:i]]

    def most_at_once(self):
        under_way, most = set(), 0
        for number in self.logged():
            under_way ^= {number}
            most = max(most, len(under_way))
        return most


@pytest.fixture
def line():
    # With three grippers, the link stays open even if the scan misses one or two of them.
    with Line(Slave(9), Slave(2), Slave(3)) as plugged:
        yield plugged


@pytest.fixture
def queue(line, start_daemon, connect):
    return Queue(line, start_daemon().wait_until_found(*GRIPPERS), connect)


def test_jumps_of_many_clients_run_one_after_another(queue, figure):
    count = effort(40, 200)
    queue.send_all("BLD 1", count)
    latencies = Replies(queue.clients).take_all(queue.replies(), queue.prober, 30 + count)
    eventually(lambda: len(queue.logged()) == 2 * count)
    assert queue.begun() == queue.ended() == list(range(count))
    assert queue.most_at_once() == 1
    assert percentile(latencies, 0.95) < ANSWER_LIMIT
    figure(f"{count} jumps; GET VER meanwhile {in_milliseconds(latencies)}")


def test_quitting_is_immediate_while_hundreds_wait(queue, figure):
    queue.send_all("SCN_BLOCK", effort(200, 800))
    # Some of the clients that wait for their turn vanish.
    queue.clients[LIMIT].close()
    queue.clients[LIMIT + 1].reset()
    queue.clients[LIMIT + 2].half_close()
    assert queue.prober.get("VER") == "MZV-2.0.0"
    status, seconds = queue.daemon.stop()
    assert status == 0
    assert seconds < QUIT_LIMIT
    assert queue.begun() == list(range(LIMIT))
    figure(f"{len(queue.clients)} requests, {LIMIT} of them begun: quit within {seconds * 1000:.0f} ms")
