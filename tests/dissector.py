#!/usr/bin/env -S python3 -B
"""Compares what tshark shows by contrib/velarto.lua with conversations made here, whole and damaged.

usage: dissector.py DISSECTOR      ends with 77 where tshark is missing"""

import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as xml

GATEWAY, SERVER = "gateway", "server"
PORT, OTHER_PORT = 18155, 18999
PARAMETERS = """
    QUERY_STRING PATH_INFO PATH_TRANSLATED REQUEST_METHOD REMOTE_HOST REMOTE_IDENT REMOTE_USER REMOTE_PASSWD
    REMOTE_NAME REMOTE_PORT SERVER_NAME SERVER_PORT SCRIPT_NAME HTTP_REFERER HTTP_USER_AGENT CONTENT_TYPE
    CONTENT_LENGTH PLUGIN REMOTE_ADDR HTTP_COOKIE COMMANDLINE HTTP_FROM HTTP_ACCEPT SOAPACTION FULLHEADER
""".split()

# ---- Conversations: messages as lists of fields, each with its name, how it is shown, and its bytes ------


def number(name, value):
    data = value.to_bytes(4, "big")
    return [(name, data.hex(), data)]


def text(name, data):
    return [*number("length", len(data)), (name, data.hex(), data)]


def parameter(name, value):
    counted = [len(part).to_bytes(4, "big") + part.encode() for part in (name, value)]
    return [("param." + name.lower(), value, b"".join(counted))]


def message(sender, kind, *fields):
    begin = [("sender", sender, b""), ("mark", b"QUIL".hex(), b"QUIL"), *number("version", 0xFFFDFFFD)]
    return [*begin, *number("type", kind), *sum(fields, []), ("footer", b"END!".hex(), b"END!")]


def bytes_of(message):
    return b"".join(data for _, _, data in message)


def as_shown(messages):
    return [[(name, shown) for name, shown, _ in one] for one in messages]


def of_side(side, messages):
    return [one for one in messages if one[0][:2] == ("sender", side)]


VALUES = {"REQUEST_METHOD": "GET", "PATH_INFO": "/document", "HTTP_COOKIE": "c=2"}
REQUEST = message(
    GATEWAY, 1, number("request.file_time", 7), text("body", bytes(range(256))),
    *(parameter(name, VALUES.get(name, "")) for name in PARAMETERS),
)
HEADER = message(SERVER, 6, text("header", b"HTTP/1.0 200 OK\r\n\r\n"), [("status", b"200".hex(), b"")])
LONG_BODY = message(SERVER, 4, text("body", b"END!" * 20000))
END = message(SERVER, 7)
CONVERSATION = [
    REQUEST,
    message(SERVER, 2, text("path", b"./document")),
    message(GATEWAY, 3, number("result", 1), text("data", b"QUIL\xff\xfd\xff\xfdEND!\n" * 100)),
    message(SERVER, 2, text("path", b"./missing")),
    message(GATEWAY, 3, number("result", 0)),
    HEADER,
    message(GATEWAY, 6, number("result", 1)),
    LONG_BODY,
    message(GATEWAY, 4, number("result", 1)),
    END,
]
INFOS = (
    "Request GET /document, 256 bytes; File request ./document; File reply, 1300 bytes; "
    "File request ./missing; File reply, no such file; HTTP header 200 OK, 19 bytes; "
    "Acknowledgement (header); Body, 80000 bytes; Acknowledgement (body); End"
).split("; ")

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

# ---- Captures --------------------------------------------------------------------------------------------


def pieces(sender, data, size):
    return [(sender, data[at : at + size]) for at in range(0, len(data), size)]


def by_messages(messages):
    return sum((pieces(one[0][1], bytes_of(one), 32000) for one in messages), [])


def by_sides(messages, size):
    """All of the gateway's, then all of the server's: messages share segments."""
    sides = [(side, b"".join(map(bytes_of, of_side(side, messages)))) for side in (GATEWAY, SERVER)]
    return sum((pieces(side, data, size) for side, data in sides), [])


def damaged(old, new):
    data = bytes_of(HEADER)
    assert old in data
    end = [(SERVER, bytes_of(END))] if new else []
    return [*by_messages([REQUEST]), (SERVER, data.replace(old, new)), *end]


