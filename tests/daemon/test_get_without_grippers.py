"""The replies of a daemon that has never found a gripper."""

import pytest
from test_get_table import UNKNOWN_TO_GET, WITH_GRIPPER


@pytest.fixture(scope="module")
def daemon(start_module_daemon):
    daemon = start_module_daemon()
    daemon.wait_for_line("availablePorts")
    return daemon


@pytest.mark.parametrize("name", [*WITH_GRIPPER, *UNKNOWN_TO_GET])
def test_gripper_variable_is_a_question_mark(daemon, connect, name):
    client = connect()
    assert client.get(name) == "?"
    client.send(f"GET {name}")
    assert client.receive(1) == b"?"


@pytest.mark.parametrize(
    "name, value",
    [
        ("DST", "0"),
        ("PCO", "0"),
        ("VER", "MZV-2.0.0"),
        ("DRI", "SCANNING"),
        ("SID", "[]"),
        ("UPG", "0"),
    ],
)
def test_other_variable_is_answered(daemon, connect, name, value):
    client = connect()
    assert client.get(name) == value
    client.send(f"GET {name}")
    assert client.receive(len(value)).decode() == value
