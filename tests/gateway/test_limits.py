"""Hostile peers: the gateway keeps its limits and serves its viewers."""

import contextlib
import random
import socket
import statistics
import threading
import time

from gatewayrig import HOST, ORIGIN, PORT
from harness.client import Client
from harness.daemon import RELEASE, SANITIZED
from harness.effort import LARGE, effort
from harness.figures import percentile
from harness.waiting import eventually
from viewers import Viewers

FLOODS = True
# The gateway may grow by so much under any load.
GROWTH_KIB = 200_000 if SANITIZED else 20_000
# The limits of a gateway with one viewer, while nothing moves.
IDLE_KIB = 40_000
IDLE_SHARE = 0.02
# So much later may the daemon answer beside 100 streams.
GROWTH_OF_P99 = 0.2
GET = f"GET /healthz HTTP/1.1\r\nHost: {HOST}\r\n\r\n".encode()


def connected(receive_buffer=None):
    peer = socket.socket()
    if receive_buffer:
        peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    peer.settimeout(15)
    peer.connect(("127.0.0.1", PORT))
    return peer


@contextlib.contextmanager
def peers(count, **settings):
    with contextlib.ExitStack() as all_of_them:
        yield [all_of_them.enter_context(contextlib.closing(connected(**settings))) for _ in range(count)]


def answer_to(data):
    with contextlib.closing(connected()) as peer:
        peer.sendall(data)
        peer.shutdown(socket.SHUT_WR)
        answer = b""
        with contextlib.suppress(ConnectionResetError):
            while part := peer.recv(65536):
                answer += part
        return answer


def status_of(data):
    return int(answer_to(data).split(b" ", 2)[1])


def post(length, body=b""):
    head = f"POST /api/v1/session HTTP/1.1\r\nHost: {HOST}\r\nOrigin: {ORIGIN}\r\n"
    return f"{head}Content-Type: application/json\r\n{length}\r\n\r\n".encode() + body


def test_headers_and_bodies_that_are_too_long(module_gateway):
    assert status_of(b"GET / HTTP/1.1\r\nX: " + b"x" * 20000 + b"\r\n\r\n") == 431
    assert status_of(b"GET /" + b"x" * 20000 + b" HTTP/1.1\r\n\r\n") == 431
    assert status_of(post("Content-Length: 16385", b" " * 16385)) == 413
    assert status_of(post("Content-Length: 99999999999999999999")) == 400
    chunks = b"4000\r\n" + b" " * 0x4000 + b"\r\n1\r\n \r\n0\r\n\r\n"
    assert status_of(post("Transfer-Encoding: chunked", chunks)) == 413
    assert status_of(post("Content-Length: 16384\r\nConnection: close", b" " * 16384)) == 400


def test_text_that_is_no_http(module_gateway):
    for data in (b"\0" * 100, b"GET\r\n\r\n", b"\x16\x03\x01\x02\x00\x01\x00\x01", b"SET POS 10\n\n",
                 b"GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n"):
        answer = answer_to(data)
        assert answer == b"" or b" 400 " in answer.split(b"\r\n")[0]
    for encoding in ("identity", "xchunked", "chunked, identity"):
        # The parser sees no body, so the body would be the next request.
        answer = answer_to(post(f"Transfer-Encoding: {encoding}", GET))
        assert answer.count(b"HTTP/1.1") == answer.count(b"HTTP/1.1 400") == 1
    assert module_gateway.page().get("/healthz").status == 200


def test_slow_requests_end_after_ten_seconds(module_gateway):
    """One byte a second: in the request line, in the headers, in the body."""
    begins = [b"GET / HT", b"GET / HTTP/1.1\r\nX: x", post("Content-Length: 100", b"{"), b""]
    with peers(len(begins)) as slow:
        started = time.monotonic()
        for peer, begin in zip(slow, begins):
            peer.sendall(begin)
        ended = set()
        while len(ended) < len(slow):
            assert time.monotonic() - started < 13
            for number, peer in enumerate(slow):
                if number in ended:
                    continue
                with contextlib.suppress(BlockingIOError):
                    try:
                        if begins[number]:
                            peer.send(b"x")
                        if not peer.recv(100, socket.MSG_DONTWAIT):
                            ended.add(number)
                    except (ConnectionResetError, BrokenPipeError):
                        ended.add(number)
            time.sleep(0.25)
        assert time.monotonic() - started > 8
    assert module_gateway.page().get("/healthz").status == 200


def test_a_thousand_connections(module_gateway, figure):
    page = module_gateway.page()
    stream = page.stream()
    stream.wait_for("picture")
    before = module_gateway.resident_kib()
    with peers(1000):
        begin = len(stream.messages)
        started = time.monotonic()
        assert page.get("/healthz").status == 200
        assert time.monotonic() - started < 2
        eventually(lambda: len(stream.messages) >= begin + 2, 5, "two signs of life")
        grown = module_gateway.resident_kib() - before
        figure(f"1,000 idle connections add {grown} KiB")
        assert grown < GROWTH_KIB
    stream.close()


