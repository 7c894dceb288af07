"""Judgements about a gripper that a call waits for. No I/O."""

from typing import Generic, Optional, Tuple

from ._errors import Fault, Interference, NotActive
from ._model import Image, MoveResult, Object, ObjectMet, Reached, Status
from ._steps import T

# In the worst case the daemon reads and writes every gripper between two visits of one of them, and
# shows a written value one visit later.
_VALUE_AGE_PER_GRIPPER = 0.2
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
        raise NotActive(f"gripper {image.id} is {status_text(image)} and does not move")


class Wait(Generic[T]):
    """Judges images until one of them ends the wait."""

    #: The wanted state, for the message of a time-out.
    goal = ""

    def judge(self, image: Image) -> Optional[T]:
        """Returns the result, or None to continue. `image` is not stale."""
        raise NotImplementedError

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

    def __init__(self, before: Image, sent_at: float) -> None:
        self._value_age = _VALUE_AGE_PER_GRIPPER * max(1, len(before.listed))
        self._settled_at = sent_at + self._value_age

    def on_stale(self, image: Image) -> None:
        # The daemon writes the request when the link runs again.
        self._settled_at = image.time.monotonic + self._value_age

    def _is_settled(self, image: Image) -> bool:
        return image.time.monotonic >= self._settled_at


class StopWait(WriteWait[Image]):
    """Waits until go-to is off.

    If go-to was off before, an earlier request may still be on its way to the gripper.
    """

    goal = "switch go-to off"

    def __init__(self, before: Image, sent_at: float) -> None:
        super().__init__(before, sent_at)
        self._was_off = not before.go_to

    def judge(self, image: Image) -> Optional[Image]:
        if image.go_to or (self._was_off and not self._is_settled(image)):
            return None
        return image


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

    def __init__(self, before: Image, position: int, sent_at: float) -> None:
        super().__init__(before, sent_at)
        self.goal = f"finish its movement to {position}"
        self._position = position
        self._before = before.requested_position
        self._was_shown = before.go_to is True and before.requested_position == position
        self._is_taken = False

    def judge(self, image: Image) -> Optional[MoveResult]:
        check_ready(image)
        is_settled = self._is_settled(image)
        if self._was_shown and not is_settled:
            return None
        if image.go_to and image.requested_position == self._position:
            self._is_taken = True
            return _result(image)
        self._check_interference(image, is_settled)
        return None

    def _check_interference(self, image: Image, is_settled: bool) -> None:
        shown = image.requested_position
        has_changed = self._is_taken or (is_settled and shown != self._before)
        if not has_changed:
            return
        if shown != self._position:
            raise Interference(f"gripper {image.id} goes to {shown} instead of {self._position}")
        raise Interference(f"gripper {image.id} does not go to {shown}, because go-to is off")


def _result(image: Image) -> Optional[MoveResult]:
    position, effort = image.position or 0, image.current or 0
    if image.object == Object.REACHED:
        return Reached(position, effort)
    if image.object == Object.MET:
        return ObjectMet(position, effort)
    return None
