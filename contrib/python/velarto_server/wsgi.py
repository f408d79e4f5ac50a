"""A WSGI application (PEP 3333) as the handler of a server: it runs in a pool of threads."""

from __future__ import annotations

import asyncio
import concurrent.futures
import logging
import os
import sys
import urllib.parse
from typing import IO, Any, Callable, Dict, Iterable, Iterator, List, Optional, Tuple, Union
from wsgiref.util import is_hop_by_hop

from . import cookies
from .server import PIECE, Disconnected, Exchange, at_once

Environ = Dict[str, Any]
Fields = List[Tuple[str, str]]
Application = Callable[[Environ, Callable[..., Callable[[bytes], None]]], Iterable[bytes]]

log = logging.getLogger("velarto_server")

# Parameters that become variables of the same name where they are not empty. The others are dealt with one by one:
# REMOTE_PASSWD and FULLHEADER are always empty, COMMANDLINE is the gateway's own matter.
_PASSED_ON = """PATH_TRANSLATED REMOTE_HOST REMOTE_IDENT REMOTE_USER REMOTE_NAME REMOTE_PORT REMOTE_ADDR HTTP_REFERER
    HTTP_USER_AGENT CONTENT_TYPE PLUGIN HTTP_FROM HTTP_ACCEPT""".split()


class Adapter:
    """The handler. It may be called in one event loop only.

    `threads` is how many requests the application works at; further ones wait. `url` is where browsers see the
    application, "https://www.example.com/shop" or its path alone, "/": what it has takes the place of what the web
    server says. With `references` users stay with this server.
    """

    def __init__(
        self,
        application: Application,
        threads: int = 8,
        url: Optional[str] = None,
        references: Optional[cookies.UserReferences] = None,
    ) -> None:
        self.application = application
        self.multithread = threads > 1
        self.url = None if url is None else urllib.parse.urlsplit(url)
        self.references = references
        self._pool = concurrent.futures.ThreadPoolExecutor(threads, "wsgi")

    async def __call__(self, exchange: Exchange) -> None:
        """Lets the application answer."""
        await asyncio.get_running_loop().run_in_executor(self._pool, _Answer(self, exchange).run)

    def environ(self, exchange: Exchange) -> Environ:
        """What PEP 3333 asks for, as far as it arrives."""
        request = exchange.request
        # Variables are texts of which each character is a byte.
        parameters = {name: value.decode("latin-1") for name, value in request.parameters.items()}
        own = cookies.split(request.parameters["HTTP_COOKIE"])
        environ: Environ = {name: parameters[name] for name in _PASSED_ON if parameters[name]}
        environ.update(
            {
                "REQUEST_METHOD": parameters["REQUEST_METHOD"] or "GET",
                "SCRIPT_NAME": parameters["SCRIPT_NAME"],
                "PATH_INFO": parameters["PATH_INFO"],
                "QUERY_STRING": parameters["QUERY_STRING"],
                "SERVER_NAME": parameters["SERVER_NAME"] or "localhost",
                "SERVER_PORT": parameters["SERVER_PORT"] or "80",
                "SERVER_PROTOCOL": "HTTP/1.0",  # no other is known, and the answer's is this
                "CONTENT_LENGTH": str(request.body_length),
                "wsgi.version": (1, 0),
                "wsgi.url_scheme": "https" if parameters["SERVER_PORT"] == "443" else "http",
                "wsgi.input": exchange.body,
                "wsgi.input_terminated": True,
                "wsgi.errors": sys.stderr,
                "wsgi.multithread": self.multithread,
                "wsgi.multiprocess": False,
                "wsgi.run_once": False,
                "wsgi.file_wrapper": FileWrapper,
                "velarto.client": own.client.decode("latin-1"),
                "velarto.route": None if own.route is None else own.route.decode("latin-1"),
                "velarto.file_time": request.file_time,
            }
        )
        if own.browser:
            environ["HTTP_COOKIE"] = own.browser.decode("latin-1")
        if parameters["SOAPACTION"]:
            environ["HTTP_SOAPACTION"] = parameters["SOAPACTION"]
        if self.url:
            environ["SCRIPT_NAME"] = urllib.parse.unquote(self.url.path, "latin-1").rstrip("/")
            environ["wsgi.url_scheme"] = self.url.scheme or environ["wsgi.url_scheme"]
            if self.url.netloc:
                environ["HTTP_HOST"] = self.url.netloc
        if not environ["SCRIPT_NAME"] and not environ["PATH_INFO"]:
            environ["PATH_INFO"] = "/"
        return environ


