"""The protocol as a server of asyncio: it accepts connections, waits no longer than it should, and ends gracefully."""

from __future__ import annotations

import asyncio
import contextlib
import errno
import logging
import os
import signal
import socket
import stat
import tempfile
from http import HTTPStatus
from typing import (
    IO,
    Any,
    Awaitable,
    Callable,
    Coroutine,
    Iterable,
    Iterator,
    List,
    NamedTuple,
    Optional,
    Sequence,
    Set,
    Tuple,
    TypeVar,
    Union,
    cast,
)

from . import cookies
from .protocol import Conversation, FileReply, Limits, Message, ProtocolError, Request, http_header

PIECE = 256 << 10  # bytes of a body that travel in one message at the most
BODY_IN_MEMORY = 1 << 20  # bytes; the rest of a request's body goes into a temporary file
BACKLOG = 128  # connections that the system holds until they are accepted
CHUNK = 64 << 10  # bytes that are received at a time
LAST_REQUESTS = 1.0  # seconds that a server which ends waits for requests that are on their way

log = logging.getLogger("velarto_server")
T = TypeVar("T")


class Settings(NamedTuple):
    """What a server grants."""

    limits: Limits = Limits()
    timeout: float = 300  # seconds that a gateway may be silent, or not read what it is sent
    connections: int = 500  # at once; further ones wait, and their gateways may go elsewhere after a second
    grace: float = 30  # seconds for the answers under way when the server ends


class Disconnected(ConnectionError):
    """The gateway is gone, too slow, or does not keep to the protocol. Nobody waits for the answer any more."""


