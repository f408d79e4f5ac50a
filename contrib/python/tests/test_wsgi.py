"""The adapter: applications of every kind that PEP 3333 knows, each checked by wsgiref.validate where it is valid."""

import asyncio
import io
import threading
from wsgiref.validate import validator

from gateway import ServerCase, impatient, request
from velarto_server import Adapter, UserReferences
from velarto_server.protocol import Type

TEXT, FIVE = ("Content-Type", "text/plain"), ("Content-Length", "5")


def hello(environ, start_response):
    """The least application."""
    start_response("200 OK", [TEXT])
    return [b"hello"]


def answering(*fields, pieces=(), status="200 OK"):
    def application(environ, start_response):
        start_response(status, [*fields])
        return (piece for piece in pieces)
    return application


def writing(environ, start_response):
    start_response("200 OK", [TEXT])(b"he")
    return [b"llo"]


def measured(environ, start_response):
    start_response("200 OK", [FIVE, TEXT])
    return [b"hello"]


def late(environ, start_response):  # the header is known with the first piece only
    yield from hello(environ, start_response)


def file(environ, start_response):
    start_response("200 OK", [TEXT])
    return environ["wsgi.file_wrapper"](io.BytesIO(b"hello"), 1)


def gateways_file(environ, start_response):
    start_response("200 OK", [TEXT])
    return [b"wrong" if environ["velarto.read_file"](b"missing") else environ["velarto.read_file"]("hello")]


def changing(begin):
    """Begins an answer, with this much of its body, and then makes another of it."""
    def application(environ, start_response):
        write = start_response("404 Not Found", [TEXT])
        try:
            write(begin) if begin else None
            raise ValueError("after all")
        except ValueError as error:
            start_response("200 OK", [TEXT], (ValueError, error, error.__traceback__))
        return [b"hello"]
    return application


def leaving(environ, start_response):
    raise SystemExit


