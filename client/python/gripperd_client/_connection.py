"""One connection to the daemon, as steps."""

from typing import Callable, Optional, Sequence, Tuple

from ._errors import ConnectionLost, ProtocolError, TimedOut
from ._protocol import ReplyReader, Request, get_request, set_request
from ._steps import Acquire, Call, Deadline, Late, NotSent, Open, Receive, Send, Transport

Endpoint = Tuple[str, int]
NewTransport = Callable[[], Transport]


class Connection:
    """Exchanges requests and replies.

    It connects with the first exchange. After an error it closes the connection, so that no late reply
    is ever the reply to another request; the next exchange opens a new one. A SET is never sent twice.
    """

    def __init__(
        self, endpoint: Endpoint, new_transport: NewTransport, gripper: Optional[int] = None
    ) -> None:
        """With `gripper`, every new connection first selects this gripper."""
        self.endpoint = endpoint
        self._transport = new_transport()
        self._gripper = gripper
        self._is_open = False
        self._is_listed = True

    def close(self) -> None:
        self._is_open = False
        self._transport.close()

    def open(self, deadline: Deadline) -> Call[bool]:
        """Returns whether the daemon lists the gripper of this connection."""
        yield from self._acquire(deadline, "the connection")
        try:
            yield from self._ensure_open(deadline)
        finally:
            self._transport.release()
        return self._is_listed

    def exchange(
        self, request: Request, deadline: Deadline, may_reconnect: bool = True
    ) -> Call[ReplyReader]:
        """Sends the request once and returns its replies.

        With `may_reconnect`, it sends a request on a new connection if the old one ended before
        anything was sent. It repeats a batch of GETs also if the old one ended before the reply.
        """
        yield from self._acquire(deadline, request.text)
        try:
            if not (self._is_open or may_reconnect):
                raise self._lost(request)
            yield from self._ensure_open(deadline)
            try:
                return (yield from self._exchange(request, deadline))
            except NotSent:
                if not may_reconnect:
                    raise self._lost(request) from None
            except ConnectionLost:
                if request.is_set or not may_reconnect:
                    raise
            yield from self._ensure_open(deadline)
            try:
                return (yield from self._exchange(request, deadline))
            except NotSent:
                raise self._lost(request) from None
        finally:
            self._transport.release()

    def get(self, name: str, deadline: Deadline) -> Call[str]:
        """Returns the value of one GET, which may be ``?``."""
        return (yield from self.exchange(get_request((name,)), deadline)).values[0]

    def set(self, pairs: Sequence[Tuple[str, int]], deadline: Deadline) -> Call[bool]:
        """Returns False for ``nak``."""
        reader = yield from self.exchange(set_request(pairs), deadline)
        return bool(reader.is_acknowledged)

    def _acquire(self, deadline: Deadline, what: str) -> Call[None]:
        try:
            yield Acquire(self._transport, deadline.at)
        except Late:
            raise TimedOut(f"{_first_line(what)} did not get its turn: {_time(deadline)}") from None

    def _ensure_open(self, deadline: Deadline) -> Call[None]:
        if self._is_open:
            return
        host, port = self.endpoint
        try:
            yield Open(self._transport, host, port, deadline.at)
        except Late:
            raise TimedOut(f"no connection to {self._text()}: {_time(deadline)}") from None
        except (OSError, UnicodeError) as error:
            raise ConnectionLost(f"no connection to {self._text()}: {error}") from error
        self._is_open = True
        if self._gripper is None:
            return
        try:
            reader = yield from self._exchange(set_request([("SID", self._gripper)]), deadline)
        except NotSent:
            raise ConnectionLost(f"{self._text()} closed the connection at once") from None
        except (ConnectionLost, TimedOut, ProtocolError) as error:
            # The selection ended with its connection.
            error.unknown = None
            raise
        self._is_listed = bool(reader.is_acknowledged)

    def _exchange(self, request: Request, deadline: Deadline) -> Call[ReplyReader]:
        reader = ReplyReader(request)
        unknown = request.text if request.is_set else None
        try:
            yield Send(self._transport, request.data, deadline.at)
            while not reader.is_complete:
                data = yield Receive(self._transport, deadline.at)
                if not data:
                    raise ConnectionLost(self._lost_text(request), unknown)
                reader.feed(data)
        except BaseException as error:
            self.close()
            if isinstance(error, Late):
                text = f"no reply to {_first_line(request.text)!r}: {_time(deadline)}"
                raise TimedOut(text, unknown) from None
            if isinstance(error, ProtocolError):
                error.unknown = unknown
            elif isinstance(error, OSError) and not isinstance(error, ConnectionLost):
                raise ConnectionLost(f"{self._lost_text(request)}: {error}", unknown) from error
            raise
        return reader

    def _lost(self, request: Request) -> ConnectionLost:
        return ConnectionLost(f"the connection ended before {_first_line(request.text)!r} was sent")

    def _lost_text(self, request: Request) -> str:
        return f"{self._text()} ended the connection before the reply to {_first_line(request.text)!r}"

    def _text(self) -> str:
        return endpoint_text(self.endpoint)


def endpoint_text(endpoint: Endpoint) -> str:
    host, port = endpoint
    return f"[{host}]:{port}" if ":" in host else f"{host}:{port}"


def _first_line(text: str) -> str:
    return text.split("\n", 1)[0]


def _time(deadline: Deadline) -> str:
    return f"{deadline.timeout:g} s are over"
