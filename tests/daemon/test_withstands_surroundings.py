"""Inherited signals and limits, and a process id that equals the former daemon's."""

import contextlib
import os
import pathlib
import resource
import signal
import subprocess

import pytest
from harness.children import binary, spawn
from harness.daemon import QUIT_LIMIT
from harness.line import Line, Slave
from harness.ports import ENVIRONMENT, FakePorts, install_fuser
from harness.simulator import Simulator
from harness.upgrades import children_of, is_alive, put_flasher
from harness.waiting import eventually

QUIT_SIGNALS = [signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM]
ALL_SIGNALS = signal.valid_signals()
LOCK = pathlib.Path("/run/lock/LCK..ttyTool")


def ignore_ended_children():
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)


def block_all_signals():
    signal.pthread_sigmask(signal.SIG_BLOCK, ALL_SIGNALS)


def odd_parent():
    ignore_ended_children()
    block_all_signals()


def signals_in(status, field):
    """Returns the signals in one mask of /proc/PID/status."""
    masks = dict(line.split(":\t") for line in status.splitlines())
    mask = int(masks[field], 16)
    return {number for number in ALL_SIGNALS if mask >> (number - 1) & 1}


# exec, because the shell blocks signals while it starts a program.
NOTE_STATUS = "exec cat /proc/self/status >status"
LAST_FIELD = "nonvoluntary_ctxt_switches"


def whole_status(path):
    status = path.read_text(encoding="ascii") if path.exists() else ""
    return status if LAST_FIELD in status else None


def assert_default_signals(path):
    status = eventually(lambda: whole_status(path))
    assert signals_in(status, "SigBlk") == set()
    assert not signals_in(status, "SigIgn") & {signal.SIGCHLD, signal.SIGPIPE, signal.SIGXFSZ}


def test_a_parent_that_ignores_ended_children_hides_no_port(tmp_path, start_daemon):
    install_fuser(tmp_path, "exit 1")
    with FakePorts("ttyUSB0"), Line(Slave(9), link="/dev/ttyUSB0"):
        daemon = start_daemon(environment=ENVIRONMENT, before_exec=ignore_ended_children)
        daemon.wait_until_found(9)


@pytest.mark.parametrize("number", QUIT_SIGNALS)
def test_a_parent_that_blocks_quit_signals_does_not_keep_it_alive(start_daemon, number):
    daemon = start_daemon(before_exec=block_all_signals)
    status, seconds = daemon.stop(number)
    assert status == 0
    assert seconds < QUIT_LIMIT


def test_fuser_starts_with_default_signals(tmp_path, start_daemon):
    install_fuser(tmp_path, NOTE_STATUS)
    with FakePorts("ttyUSB0"):
        start_daemon(environment=ENVIRONMENT, before_exec=odd_parent)
        assert_default_signals(tmp_path / "status")


def test_the_flasher_starts_with_default_signals(tmp_path, start_daemon, connect):
    put_flasher(tmp_path, NOTE_STATUS)
    with Simulator("9=TA3-1.6.13", "--boot-ms=200", "--bootloader-boot-ms=100"):
        start_daemon(before_exec=odd_parent).wait_until_found(9)
        assert connect().set("UPG 1", timeout=15) == "ack"
        assert_default_signals(tmp_path / "status")


def test_a_log_file_at_its_size_limit_does_not_end_the_daemon(tmp_path, line, connect):
    limit = 500

    def limit_file_sizes():
        resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))

    path = tmp_path / "log"
    with open(path, "wb") as log:
        process = spawn(
            [binary("gripperd")], limit_file_sizes, cwd=tmp_path, stdin=subprocess.DEVNULL,
            stderr=log,
        )
    try:
        line.wait_until_polled(9, timeout=10)
        for _ in range(10):
            assert connect().set("XYZ 1") == "ack"
        assert path.stat().st_size == limit
        line.wait_until_polled(9, 3)
        process.send_signal(signal.SIGTERM)
        assert process.wait(10) == 0
    finally:
        process.kill()
        process.wait()


@contextlib.contextmanager
def daemon_in_a_container(folder, *options, log=subprocess.DEVNULL):
    """Runs a daemon as process 1 of its own namespace. Yields its outer process id."""
    container = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc", *options]
    outside = spawn([*container, binary("gripperd")], cwd=folder, stderr=log)
    try:
        yield eventually(lambda: children_of(outside.pid), what="the first process")[0]
    finally:
        outside.kill()
        outside.wait()


def test_the_lock_of_a_killed_daemon_with_the_same_process_id_is_removed(tmp_path, line):
    with daemon_in_a_container(tmp_path) as pid:
        line.wait_until_polled(9, timeout=10)
        os.kill(pid, signal.SIGKILL)
        eventually(lambda: not is_alive(pid))
    assert LOCK.read_text(encoding="ascii").startswith("1\n")
    with daemon_in_a_container(tmp_path):
        line.wait_until_polled(9, timeout=10)


def test_the_lock_of_a_running_daemon_with_the_same_process_id_stays(tmp_path, line):
    with daemon_in_a_container(tmp_path), open(tmp_path / "log", "wb") as log:
        line.wait_until_polled(9, timeout=10)
        lock = LOCK.stat()
        with daemon_in_a_container(tmp_path, "--net", log=log):
            # Between these two lines, the daemon has tried the port.
            eventually(lambda: (tmp_path / "log").read_text().count("availablePorts") == 2)
        assert os.path.samestat(LOCK.stat(), lock)
        assert "Connected" not in (tmp_path / "log").read_text()
