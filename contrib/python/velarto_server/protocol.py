"""The protocol between gateway and application server without a socket: bytes in, what they mean out.

docs/protocol.md describes it byte by byte. Nothing here waits, opens or logs anything.
"""

from __future__ import annotations

import enum
import re
from typing import Dict, Generator, Iterable, NamedTuple, Optional, Protocol, Tuple, TypeVar, Union

START = b"QUIL\xff\xfd\xff\xfd"  # frame mark and version, the same in every message and both ways
FOOTER = b"END!"

# A request has all of them, always and in this order.
PARAMETERS = tuple(
    """QUERY_STRING PATH_INFO PATH_TRANSLATED REQUEST_METHOD REMOTE_HOST REMOTE_IDENT REMOTE_USER
    REMOTE_PASSWD REMOTE_NAME REMOTE_PORT SERVER_NAME SERVER_PORT SCRIPT_NAME HTTP_REFERER HTTP_USER_AGENT
    CONTENT_TYPE CONTENT_LENGTH PLUGIN REMOTE_ADDR HTTP_COOKIE COMMANDLINE HTTP_FROM HTTP_ACCEPT SOAPACTION
    FULLHEADER""".split()
)


class Type(enum.IntEnum):
    """What a message is. A piece and a header are answered by an acknowledgement of the same type."""

    REQUEST = 1
    FILE_REQUEST = 2
    FILE_REPLY = 3
    PIECE = 4
    HEADER = 6
    END = 7


class ProtocolError(Exception):
    """The peer is no gateway, or what it sends passes a limit. The connection is to be closed."""


class Limits(NamedTuple):
    """The longest of each that is taken, in bytes."""

    body: int = 16 << 20
    value: int = 256 << 10  # of a parameter; Linux lets a web server hand over half of that
    file: int = 64 << 20


class Request(NamedTuple):
    """An HTTP request but for its body, which is where the Conversation was told to put it."""

    file_time: int  # of the file that PATH_TRANSLATED names, in seconds since 1970; 0 when there is none
    body_length: int  # bytes
    parameters: Dict[str, bytes]  # one for each of PARAMETERS; empty where the web server has set none


class FileReply(NamedTuple):
    """The answer to a file request."""

    content: Optional[bytes]  # None: missing, empty, not to be read, or no regular file


class Acknowledgement(NamedTuple):
    """A header or a piece has reached the gateway."""

    type: Type


Message = Union[Request, FileReply, Acknowledgement]


class Sink(Protocol):
    """What takes the bytes of a body, for example a file."""

    def write(self, data: bytes, /) -> object:
        """Takes all of the data."""


T = TypeVar("T")
Reading = Generator[None, None, T]  # suspended wherever more bytes are needed


def number(value: int) -> bytes:
    """An unsigned number of 32 bits as it travels."""
    return value.to_bytes(4, "big")


# What stands before a parameter's value, but for the value's length.
_NAMES = [(name, number(len(name)) + name.encode()) for name in PARAMETERS]


