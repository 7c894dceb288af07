"""The protocol without I/O: requests as bytes, replies from a stream, values from replies."""

import ipaddress
import re
from typing import Any, Callable, Dict, List, Optional, Sequence, Tuple

from ._arguments import MAX_PORT, checked_number, refuse
from ._errors import ProtocolError

# Longer than any reply of the daemon.
MAX_REPLY_LENGTH = 4096

_ENDPOINT = re.compile(r"(\[(?P<brackets>[^\[\]]+)\]|(?P<name>[^:\[\]]+))(:(?P<port>[0-9]{1,5}))?")
_GET_NAME = re.compile(r"[A-Za-z0-9_]{3}")
_ID_LIST = re.compile(r"\[(\d{1,3}(?:, \d{1,3})*)?\]")
_SHOWN_LENGTH = 40


def endpoint(host: str, port: int) -> Tuple[str, int]:
    """Splits ``[::1]:63352`` and ``name:63352``. A port in `host` wins over `port`.

    Raises:
        InvalidValue: there is no host, or the port is not 1 to 65535.
    """
    match = _ENDPOINT.fullmatch(host) if isinstance(host, str) else None
    if match:
        name = match["brackets"] or match["name"]
        port = int(match["port"]) if match["port"] else port
    elif isinstance(host, str) and _is_ipv6(host):
        name = host
    else:
        name = ""
    if not name or " " in name or not name.isprintable():
        refuse("a host is HOST, HOST:PORT, an IPv6 address or [ADDRESS]:PORT", host)
    return name, checked_number("a port", port, 1, MAX_PORT)


def _is_ipv6(host: str) -> bool:
    """Several colons without brackets: an address. A zone may follow."""
    try:
        ipaddress.IPv6Address(host.split("%", 1)[0])
    except ValueError:
        return False
    return True


class Request:
    """One exchange: a SET, or a batch of GETs in one packet."""

    __slots__ = ("data", "names", "text")

    def __init__(self, text: str, names: Sequence[str]) -> None:
        self.text = text
        self.data = text.encode("ascii") + b"\n"
        #: The expected reply names in order. Empty for a SET.
        self.names = tuple(names)

    @property
    def is_set(self) -> bool:
        return not self.names


def get_request(names: Sequence[str]) -> Request:
    for name in names:
        if not isinstance(name, str) or not _GET_NAME.fullmatch(name):
            refuse("a name has three letters, digits or underscores", name)
    names = [name.upper() for name in names]
    return Request("\n".join("GET " + name for name in names), names)


def set_request(pairs: Sequence[Tuple[str, int]]) -> Request:
    return Request("SET " + " ".join(f"{name} {value}" for name, value in pairs), ())


class ReplyReader:
    """Cuts the replies to one request out of a stream.

    After `is_complete`, `values` has the texts of a batch of GETs in the order of the request, and
    `is_acknowledged` the reply to a SET.
    """

    __slots__ = ("_names", "_rest", "_is_set", "values", "is_acknowledged", "is_complete")

    def __init__(self, request: Request) -> None:
        self._names = request.names
        self._is_set = request.is_set
        self._rest = b""
        self.values: List[str] = []
        self.is_acknowledged: Optional[bool] = None
        self.is_complete = False

    def feed(self, data: bytes) -> None:
        """Takes received bytes.

        Raises:
            ProtocolError: these bytes cannot be the reply, or are more than the reply.
        """
        if self.is_complete:
            raise ProtocolError(f"received bytes without a request: {_shown(data)}")
        self._rest += data
        if self._is_set:
            self._take_acknowledgement()
        else:
            self._take_lines()
        if self.is_complete and self._rest:
            raise ProtocolError(f"received more than the reply: {_shown(self._rest)}")

    def _take_acknowledgement(self) -> None:
        start = self._rest[:3]
        if not b"ack".startswith(start) and not b"nak".startswith(start):
            raise ProtocolError(f"the reply to a SET is neither ack nor nak: {_shown(self._rest)}")
        if len(start) == 3:
            self.is_acknowledged = start == b"ack"
            self.is_complete = True
            self._rest = self._rest[3:]

    def _take_lines(self) -> None:
        *lines, self._rest = self._rest.split(b"\n")
        for number, line in enumerate(lines):
            if self.is_complete:
                self._rest = b"\n".join([*lines[number:], self._rest])
                return
            name = self._names[len(self.values)]
            text = line.decode("utf-8", "replace")
            if text[:4] != name + " ":
                raise ProtocolError(f"the reply to GET {name} is {_shown(line)}")
            self.values.append(text[4:])
            self.is_complete = len(self.values) == len(self._names)
        if not self.is_complete:
            self._check_unfinished_line()

    def _check_unfinished_line(self) -> None:
        expected = self._names[len(self.values)].encode("ascii") + b" "
        if not self._rest.startswith(expected[: len(self._rest)]):
            raise ProtocolError(f"the reply to GET {expected.decode()}is {_shown(self._rest)}")
        if len(self._rest) > MAX_REPLY_LENGTH:
            raise ProtocolError(f"a reply is longer than {MAX_REPLY_LENGTH} bytes")


def decode_number(name: str, text: str) -> Optional[int]:
    """Returns None for an absent value (``?``)."""
    if text == "?":
        return None
    if text.isascii() and text.isdigit():
        return int(text)
    raise ProtocolError(f"{name} is not a number: {_shown(text.encode())}")


def decode_flag(name: str, text: str) -> Optional[bool]:
    number = decode_number(name, text)
    if number is None or number in (0, 1):
        return None if number is None else number == 1
    raise ProtocolError(f"{name} is neither 0 nor 1: {number}")


def decode_text(_name: str, text: str) -> Optional[str]:
    return None if text == "?" else text


def decode_ids(_name: str, text: str) -> Tuple[int, ...]:
    """Reads a list of slave ids such as ``[2, 9]``."""
    match = _ID_LIST.fullmatch(text)
    if not match:
        raise ProtocolError(f"SID is not a list of ids: {_shown(text.encode())}")
    return tuple(int(word) for word in match[1].split(", ")) if match[1] else ()


_DECODERS: Dict[str, Callable[[str, str], Any]] = {
    "number": decode_number, "flag": decode_flag, "text": decode_text, "ids": decode_ids}


def decoded(
    names: Sequence[str], texts: Sequence[str], fields: Dict[str, Tuple[str, str]]
) -> Dict[str, Any]:
    """Decodes texts to field values. `fields` has the field and the type of each name."""
    values: Dict[str, Any] = {}
    for name, text in zip(names, texts):
        field, kind = fields[name]
        values[field] = _DECODERS[kind](name, text)
    return values


def _shown(data: bytes) -> str:
    cut = repr(data[:_SHOWN_LENGTH])[1:]
    return cut if len(data) <= _SHOWN_LENGTH else cut + "..."
