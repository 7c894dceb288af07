"""The same classes as `gripperd_client`, for asyncio: the methods are coroutines.

A call that is cancelled while it waits for a reply closes its connection, so no part of the reply is
left. The next call opens a new one. Several tasks may use one object: their requests take turns.
"""

import inspect
from types import TracebackType
from typing import Callable, Mapping, Optional, Sequence, Tuple, Type, TypeVar

from . import _client
from . import _defaults as default
from ._calls import GripperCalls, LineCalls, WatchCalls
from ._connection import Endpoint, endpoint_text
from ._loop import LoopTransport, run
from ._model import Image, LineImage, LineState, MoveResult, UpgradeStage, WatchItem
from ._protocol import endpoint

__all__ = ["Gripper", "Line", "Maintenance", "Watch"]

C = TypeVar("C", bound=type)


def _documented_as(blocking: type) -> Callable[[C], C]:
    """Copies the docstrings of the blocking class."""

    def document(documented: C) -> C:
        documented.__doc__ = inspect.getdoc(blocking)
        for name, member in vars(blocking).items():
            if not name.startswith("_"):
                getattr(documented, name).__doc__ = inspect.getdoc(member)
        return documented

    return document


@_documented_as(_client.Watch)
class Watch:
    def __init__(self, calls: WatchCalls) -> None:
        self._calls = calls

    def __aiter__(self) -> "Watch":
        return self

    async def __anext__(self) -> WatchItem:
        return await run(self._calls.next())

    def is_period_over(self) -> bool:
        return self._calls.is_period_over()

    async def close(self) -> None:
        self._calls.close()

    async def __aenter__(self) -> "Watch":
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()


@_documented_as(_client.Maintenance)
class Maintenance:
    def __init__(self, calls: LineCalls) -> None:
        self._calls = calls
        self._muting = calls.muting()

    async def __aenter__(self) -> None:
        await run(self._calls.begin_maintenance(self._muting))

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        await run(self._muting.end())


@_documented_as(_client.Line)
class Line:
    def __init__(
        self, host: str = "127.0.0.1", port: int = default.DEFAULT_PORT, timeout: float = default.DEFAULT_TIMEOUT
    ) -> None:
        self._calls = LineCalls(endpoint(host, port), LoopTransport, timeout)

    @property
    def endpoint(self) -> str:
        return endpoint_text(self._calls.endpoint)

    async def grippers(self, timeout: Optional[float] = None) -> Tuple[int, ...]:
        return await run(self._calls.grippers(timeout))

    async def state(self, timeout: Optional[float] = None) -> LineState:
        return await run(self._calls.state(timeout))

    async def image(self, timeout: Optional[float] = None) -> LineImage:
        return await run(self._calls.image(timeout))

    async def scan(self, timeout: float = default.SCAN_TIMEOUT) -> Tuple[int, ...]:
        return await run(self._calls.scan(timeout))

    async def wait_until_running(
        self, ids: Sequence[int] = (), timeout: float = default.RUNNING_TIMEOUT
    ) -> None:
        return await run(self._calls.wait_until_running(ids, timeout))

    async def gripper(self, id: int, timeout: Optional[float] = None) -> "Gripper":
        calls = GripperCalls(
            self._calls.endpoint, id, LoopTransport, self._calls.default_timeout
        )
        await run(calls.open_connection(timeout))
        return Gripper(calls)

    def watch(self, ids: Sequence[int] = (), rate: float = 20) -> Watch:
        return _watch(self._calls.endpoint, ids, rate, self._calls.default_timeout)

    def maintenance(self) -> Maintenance:
        return Maintenance(self._calls)

    async def rename(self, old: int, new: int, timeout: float = default.RENAME_TIMEOUT) -> None:
        return await run(self._calls.rename(old, new, timeout))

    async def close(self) -> None:
        self._calls.connection.close()

    async def __aenter__(self) -> "Line":
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()


@_documented_as(_client.Gripper)
class Gripper:
    def __init__(self, calls: GripperCalls) -> None:
        self._calls = calls

    @property
    def id(self) -> int:
        return self._calls.id

    async def image(self, timeout: Optional[float] = None) -> Image:
        return await run(self._calls.image(timeout))

    async def activate(self, again: bool = False, timeout: float = default.MOVEMENT_TIMEOUT) -> None:
        return await run(self._calls.activate(again, timeout))

    async def deactivate(self, timeout: float = default.MOVEMENT_TIMEOUT) -> None:
        return await run(self._calls.deactivate(timeout))

    async def move(
        self, position: int, speed: int, force: int, timeout: float = default.MOVEMENT_TIMEOUT
    ) -> MoveResult:
        return await run(self._calls.move(position, speed, force, timeout))

    async def open(
        self,
        speed: int = default.FULL_SPEED,
        force: int = default.DEFAULT_FORCE,
        timeout: float = default.MOVEMENT_TIMEOUT,
    ) -> MoveResult:
        return await run(self._calls.move(default.OPEN_POSITION, speed, force, timeout))

    async def close(
        self,
        speed: int = default.FULL_SPEED,
        force: int = default.DEFAULT_FORCE,
        timeout: float = default.MOVEMENT_TIMEOUT,
    ) -> MoveResult:
        return await run(self._calls.move(default.CLOSED_POSITION, speed, force, timeout))

    async def stop(self, timeout: Optional[float] = None) -> None:
        return await run(self._calls.stop(timeout))

    async def release(self, closing: bool = False, timeout: float = default.MOVEMENT_TIMEOUT) -> None:
        return await run(self._calls.release(closing, timeout))

    async def led(
        self, red: bool, green: bool, blue: bool, timeout: Optional[float] = None
    ) -> None:
        return await run(self._calls.led(red, green, blue, timeout))

    async def led_auto(self, timeout: Optional[float] = None) -> None:
        return await run(self._calls.led_auto(timeout))

    async def set(self, pairs: Mapping[str, int], timeout: Optional[float] = None) -> None:
        return await run(self._calls.set(pairs, timeout))

    async def get(self, name: str, timeout: Optional[float] = None) -> str:
        return await run(self._calls.get(name, timeout))

    async def upgrade(
        self,
        progress: Optional[Callable[[UpgradeStage], None]] = None,
        expected: Optional[str] = None,
        timeout: float = default.UPGRADE_TIMEOUT,
    ) -> str:
        return await run(self._calls.upgrade(progress, expected, timeout))

    def watch(self, rate: float = 20) -> Watch:
        return _watch(self._calls.endpoint, [self.id], rate, self._calls.default_timeout)

    async def disconnect(self) -> None:
        self._calls.connection.close()

    async def __aenter__(self) -> "Gripper":
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.disconnect()


def _watch(endpoint: Endpoint, ids: Sequence[int], rate: float, timeout: float) -> Watch:
    return Watch(WatchCalls(endpoint, ids, rate, LoopTransport, timeout))
