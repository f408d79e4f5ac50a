"""What the gateway has to do with cookies: those that it adds to a request, and the one that binds a user to a server."""

from __future__ import annotations

import ipaddress
import re
import secrets
from typing import NamedTuple, Optional


class Cookies(NamedTuple):
    """The parameter HTTP_COOKIE, taken apart."""

    browser: bytes  # the browser's, byte by byte as they came
    client: bytes  # the name under which the gateway was started
    route: Optional[bytes]  # to this server; None where there was no choice


def split(value: bytes) -> Cookies:
    """Tells the gateway's own cookies from those before them, which may have the same names.

    The last "VelartoClient" is the gateway's; "Velarto_CGIIP" is when it follows that one. The gateway adds them
    behind whatever the browser has sent, a quote that never ends included: so quotes mean nothing here.
    """
    parts = value.split(b";")
    for at in range(len(parts) - 1, -1, -1):
        name, _, client = parts[at].strip().partition(b"=")
        if name == b"VelartoClient":
            behind = [part.strip().partition(b"=") for part in parts[at + 1 :]]
            routes = [route for name, _, route in behind if name == b"Velarto_CGIIP"]
            return Cookies(b";".join(parts[:at]), client, routes[-1] if routes else None)
    return Cookies(value, b"", None)


class UserReferences:
    """Issues the cookie by which a user's next request reaches the same server.

    `server` is this server as the gateway's list has it: its identifier of 4 characters (s001), or address and port
    (10.0.0.5,18155) where it has none. Raises ValueError for anything else.
    """

    _KEY = 24  # characters behind the server's

    def __init__(self, server: str) -> None:
        address, comma, port = server.partition(",")
        if comma and port.isdecimal() and int(port) <= 0xFFFF:
            self._server = f"{int(ipaddress.IPv4Address(address)):08X}{int(port):04X}"
        elif re.fullmatch("[0-9A-Za-z]{4}", server):
            self._server = server
        else:
            raise ValueError(f"neither an identifier of 4 letters and digits nor ADDRESS,PORT: {server!r}")

    def new_cookie(self, cookies: bytes) -> Optional[str]:
        """The value of Set-Cookie for a user with these cookies; None where they lead to this server already."""
        reference = re.search(rb"Velarto_UserReference=([^;]*)", cookies)  # the first place counts
        if reference:
            known, server = reference[1].decode("latin-1"), self._server
            if len(known) == len(server) + self._KEY and known[: len(server)].upper() == server.upper():
                return None
        key = secrets.token_hex(self._KEY // 2)
        return f"Velarto_UserReference={self._server}{key}; Path=/; HttpOnly; SameSite=Lax"
