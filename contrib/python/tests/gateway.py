"""The gateway's side of the protocol, and a server in the test's event loop."""

import asyncio
import unittest

from velarto_server import Server, Settings, listen
from velarto_server.protocol import FOOTER, PARAMETERS, START, Type, number


def text(data):
    return number(len(data)) + data


def acknowledgement(kind, result=1):
    return START + number(kind) + number(result) + FOOTER


def request(body=b"", **parameters):
    """A whole request; parameters that are not given are empty."""
    values = {"REQUEST_METHOD": "GET", "HTTP_COOKIE": "VelartoClient=shop", "SERVER_NAME": "www.example.com",
              "SERVER_PORT": "80", "SCRIPT_NAME": "/cgi-bin/shop", **parameters}
    attributes = (text(name.encode()) + text(values.get(name, "").encode("latin-1")) for name in PARAMETERS)
    return START + number(Type.REQUEST) + number(7) + text(body) + b"".join(attributes) + FOOTER


class Gateway:
    """A connection to a server."""

    def __init__(self, reader, writer):
        self.reader, self.writer = reader, writer
        self.header, self.body, self.pieces, self.ended = "", b"", 0, False

    async def step(self):
        """Takes one message of the server and answers it; returns its type, None when the server has closed."""
        try:
            kind = (await self.reader.readexactly(12))[-1]
            length = 0 if kind == Type.END else int.from_bytes(await self.reader.readexactly(4), "big")
            field = (await self.reader.readexactly(length + 4))[:-4]
        except (asyncio.IncompleteReadError, ConnectionError):
            return None
        self.header += field.decode("latin-1") if kind == Type.HEADER else ""
        self.body += field if kind == Type.PIECE else b""
        self.pieces += kind == Type.PIECE
        self.ended = kind == Type.END
        if kind == Type.FILE_REQUEST:  # each file holds its path
            there = number(0) if b"missing" in field else number(1) + text(field)
            self.writer.write(START + number(Type.FILE_REPLY) + there + FOOTER)
        elif not self.ended:
            self.writer.write(acknowledgement(kind))
        return kind

    async def finish(self):
        """Takes what comes until the server closes; returns itself."""
        while await asyncio.wait_for(self.step(), 60) is not None:
            pass
        self.writer.close()
        return self


def impatient(handler):
    """The handler with gateways that may be silent for a moment only once their request is there."""
    async def handle(exchange):
        exchange._settings = Settings(timeout=0.01)
        await handler(exchange)
    return handle


class ServerCase(unittest.IsolatedAsyncioTestCase):
    async def asyncTearDown(self):
        await asyncio.wait_for(self.server.stop(), 60)

    def serve(self, handler, **settings):
        listener = listen("127.0.0.1:0")
        self.address = listener.getsockname()
        self.server = Server(handler, Settings(**{"timeout": 60, **settings}))
        self.server.start([listener])

    async def connect(self, data=b""):
        gateway = Gateway(*await asyncio.open_connection(*self.address))
        self.addCleanup(gateway.writer.close)
        gateway.writer.write(data)
        return gateway

    async def ask(self, body=b"", **parameters):
        return await (await self.connect(request(body, **parameters))).finish()
