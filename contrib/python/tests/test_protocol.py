"""The codec and the cookies."""

import io
import pathlib
import re
import unittest

import gateway
from velarto_server import cookies, protocol
from velarto_server.protocol import Acknowledgement, Conversation, FileReply, Limits, ProtocolError, Request, Type

DOCUMENT = pathlib.Path(__file__).parents[3] / "docs/protocol.md"


def document_turns():
    """The conversation of the document: what the gateway and the server send by turns."""
    turns = []
    for sender, data in re.findall(r"^([GS]) [0-9A-F]{4}  ((?:[0-9A-F]{2} ?)+)", DOCUMENT.read_text(), re.M):
        if not turns or turns[-1][0] != sender:
            turns.append((sender, b""))
        turns[-1] = sender, turns[-1][1] + bytes.fromhex(data)
    return turns


class Codec(unittest.TestCase):
    def test_holds_the_conversation_of_the_document_in_bytes_of_any_number(self):
        turns = document_turns()
        for size in (1, 2, 3, 7, 64, 100000):
            body = io.BytesIO()
            conversation = Conversation(body)
            sent, messages = [], []
            said = iter([
                lambda: conversation.file_request(b"../greeting.txt"),
                lambda: conversation.header(b"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n"),
                lambda: conversation.piece(memoryview(b"Hi\n")),
                conversation.end,
            ])
            for sender, data in turns:
                if sender == "S":
                    sent.append((next(said)(), data))
                else:
                    parts = [data[at : at + size] for at in range(0, len(data), size)]
                    *early, message = map(conversation.receive, parts)
                    self.assertEqual(set(early) - {None}, set())
                    messages.append(message)
            self.assertEqual([ours for ours, _ in sent], [expected for _, expected in sent])
            asked, *answers = messages
            self.assertIsInstance(asked, Request)
            self.assertEqual((asked.file_time, asked.body_length, body.getvalue()), (0x5E0BE100, 3, b"x=y"))
            self.assertEqual(asked.parameters["HTTP_COOKIE"], b"c=2; VelartoClient=shop")
            self.assertEqual(answers, [FileReply(b"Hi\n"), Acknowledgement(Type.HEADER), Acknowledgement(Type.PIECE)])

    def test_refuses_what_is_not_waited_for(self):
        whole = gateway.request(b"12345")

        def changed(at, data):
            return whole[:at] + data + whole[at + len(data) :]

        requests = [  # 0 mark, 4 version, 8 type, 12 file time, 16 body, 25 first name with its length, 41 its value
            (b"GET / HTTP/1.0\r\n\r\n", "mark or version"),
            (changed(7, b"\xfc"), "mark or version"),
            (changed(11, b"\6"), "type 6 came instead of 1"),
            (changed(16, b"\0\0\0\6"), "the body has 6 bytes, more than 5"),
            (changed(28, b"\x0d"), "something else instead of QUERY_STRING"),
            (changed(29, b"q"), "something else instead of QUERY_STRING"),
            (changed(41, b"\xff\xff\xff\xff"), "QUERY_STRING has 4294967295 bytes, more than 20"),
            (whole[:-1] + b"?", "another footer"),
            (whole + b"more", "4 bytes follow"),
        ]
        answers = [
            (gateway.acknowledgement(4), "type 4 came instead of 6"),
            (gateway.acknowledgement(6, 0), "refused"),
            (gateway.acknowledgement(6) * 2, "follow a message"),
        ]
        limits = Limits(body=5, value=20)
        for data, complaint in [*requests, *((whole + data, complaint) for data, complaint in answers)]:
            conversation = Conversation(io.BytesIO(), limits)
            with self.subTest(complaint), self.assertRaisesRegex(ProtocolError, complaint):
                if data.startswith(whole) and data != whole + b"more":
                    conversation.receive(whole)
                    conversation.header(b"")
                    data = data[len(whole) :]
                conversation.receive(data)
        with self.assertRaisesRegex(ProtocolError, "nobody asked"):
            conversation.receive(gateway.acknowledgement(6))

    def test_a_header_is_one_status_and_its_fields(self):
        self.assertEqual(protocol.http_header("404 Not Found", [("X-Y", "\xe9\tz")]),
                         b"HTTP/1.0 404 Not Found\r\nStatus: 404 Not Found\r\nX-Y: \xe9\tz\r\n\r\n")
        for status, *field in [("200",), ("2000 OK",), ("200 O\r\nK",), ("200 OK", "A:", "b"), ("200 OK", "", "b"),
                               ("200 OK", "A", "b\nc"), ("200 OK", "A", "b\0"), ("200 OK", "A", "\u20ac")]:
            with self.subTest(status=status, field=field), self.assertRaises(ValueError):
                protocol.http_header(status, [field] if field else [])


class Cookies(unittest.TestCase):
    def test_the_gateways_own_are_the_last(self):
        for value, *expected in [
            (b"VelartoClient=shop", b"", b"shop", None),
            (b"c=2; VelartoClient=shop; Velarto_CGIIP=7F00000146EB", b"c=2", b"shop", b"7F00000146EB"),
            (b"a=1;b; VelartoClient=x; Velarto_CGIIP=s666; VelartoClient=shop",
             b"a=1;b; VelartoClient=x; Velarto_CGIIP=s666", b"shop", None),
            (b'a="; VelartoClient=shop; Velarto_CGIIP=s001', b'a="', b"shop", b"s001"),
            (b"NoVelartoClient=1", b"NoVelartoClient=1", b"", None),
        ]:
            with self.subTest(value):
                self.assertEqual(list(cookies.split(value)), expected)

    def test_a_user_gets_a_reference_unless_he_has_this_servers(self):
        by_sid, by_address = cookies.UserReferences("s001"), cookies.UserReferences("10.0.0.5,18155")
        key = "k" * 24
        for references, held, new in [
            (by_sid, "", "s001"), (by_sid, "s002" + key, "s001"), (by_sid, "S001" + key, None),
            (by_sid, "s001" + key + "k", "s001"), (by_address, "s001" + key, "0A00000546EB"),
            (by_address, "0a00000546eb" + key, None),
        ]:
            cookie = references.new_cookie(f"a=1; Velarto_UserReference={held}; b=2".encode())
            with self.subTest(held=held, new=new):
                self.assertRegex(str(cookie), f"^Velarto_UserReference={new}[0-9a-f]{{24}}; Path=/;" if new else "None")
        for server in ("s1", "s00\xe9", "10.0.0.5,65536", "host,80"):
            with self.subTest(server), self.assertRaises(ValueError):
                cookies.UserReferences(server)


if __name__ == "__main__":
    unittest.main()
