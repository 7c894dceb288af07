"""Steps of calls.

The logic of a call is a generator. It does no I/O: it yields steps, and receives their results. A
driver performs the steps, blocking or in an event loop.
"""

import time
from abc import ABC, abstractmethod
from typing import Any, Generator, NamedTuple, TypeVar, Union

from ._arguments import checked_timeout


class Deadline(NamedTuple):
    """The end of a call."""

    at: float  #: on the clock of ``time.monotonic()``
    timeout: float

    @classmethod
    def after(cls, timeout: float) -> "Deadline":
        """Raises InvalidValue unless `timeout` is greater than 0. A day is the longest time."""
        seconds = checked_timeout(timeout)
        return cls(time.monotonic() + seconds, seconds)

    def is_over(self) -> bool:
        return time.monotonic() >= self.at


def time_left(deadline: float) -> float:
    """Returns the seconds until the deadline, more than 0. Raises Late."""
    left = deadline - time.monotonic()
    if left <= 0:
        raise Late
    return left


class Late(Exception):
    """The deadline of a step is over."""


class NotSent(Exception):
    """The connection had ended, or had unexpected bytes, before anything was sent."""


class Transport(ABC):
    """A byte stream to the daemon, and the turn of its users. Every step may raise OSError."""

    @abstractmethod
    def perform(self, step: "TransportStep") -> Any:
        """Returns the result of the step, or an awaitable of it in an event loop."""

    @abstractmethod
    def close(self) -> None:
        """Closes the stream at once. Unread bytes are lost."""

    @abstractmethod
    def release(self) -> None:
        """Ends the turn that `Acquire` began."""


class Acquire(NamedTuple):
    """Waits for the turn. Raises Late."""

    transport: Transport
    deadline: float


class Open(NamedTuple):
    """Connects. Raises Late."""

    transport: Transport
    host: str
    port: int
    deadline: float


class Send(NamedTuple):
    """Sends all bytes. Raises NotSent or Late."""

    transport: Transport
    data: bytes
    deadline: float


class Receive(NamedTuple):
    """Waits for bytes and returns them, or b"" at the end of the stream. Raises Late."""

    transport: Transport
    deadline: float


class Sleep(NamedTuple):
    """Waits until this time."""

    until: float


TransportStep = Union[Acquire, Open, Send, Receive]
Step = Union[TransportStep, Sleep]

T = TypeVar("T")
Call = Generator[Step, Any, T]
