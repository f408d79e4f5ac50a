#!/usr/bin/env -S python3 -B
"""Compares what tshark shows by contrib/velarto.lua with recorded conversations, whole and damaged.

usage: dissector.py GATEWAY DEVSERVER DISSECTOR      ends with 77 where tshark is missing"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as xml

from capture import (
    GATEWAY, OTHER_PORT, PATIENCE, PORT, SERVER,
    as_it_came, byte_by_byte, of_side, record_all, side_by_side, write_capture,
)

FIELDS = {1: "time body", 2: "path", 3: "result data", 4: "body", 6: "header", 7: ""}


def decode(sender, data):
    """The messages of one side: lists of name and value, hexadecimal but for parameters."""
    at, messages = 0, []

    def take(count):
        nonlocal at
        at += count
        return data[at - count : at]

    def text():
        return take(int.from_bytes(take(4), "big"))

    while at < len(data):
        message = [("sender", sender)] + [(name, take(4).hex()) for name in ("mark", "version", "type")]
        kind = int(message[-1][1], 16)
        for name in ["result"] if sender == GATEWAY and kind in (4, 6) else FIELDS[kind].split():
            if name in ("time", "result"):
                message.append(("request.file_time" if name == "time" else name, take(4).hex()))
            elif message[-1] != ("result", "00000000"):
                content = text()
                message += [("length", f"{len(content):08x}"), (name, content.hex())]
        if kind == 1:
            message += [("param." + text().decode().lower(), text().decode()) for _ in range(25)]
        if message[-1][0] == "header":
            message.append(("status", content[9:12].hex()))
        messages.append([*message, ("footer", take(4).hex())])
    return messages


# ---- What is shown ---------------------------------------------------------------------------------------


class Tshark:
    def __init__(self, dissector, folder):
        self.dissector, self.capture = dissector, folder / "capture.pcap"

    def run(self, *options):
        script = f"lua_script:{self.dissector}"
        command = ["tshark", "-n", "-r", self.capture, "-X", script, "-Y", "velarto", *options]
        run = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE, check=True)
        complaints = [line for line in run.stderr.splitlines() if not line.startswith("Running as user")]
        assert not complaints and "Lua Error" not in run.stdout, complaints or "a Lua error"
        return run.stdout

    def infos(self):
        """The messages by the Info column."""
        return "; ".join(self.run("-T", "fields", "-e", "_ws.col.Info").splitlines()).split("; ")

    def connections(self):
        """By number: messages, as lists of name and value; and complaints."""
        connections = {}
        for packet in xml.fromstring(self.run("-T", "pdml")).iter("packet"):
            number = int(packet.find(".//field[@name='tcp.stream']").get("show"))
            messages, complaints = connections.setdefault(number, ([], []))
            for message in packet.iterfind("proto[@name='velarto']"):
                experts = message.iterfind(".//field[@name='_ws.expert.message']")
                complaints += [expert.get("show") for expert in experts]
                fields = [field for field in message if field.get("name").startswith("velarto.")]
                messages.append([value_of(field) for field in fields])
        return connections


def value_of(field):
    name = field.get("name").removeprefix("velarto.")
    as_shown = name == "sender" or name.startswith("param.")
    return name, field.get("show" if as_shown else "value", "")


# ---- Comparison ------------------------------------------------------------------------------------------


def check_whole(tshark, conversations):
    for segmentation, port, handshake in (
        (as_it_came, PORT, True),
        (as_it_came, OTHER_PORT, False),
        (byte_by_byte, PORT, False),
        (side_by_side, OTHER_PORT, True),
    ):
        write_capture(tshark.capture, [segmentation(one) for one in conversations], port, handshake)
        connections = tshark.connections()
        for number, conversation in enumerate(conversations):
            case = f"conversation {number}, {segmentation.__name__}, port {port}"
            messages, complaints = connections[number]
            assert not complaints, (case, complaints)
            for side in (GATEWAY, SERVER):
                shown = [message for message in messages if ("sender", side) in message]
                assert shown == decode(side, of_side(conversation, side)), (case, side)


def check_info(tshark, document):
    expected = (
        "Request GET /document; File request ./document; File reply, 1300 bytes; HTTP header 200 OK; "
        "Acknowledgement (header); Body, 1300 bytes; Acknowledgement (body); End"
    ).split("; ")
    for segmentation in (as_it_came, side_by_side):
        write_capture(tshark.capture, [segmentation(document)])
        shown = [re.sub(r"(200 OK), \d+ bytes", r"\1", info) for info in tshark.infos()]
        assert sorted(shown) == sorted(expected) and shown[0] == expected[0], shown


# What in a header message becomes what, and what is said of it. The end message behind it is shown still.
DAMAGES = [
    (b"QUIL", b"QUIX", "No frame mark"),
    (b"\xff\xfd\xff\xfd", b"\xfd\xff\xfd\xff", "Not the version"),
    (b"\0\0\0\x06", b"\0\0\0\x09", "The server sends no type 9"),
    (b"\0\0\0\x06", b"\0\0\0\x01", "The server sends no type 1"),
    (b"\0\0\0\x13", b"\xff\xff\xff\xff", "A length of 4294967295 makes"),
    (b"END!", b"END?", "Not the footer"),
    (b"HTTP/1.0 200 OK", b"HTTP/1.0 2000 K", "A bad status line"),
    (b"END!", b"", "The connection ends within the message of frame "),
]


def check_damaged(tshark, page):
    request = of_side(page, GATEWAY)[:-40]  # without acknowledgements
    header = b"QUIL\xff\xfd\xff\xfd\0\0\0\x06\0\0\0\x13HTTP/1.0 200 OK\r\n\r\nEND!"
    end = b"QUIL\xff\xfd\xff\xfd\0\0\0\x07END!"
    connections = []
    for old, new, _ in DAMAGES:
        assert old in header
        rest = [] if new == b"" else [(SERVER, end)]
        connections.append([(GATEWAY, request), (SERVER, header.replace(old, new)), *rest])
    write_capture(tshark.capture, connections)
    shown = tshark.connections()
    for number, (_, new, reason) in enumerate(DAMAGES):
        messages, complaints = shown[number]
        assert len(complaints) == 1 and complaints[0].startswith(reason), (reason, complaints)
        assert messages[0] == decode(GATEWAY, request)[0], reason
        assert new == b"" or messages[-1] == decode(SERVER, end)[0], (reason, messages[-1])


def main():
    if not shutil.which("tshark"):
        print("skipped: tshark is missing")
        return 77
    gateway, devserver, dissector = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
    conversations = record_all(gateway, devserver)
    with tempfile.TemporaryDirectory() as name:
        tshark = Tshark(dissector, pathlib.Path(name))
        check_whole(tshark, conversations)
        check_info(tshark, conversations[2])
        check_damaged(tshark, conversations[0])
    return 0


if __name__ == "__main__":
    sys.exit(main())