class Exchange:
    """One connection, and so one request and its answer.

    Handlers use `request`, `body`, `gone` and the coroutines: send_header() once, send() any number of times,
    read_file() anywhere between, one after the other; or respond() alone. These raise Disconnected.
    The end is the server's matter.
    """

    request: Request
    body: IO[bytes]  # the request's, from its beginning

    def __init__(self, connection: socket.socket, peer: str, settings: Settings) -> None:
        """For the server. The connection does not block; close() closes it."""
        self.body = cast(IO[bytes], tempfile.SpooledTemporaryFile(BODY_IN_MEMORY))
        self.header_sent = False
        self.peer = peer
        self.status = "-"  # of the answer, and how many bytes of its body have been taken, for the log
        self.bytes_sent = 0
        self._connection = connection
        self._settings = settings
        self._conversation = Conversation(self.body, settings.limits)
        self._loop = asyncio.get_running_loop()
        self._talking = False
        self._in_thread = False
        self._cut_off: Optional[str] = None  # why, when it was

    # ---- For handlers ----

    async def send_header(self, status: Union[str, HTTPStatus], fields: Iterable[Tuple[str, str]]) -> None:
        """Sends status and fields of the answer; the gateway may keep them until a piece or the end follows.

        `status` is a member of HTTPStatus, or a code, a blank and a reason. Raises ValueError, and has sent nothing,
        when http_header() refuses them.
        """
        if isinstance(status, HTTPStatus):
            status = f"{status.value} {status.phrase}"
        fields = list(fields)
        # Nobody adds anything to this client's header: the browser must be told where the body ends.
        if self.client.startswith(b"nph-") and "content-length" not in (name.lower() for name, _ in fields):
            fields.append(("Connection", "close"))
        text = http_header(status, fields)
        self.header_sent = True
        self.status = status[:3]
        await self._talk(self._conversation.header(text))

    async def send(self, data: bytes) -> None:
        """Sends a part of the body. Returns when the gateway has taken it, which may be as slow as the browser."""
        rest = memoryview(data)
        while rest:
            await self._talk(self._conversation.piece(rest[:PIECE]))
            self.bytes_sent += len(rest[:PIECE])
            rest = rest[PIECE:]

    async def respond(
        self, status: Union[str, HTTPStatus], fields: Iterable[Tuple[str, str]], content: bytes
    ) -> None:
        """Sends a whole answer with its Content-Length; without the content where the method is HEAD."""
        await self.send_header(status, [*fields, ("Content-Length", str(len(content)))])
        if self.request.parameters["REQUEST_METHOD"] != b"HEAD":
            await self.send(content)

    @contextlib.contextmanager
    def in_thread(self) -> Iterator[None]:
        """Makes the exchange one thread's instead of the event loop's, as long as a handler waits for that thread.

        There the coroutines do not wait for the loop but block the thread; at_once() runs them.
        """
        self._connection.settimeout(self._settings.timeout)
        self._in_thread = True
        try:
            yield
        finally:
            self._in_thread = False
            self._connection.setblocking(False)

    async def read_file(self, path: bytes) -> Optional[bytes]:
        """A file on the gateway's machine that the web server's user can read; None when it is not to be had."""
        reply = await self._talk(self._conversation.file_request(path))
        assert isinstance(reply, FileReply)
        return reply.content

    @property
    def client(self) -> bytes:
        """The name under which the gateway was started."""
        return cookies.split(self.request.parameters["HTTP_COOKIE"]).client

    @property
    def gone(self) -> bool:
        """Whether the gateway has left without waiting for the answer, as far as is known."""
        try:
            self._connection.recv(1, socket.MSG_PEEK)
        except BlockingIOError:
            return False
        except OSError:
            pass
        return True

    # ---- For the server ----

    async def receive_request(self) -> None:
        """Waits for the request. The body is at its beginning then."""
        self.request = cast(Request, await self._talk(b""))
        self.body.seek(0)

    @property
    def request_missing(self) -> bool:
        """Whether the request has not come whole yet."""
        return not hasattr(self, "request")

    async def end(self) -> None:
        """Sends the end."""
        await self._talk(self._conversation.end(), answered=False)

    def cut_off(self, reason: str) -> None:
        """Ends the connection; whoever waits for the gateway gets Disconnected."""
        self._cut_off = self._cut_off or reason
        with contextlib.suppress(OSError):
            self._connection.shutdown(socket.SHUT_RDWR)

    def close(self) -> None:
        """Closes the connection and the body."""
        self._connection.close()
        self.body.close()

    async def _talk(self, message: bytes, answered: bool = True) -> Message:
        """Sends a message and returns the answer."""
        if self._talking:
            raise RuntimeError("the gateway has not answered the message before")
        self._talking = True  # for good, when the answer does not come or is not waited for
        answer: Optional[Message] = None
        try:
            if message:
                await self._send(message)
            while answered and answer is None:
                data = await self._receive()
                if not data:
                    raise ConnectionError("the gateway has closed the connection")
                answer = self._conversation.receive(data)
        except (ProtocolError, ConnectionError, TimeoutError, socket.timeout) as error:
            raise Disconnected(self._cut_off or str(error)) from error
        self._talking = False
        return cast(Message, answer)

    async def _send(self, data: bytes) -> None:
        if self._in_thread:
            self._connection.sendall(data)
        else:
            with self._time_limit():
                await self._loop.sock_sendall(self._connection, data)

    async def _receive(self) -> bytes:
        if self._in_thread:
            return self._connection.recv(CHUNK)
        with self._time_limit():
            return await self._loop.sock_recv(self._connection, CHUNK)

    @contextlib.contextmanager
    def _time_limit(self) -> Iterator[None]:
        timer = self._loop.call_later(self._settings.timeout, self.cut_off, "timed out")
        try:
            yield
        finally:
            timer.cancel()


def at_once(coroutine: Coroutine[Any, Any, T]) -> T:
    """The result of a coroutine of an exchange that is in_thread()."""
    try:
        coroutine.send(None)
    except StopIteration as finished:
        return cast(T, finished.value)
    raise RuntimeError("the coroutine waits for the event loop")


Handler = Callable[[Exchange], Awaitable[None]]


