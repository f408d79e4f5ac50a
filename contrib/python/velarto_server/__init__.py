"""An application server for the gateway: the protocol in asyncio, and WSGI applications on top of it.

    python3 -m velarto_server --listen 127.0.0.1:18155 module:application

runs a WSGI application. A handler of one's own is a coroutine that takes an Exchange:

    async def hello(exchange):
        await exchange.respond("200 OK", [("Content-Type", "text/plain")], b"hello")

    velarto_server.serve(hello)

The modules, each on top of those before it: protocol (bytes in, what they mean out), cookies, server, wsgi.
"""

from .cookies import UserReferences, split as split_cookies
from .protocol import Limits, Request
from .server import Disconnected, Exchange, Handler, Server, Settings, listen, run, serve
from .wsgi import Adapter

__version__ = "1.0.0"

__all__ = [
    "Adapter",
    "Disconnected",
    "Exchange",
    "Handler",
    "Limits",
    "Request",
    "Server",
    "Settings",
    "UserReferences",
    "listen",
    "run",
    "serve",
    "split_cookies",
]
