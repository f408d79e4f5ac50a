#!/usr/bin/env python3
"""Many requests at once through Apache to two application servers, of which one is stopped and started again
every second: each answer must be whole and the asker's own, or the page that says nobody could be reached (602),
or that the server broke off (604, 605); and nothing may be left behind.

usage: many_at_once.py BUILD-FOLDER [REQUESTS [AT-ONCE]]     (20000 requests, 50 at once)
Ends with 1 when something was wrong."""
import collections
import http.client
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor, wait

SOURCE = pathlib.Path(__file__).resolve().parents[2]
NOBODY = 65534


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(port):
    for _ in range(200):
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) == 0:
                return
        time.sleep(0.05)
    sys.exit(f"nobody listens on port {port}")


class ApplicationServer:
    def __init__(self, program, name):
        self.command = [program, "--listen", f"127.0.0.1:{free_port()}", "--sid", name]
        self.entry = f"{name},{self.command[2].replace(':', ',')}"
        self.start()

    def start(self):
        self.process = subprocess.Popen(self.command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for(int(self.entry.rsplit(",", 1)[1]))

    def stop(self):
        self.process.terminate()
        self.process.wait(20)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))


def judge(number, status, body):
    """What became of a request: "answered", the code of an error page, or what is wrong."""
    code = re.search(r"Error Code: (\d+)<br />", body)
    if code and code[1] in ("602", "604", "605") and body.count("<html>") == 1 and status == 200:
        return code[1]
    whole = status == 200 and "answered by 127.0.0.1:" in body and body.rstrip().endswith("</html>")
    own = set(re.findall(r"token-(\d+)-", body)) == {str(number)}
    return "answered" if whole and own and not code else "wrong"


def ask(port, number):
    """What became of a request, and the answer."""
    body = f"token-{number}-" + "x" * random.randrange(5000) if number % 3 == 0 else None
    method, page = ("GET", "") if body is None else ("POST", "form")
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=60)
    try:
        connection.request(method, f"/cgi-bin/shop/{page}?q=token-{number}-", body, {"Connection": "close"})
        response = connection.getresponse()
        text = response.read().decode("latin-1")
        return judge(number, response.status, text), text
    except (OSError, http.client.HTTPException) as error:
        return "wrong", repr(error)
    finally:
        connection.close()


def processes_with(text):
    found = []
    for entry in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        try:
            if text.encode() in entry.read_bytes() and int(entry.parent.name) != os.getpid():
                found.append(entry.parent.name)
        except OSError:
            pass
    return found


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    requests = int(sys.argv[2]) if len(sys.argv) > 2 else 20000
    at_once = int(sys.argv[3]) if len(sys.argv) > 3 else 50
    base = pathlib.Path(tempfile.mkdtemp())
    servers = [ApplicationServer(str(build / "devserver/velarto-devserver"), name) for name in ("s001", "s002")]
    for folder in ("configuration", "htdocs/cgi-bin", "run"):
        (base / folder).mkdir(parents=True)
    shutil.copy(build / "velarto-cgi", base / "htdocs/cgi-bin/shop")
    (base / "configuration/clients.ini").write_text(
        "[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_SERVER=" + ":".join(s.entry for s in servers) + "\n")
    port = free_port()
    configuration = "".join((SOURCE / folder / "apache.conf").read_text() for folder in ("tests/support", "examples"))
    for place, value in (("/usr/local/VelartoServer/5.5", base), ("@BASE@", base), ("@PORT@", port)):
        configuration = configuration.replace(place, str(value))
    (base / "web.conf").write_text(configuration)
    as_user = {}
    if os.geteuid() == 0:
        as_user = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
        base.chmod(0o755)
        for path in [base, *base.rglob("*")]:
            os.chown(path, NOBODY, NOBODY)
    apache = subprocess.Popen(["/usr/sbin/apache2", "-DFOREGROUND", "-f", str(base / "web.conf")], **as_user)
    wait_for(port)
    open_before = max(server.descriptors() for server in servers)

    start = time.monotonic()
    stops = 0
    with ThreadPoolExecutor(at_once) as pool:
        asked = [pool.submit(ask, port, number) for number in range(requests)]
        while wait(asked, timeout=1).not_done:
            servers[1].stop()
            time.sleep(0.3)
            servers[1].start()
            stops += 1
    answers = [one.result() for one in asked]
    results = collections.Counter(result for result, _ in answers)
    seconds = time.monotonic() - start

    time.sleep(1)
    left = processes_with(str(base / "htdocs/cgi-bin"))
    open_after = max(server.descriptors() for server in servers)
    apache.send_signal(signal.SIGTERM)
    apache.wait(20)
    for server in servers:
        server.stop()
    complaints = "".join(line for line in (base / "run/error.log").open() if ":notice]" not in line)
    shutil.rmtree(base)

    print(f"{requests} requests, {at_once} at once, in {seconds:.0f} s; one server stopped {stops} times")
    for result, count in sorted(results.items()):
        print(f"  {result}: {count}")
    print(f"  gateways left: {len(left)}; descriptors of a server: {open_before} before, {open_after} after")
    for example in [text for result, text in answers if result == "wrong"][:3]:
        print("wrong:", example[:600])
    if complaints:
        print("Apache says:\n" + complaints[:1000])
    fine = results["wrong"] == 0 and not left and not complaints and open_after <= open_before
    return 0 if fine and results["answered"] > requests * 0.9 else 1


if __name__ == "__main__":
    sys.exit(main())