class Server:
    """Serves what connects to some sockets, each exchange by the same handler.

    Where a handler raises anything but Disconnected, the browser gets a page with status 500; when the header was
    sent already, the connection closes without an end, which makes the gateway add its page 605.
    """

    def __init__(self, handler: Handler, settings: Settings = Settings()) -> None:
        self._handler = handler
        self._settings = settings
        self._listeners: Sequence[socket.socket] = ()
        self._accepting = False
        self._serving: Set[asyncio.Task[None]] = set()
        self._exchanges: Set[Exchange] = set()
        self._loop: asyncio.AbstractEventLoop

    def start(self, listeners: Sequence[socket.socket]) -> None:
        """Begins to serve. The sockets listen, do not block, and are the server's from now on."""
        self._loop = asyncio.get_running_loop()
        self._listeners = listeners
        self._accept_or_not()

    async def stop(self) -> bool:
        """Accepts no more and waits for the exchanges under way; cuts off, and returns false, what takes too long."""
        for listener in self._listeners:
            self._accept(listener)  # whoever waits there would be reset
        self._settings = self._settings._replace(connections=0)
        self._accept_or_not()
        for listener in self._listeners:
            listener.close()
        if self._serving:
            await asyncio.wait(self._serving, timeout=LAST_REQUESTS)
        self._cut_off(exchange for exchange in self._exchanges if exchange.request_missing)
        if self._serving:
            await asyncio.wait(self._serving, timeout=self._settings.grace)
        late = len(self._exchanges)
        if late > 0:
            log.warning("the server ends, %d answers are cut off", late)
        self._cut_off(self._exchanges)
        return late == 0

    @staticmethod
    def _cut_off(exchanges: Iterable[Exchange]) -> None:
        for exchange in list(exchanges):
            exchange.cut_off("the server ends")

    def _accept_or_not(self) -> None:
        """Watches the sockets as long as there is room."""
        accept = len(self._serving) < self._settings.connections
        if accept != self._accepting:
            self._accepting = accept
            for listener in self._listeners:
                if accept:
                    self._loop.add_reader(listener, self._accept, listener)
                else:
                    self._loop.remove_reader(listener)

    def _accept(self, listener: socket.socket) -> None:
        while len(self._serving) < self._settings.connections:
            try:
                connection, name = listener.accept()
            except (BlockingIOError, InterruptedError, ConnectionAbortedError):
                break
            except OSError as error:  # no descriptors or no memory left: wait for better times
                log.error("cannot accept a connection: %s", error)
                self._loop.remove_reader(listener)
                self._loop.call_later(1, self._accept_again, listener)
                break
            connection.setblocking(False)
            if connection.family != socket.AF_UNIX:
                connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            task = self._loop.create_task(self._serve(connection, endpoint(name)))
            self._serving.add(task)
            task.add_done_callback(self._served)
        self._accept_or_not()

    def _accept_again(self, listener: socket.socket) -> None:
        if self._accepting:
            self._loop.add_reader(listener, self._accept, listener)

    def _served(self, task: asyncio.Task[None]) -> None:
        self._serving.discard(task)
        self._accept_or_not()

    async def _serve(self, connection: socket.socket, peer: str) -> None:
        exchange = Exchange(connection, peer, self._settings)
        self._exchanges.add(exchange)
        began = self._loop.time()
        try:
            await exchange.receive_request()
            await self._answer(exchange)
            await exchange.end()
        except Disconnected as error:
            log.info("%s: %s", peer, error)
        except Exception:
            log.exception("no whole answer to %s", _address(exchange))
        finally:
            self._exchanges.discard(exchange)
            exchange.close()
            if log.isEnabledFor(logging.INFO) and not exchange.request_missing:
                seconds = self._loop.time() - began
                what = _address(exchange), exchange.status, exchange.bytes_sent, seconds
                log.info("%s: %s: status %s, %d bytes, %.3f seconds", peer, *what)

    async def _answer(self, exchange: Exchange) -> None:
        try:
            await self._handler(exchange)
            if not exchange.header_sent:
                raise RuntimeError("the handler has sent no header")
        except Exception as error:
            if isinstance(error, Disconnected) or exchange.header_sent:
                raise
            log.exception("no answer to %s", _address(exchange))
            page = b"<!DOCTYPE html><title>No answer</title><h1>The application has failed</h1>\n"
            await exchange.respond(HTTPStatus.INTERNAL_SERVER_ERROR, [("Content-Type", "text/html")], page)


def _address(exchange: Exchange) -> str:
    if exchange.request_missing:
        return "a request that never came"
    parameters = exchange.request.parameters
    parts = (parameters[name] for name in ("REQUEST_METHOD", "SCRIPT_NAME", "PATH_INFO"))
    method, script, path = (ascii(part.decode("utf-8", "replace"))[1:-1] for part in parts)
    return f"{method} {script}{path}"


