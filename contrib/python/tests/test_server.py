"""The server: peers that misbehave, many at once, the end, and where it listens."""

import asyncio
import contextlib
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import unittest

import gateway
from gateway import ServerCase, acknowledgement, impatient, request
from velarto_server import Disconnected, listen
from velarto_server.protocol import Type

HERE = pathlib.Path(__file__).resolve().parent


async def echo(exchange):
    await exchange.respond("200 OK", [], exchange.body.read())


class Serving(ServerCase):
    async def test_peers_that_misbehave_are_left_and_the_next_one_is_served(self):
        self.serve(echo)
        whole = request(b"12345")
        stalled = await self.connect(whole[:-1])
        for data in [b"GET / HTTP/1.0\r\n\r\n", whole + b"!", *(whole[:length] for length in range(0, len(whole), 41))]:
            peer = await self.connect(data)
            if whole.startswith(data):
                peer.writer.write_eof()
            self.assertFalse((await peer.finish()).ended, data)
        stalled.writer.write(whole[-1:])
        self.assertEqual((await stalled.finish()).body, b"12345")

    async def test_answers_that_are_wrong_or_missing_end_the_handler(self):
        reasons = asyncio.Queue()

        async def endless(exchange):
            try:
                await exchange.send_header("200 OK", [("Long", exchange.body.read().decode() * (32 << 20))])
                while True:
                    await exchange.send(bytes(1 << 20))
            except Disconnected as error:
                reasons.put_nowait(str(error))
                raise

        for handler, body, answers, reason in [
            (endless, b"", acknowledgement(Type.PIECE), "type 4 came instead of 6"),
            (endless, b"", acknowledgement(Type.HEADER) + b"Q", "follow a message"),
            (impatient(endless), b"", b"", "timed out"),
            (impatient(endless), b".", b"", "timed out"),  # with what all buffers between do not hold
        ]:
            self.serve(handler)
            peer = await self.connect(request(body))
            if answers:
                await peer.reader.readexactly(12)
                peer.writer.write(answers)
            self.assertIn(reason, await reasons.get())
            await self.server.stop()

    async def test_200_at_once_come_through_beyond_the_limit_of_connections_too(self):
        self.serve(echo, connections=150)
        bodies = [b"%d " % number * 500 for number in range(200)]
        peers = [await self.connect(request(body)[:1500]) for body in bodies]
        for peer, body in zip(peers, bodies):
            peer.writer.write(request(body)[1500:])
        answers = await asyncio.gather(*(peer.finish() for peer in peers))
        self.assertEqual([answer.body for answer in answers], bodies)

    async def test_the_end_waits_for_answers_under_way_as_long_as_it_may(self):
        for grace in (60, 0):
            begun, go_on = asyncio.Event(), asyncio.Event()

            async def handler(exchange):
                begun.set()
                await go_on.wait()
                await echo(exchange)

            self.serve(handler, grace=grace)
            incomplete = await self.connect(request()[:-1])
            finished = asyncio.create_task((await self.connect(request(b"late"))).finish())
            await begun.wait()
            waiting = socket.create_connection(self.address)  # blocking: the server has no time to accept it
            waiting.sendall(request(b"early"))
            with contextlib.nullcontext() if grace else self.assertLogs("velarto_server", "WARNING"):
                stop = asyncio.create_task(self.server.stop())
                self.assertIsNone(await incomplete.step())
                with self.assertRaises(ConnectionRefusedError):
                    await self.connect()
                if grace:
                    go_on.set()
                    accepted = gateway.Gateway(*await asyncio.open_connection(sock=waiting))
                    self.assertEqual((await accepted.finish()).body, b"early")
                self.assertEqual(await stop, grace > 0)
            go_on.set()
            waiting.close()
            self.assertEqual((await finished).body, b"late" if grace else b"")


class Listening(unittest.TestCase):
    def test_places(self):
        with tempfile.TemporaryDirectory() as folder:
            path = folder + "/socket"
            for where in ("127.0.0.1:0", "localhost:0", "[::1]:0", "unix:" + path, "unix:" + path):
                listen(where).close()  # which leaves a dead socket file
            pathlib.Path(folder, "file").touch()
            with listen("unix:" + path):
                for taken in (path, folder + "/file"):
                    with self.assertRaises(OSError):
                        listen("unix:" + taken)
        for where in ("18155", ":18155", "127.0.0.1:x", "127.0.0.1:65536"):
            with self.subTest(where), self.assertRaises(ValueError):
                listen(where)

    def test_the_program_serves_at_the_socket_of_systemd_until_it_is_told_to_end(self):
        command = [sys.executable, "-Bm", "velarto_server", "--verbose", "test_wsgi:hello"]
        with socket.create_server(("127.0.0.1", 0)) as listener, subprocess.Popen(
            ["sh", "-c", 'LISTEN_FDS=1 LISTEN_PID=$$ exec "$@"', "sh", *command], pass_fds=[3], cwd=HERE,
            preexec_fn=lambda: os.dup2(listener.fileno(), 3), env={**os.environ, "PYTHONPATH": str(HERE.parent)},
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        ) as program:
            self.assertEqual(program.stdout.readline(), "listening on %s:%d\n" % listener.getsockname())
            with socket.create_connection(listener.getsockname()) as peer:
                peer.sendall(request(PATH_INFO="/a\nb"))
                for kind in (Type.HEADER, Type.PIECE):
                    self.assertNotEqual(peer.recv(4096), b"")
                    peer.sendall(acknowledgement(kind))
                self.assertEqual(peer.recv(4096)[-4:], b"END!")
            program.terminate()
            self.assertIn(r"GET /cgi-bin/shop/a\nb: status 200, 5 bytes", program.communicate(timeout=60)[1])
            self.assertEqual(program.returncode, 0)
