#!/usr/bin/env -S python3 -B
"""Compares what tshark shows by contrib/velarto.lua with conversations made here, whole and damaged."""

# usage: dissector.py DISSECTOR      ends with 77 where tshark is missing

import itertools
import runpy
import shutil
import struct
import subprocess
import sys
import xml.etree.ElementTree as xml

GATEWAY, SERVER = "gateway", "server"
PORT, OTHER_PORT = 18155, 18999
PARAMETERS = runpy.run_path(f"{sys.path[0]}/../contrib/python/velarto_server/protocol.py")["PARAMETERS"]

# ---- Conversations: messages as lists of fields, each with its name, how it is shown, and its bytes ------


def number(name, value):
    data = value.to_bytes(4, "big")
    return [(name, data.hex(), data)]


def text(name, data):
    return [*number("length", len(data)), (name, data.hex(), data)]


def parameter(name, value):
    counted = b"".join(len(part).to_bytes(4, "big") + part.encode() for part in (name, value))
    return [("param." + name.lower(), value, counted)]


def message(sender, kind, *fields):
    begin = [("sender", sender, b""), ("mark", b"QUIL".hex(), b"QUIL"), *number("version", 0xFFFDFFFD)]
    return [*begin, *number("type", kind), *sum(fields, []), ("footer", b"END!".hex(), b"END!")]


def bytes_of(message):
    return b"".join(data for _, _, data in message)


def sender_of(message):
    return message[0][1]


def as_shown(messages):
    return [[(name, shown) for name, shown, _ in one] for one in messages]


VALUES = {"REQUEST_METHOD": "GET", "PATH_INFO": "/document", "HTTP_COOKIE": "c=2"}
REQUEST = message(
    GATEWAY, 1, number("request.file_time", 7), text("body", bytes(range(256))),
    *(parameter(name, VALUES.get(name, "")) for name in PARAMETERS),
)
HEADER = message(SERVER, 6, text("header", b"HTTP/1.0 200 OK\r\n\r\n"), [("status", b"200".hex(), b"")])
END = message(SERVER, 7)
CONVERSATION = [
    REQUEST,
    message(SERVER, 2, text("path", b"./document")),
    message(GATEWAY, 3, number("result", 1), text("data", b"QUIL\xff\xfd\xff\xfdEND!\n" * 100)),
    message(SERVER, 2, text("path", b"./missing")),
    message(GATEWAY, 3, number("result", 0)),
    HEADER,
    message(GATEWAY, 6, number("result", 1)),
    message(SERVER, 4, text("body", b"END!" * 1000)),
    message(GATEWAY, 4, number("result", 1)),
    END,
]
INFOS = (
    "Request GET /document, 256 bytes; File request ./document; File reply, 1300 bytes; "
    "File request ./missing; File reply, no such file; HTTP header 200 OK, 19 bytes; "
    "Acknowledgement (header); Body, 4000 bytes; Acknowledgement (body); End"
).split("; ")

# What in a header message becomes what, and what is said of it. The end message behind it is shown still.
DAMAGES = [
    (b"QUIL", b"QUIX", "No frame mark"),
    (b"\0\0\0\x13", b"\xff\xff\xff\xff", "A length of 4294967295 makes"),
    (b"END!", b"END?", "Not the footer"),
    (b"HTTP/1.0 200 OK", b"HTTP/1.0 2000 K", "A bad status line"),
    (b"END!", b"", "The connection ends within the message of frame "),
]

# ---- Captures --------------------------------------------------------------------------------------------


# Messages that one side sends one after the other share segments.
def segments(messages, size):
    for sender, group in itertools.groupby(messages, key=sender_of):
        data = b"".join(map(bytes_of, group))
        yield from ((sender, data[at : at + size]) for at in range(0, len(data), size))


def damaged(old, new):
    end = [(SERVER, bytes_of(END))] if new else []
    return [*segments([REQUEST], 1460), (SERVER, bytes_of(HEADER).replace(old, new)), *end]


