"""The daemon as a service: its notifications to the service manager."""

import os
import pathlib
import re
import select
import signal
import socket
import time

import pytest
from harness.benches import Bench, benches
from harness.client import PORT
from harness.daemon import Daemon, is_listening
from harness.line import Line, Slave
from harness.ports import ENVIRONMENT, FakePorts
from harness.waiting import eventually

UNIT = pathlib.Path(__file__).parents[2] / "packaging/systemd/gripperd.service"
PERIOD = 0.4
READY, ALIVE = b"READY=1", b"WATCHDOG=1"


class Manager:
    """The service manager's socket, and the arrival time of each notification."""

    def __init__(self, name):
        self.name = str(name)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.name.replace("@", "\0", 1))
        self.arrivals = []

    def environment(self, period=PERIOD):
        return {"NOTIFY_SOCKET": self.name, "WATCHDOG_USEC": str(int(period * 1e6))}

    def next(self, timeout=10.0):
        """Returns the next notification, or None after the time-out."""
        if not select.select([self.socket], [], [], timeout)[0]:
            return None
        message = self.socket.recv(4096)
        self.arrivals.append(time.monotonic())
        return message

    def drain(self):
        while self.next(0):
            pass

    def longest_gap(self):
        return max(b - a for a, b in zip(self.arrivals, self.arrivals[1:]))


@pytest.fixture
def manager(tmp_path):
    manager = Manager(tmp_path / "notify")
    yield manager
    manager.socket.close()


def half_of_the_watchdog_seconds():
    """Returns how long the daemon may block the event loop at any time."""
    return int(re.search(r"^WatchdogSec=(\d+)$", UNIT.read_text(), re.MULTILINE).group(1)) / 2


def test_is_ready_when_it_listens(tmp_path, manager):
    daemon = Daemon(tmp_path, environment=manager.environment())
    try:
        assert manager.next() == READY
        assert is_listening()
        assert [manager.next() for _ in range(3)] == [ALIVE] * 3
        daemon.finish()
    finally:
        daemon.kill()


def test_notifies_an_abstract_socket(start_daemon):
    manager = Manager(f"@gripperd-{os.getpid()}")
    with manager.socket:
        start_daemon(environment=manager.environment())
        assert [manager.next(), manager.next()] == [READY, ALIVE]


def test_is_never_ready_without_the_port(tmp_path, manager):
    with socket.create_server(("127.0.0.1", PORT)):
        daemon = Daemon(tmp_path, environment=manager.environment())
        try:
            assert daemon.wait_for_end() == -signal.SIGABRT
            assert manager.next(0) is None
        finally:
            daemon.kill()


def test_notifications_change_neither_the_log_nor_the_descriptors(found, line, manager, tmp_path):
    messages, descriptors = found.messages(), found.descriptors()
    found.finish()
    daemon = Daemon(tmp_path, environment=manager.environment())
    try:
        daemon.wait_until_found(9)
        assert [manager.next() for _ in range(3)] == [READY, ALIVE, ALIVE]
        assert daemon.messages() == messages
        assert len(daemon.descriptors()) == len(descriptors) + 1
        daemon.finish()
    finally:
        daemon.kill()


def test_child_processes_get_none_of_the_variables(start_daemon, tmp_path, manager):
    fuser = tmp_path / "fuser"
    fuser.write_text("#!/bin/sh\nenv >variables.new; mv variables.new variables; exit 0\n")
    fuser.chmod(0o755)
    with FakePorts("ttyUSB0"), Line(Slave(9), link="/dev/ttyUSB0"):
        start_daemon(environment={**ENVIRONMENT, **manager.environment()})
        eventually((tmp_path / "variables").exists, what="the fuser")
    assert not re.search("^(NOTIFY|WATCHDOG)", (tmp_path / "variables").read_text(), re.MULTILINE)


def test_a_stopped_event_loop_stops_the_notifications(start_daemon, manager):
    daemon = start_daemon(environment=manager.environment())
    assert [manager.next(), manager.next()] == [READY, ALIVE]
    os.kill(daemon.pid, signal.SIGSTOP)
    try:
        os.waitid(os.P_PID, daemon.pid, os.WSTOPPED | os.WNOWAIT)
        manager.drain()
        assert manager.next(3 * PERIOD) is None
    finally:
        os.kill(daemon.pid, signal.SIGCONT)
    assert manager.next() == ALIVE


def test_a_fuser_that_hangs_does_not_stop_the_notifications(start_daemon, tmp_path, manager):
    fuser = tmp_path / "fuser"
    fuser.write_text("#!/bin/sh\necho >running; exec sleep 60\n")
    fuser.chmod(0o755)
    with FakePorts("ttyUSB0"), Line(Slave(9), link="/dev/ttyUSB0"):
        start_daemon(environment={**ENVIRONMENT, **manager.environment()})
        eventually((tmp_path / "running").exists, what="the fuser")
        manager.drain()
        assert [manager.next() for _ in range(5)] == [ALIVE] * 5


def test_a_search_for_the_bootloader_is_within_the_limit_of_the_unit(
    start_daemon, connect, manager, figure
):
    with benches(Bench, start_daemon, connect) as make:
        bench = make(environment=manager.environment())
        # The first jump closes the link, so the second takes as long as a search can.
        assert bench.client.set("BLD 1", timeout=20) == "ack"
        bench.line.command("restart 9")
        manager.drain()
        bench.client.send("SET BLD 1\n")
        while not select.select([bench.client.socket], [], [], 0)[0]:
            assert manager.next() == ALIVE
        assert bench.client.receive(3) == b"nak"
    gap = manager.longest_gap()
    figure(f"{gap:.1f} s without a notification during the search for a bootloader")
    assert 4 < gap < half_of_the_watchdog_seconds() / 2
