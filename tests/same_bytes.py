#!/usr/bin/env python3
# Runs two gateways with the same environment, files and server: both must send the server the same bytes,
# give the browser the same answer, and leave the same clients.ini. Prints the three sizes of each run; ends
# with 1 at the first difference.
#
# usage: same_bytes.py GATEWAY GATEWAY
# A gateway may be EMULATOR:PATH, run by an emulator such as qemu-user's.
import os
import pathlib
import socket
import sys
import tempfile
from subprocess import PIPE, Popen

DOCUMENT = bytes(range(256)) * 200  # 51200 bytes, which fit in a pipe
CLIENTS_INI = pathlib.Path("configuration/clients.ini")
# Whoever writes it drops the comment and sorts the section.
INI = "; one\n[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_SERVER=127.0.0.1,{}\nCLIENTIOTIMEOUT=9\n"
EMULATORS = {name: value for name, value in os.environ.items() if name.startswith("QEMU_")}


def message(kind, text):
    return b"QUIL\xff\xfd\xff\xfd\0\0\0" + bytes([kind]) + len(text).to_bytes(4, "big") + text + b"END!"


# Program, variables and what the server sends: each a reply to one message of the gateway.
PAGE = [message(6, b"HTTP/1.0 200 OK\r\n\r\n"), message(4, DOCUMENT), b"QUIL\xff\xfd\xff\xfd\0\0\0\7END!"]
RUNS = {
    "GET": ("shop", {"QUERY_STRING": "a=%20", "HTTP_COOKIE": "b=2", "REMOTE_PORT": "65535"}, PAGE),
    # Here it asks for a file first.
    "POST": ("shop", {"REQUEST_METHOD": "POST", "CONTENT_LENGTH": "51200"}, [message(2, b"document"), *PAGE]),
    "first run": ("newcomer", {}, []),
}


def play(gateway, listener, program, variables, replies):
    CLIENTS_INI.write_text(INI.format(listener.getsockname()[1]))
    emulator, _, path = gateway.rpartition(":")
    start = 'exec "$2" -0 "$0" "$1" <document' if emulator else 'exec -a "$0" "$1" <document'
    command = ["bash", "-c", start, program, path, emulator]
    environment = {"VELARTO_PATH": ".", "REQUEST_METHOD": "GET", **variables, **EMULATORS}
    run = Popen(command, env=environment, stdout=PIPE)
    sent = b""
    connection = listener.accept()[0] if replies else None
    for turn, reply in enumerate(replies, 1):
        while sent.count(b"END!") < turn:
            sent += connection.recv(65536) or sys.exit("the gateway broke off")
        connection.sendall(reply)
    sent += connection.makefile("rb").read() if replies else b""
    page, _ = run.communicate()
    # A new client asks the default server, where anybody may listen: its page does not count.
    return sent, page if replies else b"", CLIENTS_INI.read_bytes()


split = [argument.rpartition(":") for argument in sys.argv[1:]]
gateways = [emulator + colon + os.path.realpath(path) for emulator, colon, path in split]
socket.setdefaulttimeout(20)
with socket.create_server(("127.0.0.1", 0)) as listener, tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    CLIENTS_INI.parent.mkdir()
    pathlib.Path("document").write_bytes(DOCUMENT)
    for name, run in RUNS.items():
        one, other = (play(gateway, listener, *run) for gateway in gateways)
        print(f"{name:10}", *(f"{len(part):6}" for part in one))
        if one != other:
            sys.exit(f"{name}: the gateways differ")
