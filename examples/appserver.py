#!/usr/bin/env python3
"""A small application server for the gateway, to read and to build on. docs/protocol.md tells the protocol.

/       what the request was
/form   a form, and what was sent with it
/file*  the web server's file of this path; so does any path that ends in .zaf, .zhtml, .zml or .zcf
"""

import argparse
import html
import logging
import mimetypes
import re
import signal
import socketserver
import threading
import urllib.parse
from http import HTTPStatus

# ---- The protocol ------------------------------------------------------------------------------------------

START = b"QUIL\xFF\xFD\xFF\xFD"  # frame mark and version, the same in every message and both ways
FOOTER = b"END!"
REQUEST, FILE_REQUEST, FILE_REPLY, BODY, HEADER, END = 1, 2, 3, 4, 6, 7
# A request has all of them, always and in this order.
PARAMETERS = """QUERY_STRING PATH_INFO PATH_TRANSLATED REQUEST_METHOD REMOTE_HOST REMOTE_IDENT REMOTE_USER
    REMOTE_PASSWD REMOTE_NAME REMOTE_PORT SERVER_NAME SERVER_PORT SCRIPT_NAME HTTP_REFERER HTTP_USER_AGENT
    CONTENT_TYPE CONTENT_LENGTH PLUGIN REMOTE_ADDR HTTP_COOKIE COMMANDLINE HTTP_FROM HTTP_ACCEPT SOAPACTION
    FULLHEADER""".split()

LONGEST_VALUE, LONGEST_BODY, LONGEST_FILE, PIECE = 256 << 10, 1 << 20, 64 << 20, 64 << 10  # bytes


class Broken(Exception):
    """The gateway is gone or does not keep to the protocol. There is nobody to answer: close, no more."""


def number(value):
    return value.to_bytes(4, "big")


class Conversation(socketserver.StreamRequestHandler):
    """One connection, and so one request. Body and parameters are bytes: no character set is announced."""

    timeout = 300  # seconds of silence; a browser that reads slowly delays the acknowledgements
    disable_nagle_algorithm = True

    def handle(self):
        try:
            self.read_request()
            try:
                response = answer(self)
            except Broken:
                raise
            except Exception:
                logging.exception("no answer to %s", self.parameters["PATH_INFO"])
                response = page("No answer", status=HTTPStatus.INTERNAL_SERVER_ERROR)
            self.send_response(*response)
        except Broken:
            pass  # this includes whoever connects only to see whether the port is open

    def read_request(self):
        self.expect(START + number(REQUEST))
        self.file_time = self.read_number()
        self.body = self.read_counted(LONGEST_BODY)  # all of it; CONTENT_LENGTH is only text from outside
        self.parameters = {}
        for name in PARAMETERS:
            self.expect(number(len(name)) + name.encode())
            self.parameters[name] = self.read_counted(LONGEST_VALUE)
        self.expect(FOOTER)  # the end; the gateway keeps its side open

    def read_file(self, path):
        """The content of a file on the gateway's machine, None when it is missing, unreadable or empty."""
        self.send(FILE_REQUEST, number(len(path)) + path)
        self.expect(START + number(FILE_REPLY))
        content = self.read_counted(LONGEST_FILE) if self.read_number() else None  # 0: no length follows
        self.expect(FOOTER)
        return content

    def send_response(self, status, content_type, content):
        # The browser's status is the first line's under an "nph-" name, under others that of the field.
        lines = (f"HTTP/1.0 {status.value} {status.phrase}", f"Status: {status.value} {status.phrase}",
                 f"Content-Type: {content_type}", f"Content-Length: {len(content)}", "", "")
        self.send_text(HEADER, "\r\n".join(lines).encode())
        if self.parameters["REQUEST_METHOD"] != b"HEAD":
            for at in range(0, len(content), PIECE):
                self.send_text(BODY, content[at:at + PIECE])
        self.send(END)

    def send_text(self, kind, text):
        self.send(kind, number(len(text)) + text)
        # Read at once: the gateway cannot acknowledge while bytes of a following message wait on its side.
        self.expect(START + number(kind))
        if not self.read_number():
            raise Broken("refused")
        self.expect(FOOTER)

    def send(self, kind, fields=b""):
        try:
            self.request.sendall(START + number(kind) + fields + FOOTER)
        except OSError as error:
            raise Broken("cannot send") from error

    def expect(self, expected):
        if self.read(len(expected)) != expected:
            raise Broken("something else came")

    def read_counted(self, limit):
        length = self.read_number()
        if length > limit:
            raise Broken("too long")
        return self.read(length)

    def read_number(self):
        return int.from_bytes(self.read(4), "big")

    def read(self, count):
        try:
            content = self.rfile.read(count)  # waits for all of it
        except OSError as error:
            raise Broken("cannot read") from error
        if len(content) < count:
            raise Broken("closed")
        return content


