#!/usr/bin/env python3
# A gateway and an application server on two machines, with HAProxy on both ends as in examples/: what passes
# between them is seen at the switch. Plain, the user's words can be read there; with TLS they cannot; a
# server with another authority's certificate or another name is not reached (602), and a gateway with such a
# one is not served.
#
# usage: encrypted.py BUILD-FOLDER
import pathlib
import re
import socket
import subprocess
import sys
import threading

from machines import GATEWAYS_BIND, Network, enter, wait_until

WORDS = b"the-words-of-a-user"
ALL_PROTOCOLS = 3  # ETH_P_ALL of <linux/if_ether.h>


# Certificate authorities, and what they have signed: each "NAME.pem" is a certificate and its key.
def make_certificates(folder):
    def openssl(*arguments):
        subprocess.run(["openssl", *map(str, arguments)], cwd=folder, check=True, capture_output=True)

    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
    for authority in ("ours", "other"):
        own = "-subj", f"/CN={authority}", "-keyout", f"{authority}.key"
        openssl("req", "-x509", *key, *own, "-out", authority)
    for name, subject, authority in (
            ("server", "velarto-server", "ours"), ("gateways", "velarto-gateways", "ours"),
            ("other-server", "velarto-server", "other"), ("other-gateways", "velarto-gateways", "other")):
        openssl("req", *key, "-subj", f"/CN={subject}", "-addext", f"subjectAltName=DNS:{subject}",
                "-keyout", "key", "-out", "request")
        by = "-CA", authority, "-CAkey", f"{authority}.key", "-CAcreateserial"
        openssl("x509", "-req", "-in", "request", *by, "-copy_extensions", "copy", "-out", "certificate")
        parts = (folder / "certificate").read_bytes(), (folder / "key").read_bytes()
        (folder / f"{name}.pem").write_bytes(b"".join(parts))


# Everything that passes a port of the switch, from now on.
class Capture:
    def __init__(self, port_of_switch):
        self.frames = []
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ALL_PROTOCOLS))
        self.socket.bind((port_of_switch, 0))
        threading.Thread(target=self.take, daemon=True).start()

    def take(self):
        while True:
            self.frames.append(self.socket.recv(65536))

    def has(self, words):
        return any(words in frame for frame in self.frames)


class Installation:
    def __init__(self, build):
        self.network = Network()
        self.web, self.server = self.network.machine("web", 11), self.network.machine("server", 21)
        make_certificates(self.network.folder)
        self.pems = self.network.folder
        self.server.start("devserver", build / "devserver/velarto-devserver", "--sid", "s001")
        self.web.install_gateway(build, f"s001,{self.server.address},18155")

    # Both HAProxies anew, with these certificates; without any, in plain text.
    def start(self, server_pem=None, gateways_pem=None):
        ours = {"/etc/haproxy/velarto-ca.pem": self.pems / "ours"}
        files = [("examples/haproxy-servers.cfg", {})]
        for machine in (self.web, self.server):
            if "haproxy" in machine.programs:
                machine.kill("haproxy")
        if server_pem is None:
            bind = f"bind {self.server.address}:18155"
            self.server.start_haproxy((f"listen velarto\n    {bind}\n    server local 127.0.0.1:18155\n", {}))
        else:
            files.append(("examples/haproxy-tls-gateways.cfg",
                          {**ours, "/etc/haproxy/gateways.pem": self.pems / f"{gateways_pem}.pem"}))
            self.server.start_haproxy(("examples/haproxy-tls-server.cfg",
                                       {**ours, "/etc/haproxy/server.pem": self.pems / f"{server_pem}.pem",
                                        "10.0.0.5": self.server.address}))
        wait_until(lambda: self.server.listens(f"{self.server.address}:18155"), "HAProxy at the server")
        self.web.start_haproxy(*files, (self.web.listeners, {}))

    # The page of a request, and whether its words were seen.
    def request(self):
        capture = Capture(self.web.port_of_switch)
        variables = {"VELARTO_PATH": str(self.web.folder), "QUERY_STRING": WORDS.decode()}
        page = self.web.run(self.web.gateway, check=False, env=variables)
        return page.stdout, capture.has(WORDS)

    # The same, once the checks of HAProxy have looked at the server.
    def settled_request(self, state):
        check = {"UP": "L[46]OK", "DOWN": "L6RSP"}[state]
        looked = re.compile(f'haproxy_server_check_status{{proxy="shop",server="s001",state="{check}"}} 1')
        wait_until(lambda: looked.search(self.web.metrics()), f"a check that finds the server {state}")
        wait_until(lambda: self.web.listens(GATEWAYS_BIND) == (state == "UP"), "the listener to follow")
        return self.request()


def outcome(page):
    code = re.search(r"Error Code: (\d+)<br />", page)
    return code[1] if code else "answered" if WORDS.decode() in page and "(s001)" in page else page


def main():
    enter()
    installation = Installation(pathlib.Path(sys.argv[1]).resolve())
    # Certificate of the server, of the gateways; the server's state; what comes; whether it can be read.
    cases = [
        (None, None, "UP", {"answered"}, True),
        ("server", "gateways", "UP", {"answered"}, False),
        ("other-server", "gateways", "DOWN", {"602"}, False),  # another authority
        ("gateways", "gateways", "DOWN", {"602"}, False),  # another name
        ("server", "other-gateways", "UP", {"604", "605"}, False),
        ("server", "server", "UP", {"604", "605"}, False),
    ]
    failures = 0
    for server_pem, gateways_pem, state, expected, readable in cases:
        installation.start(server_pem, gateways_pem)
        page, seen = installation.settled_request(state)
        fine = outcome(page) in expected and seen == readable
        failures += not fine
        verdict, sight = "ok  " if fine else "WRONG", "seen" if seen else "unseen"
        print(verdict, server_pem, gateways_pem, outcome(page), sight)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