class Conversation:
    """The server's side of one connection, and so of one request.

    The gateway begins. After its request the server speaks, one message at a time, and the gateway answers each
    but the end. So received bytes make one message at the most, and none is taken that was not waited for.

    The caller sends what piece(), header(), file_request() and end() return, and calls none of them before the
    message that answers the last one has come. Memory grows with the bytes that arrive, not with the lengths that
    they announce, up to the limits.
    """

    def __init__(self, body: Sink, limits: Limits = Limits()) -> None:
        """The request's body is written to `body` as it comes; whatever that raises, receive() raises."""
        self._body = body
        self._limits = limits
        self._buffer = bytearray()
        self._reading: Optional[Reading[Message]] = self._request()

    def receive(self, data: bytes) -> Optional[Message]:
        """Takes bytes from the gateway; returns the message that they complete, None while it is incomplete.

        Raises ProtocolError when they cannot be what is waited for. Nothing may be received after that.
        """
        if self._reading is None:
            raise ProtocolError("bytes came that nobody asked for")
        self._buffer += data
        try:
            next(self._reading)
            return None
        except StopIteration as whole:
            self._reading = None
            if self._buffer:
                raise ProtocolError(f"{len(self._buffer)} bytes follow a message") from None
            message: Message = whole.value
            return message

    def header(self, text: bytes) -> bytes:
        """The message that carries the HTTP header, as http_header() makes it."""
        self._reading = self._acknowledgement(Type.HEADER)
        return _message(Type.HEADER, number(len(text)), text)

    def piece(self, data: Union[bytes, memoryview]) -> bytes:
        """The message that carries a piece of the body."""
        self._reading = self._acknowledgement(Type.PIECE)
        return _message(Type.PIECE, number(len(data)), data)

    def file_request(self, path: bytes) -> bytes:
        """The message that asks for a file on the gateway's machine. A relative path begins at its folder."""
        self._reading = self._file_reply()
        return _message(Type.FILE_REQUEST, number(len(path)), path)

    def end(self) -> bytes:
        """The message that ends the conversation. It has no answer."""
        return _message(Type.END)

    def _request(self) -> Reading[Message]:
        yield from self._start(Type.REQUEST)
        file_time = yield from self._number()
        body_length = yield from self._length("the body", self._limits.body)
        yield from self._stream(body_length)
        parameters = {}
        for name, expected in _NAMES:
            if (yield from self._bytes(len(expected))) != expected:
                raise ProtocolError(f"the request has something else instead of {name}")
            length = yield from self._length(name, self._limits.value)
            parameters[name] = yield from self._bytes(length)
        yield from self._footer()
        return Request(file_time, body_length, parameters)

    def _acknowledgement(self, kind: Type) -> Reading[Message]:
        yield from self._start(kind)
        if (yield from self._number()) == 0:
            raise ProtocolError("the gateway has refused the message")
        yield from self._footer()
        return Acknowledgement(kind)

    def _file_reply(self) -> Reading[Message]:
        yield from self._start(Type.FILE_REPLY)
        content = None
        if (yield from self._number()) != 0:  # no length follows where it is 0
            length = yield from self._length("the file", self._limits.file)
            content = yield from self._bytes(length)
        yield from self._footer()
        return FileReply(content)

    def _start(self, kind: Type) -> Reading[None]:
        if (yield from self._bytes(len(START))) != START:
            raise ProtocolError("a message begins with another mark or version")
        found = yield from self._number()
        if found != kind:
            raise ProtocolError(f"a message of type {found} came instead of {int(kind)}")

    def _footer(self) -> Reading[None]:
        if (yield from self._bytes(len(FOOTER))) != FOOTER:
            raise ProtocolError("a message ends with another footer")

    def _length(self, what: str, limit: int) -> Reading[int]:
        length = yield from self._number()
        if length > limit:
            raise ProtocolError(f"{what} has {length} bytes, more than {limit}")
        return length

    def _number(self) -> Reading[int]:
        return int.from_bytes((yield from self._bytes(4)), "big")

    def _bytes(self, count: int) -> Reading[bytes]:
        while len(self._buffer) < count:
            yield
        taken = bytes(self._buffer[:count])
        del self._buffer[:count]
        return taken

    def _stream(self, count: int) -> Reading[None]:
        while count > 0:
            while not self._buffer:
                yield
            piece = yield from self._bytes(min(count, len(self._buffer)))
            self._body.write(piece)
            count -= len(piece)


def _message(kind: Type, *fields: Union[bytes, memoryview]) -> bytes:
    return b"".join((START, number(kind), *fields, FOOTER))


_STATUS = re.compile(r"\d{3} [^\x00-\x1f\x7f]*")
_NAME = re.compile(r"[!#$%&'*+.^_`|~0-9A-Za-z-]+")
_VALUE = re.compile(r"[^\x00-\x08\x0a-\x1f\x7f]*")


def http_header(status: str, fields: Iterable[Tuple[str, str]]) -> bytes:
    """The HTTP header of an answer, to its empty line. `status` is a code, a blank and a reason: "404 Not Found".

    The status stands in the first line, which the browser gets from a client whose name begins with "nph-", and in
    a field, of which the web server makes the line for all others. Raises ValueError for what would not be read as
    one status and these fields, and for characters beyond ISO 8859-1.
    """
    if not _STATUS.fullmatch(status):
        raise ValueError(f"not a status: {status!r}")
    lines = [f"HTTP/1.0 {status}", f"Status: {status}"]
    for name, value in fields:
        if not _NAME.fullmatch(name) or not _VALUE.fullmatch(value):
            raise ValueError(f"not a field of a header: {name!r}: {value!r}")
        lines.append(f"{name}: {value}")
    return "\r\n".join((*lines, "", "")).encode("latin-1")
