"""The identity of grippers, and the devices that the daemon accepts as grippers."""

import pytest
from harness import modbus
from harness.line import Line, Slave, version_registers

IDS = [9, 2, 3, 4]


def four_slaves(address, registers):
    slaves = [Slave(slave_id) for slave_id in IDS]
    for slave, words in zip(slaves, registers):
        slave.put(address, *words)
    return slaves


def values(client, name):
    found = []
    for slave_id in IDS:
        client.set(f"SID {slave_id}")
        found.append(client.get(name))
    return found


@pytest.mark.parametrize(
    "registers, texts",
    [
        (
            [(0x4142, 0x4300, 7, 0), (0x4142, 0x4300, 42, 0), (0, 0, 99, 0), (0, 0, 100, 0)],
            ["ABC-007", "ABC-0042", "-0099", "-100"],
        ),
        (
            [(0x4142, 0x43FF, 101, 0), (0x4142, 0x4358, 999, 0), (0, 0x4300, 1000, 0), (0, 0, 1, 1)],
            ["ABC-0101", "ABC-0999", "C-1000", "-65537"],
        ),
        (
            [(0x2041, 0x2000, 5, 0), (0x4100, 0x4200, 0, 0), (0, 0, 0, 0x8000), (0, 0, 65535, 65535)],
            ["A -005", "AB-000", "-00-2147483648", "-00-1"],
        ),
    ],
)
def test_serial_number_text(start_daemon, connect, registers, texts):
    with Line(*four_slaves(510, registers)):
        start_daemon().wait_until_found(*IDS)
        assert values(connect(), "SNU") == texts


def test_every_family_is_found_with_its_version(start_daemon, connect):
    versions = ["TA3-1.6.14", "TB1-1.4.3", "TE1-2.0.2", "TF1-255.0.128"]
    with Line(*(Slave(n, version) for n, version in zip(IDS, versions))):
        start_daemon().wait_until_found(*IDS)
        assert values(connect(), "FWV") == versions


def test_devices_of_other_families_are_refused(start_daemon, connect):
    versions = ["TC1-1.0.0", "ta3-1.6.14", "AT3-1.6.14", "TE1-2.0.2"]
    with Line(*(Slave(n, version) for n, version in zip(IDS, versions))) as line:
        start_daemon().wait_until_found(4)
        assert connect().get("SID") == "[4]"
        # The daemon reads nothing else from them.
        assert {r.address for r in line.since(0, lambda r: r.slave in (9, 2, 3))} == {500}


def test_identity_is_read_once_and_kept(found, line, connect):
    client = connect()
    mark = line.mark()
    line[9].put(500, *version_registers("TF9-9.9.9"))
    line[9].put(510, 0x5A5A, 0x5A00, 1, 0)
    line[9].put(514, 1999)
    for _ in range(3):
        assert client.get("FWV") == "TA3-1.6.14"
        assert client.get("SNU") == "ABC-0042"
        assert client.get("PYE") == "2021"
    line.wait_until_polled(9)
    assert line.since(mark, lambda r: r.address in (500, 510, 514)) == []


def test_a_scan_reads_the_identity_again(found, line, connect):
    client = connect()
    line[9].put(500, *version_registers("TF9-9.9.9"))
    line[9].put(514, 1999)
    assert client.set("SCN_BLOCK") == "ack"
    assert (client.get("FWV"), client.get("PYE")) == ("TF9-9.9.9", "1999")


def year_after(zeros):
    """Returns a script that answers the first `zeros` reads of the year with 0."""
    left = [zeros]

    def script(request):
        if not request.is_read(514) or left[0] == 0:
            return None
        left[0] -= 1
        return modbus.read_answer(request.slave, [0])

    return script


def test_a_gripper_has_five_identity_reads(start_daemon, connect):
    slaves = [Slave(slave_id) for slave_id in IDS]
    # Version and serial number need one read each.
    for slave, zeros in zip(slaves, [0, 2, 3, 99]):
        slave.script = year_after(zeros)
    with Line(*slaves) as line:
        start_daemon().wait_until_found(9, 2)
        assert connect().get("PYE") == "2021"
        reads = [len(line.since(0, lambda r: r.slave == n and r.is_read(514))) for n in IDS]
        assert reads == [1, 3, 4, 5]
        # The daemon reads the serial number only if it has a read left.
        serials = [len(line.since(0, lambda r: r.slave == n and r.is_read(510))) for n in IDS]
        assert serials == [1, 1, 1, 0]


@pytest.mark.parametrize("address", [500, 514, 510, 2000, 600, 602, 604])
def test_a_read_that_fails_during_the_construction_refuses_the_gripper(start_daemon, address):
    silent = Slave(9)
    silent.script = lambda request: b"" if request.is_read(address) else None
    with Line(silent, Slave(2)) as line:
        start_daemon().wait_until_found(2)
        assert len(line.since(0, lambda r: r.slave == 9 and r.is_read(address))) == 1


def test_construction_reads_in_this_order(start_daemon):
    with Line(Slave(9)) as line:
        start_daemon()
        requests = line.wait_for(lambda r: r.slave == 9, 7, timeout=10)
    assert [(r.address, r.count) for r in requests] == [
        (500, 3),
        (514, 1),
        (510, 4),
        (2000, 3),
        (600, 2),
        (602, 2),
        (604, 2),
    ]
