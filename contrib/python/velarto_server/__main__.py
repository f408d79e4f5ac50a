"""Runs a WSGI application behind the gateway: python3 -m velarto_server [options] MODULE:APPLICATION."""

from __future__ import annotations

import argparse
import importlib
import logging
import re
from typing import Callable, cast

from . import __version__
from .cookies import UserReferences
from .protocol import Limits
from .server import Settings, serve
from .wsgi import Adapter, Application


def load(name: str) -> Application:
    """The application MODULE:NAME, or what the function of MODULE:NAME() returns.

    Raises ArgumentTypeError for another form and for what cannot be called; and whatever the import raises.
    """
    form = re.fullmatch(r"([\w.]+):([\w.]+)(\(\))?", name)
    if not form:
        raise argparse.ArgumentTypeError(f"not MODULE:APPLICATION: {name!r}")
    found = importlib.import_module(form[1])
    for part in form[2].split("."):
        found = getattr(found, part, None)  # type: ignore[assignment]
    if form[3] and callable(found):
        found = found()
    if not callable(found):
        raise argparse.ArgumentTypeError(f"{name} is no application, but {type(found).__name__}")
    return cast(Application, found)


def at_least(least: float, kind: Callable[[str], float]) -> Callable[[str], float]:
    """A converter for argparse."""

    def number(text: str) -> float:
        value = kind(text)
        if not least <= value < 1 << 32:
            raise argparse.ArgumentTypeError(f"not from {least} to {(1 << 32) - 1}: {text}")
        return value

    return number


def main() -> None:
    """Serves until SIGTERM or SIGINT. Ends with status 2 when it cannot begin, and 1 when it cut answers off."""
    default, limits = Settings(), Limits()
    parser = argparse.ArgumentParser(
        prog="python3 -m velarto_server",
        description="Runs a WSGI application, such as one of Flask or Django, behind the gateway.",
        formatter_class=argparse.ArgumentDefaultsHelpFormatter,
    )
    option = parser.add_argument
    option("application", metavar="MODULE:APPLICATION", help="what to run; MODULE:FUNCTION() for what a function returns")
    option("--listen", action="append", metavar="PLACE", default=[],
           help="ADDRESS:PORT, [ADDRESS]:PORT or unix:PATH, also several times; systemd's sockets are used as well, "
                "and without either 127.0.0.1:18155")
    option("--url", metavar="URL", help="where browsers see the application, https://HOST/PATH or /PATH alone; "
           "by default what the web server says")
    option("--sid", metavar="SERVER", type=UserReferences, help="keep users: this server as the list of the gateway "
           "has it, by its identifier (s001) or by ADDRESS,PORT")
    option("--threads", metavar="N", type=at_least(1, int), default=8, help="requests that are worked at")
    option("--connections", metavar="N", type=at_least(1, int), default=default.connections,
           help="connections at once; further ones wait")
    option("--timeout", metavar="SECONDS", type=at_least(0.001, float), default=default.timeout,
           help="how long the gateway may take to send its request, and to take each piece of the answer")
    option("--grace", metavar="SECONDS", type=at_least(0, float), default=default.grace,
           help="how long answers under way may take when the server ends")
    option("--max-body", metavar="BYTES", type=at_least(0, int), default=limits.body, help="longest request body")
    option("-v", "--verbose", action="store_true", help="a line on standard error for each request")
    option("--version", action="version", version=f"velarto_server {__version__}")
    given = parser.parse_args()

    logging.basicConfig(format="%(asctime)s %(levelname)s %(message)s")
    logging.getLogger("velarto_server").setLevel(logging.INFO if given.verbose else logging.WARNING)
    settings = Settings(limits._replace(body=given.max_body), given.timeout, given.connections, given.grace)
    try:
        application = load(given.application)
    except argparse.ArgumentTypeError as error:
        parser.error(str(error))
    try:
        serve(Adapter(application, given.threads, given.url, given.sid), given.listen, settings)
    except (OSError, ValueError) as error:  # of the places to listen at
        parser.error(str(error))


if __name__ == "__main__":
    main()
