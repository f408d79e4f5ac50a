"""The codec and the cookies."""

import io
import pathlib
import re
import unittest

from gateway import acknowledgement, request
from velarto_server import UserReferences, cookies
from velarto_server.protocol import Conversation, FileReply, Limits, ProtocolError, http_header

DOCUMENT = pathlib.Path(__file__).parents[3] / "docs/protocol.md"


class Codec(unittest.TestCase):
    def test_holds_the_conversation_of_the_document_in_parts_of_any_size(self):
        lines = re.findall(r"^([GS]) [0-9A-F]{4}  ((?:[0-9A-F]{2} ?)+)", DOCUMENT.read_text(), re.M)
        turns = re.findall("(G+)(S+)", "".join(sender * len(bytes.fromhex(data)) for sender, data in lines))
        gateways, servers = (io.BytesIO(b"".join(bytes.fromhex(data) for sender, data in lines if sender == side))
                             for side in "GS")
        for size in (1, 2, 3, 7, 64, 100000):
            body = io.BytesIO()
            conversation = Conversation(body)
            messages = []
            for (asked, answered), make in zip(turns, [
                lambda: conversation.file_request(b"../greeting.txt"),
                lambda: conversation.header(b"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n"),
                lambda: conversation.piece(memoryview(b"Hi\n")),
                conversation.end,
            ]):
                data = gateways.read(len(asked))
                *early, message = [conversation.receive(data[at : at + size]) for at in range(0, len(data), size)]
                self.assertEqual(early, [None] * len(early))
                messages.append(message)
                self.assertEqual(make(), servers.read(len(answered)))
            self.assertEqual(body.getvalue(), b"x=y")
            self.assertEqual(messages[0].file_time, 0x5E0BE100)
            self.assertEqual(messages[0].parameters["HTTP_COOKIE"], b"c=2; VelartoClient=shop")
            self.assertEqual(messages[1:], [FileReply(b"Hi\n"), (6,), (4,)])
            gateways.seek(0), servers.seek(0)

    def test_refuses_what_is_not_waited_for(self):
        whole = request(b"12345")
        for before, data, complaint in [
            # 0 mark, 4 version, 8 type, 12 file time, 16 body, 25 first name with its length, 41 its value
            (0, b"GET / HTTP/1.0\r\n\r\n", "mark or version"),
            (7, b"\xfc", "mark or version"),
            (8, b"\0\0\0\6", "type 6 came instead of 1"),
            (16, b"\0\0\0\6", "the body has 6 bytes, more than 5"),
            (29, b"QUERY_strinG", "something else instead of QUERY_STRING"),
            (41, b"\xff\xff\xff\xff", "QUERY_STRING has 4294967295 bytes, more than 20"),
            (len(whole) - 4, b"end!", "another footer"),
            (len(whole), b"more", "nobody asked"),
            (-1, acknowledgement(4), "type 4 came instead of 6"),
            (-1, acknowledgement(6, 0), "refused"),
            (-1, acknowledgement(6) * 2, "20 bytes follow a message"),
        ]:
            conversation = Conversation(io.BytesIO(), Limits(body=5, value=20))
            conversation.receive(whole[:before] if before >= 0 else whole)
            if before < 0:
                conversation.header(b"")
            with self.subTest(complaint), self.assertRaisesRegex(ProtocolError, complaint):
                conversation.receive(data)

    def test_a_header_is_one_status_and_its_fields(self):
        self.assertEqual(http_header("404 Not Found", [("X-Y", "\xe9\tz")]),
                         b"HTTP/1.0 404 Not Found\r\nStatus: 404 Not Found\r\nX-Y: \xe9\tz\r\n\r\n")
        for status, *field in [("200",), ("2000 OK",), ("200 O\r\nK",), ("200 OK", "A:", "b"), ("200 OK", "", "b"),
                               ("200 OK", "A", "b\nc"), ("200 OK", "A", "b\0"), ("200 OK", "A", "\u20ac")]:
            with self.subTest(status=status, field=field), self.assertRaises(ValueError):
                http_header(status, [field] if field else [])


class Cookies(unittest.TestCase):
    def test_the_gateways_own_are_the_last(self):
        for value, *expected in [
            (b"VelartoClient=shop", b"", b"shop", None),
            (b"a=1;b; VelartoClient=x; Velarto_CGIIP=s666; VelartoClient=shop",
             b"a=1;b; VelartoClient=x; Velarto_CGIIP=s666", b"shop", None),
            (b'a="; VelartoClient=shop; Velarto_CGIIP=s001', b'a="', b"shop", b"s001"),
            (b"NoVelartoClient=1", b"NoVelartoClient=1", b"", None),
        ]:
            self.assertEqual(list(cookies.split(value)), expected)

    def test_a_user_gets_a_reference_unless_he_has_this_servers(self):
        key = "k" * 24
        for server, held, new in [
            ("s001", "", "s001"), ("s001", "s002" + key, "s001"), ("s001", "S001" + key, None),
            ("s001", "s001" + key + "k", "s001"), ("10.0.0.5,18155", "s001" + key, "0A00000546EB"),
            ("10.0.0.5,18155", "0a00000546eb" + key, None),
        ]:
            cookie = UserReferences(server).new_cookie(f"a=1; Velarto_UserReference={held}; b=2".encode())
            self.assertRegex(str(cookie), f"^Velarto_UserReference={new}[0-9a-f]{{24}}; Path=/;" if new else "None")
        for server in ("s1", "s00\xe9", "10.0.0.5,65536", "host,80"):
            with self.subTest(server), self.assertRaises(ValueError):
                UserReferences(server)