class FileWrapper:
    """A file as the body of an answer, in blocks that suit the gateway; the suggested size is not heeded."""

    def __init__(self, file: IO[bytes], block_size: int = PIECE) -> None:
        self._file = file
        if hasattr(file, "close"):
            self.close = file.close

    def __iter__(self) -> Iterator[bytes]:
        return iter(lambda: self._file.read(PIECE), b"")


class _Answer:
    """One call of the application, in a thread of the pool.

    Each piece has reached the gateway before the application makes the next one.
    """

    def __init__(self, adapter: Adapter, exchange: Exchange) -> None:
        self._adapter = adapter
        self._exchange = exchange
        self._head: Optional[Tuple[str, Fields]] = None  # status and fields, when they are known
        self._head_sent = False
        self._bodiless = False
        self._missing: Optional[int] = None  # bytes until Content-Length is reached; None without one

    def run(self) -> None:
        """Calls the application and sends its answer but for the end. Raises what the application raises."""
        if self._exchange.gone:  # while the request waited for this thread
            raise Disconnected("the gateway was gone before the application was called")
        environ = self._adapter.environ(self._exchange)
        environ["velarto.read_file"] = self._read_file
        try:
            with self._exchange.in_thread():
                pieces = self._adapter.application(environ, self._start_response)
                try:
                    self._send_all(pieces)
                finally:
                    if hasattr(pieces, "close"):
                        pieces.close()
        except Exception:
            raise
        except BaseException as error:  # sys.exit() of an application must not end the server
            raise RuntimeError(f"the application has raised {error!r}") from error

    def _send_all(self, pieces: Iterable[bytes]) -> None:
        alone = isinstance(pieces, (list, tuple)) and len(pieces) == 1
        for piece in pieces:
            if alone and self._head and not self._head_sent and self._missing is None and not self._bodiless:
                self._head[1].append(("Content-Length", str(len(piece))))
            if piece:
                self._write(piece)
            if self._bodiless:
                break
        if not self._head_sent:
            self._send(b"")
        if self._missing and not self._bodiless:
            log.error("an answer is %d bytes shorter than its Content-Length", self._missing)

    def _start_response(self, status: str, fields: Fields, exc_info: Any = None) -> Callable[[bytes], None]:
        """start_response() of PEP 3333."""
        if exc_info:
            try:
                if self._head_sent:
                    raise exc_info[1].with_traceback(exc_info[2])
            finally:
                exc_info = None  # it refers to this frame
        elif self._head:
            raise AssertionError("start_response() was called before, and no exc_info says why again")

        fields = [field for field in fields if not is_hop_by_hop(field[0])]  # those are the web server's matter
        lengths = [int(value) for name, value in fields if name.lower() == "content-length"]
        parameters = self._exchange.request.parameters
        if self._adapter.references:
            cookie = self._adapter.references.new_cookie(parameters["HTTP_COOKIE"])
            fields += [("Set-Cookie", cookie)] if cookie else []
        self._missing = lengths[0] if lengths else None
        self._bodiless = parameters["REQUEST_METHOD"] == b"HEAD" or status[:3] in ("204", "304")
        self._head = status, fields
        return self._write

    def _write(self, data: bytes) -> None:
        """write() of PEP 3333."""
        if not isinstance(data, bytes):
            raise TypeError(f"the application answers with {type(data).__name__} instead of bytes")
        if self._bodiless:
            data = b""
        elif self._missing is not None:
            if len(data) > self._missing:
                log.error("an answer is longer than its Content-Length, and cut there")
            data = data[: self._missing]
            self._missing -= len(data)
        self._send(data)

    def _send(self, data: bytes) -> None:
        if not self._head:
            raise AssertionError("the application has not called start_response()")
        if not self._head_sent:
            self._head_sent = True
            at_once(self._exchange.send_header(*self._head))
        at_once(self._exchange.send(data))

    def _read_file(self, path: Union[str, bytes]) -> Optional[bytes]:
        """A file on the gateway's machine, for example that of PATH_TRANSLATED; None when it is not to be had."""
        return at_once(self._exchange.read_file(os.fsencode(path)))
