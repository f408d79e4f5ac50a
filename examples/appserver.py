#!/usr/bin/env python3
"""A small application server for the gateway, to read and to build on, made with contrib/python.

/       what the request was
/form   a form, and what was sent with it
/file*  the web server's file of this path; so does any path that ends in .zaf, .zhtml, .zml or .zcf
"""

import argparse
import html
import mimetypes
import pathlib
import re
import sys
import urllib.parse
from http import HTTPStatus

sys.dont_write_bytecode = True  # nothing is left beside the package's sources
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "contrib/python"))
import velarto_server  # noqa: E402


async def answer(exchange):
    """One exchange: a request, whose parameters and body are bytes, and its answer."""
    path = exchange.request.parameters["PATH_INFO"]
    if path in (b"", b"/"):
        values = ((name, decode(value)) for name, value in exchange.request.parameters.items())
        _, client, route = velarto_server.split_cookies(exchange.request.parameters["HTTP_COOKIE"])
        own = ("client", decode(client)), ("route", decode(route or b""))
        await page(exchange, "The request", table([("file time", str(exchange.request.file_time)), *values, *own]))
    elif path == b"/form":
        await form(exchange)
    elif re.fullmatch(rb"/file.*|.*\.(zaf|zhtml|zml|zcf)", path, re.DOTALL):
        await file(exchange, path)
    else:
        await page(exchange, "Not found", status=HTTPStatus.NOT_FOUND)


async def form(exchange):
    if exchange.request.parameters["REQUEST_METHOD"] == b"POST":
        fields = urllib.parse.parse_qsl(decode(exchange.body.read()), keep_blank_values=True)
        await page(exchange, "What was sent", table(fields))
    else:
        await page(exchange, "A form", '<form method="post"><input name="text"><button>Send</button></form>')


async def file(exchange, path):
    # Web servers resolve "..", but not all do in "..\", which the gateway may be set to read as "../".
    outside = b".." in re.split(rb"[/\\]", path)
    content = None if outside else await exchange.read_file(exchange.request.parameters["PATH_TRANSLATED"])
    if content is None:
        await page(exchange, "No such file", status=HTTPStatus.NOT_FOUND)
    else:
        kind = mimetypes.guess_type(decode(path))[0] or "application/octet-stream"
        await exchange.respond(HTTPStatus.OK, [("Content-Type", kind)], content)


async def page(exchange, title, content="", status=HTTPStatus.OK):
    text = f'<!DOCTYPE html><html lang="en"><title>{title}</title><h1>{title}</h1>{content}</html>\n'
    await exchange.respond(status, [("Content-Type", "text/html; charset=utf-8")], text.encode())


def table(rows):
    rows = (f"<tr><th>{html.escape(name)}</th><td>{html.escape(value)}</td></tr>" for name, value in rows)
    return f"<table>{''.join(rows)}</table>"


def decode(value):
    return value.decode("utf-8", "backslashreplace")


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description="A small application server for the gateway.")
    parser.add_argument("--listen", default="127.0.0.1:18155", metavar="ADDRESS:PORT")
    velarto_server.serve(answer, [parser.parse_args().listen])
