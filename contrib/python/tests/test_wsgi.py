"""The adapter: applications of every kind that PEP 3333 knows, each checked by wsgiref.validate where it is valid."""

import asyncio
import io
import threading
import unittest
import wsgiref.validate

from gateway import HEADER, PIECE, Gateway, ServerCase, request
from velarto_server import Adapter, UserReferences

TEXT = [("Content-Type", "text/plain")]


def hello(environ, start_response):
    """The least application."""
    start_response("200 OK", TEXT)
    return [b"hello"]


class Closing:
    """Pieces that know whether they were closed."""

    def __init__(self, pieces):
        self.pieces, self.closed = pieces, threading.Event()

    def __iter__(self):
        return iter(self.pieces)

    def close(self):
        self.closed.set()


def answering(*fields, pieces=(), status="200 OK"):
    def application(environ, start_response):
        start_response(status, [*fields])
        return Closing(pieces)
    return application


class Wsgi(ServerCase):
    def run_application(self, application, valid=True, **settings):
        self.serve(Adapter(wsgiref.validate.validator(application) if valid else application, **settings))

    async def answer_of(self, application, body=b"", valid=True, files=(), **parameters) -> Gateway:
        self.run_application(application, valid)
        answer = await self.ask(body, files, **parameters)
        await self.server.stop()
        return answer

    async def test_variables(self):
        seen = {}

        def keep(environ, start_response):
            seen.clear()
            seen.update(environ, body=environ["wsgi.input"].read(9))
            return hello(environ, start_response)

        given = {"PATH_INFO": "/\xc3\xa9", "QUERY_STRING": "a=%20", "REMOTE_USER": "you", "SOAPACTION": "act",
                 "HTTP_COOKIE": "c=2; VelartoClient=shop; Velarto_CGIIP=s001"}
        for url, parameters, expected in [
            (None, given, {"PATH_INFO": "/\xc3\xa9", "QUERY_STRING": "a=%20", "REMOTE_USER": "you", "CONTENT_LENGTH": "4",
                           "SCRIPT_NAME": "/cgi-bin/shop", "HTTP_SOAPACTION": "act", "HTTP_COOKIE": "c=2",
                           "velarto.client": "shop", "velarto.route": "s001", "velarto.file_time": 7,
                           "wsgi.url_scheme": "http", "body": b"body", "HTTP_HOST": None, "REMOTE_IDENT": None}),
            (None, {"SERVER_PORT": "443"}, {"wsgi.url_scheme": "https", "HTTP_COOKIE": None, "velarto.route": None}),
            ("https://a.example:8443/b%20c/", {}, {"wsgi.url_scheme": "https", "SCRIPT_NAME": "/b c", "PATH_INFO": "",
                                                   "HTTP_HOST": "a.example:8443"}),
            ("/", {}, {"wsgi.url_scheme": "http", "SCRIPT_NAME": "", "PATH_INFO": "/", "HTTP_HOST": None}),
        ]:
            self.run_application(keep, url=url)
            await self.ask(b"body", **parameters)
            self.assertEqual({name: seen.get(name) for name in expected}, expected)
            await self.server.stop()

    async def test_bodies(self):
        def write(environ, start_response):
            start_response("200 OK", TEXT)(b"he")
            return [b"llo"]

        def late(environ, start_response):  # its header is known with its first piece only
            yield from hello(environ, start_response)

        def file(environ, start_response):
            start_response("200 OK", TEXT)
            return environ["wsgi.file_wrapper"](io.BytesIO(b"hello"), 1)

        def gateways_file(environ, start_response):
            start_response("200 OK", TEXT)
            self.assertIsNone(environ["velarto.read_file"](b"/missing"))
            return [environ["velarto.read_file"]("/there")]

        def changed(environ, start_response):
            start_response("404 Not Found", TEXT)
            try:
                raise ValueError
            except ValueError:
                start_response("200 OK", TEXT, __import__("sys").exc_info())
            return [b"hello"]

        length = ("Content-Length", "5")
        for application in (hello, write, late, file, gateways_file, changed,
                            answering(length, *TEXT, pieces=[b"", b"hel", b"lo"])):
            answer = await self.answer_of(application, files={b"/there": b"hello"}.items())
            self.assertRegex(answer.header, r"^HTTP/1.0 200 OK\r\nStatus: 200 OK\r\nContent-(?s:.*)\r\n\r\n$")
            self.assertEqual((answer.body, answer.ended), (b"hello", True), application)
        self.assertIn("Content-Length: 5", (await self.answer_of(hello, valid=False)).header)
        for application, parameters in [(answering(length, *TEXT, pieces=[b"hello"]), {"REQUEST_METHOD": "HEAD"}),
                                        (answering(status="204 No Content", pieces=[b"hello"]), {})]:
            answer = await self.answer_of(application, valid=False, **parameters)
            self.assertEqual((answer.body, answer.ended), (b"", True))

    async def test_what_is_not_valid(self):
        def silent(environ, start_response):
            return [b"hello"]

        def leaving(environ, start_response):
            raise SystemExit

        def twice(environ, start_response):
            start_response("200 OK", TEXT)
            return hello(environ, start_response)

        def breaks_off():
            yield b"hel"
            raise ValueError("in the middle")

        def too_late(environ, start_response):
            start_response("200 OK", TEXT)(b"hel")
            try:
                raise ValueError
            except ValueError as error:
                start_response("500 Oh", TEXT, (ValueError, error, error.__traceback__))

        failed, five = ("500 ", b"<!DOCTYPE html>", True), ("Content-Length", "5")
        for application, expected in [
            (silent, failed), (leaving, failed), (twice, failed), (answering(pieces=["text"]), failed),
            (answering(("A", "b\r\nc: d"), pieces=[b"hello"]), failed),
            (answering(("Content-Length", "five")), failed),
            (answering(pieces=breaks_off()), ("200 ", b"hel", False)),
            (too_late, ("200 ", b"hel", False)),
            (answering(five, pieces=[b"hel", b"lo, world"]), ("200 ", b"hello", True)),
            (answering(five, pieces=[b"hel"]), ("200 ", b"hel", True)),
        ]:
            status, body, ended = expected
            with self.subTest(application, expected=expected), self.assertLogs("velarto_server", "ERROR"):
                answer = await self.answer_of(application, valid=False)
            self.assertIn("HTTP/1.0 " + status, answer.header)
            self.assertEqual((answer.body[: len(body)], answer.ended), (body, ended))
        answer = await self.answer_of(answering(("Transfer-Encoding", "chunked")), valid=False)
        self.assertNotIn("chunked", answer.header)

    async def test_pieces_leave_as_they_are_made_until_the_gateway_goes(self):
        go_on = threading.Semaphore(0)

        def pieces():
            for number in range(1 << 30):
                go_on.acquire(timeout=60)
                yield b"%d" % number

        made = Closing(pieces())
        self.run_application(lambda environ, start_response: start_response("200 OK", TEXT) and made, valid=False)
        peer = await self.connect(request())
        go_on.release()
        self.assertEqual([await peer.step(), await peer.step()], [HEADER, PIECE])
        go_on.release()
        self.assertEqual(await peer.step(), PIECE)
        self.assertEqual(peer.body, b"01")
        peer.close()
        go_on.release(10)
        self.assertTrue(await asyncio.get_running_loop().run_in_executor(None, made.closed.wait, 60))

    async def test_who_went_away_while_all_threads_were_busy_costs_no_call(self):
        go_on, calls = threading.Event(), []

        def waiting(environ, start_response):
            calls.append(environ["PATH_INFO"])
            go_on.wait(60)
            return hello(environ, start_response)

        self.run_application(waiting, threads=1)
        first = await self.connect(request(PATH_INFO="/first"))
        while not calls:
            await asyncio.sleep(0.001)
        gone = await self.connect(request(PATH_INFO="/gone"))
        gone.writer.write_eof()
        go_on.set()
        await first.finish()
        await self.ask(PATH_INFO="/last")
        self.assertEqual(calls, ["/first", "/last"])

    async def test_long_bodies_both_ways_and_the_users_reference(self):
        body = bytes(range(256)) * 12000  # beyond what is held in memory

        def echo(environ, start_response):
            start_response("200 OK", TEXT)
            lines = environ["wsgi.input"].readline(100000), environ["wsgi.input"].read(len(body))
            return [b"".join(lines)]

        self.run_application(echo, references=UserReferences("s001"))
        for cookie, expected in [("VelartoClient=shop", 1), ("Velarto_UserReference=s001%s; VelartoClient=shop" % ("x" * 24), 0)]:
            answer = await self.ask(body, REQUEST_METHOD="POST", HTTP_COOKIE=cookie)
            self.assertEqual(answer.body, body)
            self.assertEqual(answer.pieces, 12)
            self.assertEqual(answer.header.count("\r\nSet-Cookie: Velarto_UserReference=s001"), expected)


if __name__ == "__main__":
    unittest.main()
