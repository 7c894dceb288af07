"""The values that calls return. No I/O."""

import enum
from dataclasses import dataclass, field
from typing import Dict, Sequence, Tuple, Union

from ._protocol import Request, decoded, get_request
from ._variables import GET_VARIABLES, LineValues, Values


class Status(enum.IntEnum):
    """The values of ``Image.status`` (``STA``)."""

    INACTIVE = 0
    ACTIVATING = 1
    RELEASING = 2
    ACTIVE = 3


class Object(enum.IntEnum):
    """The values of ``Image.object`` (``OBJ``)."""

    NO_GO_TO = 0
    MOVING = 1
    MET = 2
    REACHED = 3


class UpgradeStage(enum.Enum):
    """The stages of ``Gripper.upgrade()``, in this order."""

    JUMPING = "jumping"  #: the gripper enters its bootloader
    WRITING = "writing"  #: the flasher runs: do not switch the gripper off
    SEARCHING = "searching"  #: the daemon looks for the gripper
    DONE = "done"


class OutageReason(enum.Enum):
    """The causes of an outage."""

    NO_CONNECTION = "no connection"  #: the daemon does not answer
    LINK_DOWN = "link down"  #: the daemon has no working line
    MISSING = "missing"  #: the line runs, but the daemon does not list the gripper


@dataclass(frozen=True)
class ReadingTime:
    """The time of reading: when the reply had arrived.

    The values are older: by 10 to 60 ms with one gripper on a throttled line, and by 50 ms more for
    each other gripper.
    """

    monotonic: float = 0.0  #: seconds on the clock of ``time.monotonic()``
    wall: float = 0.0  #: seconds since 1970, as of ``time.time()``


@dataclass(frozen=True)
class LineState:
    """The state of the link between the daemon and the grippers."""

    text: str = ""  #: the value of ``DRI``, such as ``ERR_TIMEOUT``
    running: bool = False  #: the last access to a gripper succeeded
    scanning: bool = False  #: the daemon looks for grippers
    upgrading: bool = False  #: a flasher has the line: values do not change


@dataclass(frozen=True)
class LineImage(LineValues):
    """All values of the line, from one packet."""

    time: ReadingTime = field(default_factory=ReadingTime)

    def state(self) -> LineState:
        """The state of the link in this packet."""
        return _line_state(self.link, self.upgrading)


@dataclass(frozen=True)
class Image(Values):
    """All values of one gripper, from one packet: they belong together.

    A value that the daemon does not have is None, never 0.
    """

    id: int = 0
    time: ReadingTime = field(default_factory=ReadingTime)
    line: LineState = field(default_factory=LineState)  #: from the same packet
    #: The grippers that the daemon lists, from the same packet.
    listed: Tuple[int, ...] = ()
    #: Whether the daemon lists the gripper. A missing gripper has no values.
    present: bool = False
    #: Whether the values may be old: the gripper is not listed, or the link does not run. Muted
    #: polling does not show: values then do not change although `stale` is False.
    stale: bool = True


@dataclass(frozen=True)
class Outage:
    """A time without values.

    The first observation has `since` equal to `time`; later ones keep `since` until the outage ends.
    """

    reason: OutageReason
    id: int  #: the gripper; 0 if no gripper is known
    text: str  #: the cause, for people
    time: ReadingTime  #: of this observation
    since: ReadingTime  #: of the first observation


@dataclass(frozen=True)
class Reached:
    """The gripper is at the requested position."""

    position: int  #: the measured position, 0 to 255
    effort: int  #: the motor current, 0 to 255
    reached: bool = field(default=True, init=False)
    stalled: bool = field(default=False, init=False)


@dataclass(frozen=True)
class ObjectMet:
    """An object stopped the fingers. A vacuum gripper has a leak."""

    position: int  #: the measured position, 0 to 255
    effort: int  #: the motor current, 0 to 255
    reached: bool = field(default=False, init=False)
    stalled: bool = field(default=True, init=False)


MoveResult = Union[Reached, ObjectMet]
WatchItem = Union[Image, Outage]

_FIELDS: Dict[str, Tuple[str, str]] = {row.name: (row.field, row.type) for row in GET_VARIABLES}
# The order of the table has PRE and GTO before OBJ: if the network splits the packet, the object
# detection is never older than the request that it belongs to.
_OF_GRIPPER = tuple(row.name for row in GET_VARIABLES if row.needs_gripper)
_OF_LINE = tuple(row.name for row in GET_VARIABLES if not row.needs_gripper)
_LINK = ("DRI", "UPG", "SID")

IMAGE_REQUEST: Request = get_request(_OF_GRIPPER + _LINK)
LINE_REQUEST: Request = get_request(_OF_LINE)


def decode_image(id: int, texts: Sequence[str], time: ReadingTime) -> Image:
    """Decodes the replies to `IMAGE_REQUEST`. Raises ProtocolError if a value has not its form."""
    count = len(_OF_GRIPPER)
    values = decoded(_OF_GRIPPER, texts[:count], _FIELDS)
    of_line = decoded(_LINK, texts[count:], _FIELDS)
    line = _line_state(of_line["link"], of_line["upgrading"])
    present = values["status"] is not None
    return Image(
        **values,
        id=id,
        time=time,
        line=line,
        listed=of_line["ids"],
        present=present,
        stale=not (present and line.running),
    )


def decode_line(texts: Sequence[str], time: ReadingTime) -> LineImage:
    """Decodes the replies to `LINE_REQUEST`. Raises ProtocolError if a value has not its form."""
    return LineImage(**decoded(_OF_LINE, texts, _FIELDS), time=time)


def _line_state(link: object, upgrading: object) -> LineState:
    text = str(link or "")
    return LineState(text, text == "RUNNING", text == "SCANNING", upgrading is True)