def test_a_page_gets_in_beside_peers_that_do_not_read(module_gateway):
    large_file = f"GET /vendor/uplot/uPlot.iife.min.js HTTP/1.1\r\nHost: {HOST}\r\n\r\n".encode()
    with peers(128, receive_buffer=2048) as many:
        for peer in many:
            # More answers than fit into the buffers of the connection.
            peer.sendall(large_file * 150)

        def waits():
            before = module_gateway.cpu_seconds()
            time.sleep(0.3)
            return module_gateway.cpu_seconds() - before < 0.1

        eventually(waits, 8, "a gateway that waits for its peers")
        for _ in range(10):
            assert module_gateway.page().get("/healthz").status == 200


def test_one_viewer_costs_little(module_gateway, figure):
    stream = module_gateway.page().stream()
    stream.wait_for("picture")
    begin, seconds = module_gateway.cpu_seconds(), effort(2, 30)
    time.sleep(seconds)
    share = (module_gateway.cpu_seconds() - begin) / seconds
    resident = module_gateway.resident_kib()
    stream.close()
    figure(f"one viewer: {share:.1%} of a core, {resident} KiB")
    assert SANITIZED or resident <= IDLE_KIB
    assert not (LARGE and RELEASE) or share <= IDLE_SHARE


@contextlib.contextmanager
def moving(simulated):
    """Gripper 9 measures another position in each visit."""
    stop = threading.Event()

    def move():
        position = 0
        while not stop.wait(0.05):
            position = (position + 1) % 256
            simulated.command(f"pin 9 2002 {position << 8}")

    mover = threading.Thread(target=move)
    mover.start()
    try:
        yield
    finally:
        stop.set()
        mover.join()
        simulated.command("release 9 2002")


def p99_of_gets(client, count):
    """Returns microseconds. The pauses before the GETs differ, so that no GET keeps step with the gateway."""
    times = []
    for _ in range(count):
        time.sleep(random.uniform(0, 0.001))
        started = time.monotonic()
        client.get("POS")
        times.append(time.monotonic() - started)
    return percentile(times, 0.99) * 1e6


def test_a_hundred_streams(module_gateway, simulated, figure):
    """The streams hardly delay the daemon. Only the large number shows how much, on a machine without other work."""
    before = module_gateway.resident_kib()
    count = effort(500, 1000)
    beside = []
    with Viewers() as viewers, contextlib.closing(Client()) as client, moving(simulated):
        alone = [p99_of_gets(client, count)]
        for _ in range(effort(1, 31)):
            viewers.become(100)
            beside.append(p99_of_gets(client, count))
            grown = module_gateway.resident_kib() - before
            viewers.become(0)
            alone.append(p99_of_gets(client, count))
    # Each round is compared with its neighbours, because the load of the machine changes.
    growth = statistics.median(2 * b / (a + c) for a, b, c in zip(alone, beside, alone[1:])) - 1
    figure(
        f"p99 of a GET to the daemon: {statistics.median(alone):.0f} us, with 100 streams "
        f"{statistics.median(beside):.0f} us, {growth:+.0%}"
    )
    figure(f"100 streams add {grown} KiB")
    assert grown < GROWTH_KIB
    assert not (LARGE and RELEASE) or growth <= GROWTH_OF_P99
    assert module_gateway.page().get("/healthz").status == 200


def test_more_streams_than_allowed(module_gateway):
    page = module_gateway.page()

    def opened():
        stream = page.stream()
        if stream.status != 200:
            stream.close()
        return stream

    # Streams of earlier tests end when the gateway sees their ends.
    eventually(lambda: module_gateway.page().get("/healthz").status == 200)
    streams = []
    for _ in range(130):
        streams.append(opened())
    assert streams[0].status == 200 and streams[-1].status == 503
    assert sum(stream.status == 200 for stream in streams) <= 128
    assert page.get("/healthz").status == 200
    for stream in streams:
        stream.close()

    def free():
        stream = opened()
        stream.close()
        return stream.status == 200

    eventually(free, 5, "room for a stream")


def test_a_viewer_that_does_not_read(module_gateway, simulated):
    """It costs no memory, ends, and disturbs no other viewer."""
    before = module_gateway.resident_kib()
    slow = connected(receive_buffer=2048)
    slow.sendall(f"GET /api/v1/stream HTTP/1.1\r\nHost: {HOST}\r\n\r\n".encode())
    other = module_gateway.page().stream()
    other.wait_for("picture")
    with moving(simulated):
        seen = len(other.messages)
        eventually(lambda: len(other.messages) > seen + 20, 10, "changes for the other viewer")
        assert module_gateway.resident_kib() - before < GROWTH_KIB
    slow.close()
    other.close()


def test_requests_in_one_packet(module_gateway):
    with contextlib.closing(connected()) as peer:
        peer.sendall(GET * 50)
        answer = b""
        while answer.count(b"HTTP/1.1 200") < 50:
            part = peer.recv(65536)
            assert part
            answer += part


def test_a_peer_that_asks_and_does_not_read(module_gateway):
    with contextlib.closing(connected()) as peer:
        peer.settimeout(1)
        before = module_gateway.resident_kib()
        with contextlib.suppress(TimeoutError, ConnectionResetError, BrokenPipeError):
            while True:
                peer.sendall(GET * 1000)
        assert module_gateway.resident_kib() - before < GROWTH_KIB
        assert module_gateway.page().get("/healthz").status == 200
