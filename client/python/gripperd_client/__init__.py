"""A client of gripperd, the daemon that serves robot grippers on a serial line.

The classes of this module block. `gripperd_client.aio` has the same classes for asyncio.
"""

from importlib import metadata as _metadata

from ._client import Gripper, Line, Maintenance, Watch
from ._errors import (
    ConnectionLost,
    Fault,
    GripperError,
    GripperMissing,
    Interference,
    InvalidValue,
    NotActive,
    ProtocolError,
    Refused,
    TimedOut,
)
from ._model import (
    Image,
    LineImage,
    LineState,
    MoveResult,
    Object,
    ObjectMet,
    Outage,
    OutageReason,
    Reached,
    ReadingTime,
    Status,
    UpgradeStage,
    WatchItem,
)
from ._variables import GET_VARIABLES, SET_VARIABLES, GetVariable, SetVariable

try:
    __version__ = _metadata.version("gripperd-client")
except _metadata.PackageNotFoundError:
    # Only an installed package has a version.
    __version__ = "0+source"

__all__ = [
    "ConnectionLost",
    "Fault",
    "GET_VARIABLES",
    "GetVariable",
    "Gripper",
    "GripperError",
    "GripperMissing",
    "Image",
    "Interference",
    "InvalidValue",
    "Line",
    "LineImage",
    "LineState",
    "Maintenance",
    "MoveResult",
    "NotActive",
    "Object",
    "ObjectMet",
    "Outage",
    "OutageReason",
    "ProtocolError",
    "Reached",
    "ReadingTime",
    "Refused",
    "SET_VARIABLES",
    "SetVariable",
    "Status",
    "TimedOut",
    "UpgradeStage",
    "Watch",
    "WatchItem",
]
