#!/usr/bin/env python3
"""Runs the gateways of several builds with the same environment, files and server: each must send the server
the same bytes, give the browser the same answer, and leave the same clients.ini: it prints their sizes.

usage: same_bytes.py GATEWAY GATEWAY...     Ends with 1 when they differ."""
import os
import pathlib
import socket
import struct
import subprocess
import sys
import tempfile

LONGEST_WAIT = 20  # seconds
DOCUMENT = bytes(range(256)) * 100
BODY = DOCUMENT[::-1] * 4  # 100 KB
# Whoever writes it drops the comment and sorts the section.
CLIENTS_INI = """\
; one client
[Velarto Client Definitions]
shop=

[shop]
VELARTO_SERVER=127.0.0.1,{}
CLIENTIOTIMEOUT=30
"""


def message(kind, text):
    counted = struct.pack(">I", len(text)) + text if text else b""
    return b"QUIL\xff\xfd\xff\xfd" + struct.pack(">I", kind) + counted + b"END!"


# Program, variables and what the server sends: each a reply to one message of the gateway.
PAGE = [message(6, b"HTTP/1.0 200 OK\r\n\r\n"), message(4, DOCUMENT), message(7, b"")]
RUNS = {
    "GET": ("shop", {"QUERY_STRING": "a=%20", "HTTP_COOKIE": "b=2", "REMOTE_PORT": "65535"}, PAGE),
    "POST": ("shop", {"REQUEST_METHOD": "POST", "CONTENT_LENGTH": str(len(BODY))}, PAGE),
    "file reply": ("shop", {"PATH_TRANSLATED": "document"}, [message(2, b"document"), *PAGE]),
    "first run": ("newcomer", {}, []),
}


def serve(listener, replies):
    """All that the gateway sends."""
    connection, _ = listener.accept()
    with connection:
        connection.settimeout(LONGEST_WAIT)
        received = b""
        for reply in replies:
            while not received.endswith(b"END!"):
                received += connection.recv(65536) or sys.exit("the gateway broke off")
            received += b"|"
            connection.sendall(reply)
        return received + connection.makefile("rb").read()


def play(gateway, listener, program, variables, replies):
    """What one run sends to the server and to the browser, and its clients.ini."""
    with tempfile.TemporaryDirectory(prefix="velarto-same-bytes.") as name:
        folder = pathlib.Path(name)
        ini = folder / "configuration/clients.ini"
        ini.parent.mkdir()
        ini.write_text(CLIENTS_INI.format(listener.getsockname()[1]))
        (folder / "body").write_bytes(BODY)
        (folder / "document").write_bytes(DOCUMENT)
        os.utime(folder / "document", (1234567890, 1234567890))
        (folder / program).symlink_to(gateway)
        environment = {"VELARTO_PATH": ".", "REQUEST_METHOD": "GET", **variables}
        with open(folder / "body", "rb") as body, open(folder / "out", "wb") as out:
            process = subprocess.Popen(["./" + program], cwd=folder, env=environment, stdin=body, stdout=out)
            received = serve(listener, replies) if replies else b""
            process.wait(LONGEST_WAIT)
        # A new client asks the default server, where anybody may listen: its page does not count.
        return received, (folder / "out").read_bytes() if replies else b"", ini.read_bytes()


def main():
    gateways = [pathlib.Path(argument).resolve(strict=True) for argument in sys.argv[1:]]
    all_same = len(gateways) > 1 or sys.exit(__doc__)  # so far
    with socket.create_server(("127.0.0.1", 0)) as listener:
        listener.settimeout(LONGEST_WAIT)
        for name, run in RUNS.items():
            outcomes = [play(gateway, listener, *run) for gateway in gateways]
            same = outcomes.count(outcomes[0]) == len(outcomes)
            all_same &= same
            sizes = [[len(part) for part in outcome] for outcome in outcomes]
            print(f"{name:10}", "the same:" if same else "DIFFERENT:", *sizes)
    return not all_same


if __name__ == "__main__":
    sys.exit(main())
