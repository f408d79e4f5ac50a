"""The gateway's side of the protocol for the tests, written by hand where the package is what they test."""

import asyncio
import unittest

from velarto_server import Server, Settings, listen
from velarto_server.protocol import PARAMETERS

START, FOOTER = b"QUIL\xff\xfd\xff\xfd", b"END!"
HEADER, PIECE, END = 6, 4, 7


def number(value):
    return value.to_bytes(4, "big")


def text(data):
    return number(len(data)) + data


def acknowledgement(kind, result=1):
    return START + number(kind) + number(result) + FOOTER


def request(body=b"", **parameters):
    """A whole request; parameters that are not given are empty."""
    values = {"REQUEST_METHOD": "GET", "HTTP_COOKIE": "VelartoClient=shop", "SERVER_NAME": "www.example.com",
              "SERVER_PORT": "80", "SCRIPT_NAME": "/cgi-bin/shop", **parameters}
    attributes = (text(name.encode()) + text(values.get(name, "").encode("latin-1")) for name in PARAMETERS)
    return START + number(1) + number(7) + text(body) + b"".join(attributes) + FOOTER


class Gateway:
    """A connection to a server."""

    def __init__(self, reader, writer):
        self.reader, self.writer = reader, writer
        self.header, self.body, self.pieces, self.ended = "", b"", 0, False

    def send(self, data):
        self.writer.write(data)

    async def step(self, files=()):
        """Takes one message of the server and answers it; returns its type, None when the server has closed."""
        try:
            start = await self.reader.readexactly(12)
            kind = int.from_bytes(start[8:], "big")
            field = b"" if kind == END else await self.reader.readexactly(int.from_bytes(await self.reader.readexactly(4), "big"))
            assert start[:8] + await self.reader.readexactly(4) == START + FOOTER
        except (asyncio.IncompleteReadError, ConnectionError):
            return None
        if kind == HEADER:
            self.header += field.decode("latin-1")
        if kind == PIECE:
            self.body += field
            self.pieces += 1
        if kind in (HEADER, PIECE):
            self.send(acknowledgement(kind))
        if kind == 2:
            content = dict(files).get(field)
            self.send(START + number(3) + (number(0) if content is None else number(1) + text(content)) + FOOTER)
        self.ended = kind == END
        return kind

    async def finish(self, files=()):
        """Takes what comes until the server closes; returns itself."""
        while await self.step(files) is not None:
            pass
        self.close()
        return self

    def close(self):
        self.writer.close()


class ServerCase(unittest.IsolatedAsyncioTestCase):
    """A test with a server in its event loop; nothing lasts longer than a minute."""

    async def asyncTearDown(self):
        await asyncio.wait_for(self.server.stop(), 60)

    def serve(self, handler, **settings):
        self.listener = listen("127.0.0.1:0")
        self.address = self.listener.getsockname()
        self.server = Server(handler, Settings(**{"timeout": 60, **settings}))
        self.server.start([self.listener])

    async def connect(self, data=b""):
        gateway = Gateway(*await asyncio.open_connection(*self.address))
        self.addCleanup(gateway.close)
        gateway.send(data)
        return gateway

    async def ask(self, body=b"", files=(), **parameters):
        gateway = await self.connect(request(body, **parameters))
        return await asyncio.wait_for(gateway.finish(files), 60)