# ---- Sockets -----------------------------------------------------------------------------------------------


def endpoint(name: Union[str, Tuple[object, ...]]) -> str:
    """A socket's name as text: 127.0.0.1:18155, [::1]:18155 or unix:/run/app.sock."""
    if isinstance(name, str):
        return f"unix:{name}"
    address, port = name[:2]
    return f"[{address}]:{port}" if ":" in str(address) else f"{address}:{port}"


def listen(where: str) -> socket.socket:
    """A listening socket at ADDRESS:PORT, [IPv6-ADDRESS]:PORT or unix:PATH.

    Port 0 takes a free one. A socket file that nobody listens at any more is replaced. Raises ValueError for
    another form and OSError when it cannot listen there.
    """
    kind, _, path = where.partition(":")
    if kind == "unix":
        listener = socket.socket(socket.AF_UNIX)
        name: object = path
        _remove_dead_socket(path)
    else:
        address, _, port = where.rpartition(":")
        if not address or not port.isdecimal() or int(port) > 0xFFFF:
            raise ValueError(f"not ADDRESS:PORT, [ADDRESS]:PORT or unix:PATH: {where!r}")
        family, _, _, _, name = socket.getaddrinfo(
            address.strip("[]"), int(port), type=socket.SOCK_STREAM, flags=socket.AI_PASSIVE
        )[0]
        listener = socket.socket(family)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        if family == socket.AF_INET6:
            listener.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
    try:
        listener.bind(name)  # type: ignore[arg-type]
        listener.listen(BACKLOG)
        listener.setblocking(False)
    except OSError:
        listener.close()
        raise
    return listener


def _remove_dead_socket(path: str) -> None:
    with contextlib.suppress(FileNotFoundError), socket.socket(socket.AF_UNIX) as probe:
        probe.setblocking(False)
        if stat.S_ISSOCK(os.stat(path).st_mode) and probe.connect_ex(path) == errno.ECONNREFUSED:
            os.unlink(path)


def systemd_sockets() -> List[socket.socket]:
    """The listening sockets that systemd has handed over (LISTEN_FDS); none for a process that it did not start."""
    if os.environ.get("LISTEN_PID") != str(os.getpid()):
        return []
    sockets = [socket.socket(fileno=3 + number) for number in range(int(os.environ["LISTEN_FDS"]))]
    for listener in sockets:
        os.set_inheritable(listener.fileno(), False)
        listener.setblocking(False)
    return sockets


# ---- A whole program ---------------------------------------------------------------------------------------


async def run(handler: Handler, listeners: Sequence[socket.socket], settings: Settings = Settings()) -> bool:
    """Serves until SIGTERM or SIGINT comes, and then as stop() does; a second signal ends it at once.

    Writes "listening on ADDRESS:PORT" to standard output for each socket when it is ready. Returns what stop() does.
    """
    loop = asyncio.get_running_loop()
    signals: asyncio.Queue[None] = asyncio.Queue()
    for number in (signal.SIGTERM, signal.SIGINT):
        loop.add_signal_handler(number, signals.put_nowait, None)
    server = Server(handler, settings)
    names = [endpoint(listener.getsockname()) for listener in listeners]
    server.start(listeners)
    for name in names:
        print(f"listening on {name}", flush=True)
    await signals.get()
    stopping = loop.create_task(server.stop())
    again = loop.create_task(signals.get())
    await asyncio.wait({stopping, again}, return_when=asyncio.FIRST_COMPLETED)
    again.cancel()
    return stopping.done() and stopping.result()


def serve(handler: Handler, where: Sequence[str] = (), settings: Settings = Settings()) -> None:
    """The whole life of a server: listens at these places, beside the sockets of systemd, until a signal ends it.

    Without either it listens at 127.0.0.1:18155. When answers had to be cut off the process ends at once with status
    1: threads that are still at work on them do not hold it up.
    """
    listeners = systemd_sockets()
    listeners += [listen(one) for one in where or ([] if listeners else ["127.0.0.1:18155"])]
    if not asyncio.run(run(handler, listeners, settings)):
        logging.shutdown()
        os._exit(1)
