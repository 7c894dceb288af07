"""The operations on all serial ports of the system. The daemon does not call them.

The program system-scan calls them, on ports of this test only.
"""

import os
import statistics
import subprocess

import pytest
from harness.children import binary, spawn
from harness.line import Line, Slave
from harness.ports import ENVIRONMENT, FakePorts, install_fuser

SAYS_FREE = 'echo "local $*" >>asked; exit 1'


@pytest.fixture
def scan(tmp_path):
    """scan(STEP...) returns the lines of each step. No step may write to standard error."""

    def run(*steps, path=None):
        environment = {**os.environ, **ENVIRONMENT}
        if path is not None:
            environment["PATH"] = str(path)
        process = spawn(
            [binary("system-scan"), *steps],
            cwd=tmp_path,
            env=environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        output, errors = process.communicate(timeout=60)
        assert (process.returncode, errors) == (0, "")
        results = []
        for line in output.splitlines():
            if line.endswith(":"):
                results.append([])
            else:
                results[-1].append(line)
        assert len(results) == len(steps)
        return results

    return run


@pytest.fixture
def asked(tmp_path):
    """asked() returns the arguments of the test's fusers in their order."""
    record = tmp_path / "asked"
    return lambda: record.read_text().splitlines() if record.exists() else []


def probed_ids(line):
    return [request.slave for request in line.since(0) if request.is_read(500)]


def test_available_ports_are_full_paths_in_the_order_of_the_enumeration(scan, tmp_path, asked):
    install_fuser(tmp_path, SAYS_FREE)
    names = ["ttyUSB2", "ttyACM1", "ttyS0", "ttyUSB0", "ttyACM", "ttyACM0", "ttyUSB10"]
    with FakePorts(*names):
        enumeration, ports = scan("enumeration", "ports")
    assert enumeration == names
    names.remove("ttyS0")
    assert ports == [f"/dev/{name}" for name in names]
    assert asked() == [f"local /dev/{name}" for name in names]


def test_names_that_do_not_qualify_are_left_out_without_a_fuser(scan, tmp_path, asked):
    install_fuser(tmp_path, SAYS_FREE)
    names = ["ttyS0", "ttyTool", "ttyAMA0", "ttyusb0", "TTYACM0", "xttyUSB0", "ttyUS", "ttyAC"]
    with FakePorts(*names):
        enumeration, ports, grippers = scan("enumeration", "ports", "grippers")
    assert enumeration == names
    assert (ports, grippers) == ([], [])
    assert asked() == []


def test_a_system_without_ports_has_none_to_scan(scan):
    with FakePorts():
        assert scan("enumeration", "ports", "grippers", "gripper=9") == [[], [], [], []]


@pytest.mark.parametrize(
    "local, on_path, programs, free",
    [
        ("exit 1", "exit 0", ["local"], True),
        ("exit 0", "exit 1", ["local"], False),
        ("exit 255", None, ["local"], True),
        (None, "exit 1", ["path"], True),
        (None, "exit 0", ["path"], False),
        (None, None, [], False),
        ("kill -9 $$", "exit 1", ["local", "path"], True),
        ("kill -9 $$", "exit 0", ["local", "path"], False),
        ("kill -9 $$", "kill -9 $$", ["local", "path"], False),
        ("kill -9 $$", None, ["local"], False),
    ],
)
def test_the_fusers_select_the_free_ports(scan, tmp_path, asked, local, on_path, programs, free):
    folder = tmp_path / "path"
    folder.mkdir()
    if local is not None:
        install_fuser(tmp_path, f'echo "local $*" >>asked; {local}')
    if on_path is not None:
        install_fuser(folder, f'echo "path $*" >>asked; {on_path}')
    with FakePorts("ttyACM0"):
        (ports,) = scan("ports", path=folder)
    assert ports == (["/dev/ttyACM0"] if free else [])
    assert asked() == [f"{program} /dev/ttyACM0" for program in programs]


@pytest.mark.parametrize("has_local_fuser", [True, False])
def test_a_port_that_another_process_holds_is_neither_listed_nor_probed(
    scan, tmp_path, has_local_fuser
):
    if has_local_fuser:
        install_fuser(tmp_path, "system")
    with FakePorts("ttyACM0", "ttyUSB0"):
        with Line(Slave(9), link="/dev/ttyACM0") as held, Line(Slave(9), link="/dev/ttyUSB0"):
            holder = os.open("/dev/ttyACM0", os.O_RDWR | os.O_NOCTTY)
            try:
                results = scan("ports", "grippers", "gripper=9")
            finally:
                os.close(holder)
            assert results == [["/dev/ttyUSB0"]] + 2 * [["/dev/ttyUSB0 9=ABC-0042"]]
            assert held.since(0) == []


def test_a_scan_of_all_ids_gives_the_grippers_of_each_port(scan, tmp_path):
    install_fuser(tmp_path, "exit 1")
    first, other = Slave(9, serial=1), Slave(3, serial=2, version="TB1-0.0.1")
    rates = set()
    first.script = lambda _: rates.add(first.line.baud_rate())
    # One port has only a device of another kind. One port cannot be opened.
    with FakePorts("ttyUSB1", "ttyACM0", "ttyUSB0", "ttyUSB2", "ttyUSB3"):
        with Line(Slave(2), Slave(5), first, link="/dev/ttyUSB1"), Line(
            link="/dev/ttyACM0"
        ) as silent, Line(other, link="/dev/ttyUSB0"), Line(
            Slave(4, version="XX1-0.0.1"), link="/dev/ttyUSB2"
        ):
            (grippers,) = scan("grippers")
            assert grippers == ["/dev/ttyUSB0 3=ABC-002", "/dev/ttyUSB1 9=ABC-001 2=ABC-0042"]
            assert probed_ids(silent) == [9, 2, 3, 4]
    assert rates == {115200}


def test_a_scan_of_one_id_probes_it_on_every_port(scan, tmp_path):
    install_fuser(tmp_path, "exit 1")
    # A scan of all ids does not probe id 5.
    with FakePorts("ttyUSB1", "ttyACM0", "ttyUSB0", "ttyUSB2"):
        with Line(Slave(5), Slave(9), link="/dev/ttyUSB1") as first, Line(
            Slave(9), link="/dev/ttyACM0"
        ) as without, Line(Slave(5, serial=3), link="/dev/ttyUSB0"):
            (grippers,) = scan("gripper=5")
            assert grippers == ["/dev/ttyUSB0 5=ABC-003", "/dev/ttyUSB1 5=ABC-0042"]
            assert {request.slave for request in first.since(0)} == {5}
            assert probed_ids(without) == [5]


def test_a_scan_leaves_every_port_closed(scan, tmp_path):
    install_fuser(tmp_path, "system")
    with FakePorts("ttyUSB0", "ttyACM0"):
        with Line(Slave(2), link="/dev/ttyUSB0"), Line(link="/dev/ttyACM0"):
            # The fuser would find a port that the program has left open.
            results = scan("grippers", "ports", "gripper=2", "ports")
    grippers, ports = ["/dev/ttyUSB0 2=ABC-0042"], ["/dev/ttyUSB0", "/dev/ttyACM0"]
    assert results == [grippers, ports, grippers, ports]


def test_silence_costs_62_ms_for_three_registers_also_on_an_acm_port(scan, tmp_path, figure):
    install_fuser(tmp_path, "exit 1")
    with FakePorts("ttyACM0", "ttyUSB0"):
        with Line(link="/dev/ttyACM0") as modem, Line(link="/dev/ttyUSB0") as adapter:
            scan("grippers")
            periods = {}
            for line in modem, adapter:
                times = [request.at for request in line.since(0)]
                assert len(times) == 4
                periods[line.link] = statistics.median(b - a for a, b in zip(times, times[1:]))
    figure(", ".join(f"{link}: {period * 1000:.0f} ms" for link, period in periods.items()))
    # Each probe begins with a pause of 200 ms. With the constraints of a plain ttyACM name it would
    # take 430 ms.
    assert all(0.262 <= period < 0.34 for period in periods.values()), periods


@pytest.mark.parametrize("step", ["grippers", "gripper=9"])
@pytest.mark.parametrize("delay, found", [(0.03, True), (0.15, False)])
def test_an_acm_port_has_the_same_deadline_as_others(
    scan, tmp_path, step, delay, found
):
    install_fuser(tmp_path, "exit 1")
    slow = Slave(9)
    slow.script = lambda request: [(delay if request.is_read(500) else 0, slow.plain_answer(request))]
    with FakePorts("ttyACM0"), Line(slow, link="/dev/ttyACM0"):
        (grippers,) = scan(step)
    assert grippers == (["/dev/ttyACM0 9=ABC-0042"] if found else [])
