"""The records of commands, in a journal that this test keeps."""

import socket
import struct
import threading

import pytest
from gatewayrig import COMMANDS, body
from harness.simulator import Simulator
from harness.waiting import eventually

# The program sees the folder of the journal's socket in place of that of the machine.
INSIDE = """
mount -t tmpfs journal /run
mkdir -p /run/systemd/journal
mount --bind "$0" /run/systemd/journal
exec "$@"
"""


class Journal:
    """Receives records as the journal of the system does: one packet each, NAME=VALUE lines."""

    def __init__(self, folder):
        folder.mkdir()
        self.records = []
        self.inside = ["unshare", "--mount", "sh", "-ec", INSIDE, str(folder)]
        self.environment = {"JOURNAL_STREAM": "1:1"}
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(folder / "socket"))
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def _read(self):
        while packet := self._socket.recv(65536):
            self.records.append(fields_of(packet))

    def close(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as end:
            end.sendto(b"", self._socket.getsockname())
        self._reader.join()
        self._socket.close()


def fields_of(packet):
    """Returns the fields of a record. A value with a line end has its length before it."""
    fields = {}
    while packet:
        line, packet = packet.split(b"\n", 1)
        name, sign, value = line.partition(b"=")
        if not sign:
            (length,) = struct.unpack("<Q", packet[:8])
            value, packet = packet[8 : 8 + length], packet[9 + length :]
        fields[name.decode()] = value.decode()
    return fields


@pytest.fixture
def journal(tmp_path):
    journal = Journal(tmp_path / "journal")
    yield journal
    journal.close()


def test_every_command_reaches_the_journal(journal, start_daemon, start_gateway):
    with Simulator("9=TA3-1.6.14", "--activation-ms", "100"):
        start_daemon().wait_until_found(9)
        gateway = start_gateway(inside=journal.inside, environment=journal.environment)
        gateway.wait_for(lambda state: [each["id"] for each in state["grippers"]] == [9])
        operator = gateway.operator("maintain")
        viewer = gateway.page("view")
        for route in COMMANDS:
            assert viewer.post(route, body(operator, route)).status == 403
            before = len(journal.records)
            answer = operator.post(route, body(operator, route))
            assert answer.status == 202, (route, answer.body)
            operator.outcome(answer.json()["job"]["id"], 30)
            begin, end = eventually(lambda: (found := journal.records[before:])[1:] and found, what=route)
            action = route.split("/")[-1]
            gripper = "" if route == "scan" else "9"
            name = f"{action} gripper {gripper}" if gripper else action
            fields = {"ACTION": action, "GRIPPER": gripper, "ROLE": "maintain", "PRIORITY": "5"}
            assert begin.items() >= fields.items() and end.items() >= fields.items()
            assert begin["PEER"] == "127.0.0.1"
            assert begin["MESSAGE"] == f"{name}, role maintain, from 127.0.0.1"
            assert end["MESSAGE"].startswith(f"{name} ended: ")
        assert [record["ACTION"] for record in journal.records[:5]] == ["code", "pair", "control", "code", "pair"]
