"""Judgements about a gripper that a call waits for. No I/O."""

from typing import Generic, Optional, Tuple

from ._errors import Fault, Interference, NotActive
from ._model import Image, MoveResult, Object, ObjectMet, Reached, Status
from ._steps import T

# The daemon takes 50 ms for each read and for each write. In the worst case it writes every gripper at
# each visit, and a request comes just after its gripper could be written. The next visit then writes it,
# and the visit after that reads its effect. A slow adapter needs one more step for each read.
_SETTLING = 0.1
_SETTLING_PER_GRIPPER = 0.2
# Failed accesses are repeated, so a request may show later.
_REQUEST_SHOWS = 1.5
# The gripper does not report the end of a release. It is over when nothing moves for this time.
_STANDSTILL = 0.5

_STATUS_TEXTS = {
    Status.INACTIVE: "inactive",
    Status.ACTIVATING: "activating",
    Status.RELEASING: "released",
    Status.ACTIVE: "active",
}


def status_text(image: Image) -> str:
    return _STATUS_TEXTS.get(image.status, f"status {image.status}")  # type: ignore[call-overload,no-any-return]


def check_ready(image: Image) -> None:
    """Raises Fault or NotActive if the gripper cannot move."""
    if image.fault:
        raise Fault(image.fault, f"gripper {image.id} has fault {image.fault}")
    if image.status != Status.ACTIVE:
        raise NotActive(
            image.status or 0, f"gripper {image.id} is {status_text(image)} and does not move"
        )


class Wait(Generic[T]):
    """Judges images until one of them ends the wait."""

    #: The wanted state, for the message of a time-out.
    goal = ""
    #: Whether an image before the command showed the gripper. If not, it must show at once.
    was_listed = True

    def judge(self, image: Image) -> Optional[T]:
        """Returns the result, or None to continue. `image` is not stale."""
        raise NotImplementedError

    def on_acknowledged(self, now: float) -> None:
        """Takes note that the daemon has the request."""

    def on_stale(self, image: Image) -> None:
        """Takes note of values that may be old."""


class LiveWait(Wait[Image]):
    """Waits for values that are not stale."""

    goal = "show values, because the link does not run"

    def judge(self, image: Image) -> Optional[Image]:
        return image


class StatusWait(Wait[Image]):
    """Waits for a status."""

    def __init__(self, status: Status) -> None:
        self._status = status
        self.goal = f"become {_STATUS_TEXTS[status]}"

    def judge(self, image: Image) -> Optional[Image]:
        return image if image.status == self._status else None


class WriteWait(Wait[T]):
    """Knows when the gripper has the request even if its values do not show a change."""

    _since = 0.0

    def on_acknowledged(self, now: float) -> None:
        self._since = now

    def on_stale(self, image: Image) -> None:
        # The daemon writes the request when the link runs again.
        self._since = image.time.monotonic

    def _is_settled(self, image: Image) -> bool:
        """Returns whether the values are from after the write of the request."""
        settling = _SETTLING + _SETTLING_PER_GRIPPER * len(image.listed)
        return image.time.monotonic >= self._since + settling

    def _is_overdue(self, image: Image) -> bool:
        """Returns whether the request should have appeared."""
        return image.time.monotonic >= self._since + _REQUEST_SHOWS


class StopWait(WriteWait[Image]):
    """Waits until go-to is off.

    If go-to is off at once, an earlier request may still be on its way to the gripper.
    """

    goal = "switch go-to off"
    was_listed = False
    _was_on = False

    def judge(self, image: Image) -> Optional[Image]:
        if image.go_to:
            self._was_on = True
            return None
        return image if self._was_on or self._is_settled(image) else None


class ReleaseWait(Wait[Image]):
    """Waits until a releasing gripper does not move."""

    goal = "finish its release"

    def __init__(self) -> None:
        self._still: Optional[Tuple[Optional[int], float]] = None

    def judge(self, image: Image) -> Optional[Image]:
        if image.status != Status.RELEASING:
            self._still = None
        elif self._still is None or self._still[0] != image.position:
            self._still = (image.position, image.time.monotonic)
        elif image.time.monotonic - self._still[1] >= _STANDSTILL:
            return image
        return None


class MoveWait(WriteWait[MoveResult]):
    """Waits for the end of a movement.

    The object detection belongs to the request that the gripper shows. If the gripper showed this
    request before, the object detection may be that of an earlier request for a while.
    """

    def __init__(self, before: Image, position: int) -> None:
        self.goal = f"finish its movement to {position}"
        self._position = position
        self._before = (before.requested_position, before.go_to)
        self._was_shown = self._before == (position, True)
        self._is_taken = False

    def judge(self, image: Image) -> Optional[MoveResult]:
        check_ready(image)
        if self._was_shown and not self._is_settled(image):
            return None
        shown = (image.requested_position, image.go_to)
        if shown == (self._position, True):
            self._is_taken = True
            return _result(image)
        # The request of before may show for a while, or an earlier one that was not written yet.
        if self._is_taken or (shown != self._before and self._is_overdue(image)):
            raise Interference(_interference_text(image, self._position))
        return None


def _interference_text(image: Image, position: int) -> str:
    shown = image.requested_position
    if shown != position:
        return f"gripper {image.id} goes to {shown} instead of {position}"
    return f"gripper {image.id} does not go to {shown}, because go-to is off"


def _result(image: Image) -> Optional[MoveResult]:
    position, effort = image.position or 0, image.current or 0
    if image.object == Object.REACHED:
        return Reached(position, effort)
    if image.object == Object.MET:
        return ObjectMet(position, effort)
    return None