def ipv4(length):
    return struct.pack(">BBHIHH8x", 0x45, 0, 20 + length, 0, 0x4006, 0)


def ipv6(length):
    return struct.pack(">IHBB32x", 6 << 28, length, 6, 64)


# IP and TCP around the segments of each connection, which begins before the capture does.
def capture(connections):
    packets = [struct.pack("=IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 1 << 18, 101)]
    for connection, (ip, port, segments) in enumerate(connections):
        ports = {GATEWAY: 40000 + connection, SERVER: port}
        position = {GATEWAY: 1000, SERVER: 5000}
        for sender, data in [*segments, (SERVER, b""), (GATEWAY, b"")]:  # nothing: it closes
            other = SERVER if sender == GATEWAY else GATEWAY
            places = ports[sender], ports[other], position[sender], position[other]
            tcp = struct.pack(">HHIIHHI", *places, 0x5010 if data else 0x5011, 65535, 0)
            packet = ip(len(tcp + data)) + tcp + data
            packets.append(struct.pack("=IIII", connection, 0, len(packet), len(packet)) + packet)
            position[sender] += max(len(data), 1)
    return b"".join(packets)


# ---- What is shown ---------------------------------------------------------------------------------------


def tshark(packets, *options):
    command = ["tshark", "-n", "-r", "-", "-X", f"lua_script:{sys.argv[1]}", *options]
    run = subprocess.run(command, input=packets, capture_output=True, timeout=60, check=True)
    complaints = [line for line in run.stderr.splitlines() if not line.startswith(b"Running as user")]
    assert not complaints and b"Lua Error" not in run.stdout, complaints or "a Lua error"
    return run.stdout.decode()


def shown_field(field):
    name = field.get("name").removeprefix("velarto.")
    return name, field.get("show" if name.startswith(("sender", "param.")) else "value", "")


# Of each: messages, as lists of name and value; and complaints.
def shown_connections(pdml):
    connections = {}
    for packet in xml.fromstring(pdml).iter("packet"):
        stream = int(packet.find(".//field[@name='tcp.stream']").get("show"))
        messages, complaints = connections.setdefault(stream, ([], []))
        for one in packet.iterfind("proto[@name='velarto']"):
            experts = one.iterfind(".//field[@name='_ws.expert.message']")
            complaints += [expert.get("show") for expert in experts]
            messages.append([shown_field(field) for field in one if field.get("name").startswith("velarto.")])
    return list(connections.values())


def main():
    by_sides = sorted(CONVERSATION, key=sender_of)
    whole = [
        (CONVERSATION, ipv4, PORT, 32000),
        (CONVERSATION, ipv6, OTHER_PORT, 32000),
        (by_sides, ipv4, OTHER_PORT, 1460),
        (by_sides, ipv6, PORT, 1),
    ]
    connections = [(ip, port, segments(messages, size)) for messages, ip, port, size in whole]
    connections += [(ipv4, PORT, damaged(old, new)) for old, new, _ in DAMAGES]
    packets = capture(connections)
    infos = tshark(packets, "-Y", "velarto && tcp.stream == 0", "-T", "fields", "-e", "_ws.col.Info")
    assert infos.replace("; ", "\n").splitlines() == INFOS, infos
    found = shown_connections(tshark(packets, "-Y", "velarto", "-T", "pdml"))
    for (messages, *_), shown in zip(whole, found):
        assert shown == (as_shown(messages), []), shown
    for (_, new, reason), (shown, complaints) in zip(DAMAGES, found[len(whole) :]):
        assert len(complaints) == 1 and complaints[0].startswith(reason), (reason, complaints)
        assert new == b"" or shown[-1:] == as_shown([END]), (reason, shown[-1])


if __name__ == "__main__":
    sys.exit(main() if shutil.which("tshark") else 77)
