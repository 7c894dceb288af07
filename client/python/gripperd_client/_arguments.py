"""Checks of the arguments of calls. No I/O."""

from typing import Any, Iterable, Mapping, NoReturn, Tuple

from ._errors import InvalidValue
from ._variables import SET_VARIABLES

# The ids that a scan looks for. No scan finds a gripper with another id.
SCANNED_IDS = (9, 2, 3, 4)
MAX_ID = 9
MAX_VALUE = 255
MAX_PORT = 65535
LONGEST_TIMEOUT = 86_400.0
MAX_RATE = 1000.0
LONGEST_PERIOD = 86_400.0

_SHOWN_LENGTH = 40
_SET_ROWS = {row.name: row for row in SET_VARIABLES}
# These change the gripper that the connection addresses.
_NOT_SET_BY_HAND = ("SID", "NID")


def refuse(expected: str, value: object) -> NoReturn:
    """Raises InvalidValue."""
    raise InvalidValue(f"{expected}, not {value_text(value)}")


def value_text(value: object) -> str:
    """Returns a short text of any value."""
    try:
        text = repr(value)
    except Exception:
        # An int may have too many digits, and a class of the caller may fail.
        return f"a value of the type {type(value).__name__}"
    return text if len(text) <= _SHOWN_LENGTH else text[:_SHOWN_LENGTH] + "..."


def checked_number(what: str, value: Any, least: int = 0, greatest: int = MAX_VALUE) -> int:
    if isinstance(value, bool) or not isinstance(value, int) or not least <= value <= greatest:
        refuse(f"{what} is a whole number from {least} to {greatest}", value)
    return value


def checked_id(value: Any) -> int:
    return checked_number("a slave id", value, 1, MAX_ID)


def checked_ids(values: Any) -> Tuple[int, ...]:
    if isinstance(values, (str, bytes)) or not isinstance(values, Iterable):
        refuse("slave ids are a list or a tuple", values)
    return tuple(checked_id(value) for value in values)


def checked_timeout(value: Any) -> float:
    """Returns the seconds, at most a day."""
    if not _is_real(value) or not value > 0:
        refuse("a timeout is a number of seconds greater than 0", value)
    return float(min(value, LONGEST_TIMEOUT))


def checked_rate(value: Any) -> float:
    if not _is_real(value) or not 1 / LONGEST_PERIOD <= value <= MAX_RATE:
        refuse(f"a rate is from one period a day to {MAX_RATE:g} a second", value)
    return float(value)


def checked_pairs(pairs: Any) -> Tuple[Tuple[str, int], ...]:
    """Returns the pairs of a SET, with their names in upper case."""
    if not isinstance(pairs, Mapping) or not pairs:
        refuse("the pairs of a SET are a dict of names and values", pairs)
    return tuple((_settable_name(name), checked_number(name, value)) for name, value in pairs.items())


def needs_gripper(pairs: Iterable[Tuple[str, int]]) -> bool:
    """Returns whether one of the checked pairs has no effect without a gripper."""
    return any(_SET_ROWS[name].needs_gripper for name, _ in pairs)


def _settable_name(name: Any) -> str:
    upper = name.upper() if isinstance(name, str) else ""
    if upper not in _SET_ROWS or upper in _NOT_SET_BY_HAND:
        raise InvalidValue(f"there is no variable {value_text(name)} to set")
    return upper


def _is_real(value: Any) -> bool:
    return isinstance(value, (int, float)) and not isinstance(value, bool)