def write_capture(path, connections):
    """IPv4 and TCP around the segments of each connection, which begins before the capture does."""
    with open(path, "wb") as file:
        file.write(struct.pack("=IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 1 << 18, 101))
        for connection, (port, segments) in enumerate(connections):
            ends = {GATEWAY: (40000 + connection, b"\x0a\0\0\1"), SERVER: (port, b"\x0a\0\0\2")}
            position = {GATEWAY: 1000, SERVER: 5000}
            for sender, data in [*segments, (SERVER, b""), (GATEWAY, b"")]:  # nothing: it closes
                other = SERVER if sender == GATEWAY else GATEWAY
                (source, source_ip), (target, target_ip) = ends[sender], ends[other]
                ip = struct.pack(">BBHIHH", 0x45, 0, 40 + len(data), 0, 0x4006, 0) + source_ip + target_ip
                places = source, target, position[sender], position[other]
                tcp = struct.pack(">HHIIHHI", *places, 0x5010 if data else 0x5011, 65535, 0)
                packet = ip + tcp + data
                file.write(struct.pack("=IIII", connection, 0, len(packet), len(packet)) + packet)
                position[sender] += max(len(data), 1)


# ---- What is shown ---------------------------------------------------------------------------------------


def tshark(dissector, capture, *options):
    command = ["tshark", "-n", "-r", capture, "-X", f"lua_script:{dissector}", *options]
    run = subprocess.run(command, capture_output=True, text=True, timeout=60, check=True)
    complaints = [line for line in run.stderr.splitlines() if not line.startswith("Running as user")]
    assert not complaints and "Lua Error" not in run.stdout, complaints or "a Lua error"
    return run.stdout


def shown_field(field):
    name = field.get("name").removeprefix("velarto.")
    as_shown = name == "sender" or name.startswith("param.")
    return name, field.get("show" if as_shown else "value", "")


def shown_connections(pdml):
    """Of each: messages, as lists of name and value; and complaints."""
    connections = {}
    for packet in xml.fromstring(pdml).iter("packet"):
        stream = int(packet.find(".//field[@name='tcp.stream']").get("show"))
        messages, complaints = connections.setdefault(stream, ([], []))
        for one in packet.iterfind("proto[@name='velarto']"):
            experts = one.iterfind(".//field[@name='_ws.expert.message']")
            complaints += [expert.get("show") for expert in experts]
            messages.append([shown_field(field) for field in one if field.get("name").startswith("velarto.")])
    return [connections[stream] for stream in sorted(connections)]


def main():
    if not shutil.which("tshark"):
        print("skipped: tshark is missing")
        return 77
    dissector = pathlib.Path(sys.argv[1]).resolve()
    short = [one for one in CONVERSATION if one is not LONG_BODY]
    whole = [
        (CONVERSATION, PORT, by_messages(CONVERSATION)),
        (CONVERSATION, OTHER_PORT, by_sides(CONVERSATION, 1460)),
        (short, PORT, by_sides(short, 1)),
    ]
    connections = [one[1:] for one in whole] + [(PORT, damaged(old, new)) for old, new, _ in DAMAGES]
    with tempfile.TemporaryDirectory() as folder:
        capture = pathlib.Path(folder) / "capture.pcap"
        write_capture(capture, connections)
        connections = shown_connections(tshark(dissector, capture, "-Y", "velarto", "-T", "pdml"))
        first = ["-Y", "velarto && tcp.stream == 0", "-T", "fields", "-e", "_ws.col.Info"]
        infos = tshark(dissector, capture, *first)
    assert infos.replace("; ", "\n").splitlines() == INFOS, infos
    for (messages, *_), (shown, complaints) in zip(whole, connections):
        assert not complaints, complaints
        for side in (GATEWAY, SERVER):
            assert of_side(side, shown) == of_side(side, as_shown(messages)), side
    for (_, new, reason), (shown, complaints) in zip(DAMAGES, connections[len(whole) :]):
        assert len(complaints) == 1 and complaints[0].startswith(reason), (reason, complaints)
        assert shown[:1] == as_shown([REQUEST]), reason
        assert new == b"" or shown[-1:] == as_shown([END]), (reason, shown[-1])
    return 0


if __name__ == "__main__":
    sys.exit(main())