class Server(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    request_queue_size = 128  # the gateway waits no longer than a second for its connection
    daemon_threads = True  # the end of the server cuts off what is under way

    def verify_request(self, request, client_address):
        return threading.active_count() <= 500  # others are closed; a server with peers would let them wait


# ---- The application ---------------------------------------------------------------------------------------


def answer(request):
    """Status, type and content of the response."""
    path = request.parameters["PATH_INFO"]
    if path in (b"", b"/"):
        values = ((name, decode(value)) for name, value in request.parameters.items())
        client, route = map(decode, gateway_cookies(request.parameters["HTTP_COOKIE"]))
        return page("The request", table([("file time", str(request.file_time)), *values, ("client", client),
                                          ("route", route)]))
    if path == b"/form":
        return form(request)
    if re.fullmatch(rb"/file.*|.*\.(zaf|zhtml|zml|zcf)", path, re.DOTALL):
        return file(request, path)
    return page("Not found", status=HTTPStatus.NOT_FOUND)


def gateway_cookies(text):
    """Client and route that the gateway has appended to the browser's cookies; no route is an empty one."""
    client = route = b""
    for cookie in text.split(b";"):  # whatever quotes say: a browser's could hide what follows
        name, _, value = cookie.strip(b" ").partition(b"=")
        if name == b"VelartoClient":
            client, route = value, b""  # what came before is the browser's word
        elif name == b"Velarto_CGIIP":
            route = value
    return client, route


def form(request):
    if request.parameters["REQUEST_METHOD"] != b"POST":
        return page("A form", '<form method="post"><input name="text"><button>Send</button></form>')
    return page("What was sent", table(urllib.parse.parse_qsl(decode(request.body), keep_blank_values=True)))


def file(request, path):
    # Web servers resolve "..", but not all do in "..\", which the gateway may be set to read as "../".
    outside = b".." in re.split(rb"[/\\]", path)
    content = None if outside else request.read_file(request.parameters["PATH_TRANSLATED"])
    if content is None:
        return page("No such file", status=HTTPStatus.NOT_FOUND)
    return HTTPStatus.OK, mimetypes.guess_type(decode(path))[0] or "application/octet-stream", content


def page(title, content="", status=HTTPStatus.OK):
    text = f'<!DOCTYPE html><html lang="en"><title>{title}</title><h1>{title}</h1>{content}</html>\n'
    return status, "text/html; charset=utf-8", text.encode()


def table(rows):
    rows = (f"<tr><th>{html.escape(name)}</th><td>{html.escape(value)}</td></tr>" for name, value in rows)
    return f"<table>{''.join(rows)}</table>"


def decode(value):
    return value.decode("utf-8", "backslashreplace")


def endpoint(text):
    address, _, port = text.rpartition(":")
    return address, int(port)


def main():
    parser = argparse.ArgumentParser(description="A small application server for the gateway.")
    parser.add_argument("--listen", type=endpoint, default="127.0.0.1:18155", metavar="ADDRESS:PORT")
    signals = {signal.SIGTERM, signal.SIGINT}
    signal.pthread_sigmask(signal.SIG_BLOCK, signals)  # in all threads: they wait for sigwait()
    with Server(parser.parse_args().listen, Conversation) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        print("listening on {}:{}".format(*server.server_address), flush=True)
        signal.sigwait(signals)
        server.shutdown()


if __name__ == "__main__":
    main()
