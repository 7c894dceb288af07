"""The errors that calls raise."""

from typing import Optional


class GripperError(Exception):
    """The base of all errors of this package."""


class InvalidValue(GripperError, ValueError):
    """An argument has a wrong type or is out of its range. The call has sent nothing."""


class ConnectionLost(GripperError, ConnectionError):
    """The daemon closed the connection, or no connection was possible.

    Attributes:
        unknown: the SET that the daemon may or may not have carried out, such as
            ``"SET POS 80 SPE 255 FOR 100 GTO 1"``; None if nothing is unknown. A call that waits for
            the effect of a SET names it here, too: a daemon that dies may not have written it.
    """

    def __init__(self, message: str, unknown: Optional[str] = None) -> None:
        super().__init__(message)
        self.unknown = unknown


class TimedOut(GripperError, TimeoutError):
    """The call did not end in time. The gripper continues with what the daemon has acknowledged.

    Attributes:
        unknown: the SET without a reply, or None. The daemon may carry it out later.
    """

    def __init__(self, message: str, unknown: Optional[str] = None) -> None:
        super().__init__(message)
        self.unknown = unknown


class ProtocolError(GripperError):
    """The peer does not answer as the daemon does. The connection is closed.

    Attributes:
        unknown: the SET without a proper reply, or None.
    """

    def __init__(self, message: str, unknown: Optional[str] = None) -> None:
        super().__init__(message)
        self.unknown = unknown


class Refused(GripperError):
    """The daemon replied ``nak``, or the call refuses to begin."""


class GripperMissing(GripperError):
    """The daemon does not list the gripper.

    A command has sent nothing then, except ``stop()`` and a command during which the gripper was missing
    for 3 s.

    Attributes:
        id: the slave id of the gripper.
    """

    def __init__(self, id: int, message: str = "") -> None:
        super().__init__(message or f"the daemon does not list gripper {id}")
        self.id = id


class NotActive(GripperError):
    """The gripper is not active, so it does not move: call ``activate()`` first.

    Attributes:
        status: the value of ``STA``.
    """

    def __init__(self, status: int, message: str = "") -> None:
        super().__init__(message or f"the gripper has the status {status} and does not move")
        self.status = status


class Fault(GripperError):
    """The gripper shows a fault.

    Attributes:
        code: the fault code, 1 to 15. The manual of the gripper gives its meaning.
    """

    def __init__(self, code: int, message: str = "") -> None:
        super().__init__(message or f"the gripper has fault {code}")
        self.code = code


class Interference(GripperError):
    """Another client changed the request of the gripper during the call.

    Attributes:
        what: the change, such as ``"the gripper goes to 50 instead of 80"``.
    """

    def __init__(self, what: str) -> None:
        super().__init__(f"another client commands this gripper: {what}")
        self.what = what
