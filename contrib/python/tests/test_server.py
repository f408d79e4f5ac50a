"""The server: peers that misbehave, many at once, limits, the end, and where it listens."""

import asyncio
import contextlib
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import unittest

from gateway import HEADER, PIECE, ServerCase, acknowledgement, request
from velarto_server import Disconnected, listen

HERE = pathlib.Path(__file__).resolve().parent


async def echo(exchange):
    await exchange.respond("200 OK", [], exchange.body.read())


class Misbehaving(ServerCase):
    async def test_peers_are_left_and_the_next_one_is_served(self):
        self.serve(echo)
        whole = request(b"12345")
        stalled = await self.connect(whole[:-1])
        for data in [b"GET / HTTP/1.0\r\n\r\n", whole + b"!", *(whole[:length] for length in range(0, len(whole), 41))]:
            peer = await self.connect(data)
            if whole.startswith(data):
                peer.writer.write_eof()
            await peer.finish()
            self.assertFalse(peer.ended, data)
        self.assertEqual((await self.ask(b"hello")).body, b"hello")
        stalled.send(whole[-1:])
        self.assertEqual((await stalled.finish()).body, b"12345")

    async def test_answers_that_are_wrong_or_missing_end_the_handler(self):
        reasons = asyncio.Queue()

        async def endless(exchange):
            try:
                await exchange.send_header("200 OK", [])
                while True:
                    await exchange.send(bytes(1 << 20))
            except Disconnected as error:
                reasons.put_nowait(str(error))
                raise

        self.serve(endless, timeout=0.5)
        for sent, reason in [
            (acknowledgement(PIECE), "type 4 came instead of 6"),
            (acknowledgement(HEADER) + b"Q", "follow a message"),
            (b"", "timed out"),
        ]:
            peer = await self.connect(request())
            await peer.reader.readexactly(12)
            peer.send(sent)
            self.assertIn(reason, await reasons.get())

    async def test_a_handler_that_fails_makes_a_page_or_no_end(self):
        async def fail(exchange):
            if exchange.body.read():
                await exchange.send_header("200 OK", [])
                await exchange.send(b"begun")
            raise OSError("in the handler")

        async def silent(exchange):
            pass

        for handler, body, header, ended in [(fail, b"", "HTTP/1.0 500 ", True), (fail, b"1", "HTTP/1.0 200 ", False),
                                             (silent, b"", "HTTP/1.0 500 ", True)]:
            self.serve(handler)
            with self.assertLogs("velarto_server", "ERROR"):
                answer = await self.ask(body)
            self.assertIn(header, answer.header)
            self.assertEqual(answer.ended, ended)
            await self.server.stop()


class Serving(ServerCase):
    async def test_200_at_once_come_through_beyond_the_limit_of_connections_too(self):
        self.serve(echo, connections=150)
        bodies = [b"%d " % number * 500 for number in range(200)]
        peers = [await self.connect(request(body)[:1500]) for body in bodies]
        for peer, body in zip(peers, bodies):
            peer.send(request(body)[1500:])
        answers = await asyncio.wait_for(asyncio.gather(*(peer.finish() for peer in peers)), 60)
        self.assertEqual([answer.body for answer in answers], bodies)

    async def test_header_of_a_client_that_gets_it_unchanged_tells_the_end(self):
        async def handler(exchange):
            await exchange.send_header("200 OK", [("content-length", "0")] if exchange.body.read() else [])

        self.serve(handler)
        cookie = "VelartoClient=nph-shop"
        self.assertIn("\r\nConnection: close\r\n", (await self.ask(HTTP_COOKIE=cookie)).header)
        for answer in (await self.ask(b"1", HTTP_COOKIE=cookie), await self.ask()):
            self.assertNotIn("Connection", answer.header)

    async def test_the_end_waits_for_answers_under_way_as_long_as_it_may(self):
        for grace in (60, 0):
            begun, go_on = asyncio.Event(), asyncio.Event()

            async def handler(exchange):
                begun.set()
                await go_on.wait()
                await echo(exchange)

            self.serve(handler, grace=grace)
            incomplete = await self.connect(request()[:-1])
            peer = await self.connect(request(b"late"))
            finished = asyncio.create_task(peer.finish())
            await begun.wait()
            log = self.assertLogs("velarto_server", "WARNING") if grace == 0 else contextlib.nullcontext()
            with log:
                stop = asyncio.create_task(self.server.stop())
                self.assertIsNone(await incomplete.step())
                with self.assertRaises(ConnectionRefusedError):
                    await self.connect()
                if grace > 0:
                    go_on.set()
                self.assertEqual(await stop, grace > 0)
            go_on.set()
            self.assertEqual((await finished).body, b"late" if grace else b"")


class Listening(unittest.TestCase):
    def test_places(self):
        with tempfile.TemporaryDirectory() as folder:
            path = folder + "/socket"
            for where in ("127.0.0.1:0", "localhost:0", "[::1]:0", "unix:" + path, "unix:" + path):
                listen(where).close()  # which leaves a dead socket file
            with listen("unix:" + path), self.assertRaises(OSError):
                listen("unix:" + path)
            pathlib.Path(folder, "file").touch()
            with self.assertRaises(OSError):
                listen(f"unix:{folder}/file")
        for where in ("18155", ":18155", "127.0.0.1:x", "127.0.0.1:65536"):
            with self.subTest(where), self.assertRaises(ValueError):
                listen(where)

    def test_the_program_serves_at_the_socket_of_systemd_until_it_is_told_to_end(self):
        with socket.create_server(("127.0.0.1", 0)) as listener:
            name = "%s:%d" % listener.getsockname()
            command = [sys.executable, "-Bm", "velarto_server", "--verbose", "--sid=s001", "test_wsgi:hello"]
            with subprocess.Popen(["sh", "-c", 'LISTEN_FDS=1 LISTEN_PID=$$ exec "$@"', "sh", *command], pass_fds=[3],
                                  preexec_fn=lambda: os.dup2(listener.fileno(), 3), cwd=HERE,
                                  env={**os.environ, "PYTHONPATH": str(HERE.parent)}, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE) as program:
                self.assertEqual(program.stdout.readline(), f"listening on {name}\n")
                with socket.create_connection(listener.getsockname()) as peer:
                    peer.sendall(request(PATH_INFO="/a\nb"))
                    for kind in (HEADER, PIECE):
                        self.assertNotEqual(peer.recv(4096), b"")
                        peer.sendall(acknowledgement(kind))
                    while peer.recv(4096):
                        pass
                program.terminate()
                self.assertIn(r"GET /cgi-bin/shop/a\nb: status 200, 5 bytes", program.communicate(timeout=60)[1])
                self.assertEqual(program.returncode, 0)


if __name__ == "__main__":
    unittest.main()
