"""A scripted gripper that supports a slave id move."""

import pytest

from . import modbus
from .line import Line, Slave

SETTINGS = [0x1234, 0x0100, 0x0007, 0xABCD, 0x5509]
RESTART = 0x5600


class MovingSlave(Slave):
    """After a restart request it answers under the id of its settings block."""

    def __init__(self, slave_id, **options):
        super().__init__(slave_id, **options)
        self.put(430, *SETTINGS[:4], SETTINGS[4] & 0xFF00 | slave_id)
        self.script = self.behave

    def behave(self, request):
        if not (request.is_write(400) and request.values == [RESTART]):
            return None
        answer = modbus.write_answer(self.id, 400, 1)
        slaves = self.line.slaves
        del slaves[self.id]
        self.id = self.get(434)[0] & 0xFF
        slaves[self.id] = self
        return answer


@pytest.fixture
def line():
    """Replaces `line` in a file that imports it: its gripper can move."""
    with Line(MovingSlave(9)) as plugged:
        yield plugged


def quiet_client(line, connect):
    """Returns a client that has muted polling, on a silent line."""
    client = connect()
    assert client.set("MUTE 1") == "ack"
    line.wait_until_quiet()
    return client
