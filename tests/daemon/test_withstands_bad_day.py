"""Rare events of a robot cell: stopped or killed daemons, lost power, noise."""

import pathlib
import random
import shutil
import signal
import time

from harness.daemon import SANITIZED, Daemon
from harness.effort import effort
from harness.line import Line, Slave
from harness.waiting import eventually


def seconds_until(condition, timeout=10.0):
    started = time.monotonic()
    eventually(condition, timeout)
    return time.monotonic() - started


def test_a_stopped_daemon_continues_after_sigcont(found, line, connect, figure):
    clients = [connect() for _ in range(50)]
    found.process.send_signal(signal.SIGSTOP)
    for number, client in enumerate(clients):
        client.send("GET VER\n" * (number + 1))
    time.sleep(effort(2, 60))
    mark = line.mark()
    found.process.send_signal(signal.SIGCONT)
    started = time.monotonic()
    for number, client in enumerate(clients):
        assert client.receive(14 * (number + 1)) == b"VER MZV-2.0.0\n" * (number + 1)
    answered = time.monotonic() - started
    line.wait_for(lambda r: r.is_read(2000), 3, mark)
    assert clients[0].get("DRI") == "RUNNING"
    figure(f"requests of 50 clients answered {answered * 1000:.0f} ms after SIGCONT")


def test_the_next_daemon_starts_after_a_killed_one(start_daemon, line, figure):
    worst = 0.0
    for _ in range(effort(2, 50)):
        daemon = start_daemon()
        daemon.wait_until_found(9)
        daemon.kill()
        started = time.monotonic()
        following = start_daemon()
        following.wait_until_found(9)
        worst = max(worst, time.monotonic() - started)
        following.kill()
    assert worst < 3.0
    figure(f"the next daemon found the gripper at most {worst:.1f} s after the kill")


def test_a_removed_working_directory_changes_nothing(tmp_path, start_daemon, connect, line):
    folder = tmp_path / "gone"
    folder.mkdir()
    daemon = start_daemon(cwd=folder)
    daemon.wait_until_found(9)
    shutil.rmtree(folder)
    client = connect()
    assert client.set("SCN_BLOCK") == "ack"
    line.unplug()
    eventually(lambda: client.get("DRI") == "ERR_SCANNING (EIO)")
    line.plug()
    eventually(lambda: client.get("DRI") == "RUNNING", 10)


def test_grippers_that_lose_their_power_come_back_by_themselves(start_daemon, connect, figure):
    slaves = [Slave(9), Slave(2, "TE1-2.0.2"), Slave(3, "TF1-2.0.2")]
    with Line(*slaves) as line:
        start_daemon().wait_until_found(2, 3, 9)
        client = connect()
        worst = 0.0
        for _ in range(effort(2, 50)):
            for slave in slaves:
                slave.listening = False
            eventually(lambda: client.get("SID") == "[]", 15)
            for slave in slaves:
                slave.listening = True
            worst = max(worst, seconds_until(lambda: client.get("SID") == "[2, 3, 9]"))
        line.wait_until_polled(9)
        assert worst < 5.0
        figure(f"three grippers found again at most {worst:.1f} s after power on")


def test_the_daemon_survives_chatter_on_the_line(found, line, connect, figure):
    """A broken shield or a gripper that is connected under power causes such noise."""
    randomness = random.Random(1)
    client = connect()
    line[9].put(2002, 0x7B00)
    line.wait_until_polled(9)
    ends = time.monotonic() + effort(3, 60)
    polled, before = line.mark(), found.cpu_seconds()
    bursts = 0
    while time.monotonic() < ends:
        line.send(randomness.randbytes(randomness.randrange(1, 200)))
        bursts += 1
        assert client.get("POS") in ("123", "?")
        time.sleep(randomness.random() * 0.2)
    share = (found.cpu_seconds() - before) / effort(3, 60)
    assert share < (0.5 if SANITIZED else 0.1)
    eventually(lambda: client.get("POS") == "123", 10)
    visits = len(line.since(polled, lambda r: r.is_read(2000)))
    figure(f"{bursts} bursts of chatter, {visits} visits, {share * 100:.1f} % of a core")


def test_a_second_daemon_started_by_mistake_does_not_disturb_the_first(found, line, connect, tmp_path):
    mark = line.mark()
    for _ in range(effort(3, 50)):
        second = Daemon(pathlib.Path(tmp_path))
        assert second.wait_for_end() == -signal.SIGABRT
        second.kill()
    assert line.garbage == []
    line.wait_until_polled(9)
    reads = line.since(mark, lambda r: r.is_read(500))
    # The second daemon sent no request.
    assert reads == []
    assert connect().get("DRI") == "RUNNING"