class Wsgi(ServerCase):
    async def answer_of(self, application, **parameters):
        self.serve(Adapter(application))
        answer = await self.ask(**parameters)
        await self.server.stop()
        return answer

    async def test_variables(self):
        seen = {}

        def keep(environ, start_response):
            seen.update(environ, body=environ["wsgi.input"].read(9))
            return hello(environ, start_response)

        given = {"PATH_INFO": "/\xc3\xa9", "QUERY_STRING": "a=%20", "REMOTE_USER": "you", "CONTENT_LENGTH": "4"}
        of_gateway = {"SOAPACTION": "act", "HTTP_COOKIE": "c=2; VelartoClient=shop; Velarto_CGIIP=s001"}
        for url, parameters, expected in [
            (None, {**given, **of_gateway}, {
                **given, "HTTP_SOAPACTION": "act", "HTTP_COOKIE": "c=2", "velarto.client": "shop", "velarto.route": "s001",
                "velarto.file_time": 7, "SCRIPT_NAME": "/cgi-bin/shop", "wsgi.url_scheme": "http", "body": b"body",
                "HTTP_HOST": None, "REMOTE_IDENT": None}),
            (None, {"SERVER_PORT": "443"}, {"wsgi.url_scheme": "https", "HTTP_COOKIE": None, "velarto.route": None}),
            ("https://a.example:8443/b%20c/", {}, {
                "wsgi.url_scheme": "https", "HTTP_HOST": "a.example:8443", "SCRIPT_NAME": "/b c", "PATH_INFO": ""}),
            ("/", {}, {"wsgi.url_scheme": "http", "HTTP_HOST": None, "SCRIPT_NAME": "", "PATH_INFO": "/"}),
        ]:
            seen.clear()
            self.serve(Adapter(validator(keep), url=url))
            await self.ask(b"body", **parameters)
            self.assertEqual({name: seen.get(name) for name in expected}, expected)
            await self.server.stop()

    async def test_answers(self):
        for application in (hello, writing, late, file, gateways_file, changing(b""),
                            answering(FIVE, TEXT, pieces=[b"", b"hel", b"lo"])):
            answer = await self.answer_of(validator(application))
            self.assertRegex(answer.header, r"^HTTP/1.0 200 OK\r\nStatus: 200 OK\r\nContent-(?s:.*)\r\n\r\n$")
            self.assertEqual((answer.body, answer.ended), (b"hello", True), application)
        for application in hello, measured:
            self.assertEqual((await self.answer_of(application)).header.count("\r\nContent-Length: 5"), 1)
        to_the_end = await self.answer_of(late, HTTP_COOKIE="VelartoClient=nph-shop")
        self.assertIn("\r\nConnection: close", to_the_end.header)
        for application, method in (hello, "HEAD"), (answering(status="304 Not Modified", pieces=[b"hello"]), "GET"):
            answer = await self.answer_of(application, REQUEST_METHOD=method)
            self.assertEqual((answer.body, answer.ended), (b"", True))

    async def test_what_is_not_valid(self):
        def breaks_off():
            yield b"hel"
            raise ValueError("in the middle")

        failed = ("500 ", b"<!DOCTYPE html><title>No answer</title><h1>The application has failed</h1>\n", True)
        for application, (status, body, ended) in [
            (lambda environ, start_response: [b"hello"], failed),
            (lambda environ, start_response: start_response("200 OK", []) and hello(environ, start_response), failed),
            (leaving, failed),
            (answering(pieces=["text"]), failed),
            (answering(("A", "b\r\nc: d"), pieces=[b"hello"]), failed),
            (answering(("Content-Length", "five")), failed),
            (answering(pieces=breaks_off()), ("200 ", b"hel", False)),
            (changing(b"hel"), ("404 ", b"hel", False)),
            (answering(FIVE, pieces=[b"hel", b"lo, world"]), ("200 ", b"hello", True)),
            (answering(FIVE, pieces=[b"hel"]), ("200 ", b"hel", True)),
        ]:
            with self.assertLogs("velarto_server", "ERROR"):
                answer = await self.answer_of(application)
            self.assertEqual((answer.header[9:13], answer.body, answer.ended), (status, body, ended))
        self.assertNotIn("chunked", (await self.answer_of(answering(("Transfer-Encoding", "chunked")))).header)

    async def test_pieces_leave_as_they_are_made_until_the_gateway_goes(self):
        go_on, closed = threading.Semaphore(0), threading.Event()

        class Endless:
            close = closed.set

            def __iter__(self):
                while go_on.acquire(timeout=60):
                    yield b"."

        adapter = Adapter(lambda environ, start_response: start_response("200 OK", []) and Endless())
        for handler in adapter, impatient(adapter):  # it goes; it stays, but is silent
            self.serve(handler)
            peer = await self.connect(request())
            if handler is adapter:
                for message in (Type.HEADER, Type.PIECE), (Type.PIECE,):
                    go_on.release()
                    self.assertEqual(tuple([await peer.step() for _ in message]), message)
                peer.writer.close()
            go_on.release(10)
            self.assertTrue(await asyncio.get_running_loop().run_in_executor(None, closed.wait, 60))
            closed.clear()
            await self.server.stop()

    async def test_who_went_away_while_all_threads_were_busy_costs_no_call(self):
        go_on, calls = threading.Event(), []

        def waiting(environ, start_response):
            calls.append(environ["PATH_INFO"])
            go_on.wait(60)
            return hello(environ, start_response)

        self.serve(Adapter(waiting, threads=1))
        first = await self.connect(request(PATH_INFO="/first"))
        while not calls:
            await asyncio.sleep(0.001)
        (await self.connect(request(PATH_INFO="/gone"))).writer.write_eof()
        go_on.set()
        await first.finish()
        await self.ask(PATH_INFO="/last")
        self.assertEqual(calls, ["/first", "/last"])

    async def test_long_bodies_both_ways_and_the_users_reference(self):
        body = bytes(range(256)) * 12000  # beyond what is held in memory

        def echo(environ, start_response):
            start_response("200 OK", [TEXT])
            return [environ["wsgi.input"].readline(100000) + environ["wsgi.input"].read(len(body))]

        self.serve(Adapter(validator(echo), references=UserReferences("s001")))
        for cookie, expected in ("", 1), ("Velarto_UserReference=s001" + "x" * 24, 0):
            answer = await self.ask(body, HTTP_COOKIE=cookie + "; VelartoClient=shop")
            self.assertEqual((answer.body, answer.pieces), (body, 12))
            self.assertEqual(answer.header.count("\r\nSet-Cookie: Velarto_UserReference=s001"), expected)
