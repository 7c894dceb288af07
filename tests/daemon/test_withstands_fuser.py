"""A fuser that crashes, is missing or hangs, and ports without an answer."""

import time

import pytest
from harness.effort import effort
from harness.line import Line, Slave
from harness.ports import ENVIRONMENT, FakePorts, install_fuser
from harness.waiting import eventually

HANG = effort(3, 60)
CRASH, FREE = "kill -SEGV $$", "exit 1"


@pytest.fixture
def path_folder(tmp_path):
    folder = tmp_path / "path"
    folder.mkdir()
    return folder


@pytest.fixture
def start(start_daemon, path_folder):
    return lambda: start_daemon(environment={**ENVIRONMENT, "PATH": f"{path_folder}:/usr/bin:/bin"})


def exit_codes_of_a_round(daemon):
    """Returns the exit codes of one complete port selection after this call."""
    mark = daemon.mark()
    daemon.wait_for_line("availablePorts", mark)
    began = next(n for n, m in enumerate(daemon.lines) if n >= mark and "availablePorts" in m)
    daemon.wait_for_line("availablePorts", began + 1)
    texts = daemon.messages(began + 1)
    end = next(n for n, m in enumerate(texts) if "availablePorts" in m)
    return [int(m.split()[3]) for m in texts[:end] if m.startswith("Info: error : ")]


@pytest.mark.parametrize("rights, code", [(0o755, -1), (0o644, -2)], ids=["crashes", "no_program"])
def test_a_port_that_no_fuser_can_judge_is_not_free(
    start, connect, tmp_path, path_folder, figure, rights, code
):
    for folder in (tmp_path, path_folder):
        install_fuser(folder, CRASH)
    (tmp_path / "fuser").chmod(rights)
    with FakePorts("ttyUSB0"), Line(Slave(9), link="/dev/ttyUSB0") as line:
        daemon = start()
        client = connect()
        assert exit_codes_of_a_round(daemon) == [code, -1]
        asked_at = time.monotonic()
        assert client.get("SID") == "[]"
        assert line.since(0) == []
        figure(f"answered after {(time.monotonic() - asked_at) * 1000:.1f} ms meanwhile")
        mark = daemon.mark()
        install_fuser(tmp_path, FREE)
        daemon.wait_until_found(9, since=mark)
        assert client.get("SID") == "[9]"


def test_clients_are_answered_after_a_fuser_that_hangs(start, connect, tmp_path, figure):
    install_fuser(tmp_path, f"echo >running; sleep {HANG}; echo >over; exit 1")
    with FakePorts("ttyUSB0"), Line(Slave(9), link="/dev/ttyUSB0") as line:
        daemon = start()
        clients = [connect() for _ in range(20)]
        eventually((tmp_path / "running").exists, what="the fuser")
        clients += [connect() for _ in range(20)]
        for client in clients:
            client.send("GET VER\nSET XYZ 1\nGET DRI\n")
        eventually((tmp_path / "over").exists, HANG + 5, "the end of the hang")
        over_at = time.monotonic()
        for client in clients:
            assert client.receive_line() == b"VER MZV-2.0.0\n"
            assert client.receive(3) == b"ack"
            assert client.receive_line().startswith(b"DRI ")
        seconds = time.monotonic() - over_at
        figure(f"all answered {seconds * 1000:.0f} ms after a fuser that hung for {HANG} s")
        assert seconds < 0.5
        daemon.wait_until_found(9)
        line.wait_until_polled(9, 3)
        assert clients[0].get("DRI") == "RUNNING"


def test_clients_are_answered_during_a_scan_of_silent_ports(start, connect, tmp_path, figure):
    install_fuser(tmp_path, FREE)
    names = [f"ttyUSB{n}" for n in range(3)]
    with FakePorts(*names), Line() as tool:
        usb = [Line(link=f"/dev/{name}").plug() for name in names]
        try:
            daemon = start()
            client = connect()
            for line in (tool, *usb):
                line.wait_for(lambda r: r.slave == 4, timeout=10)
            took = []
            for _ in range(50):
                asked_at = time.monotonic()
                assert client.get("SID") == "[]"
                took.append(time.monotonic() - asked_at)
                time.sleep(0.01)
            figure(f"answered within {max(took) * 1000:.1f} ms during the scan of 4 silent ports")
            assert sorted(took)[len(took) // 2] < 0.05
            mark = daemon.mark()
            usb[-1].slaves[9] = Slave(9)
            began = time.monotonic()
            daemon.wait_until_found(9, since=mark)
            figure(f"gripper on the last port found after {time.monotonic() - began:.1f} s")
            usb[-1].wait_until_polled(9, 3)
        finally:
            for line in usb:
                line.unplug()
