"""Standard streams that are closed, full or without a reader."""

import contextlib
import fcntl
import itertools
import os
import signal
import subprocess
import time

import pytest
from harness.children import binary, spawn
from harness.daemon import QUIT_LIMIT, RELEASE, is_listening
from harness.effort import effort
from harness.simulator import Simulator
from harness.upgrades import noted_process, put_flasher
from harness.waiting import eventually

FLOODS = True
PIPE_BYTES = 4096
UNHANDLED = "SET " + " ".join(["XYZ 1"] * 30) + "\n"
NAMES = ("input", "output", "error")
LONGEST_PAUSE = 0.3 * (1 if RELEASE else 4)


@contextlib.contextmanager
def daemon_with(folder, closed=(), **streams):
    """A daemon with the given streams, without the `closed` ones. It must quit cleanly."""
    streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, **streams}

    def close_them():
        for descriptor in closed:
            os.close(descriptor)

    process = spawn([binary("gripperd")], close_them, cwd=folder, **streams)
    try:
        eventually(is_listening, what="listening")
        yield process
        sent_at = time.monotonic()
        process.send_signal(signal.SIGTERM)
        assert process.wait(10) == 0
        assert time.monotonic() - sent_at < QUIT_LIMIT
    finally:
        process.kill()
        process.wait()


def assert_serves(line, connect):
    """Checks that clients receive only their replies, and the line only requests."""
    client = connect()
    for _ in range(20):
        client.send(UNHANDLED + "GET VER\n")
        assert client.receive(3 + 14) == b"ackVER MZV-2.0.0\n"
    assert client.receive_until_silent(0.1) == b""
    line.wait_until_polled(9, 3)
    assert line.garbage == []


def judge_pauses(line, mark, figure):
    """Checks that polling has had no long pause since the mark."""
    times = [request.at for request in line.since(mark)]
    longest = max(later - earlier for earlier, later in zip(times, times[1:]))
    figure(f"longest pause of polling {longest * 1000:.0f} ms")
    assert longest < LONGEST_PAUSE


def subsets():
    every = [s for n in (1, 2, 3) for s in itertools.combinations(range(3), n)]
    return effort([(2,), (0, 2)], every)


@pytest.mark.parametrize("closed", subsets(), ids=lambda c: "_".join(NAMES[n] for n in c))
def test_streams_closed_at_start_stop_nothing(tmp_path, connect, line, figure, closed):
    with daemon_with(tmp_path, closed) as process:
        line.wait_until_polled(9, timeout=10)
        mark = line.mark()
        assert_serves(line, connect)
        for descriptor in closed:
            assert os.readlink(f"/proc/{process.pid}/fd/{descriptor}") == "/dev/null"
        judge_pauses(line, mark, figure)


def test_a_flasher_gets_its_own_streams_when_all_were_closed(tmp_path, connect, figure):
    put_flasher(tmp_path, "(ls -l /proc/$$/fd >streams); echo started; sleep 0.2; exit 0")
    with Simulator("9=TA3-1.6.13", "--boot-ms=200", "--bootloader-boot-ms=100") as simulated:
        with daemon_with(tmp_path, (0, 1, 2)):
            client = connect()
            simulated.wait_until_polled(9, 2)
            assert client.set("UPG 1", timeout=15) == "ack"
            assert noted_process(tmp_path)
            eventually(lambda: client.get("UPG") == "0")
            simulated.command("restart 9")
            simulated.wait_until_polled(9, 2)
            assert simulated.foreign == [b"\x7f"] * len(simulated.foreign)
        listed = (tmp_path / "streams").read_text(encoding="ascii")
        assert [f" {n} -> pipe:" in listed for n in range(3)] == [True] * 3, listed
        assert "socket" not in listed and "/dev/pts/" not in listed, listed
        figure(f"{len(simulated.foreign)} other bytes on the line, all from the detection")


def test_a_log_without_a_reader_stops_nothing(tmp_path, connect, line, figure):
    reader, writer = os.pipe()
    with daemon_with(tmp_path, stderr=writer):
        os.close(writer)
        line.wait_until_polled(9, timeout=10)
        assert os.read(reader, 4)
        mark = line.mark()
        os.close(reader)
        assert_serves(line, connect)
        judge_pauses(line, mark, figure)


def test_a_log_on_a_full_disk_stops_nothing(tmp_path, connect, line, figure):
    with open("/dev/full", "wb") as full, daemon_with(tmp_path, stderr=full):
        line.wait_until_polled(9, timeout=10)
        mark = line.mark()
        assert_serves(line, connect)
        judge_pauses(line, mark, figure)


def test_a_full_pipe_of_the_log_stops_nothing_and_loses_whole_lines(tmp_path, connect, line, figure):
    reader, writer = os.pipe()
    fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, PIPE_BYTES)
    with daemon_with(tmp_path, stderr=writer):
        os.close(writer)
        line.wait_until_polled(9, timeout=10)
        mark = line.mark()
        # This logs much more than the pipe holds.
        assert_serves(line, connect)
        judge_pauses(line, mark, figure)
        # A new reader gets whole lines, including the newest.
        os.set_blocking(reader, False)
        text = b"".join(iter(lambda: read_available(reader), b""))
        assert text.endswith(b" ((null):0, (null))\n")
        client = connect()
        assert client.get("VER") == "MZV-2.0.0"
        log = []
        eventually(lambda: log.append(read_available(reader)) or mentions_a_client(log))
        assert b"log lines lost" in b"".join(log)
    os.close(reader)


def read_available(descriptor):
    try:
        return os.read(descriptor, 65536)
    except BlockingIOError:
        return b""


def mentions_a_client(log):
    return b"onClientSocketConnection" in b"".join(log)
