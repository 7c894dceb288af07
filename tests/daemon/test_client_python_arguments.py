"""Wrong arguments of all calls of the Python client library."""

import inspect
import math
import re

import pytest
from harness.gripperctl import ScriptedDaemon
from harness.pythonclient import blocking, flavour, loop, new_line  # noqa: F401


class Unprintable:
    def __repr__(self):
        raise RuntimeError("no text")


VALUES = [None, math.nan, math.inf, -math.inf, -1, 0, 1, 9, 0.5, 300, 70_000, 10**400, 10**5000, -(10**5000)]
VALUES += [True, False, 1j, "", " ", "9", "a b", "a:x", "[::1", "x" * 100_000, "\ud800", "\0", b"", b"9"]
VALUES += [[], [None], [0], [9.0], ["9"], [True], {}, {None: 1}, {"POS": None}, {"POS": 256}, {"POS": 1.0}]
VALUES += [{"POS": True}, {"POS": 10**5000}, {"NID": 2}, {"sid": 2}, {"XYZ": 1}, [("POS", 1)], object(), Unprintable()]


def is_whole(value, least, greatest):
    return type(value) is int and least <= value <= greatest


def is_id(value):
    return is_whole(value, 1, 9)


def is_byte(value):
    return is_whole(value, 0, 255)


def is_real(value):
    return type(value) in (int, float)


def is_anything(_value):
    return True


# The values of each argument that no call refuses. A flag is any value: it counts as true or false.
ACCEPTED = {
    "host": lambda value: isinstance(value, str) and re.fullmatch("9|x+", value),
    "port": lambda value: is_whole(value, 1, 65535),
    "timeout": lambda value: is_real(value) and value > 0,
    "ids": lambda value: isinstance(value, (list, dict)) and all(map(is_id, value)),
    "id": is_id,
    "old": is_id,
    "new": lambda value: value in (2, 3, 4, 9) and is_id(value),
    "rate": lambda value: is_real(value) and 1 / 86400 <= value <= 1000,
    "position": is_byte,
    "speed": is_byte,
    "force": is_byte,
    "again": is_anything,
    "closing": is_anything,
    "red": is_anything,
    "green": is_anything,
    "blue": is_anything,
    "pairs": lambda value: False,
    "name": lambda value: False,
    "progress": lambda value: value is None or callable(value),
    "expected": lambda value: value is None or isinstance(value, str),
}
# The other arguments of a call.
USUAL = {"id": 9, "old": 2, "new": 3, "position": 1, "speed": 1, "force": 1, "red": 1, "green": 1, "blue": 1}
USUAL |= {"pairs": {"MUTE": 1}, "name": "POS"}
CALLS = [
    (kind.__name__.lower(), name, method)
    for kind in (blocking.Line, blocking.Gripper)
    for name, method in vars(kind).items()
    if inspect.isfunction(method) and not name.startswith("_")
]


def parameters(method):
    return [each for each in inspect.signature(method).parameters.values() if each.name != "self"]


def wrong_values(parameter):
    is_accepted = ACCEPTED[parameter.name]
    may_be_none = "Optional" in str(parameter.annotation)
    return [v for v in VALUES if not (is_accepted(v) or v is None and may_be_none)]


def refuse(call, parameter):
    for value in wrong_values(parameter):
        kind = type(value).__name__
        with pytest.raises(blocking.InvalidValue) as raised:
            call(value)
            pytest.fail(f"{parameter.name} may not be a {kind}")
        text = str(raised.value)
        assert 10 < len(text) < 200 and text.isprintable(), (parameter.name, kind)


@pytest.fixture
def scripted():
    with ScriptedDaemon(SID="[2, 9]") as daemon:
        yield daemon


@pytest.fixture
def called(scripted, flavour, loop):
    with new_line(flavour, loop, scripted.host) as line, line.gripper(9) as gripper:
        line.grippers()
        yield {"line": line, "gripper": gripper}


def test_every_call_refuses_wrong_arguments_and_sends_nothing(called, scripted):
    requests, connections = list(scripted.requests), len(scripted.sockets)
    checked = 0
    for of, name, method in CALLS:
        usual = {p.name: USUAL[p.name] for p in parameters(method) if p.default is p.empty}
        for parameter in parameters(method):
            checked += 1
            refuse(
                lambda value: getattr(called[of], name)(**{**usual, parameter.name: value}),
                parameter,
            )
            assert scripted.requests == requests, (name, parameter.name)
    assert checked > 30
    # The connections are those of before.
    assert called["gripper"].get("STA") == "3" and called["line"].grippers() == (2, 9)
    assert len(scripted.sockets) == connections


def test_the_line_refuses_wrong_arguments(flavour, loop):
    for parameter in parameters(blocking.Line.__init__):
        refuse(lambda value: new_line(flavour, loop, **{parameter.name: value}), parameter)


def test_long_timeouts_are_a_day(called):
    for timeout in (math.inf, 10**400, 1e308):
        assert called["line"].grippers(timeout) == (2, 9)
