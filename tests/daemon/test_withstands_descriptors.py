"""More clients than the daemon has descriptors, and as many as it has to serve."""

import resource
import select
import time

import pytest
from harness.daemon import SANITIZED
from harness.effort import effort
from harness.flashing import make_image
from harness.ports import ENVIRONMENT, FakePorts
from harness.simulator import Simulator
from harness.upgrades import put_real_flasher
from harness.waiting import eventually

FLOODS = True
HARD_LIMIT = 2000
# The daemon keeps descriptors for the port, its lock, children and its start.
AT_LEAST_SERVED = HARD_LIMIT - 60
MORE = 200
LEAVING = 500
ACCEPTED_WITHIN = 4.0 if SANITIZED else 2.0
CROWD = effort(1500, 10_000)
# The longest pause of polling when all clients leave at once.
LONGEST_PAUSE = 3.0 if SANITIZED else 1.0
ALLOWED_KIB_PER_THOUSAND = 60_000 if SANITIZED else 8_000
# The clients together need three times as much memory, five times in the large number.
ALLOWED_REST_KIB = effort(1_000, 4_000)


def limited(soft, hard):
    return lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def served(daemon):
    return sum(m.startswith("onClientSocketConnection") for m in daemon.messages())


def left(daemon):
    return sum(m.startswith("socket->deleteLater") for m in daemon.messages())


def settled(count, quiet=0.3):
    """Returns the value of count() when it no longer changes."""
    value, since = count(), time.monotonic()
    while time.monotonic() - since < quiet:
        time.sleep(0.02)
        if count() != value:
            value, since = count(), time.monotonic()
    return value


def ask_all(clients, limit):
    """Returns the seconds until all clients have their replies."""
    started = time.monotonic()
    for client in clients:
        client.send("GET VER\n")
    for client in clients:
        assert client.receive_line(limit) == b"VER MZV-2.0.0\n"
    return time.monotonic() - started


def answered(clients):
    """Returns the poll() events of clients that receive bytes within 0.3 s."""
    poll = select.poll()
    for client in clients:
        poll.register(client.socket, select.POLLIN)
    return poll.poll(300)


@pytest.fixture
def simulated():
    with Simulator("9=TA3-1.6.13", "--boot-ms=200", "--bootloader-boot-ms=100") as simulator:
        yield simulator


def find_again(daemon, line):
    """Plugs the line in again, so the daemon opens a port and runs fuser."""
    line.unplug()
    mark = daemon.mark()
    daemon.wait_for_line("availablePorts", mark)
    line.plug()
    daemon.wait_until_found(9, since=mark)
    codes = [m.split()[3] for m in daemon.messages(mark) if m.startswith("Info: error : ")]
    # There is no local fuser (-2), and the system's fuser finds no user of the port (1).
    assert codes and codes == ["-2", "1"] * (len(codes) // 2)


def upgrade(daemon, client):
    mark = daemon.mark()
    assert client.set("UPG 1", timeout=15) == "ack"
    daemon.wait_for_line("verified 100 %", mark, timeout=20)
    daemon.wait_for_line("unmuteOnUpgradeFinished", mark)
    eventually(lambda: client.get("FWV") == "TA3-1.6.14", 10, "the new version")


def test_clients_without_a_descriptor_wait_for_others_to_leave(
    start_daemon, connect, simulated, tmp_path, figure
):
    put_real_flasher(tmp_path)
    (tmp_path / "firmware").mkdir()
    make_image(tmp_path / "firmware", "TA3-1.6.14", 2048)
    with FakePorts("ttyUSB0"):
        daemon = start_daemon(environment=ENVIRONMENT, before_exec=limited(64, HARD_LIMIT))
        daemon.wait_until_found(9)
        clients = [connect() for _ in range(HARD_LIMIT + MORE)]
        count = settled(lambda: served(daemon))
        assert AT_LEAST_SERVED <= count < HARD_LIMIT
        inside, waiting = clients[:count], clients[count : count + MORE]
        for client in clients[count + MORE :]:
            client.close()
        figure(f"{count} of {HARD_LIMIT} descriptors serve clients")
        ask_all(inside, 10)

        chosen = inside[-1]
        mark = daemon.mark()
        assert chosen.set("SCN_BLOCK", timeout=10) == "ack"
        daemon.wait_until_found(9, since=mark)
        find_again(daemon, simulated)
        upgrade(daemon, chosen)
        simulated.wait_until_polled(9, 2)

        for client in waiting:
            client.send("GET VER\n")
        assert answered(waiting) == []
        left_at = time.monotonic()
        for client in inside[:LEAVING]:
            client.close()
        for client in waiting:
            assert client.receive_line(10) == b"VER MZV-2.0.0\n"
        seconds = time.monotonic() - left_at
        figure(f"{len(waiting)} waiting clients served {seconds:.2f} s after {LEAVING} others left")
        assert seconds < ACCEPTED_WITHIN
        assert chosen.get("DRI") == "RUNNING"


def test_a_crowd_of_clients_is_served_while_polling_continues(start_daemon, connect, line, figure):
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    assert hard > CROWD + 100, f"this machine allows only {hard} descriptors"
    daemon = start_daemon().wait_until_found(9)
    before = daemon.resident_kib()
    started = time.monotonic()
    clients = [connect() for _ in range(CROWD)]
    eventually(lambda: served(daemon) == CROWD, 30, "all connections")
    opened = time.monotonic() - started
    mark = line.mark()
    seconds = ask_all(clients, 30)
    memory = (daemon.resident_kib() - before) * 1000 // CROWD
    figure(f"{CROWD} clients connected in {opened:.2f} s, all answered {seconds:.2f} s later")
    figure(f"{memory} KiB per 1,000 clients")
    assert memory < ALLOWED_KIB_PER_THOUSAND
    line.wait_until_polled(9, 2)
    gap = longest_time_between_polls(line, mark)
    figure(f"longest time between two polls while they ask {gap * 1000:.0f} ms")
    mark = line.mark()
    line.wait_until_polled(9)
    for client in clients:
        client.close()
    eventually(lambda: left(daemon) == CROWD, 30, "the end of all connections")
    line.wait_until_polled(9, 2)
    gap = longest_time_between_polls(line, mark)
    figure(f"longest time between two polls while they leave {gap * 1000:.0f} ms")
    assert gap < LONGEST_PAUSE
    # The sanitizer and valgrind keep freed memory.
    if not SANITIZED:
        returned = lambda: daemon.resident_kib() - before < ALLOWED_REST_KIB
        eventually(returned, what=lambda: f"{daemon.resident_kib() - before} KiB remain")
        figure(f"{daemon.resident_kib() - before} KiB remain after {CROWD} clients have left")


def longest_time_between_polls(line, mark):
    polls = line.since(mark, lambda r: r.is_read(2000))
    return max(later.at - earlier.at for earlier, later in zip(polls, polls[1:]))
