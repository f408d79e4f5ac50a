"""Records conversations of the gateway with the development server, and writes captures without sniffing."""

import pathlib
import select
import socket
import struct
import subprocess
import tempfile
import threading

GATEWAY, SERVER = "gateway", "server"
PORT, OTHER_PORT = 18155, 18999
FIN, SYN, ACK = 0x01, 0x02, 0x10
PATIENCE = 60  # seconds
SCENARIOS = [
    {"PATH_INFO": "/", "QUERY_STRING": "a=1", "HTTP_COOKIE": "c=2; d=\xe4"},
    {"PATH_INFO": "/echo", "REQUEST_METHOD": "POST", "CONTENT_LENGTH": "102400"},
    {"PATH_INFO": "/document", "PATH_TRANSLATED": "./document"},
    {"PATH_INFO": "/document", "PATH_TRANSLATED": "./missing"},
    {"PATH_INFO": "/stream", "QUERY_STRING": "pieces=5&size=3000"},
]

# ---- Recording -------------------------------------------------------------------------------------------


def pump(gateway, server):
    """Passes on what comes until the server closes; all reads, each with its sender."""
    reads = []
    while True:
        for source in select.select([gateway, server], [], [], PATIENCE)[0]:
            data = source.recv(65536)
            if not data:
                return reads
            reads.append((GATEWAY if source is gateway else SERVER, data))
            (server if source is gateway else gateway).sendall(data)


def record(program, folder, variables, server_port):
    with socket.create_server(("127.0.0.1", 0)) as listener:
        listener.settimeout(PATIENCE)
        entry = f"VELARTO_SERVER=127.0.0.1,{listener.getsockname()[1]}\n"
        ini = "[Velarto Client Definitions]\nshop=\n\n[shop]\n" + entry
        (folder / "configuration/clients.ini").write_text(ini)
        environment = {"VELARTO_PATH": ".", "REQUEST_METHOD": "GET", **variables}
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.DEVNULL}
        with subprocess.Popen(["shop"], executable=program, cwd=folder, env=environment, **pipes) as gateway:
            writer = threading.Thread(target=gateway.communicate, args=(bytes(range(256)) * 400,))
            writer.start()
            server = socket.create_connection(("127.0.0.1", server_port))
            with server, listener.accept()[0] as client:
                reads = pump(client, server)
            writer.join()
    assert gateway.returncode == 0, f"the gateway ended with {gateway.returncode}"
    return reads


def record_all(gateway, devserver):
    listen = [devserver, "--listen", "127.0.0.1:0"]
    with tempfile.TemporaryDirectory() as name, subprocess.Popen(listen, stdout=subprocess.PIPE) as server:
        folder = pathlib.Path(name)
        (folder / "configuration").mkdir()
        (folder / "document").write_bytes(b"QUIL\xff\xfd\xff\xfdEND!\n" * 100)
        try:
            port = int(server.stdout.readline().rpartition(b":")[2])
            return [record(gateway, folder, variables, port) for variables in SCENARIOS]
        finally:
            server.terminate()


# ---- Captures --------------------------------------------------------------------------------------------


def pieces(data, size):
    return [data[at : at + size] for at in range(0, len(data), size)]


def of_side(segments, side):
    return b"".join(data for sender, data in segments if sender == side)


def as_it_came(reads):
    return [(sender, piece) for sender, data in reads for piece in pieces(data, 32000)]


def byte_by_byte(reads):
    """The first 700 bytes of each side, each in a segment of its own."""
    left = {GATEWAY: 700, SERVER: 700}
    for sender, data in as_it_came(reads):
        alone, rest = data[: left[sender]], data[left[sender] :]
        left[sender] -= len(alone)
        yield from ((sender, piece) for piece in (*pieces(alone, 1), rest) if piece)


def side_by_side(reads):
    """All of the gateway's, then all of the server's: messages share segments."""
    return [(side, piece) for side in (GATEWAY, SERVER) for piece in pieces(of_side(reads, side), 1460)]


def write_capture(path, connections, port=PORT, handshake=True):
    """Ethernet, IPv4 and TCP around the segments."""
    with open(path, "wb") as file:
        file.write(struct.pack("=IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 1 << 18, 1))
        for number, segments in enumerate(connections):
            ends = {GATEWAY: (40000 + number, b"\x0a\0\0\1"), SERVER: (port, b"\x0a\0\0\2")}
            position = {GATEWAY: 1000, SERVER: 5000}
            opening = [(GATEWAY, b"", SYN), (SERVER, b"", SYN | ACK)] if handshake else []
            closing = [(SERVER, b"", FIN | ACK), (GATEWAY, b"", FIN | ACK)]
            for sender, data, flags in (*opening, *((*segment, ACK) for segment in segments), *closing):
                other = SERVER if sender == GATEWAY else GATEWAY
                (source, source_ip), (target, target_ip) = ends[sender], ends[other]
                ip = struct.pack(">BBHIHH", 0x45, 0, 40 + len(data), 0, 0x4006, 0) + source_ip + target_ip
                places = source, target, position[sender], position[other]
                tcp = struct.pack(">HHIIHHI", *places, 0x5000 | flags, 65535, 0)
                frame = bytes(12) + b"\x08\0" + ip + tcp + data
                file.write(struct.pack("=IIII", number, 0, len(frame), len(frame)) + frame)
                position[sender] += len(data) + bool(flags & (SYN | FIN))
