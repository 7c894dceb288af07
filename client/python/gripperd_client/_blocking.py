"""The blocking driver."""

import contextlib
import socket
import threading
import time
from typing import Any, Optional, Tuple

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

_CHUNK = 65536


class BlockingTransport(Transport):
    def __init__(self) -> None:
        self._socket: Optional[socket.socket] = None
        self._turn = threading.Lock()

    def perform(self, step: TransportStep) -> Any:
        if isinstance(step, Receive):
            return self._receive(step.deadline)
        if isinstance(step, Send):
            return self._send(step.data, step.deadline)
        if isinstance(step, Acquire):
            if not self._turn.acquire(timeout=max(0.0, step.deadline - time.monotonic())):
                raise Late
            return None
        return self._open(step)

    def release(self) -> None:
        self._turn.release()

    def close(self) -> None:
        closed, self._socket = self._socket, None
        if closed is not None:
            # This ends a recv() of another thread.
            with contextlib.suppress(OSError):
                closed.shutdown(socket.SHUT_RDWR)
            closed.close()

    def _open(self, step: Open) -> None:
        self.close()
        addresses = socket.getaddrinfo(step.host, step.port, type=socket.SOCK_STREAM)
        for number, (family, kind, protocol, _, address) in enumerate(addresses):
            # A silent address leaves time for the others.
            share = time_left(step.deadline) / (len(addresses) - number)
            try:
                self._socket = _connected(family, kind, protocol, address, share)
                return
            except OSError as error:
                is_late = isinstance(error, socket.timeout)
                if number + 1 == len(addresses):
                    if is_late:
                        raise Late from None
                    raise

    def _send(self, data: bytes, deadline: float) -> None:
        connected = self._socket
        if connected is None:
            raise NotSent
        connected.settimeout(0)
        try:
            connected.recv(1)
        except (BlockingIOError, InterruptedError):
            pass
        except OSError:
            raise NotSent from None
        else:
            # The end of the stream, or bytes without a request.
            raise NotSent
        connected.settimeout(time_left(deadline))
        try:
            connected.sendall(data)
        except socket.timeout:
            raise Late from None

    def _receive(self, deadline: float) -> bytes:
        connected = self._socket
        if connected is None:
            return b""
        connected.settimeout(time_left(deadline))
        try:
            return connected.recv(_CHUNK)
        except socket.timeout:
            raise Late from None


def _connected(
    family: int, kind: int, protocol: int, address: Tuple[Any, ...], timeout: float
) -> socket.socket:
    connected = socket.socket(family, kind, protocol)
    try:
        connected.settimeout(timeout)
        connected.connect(address)
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    except BaseException:
        connected.close()
        raise
    return connected


def run(call: Call[T]) -> T:
    """Performs the steps of a call and returns its result."""
    try:
        step = next(call)
        while True:
            try:
                if isinstance(step, Sleep):
                    time.sleep(max(0.0, step.until - time.monotonic()))
                    result = None
                else:
                    result = step.transport.perform(step)
            except BaseException as error:
                step = call.throw(error)
            else:
                step = call.send(result)
    except StopIteration as stop:
        value: T = stop.value
        return value
