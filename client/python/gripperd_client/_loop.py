"""The driver for asyncio."""

import asyncio
import socket
import time
from typing import Any, List, Optional, Tuple

from ._steps import (
    Acquire,
    Call,
    Late,
    NotSent,
    Open,
    Receive,
    Send,
    Sleep,
    T,
    Transport,
    TransportStep,
    time_left,
)

# A peer that sends without being asked cannot fill the memory.
_MAX_UNREAD = 65536


class _Stream(asyncio.Protocol):
    """The bytes of one connection, and the one reader that waits for them."""

    def __init__(self, connected: socket.socket) -> None:
        self.socket = connected
        self.transport: Optional[asyncio.Transport] = None
        self.loop = asyncio.get_running_loop()
        self.unread = bytearray()
        self.has_ended = False
        self.error: Optional[Exception] = None
        self._waiter: Optional["asyncio.Future[None]"] = None

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        assert isinstance(transport, asyncio.Transport)
        self.transport = transport

    def data_received(self, data: bytes) -> None:
        self.unread += data
        if len(self.unread) > _MAX_UNREAD and self.transport is not None:
            self.transport.pause_reading()
        self._wake()

    def connection_lost(self, exc: Optional[Exception]) -> None:
        self.has_ended = True
        self.error = exc
        self._wake()

    def _wake(self) -> None:
        if self._waiter is not None and not self._waiter.done():
            self._waiter.set_result(None)

    async def wait(self, deadline: float) -> None:
        """Returns when there are bytes, at the end, or at the deadline."""
        loop = asyncio.get_running_loop()
        self._waiter = loop.create_future()
        timer = loop.call_later(deadline - time.monotonic(), self._wake)
        try:
            await self._waiter
        finally:
            timer.cancel()
            self._waiter = None

    def take(self) -> bytes:
        data = bytes(self.unread)
        self.unread.clear()
        return data


class LoopTransport(Transport):
    def __init__(self) -> None:
        self._stream: Optional[_Stream] = None
        self._is_taken = False
        self._waiting: List["asyncio.Future[None]"] = []

    def perform(self, step: TransportStep) -> Any:
        if isinstance(step, Receive):
            return self._receive(step.deadline)
        if isinstance(step, Send):
            return self._send(step.data)
        if isinstance(step, Acquire):
            return self._acquire(step.deadline)
        return self._open(step)

    def release(self) -> None:
        self._is_taken = False
        for waiter in self._waiting:
            _finish(waiter)

    def close(self) -> None:
        stream, self._stream = self._stream, None
        if stream is None or stream.transport is None:
            return
        if stream.loop.is_closed():
            # abort() needs the loop.
            stream.socket.close()
        else:
            stream.transport.abort()

    async def _acquire(self, deadline: float) -> None:
        loop = asyncio.get_running_loop()
        while self._is_taken:
            waiter = loop.create_future()
            self._waiting.append(waiter)
            timer = loop.call_later(time_left(deadline), _finish, waiter)
            try:
                await waiter
            finally:
                timer.cancel()
                self._waiting.remove(waiter)
        self._is_taken = True

    async def _open(self, step: Open) -> None:
        self.close()
        loop = asyncio.get_running_loop()
        # The look-up of a name uses a thread of the loop.
        addresses = _numeric_addresses(step.host, step.port) or await _within(
            time_left(step.deadline),
            loop.getaddrinfo(step.host, step.port, type=socket.SOCK_STREAM),
        )
        for number, (family, kind, protocol, _, address) in enumerate(addresses):
            # A silent address leaves time for the others.
            share = time_left(step.deadline) / (len(addresses) - number)
            try:
                self._stream = await _connected(family, kind, protocol, address, share)
                return
            except (OSError, Late):
                if number + 1 == len(addresses):
                    raise

    async def _send(self, data: bytes) -> None:
        # Two turns of the event loop take an end or bytes that have arrived already.
        await asyncio.sleep(0)
        await asyncio.sleep(0)
        stream = self._stream
        if stream is None or stream.transport is None or stream.has_ended or stream.unread:
            raise NotSent
        if stream.loop is not asyncio.get_running_loop():
            # No reply to this loop: asyncio.run() made another one.
            raise NotSent
        stream.transport.write(data)

    async def _receive(self, deadline: float) -> bytes:
        stream = self._stream
        while stream is not None and not stream.unread and not stream.has_ended:
            time_left(deadline)
            await stream.wait(deadline)
        if stream is None:
            return b""
        if not stream.unread and stream.error is not None:
            raise stream.error
        return stream.take()


def _numeric_addresses(host: str, port: int) -> List[Any]:
    """Returns what ``getaddrinfo()`` returns for an address, without a look-up; [] for a name."""
    try:
        return socket.getaddrinfo(
            host, port, type=socket.SOCK_STREAM, flags=socket.AI_NUMERICHOST
        )
    except socket.gaierror:
        return []


async def _connected(
    family: int, kind: int, protocol: int, address: Tuple[Any, ...], timeout: float
) -> _Stream:
    loop = asyncio.get_running_loop()
    connected = socket.socket(family, kind, protocol)
    try:
        connected.setblocking(False)
        await _within(timeout, loop.sock_connect(connected, address))
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        _, stream = await loop.create_connection(lambda: _Stream(connected), sock=connected)
    except BaseException:
        connected.close()
        raise
    return stream


async def _within(timeout: float, work: Any) -> Any:
    try:
        return await asyncio.wait_for(work, timeout)
    except asyncio.TimeoutError:
        raise Late from None


def _finish(waiter: "asyncio.Future[None]") -> None:
    if not waiter.done():
        waiter.set_result(None)


async def run(call: Call[T]) -> T:
    """Performs the steps of a call and returns its result."""
    try:
        step = next(call)
        while True:
            try:
                if isinstance(step, Sleep):
                    await asyncio.sleep(step.until - time.monotonic())
                    result = None
                else:
                    result = await step.transport.perform(step)
            except BaseException as error:
                step = call.throw(error)
            else:
                step = call.send(result)
    except StopIteration as stop:
        value: T = stop.value
        return value
