#!/usr/bin/python3 -B
"""Applications of Flask and Django behind lighttpd, the gateway and contrib/python, asked by curl."""

# usage: python_web.py GATEWAY      ends with 77 where something of that is missing

import contextlib
import importlib.util
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile

SOURCE = pathlib.Path(__file__).resolve().parents[1]
LIGHTTPD = "/usr/sbin/lighttpd"
DATA = bytes(range(256)) * 4000


@contextlib.contextmanager
def running(*command, **options):
    """A program, which ends at the end without an error and without a word on standard error."""
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options) as program:
        try:
            yield program
        finally:
            program.terminate()
            complaints = program.communicate(timeout=60)[1]
    assert (program.returncode, complaints) == (0, ""), complaints


def set_up(base, gateway, ports):
    """Folders, gateways, their clients.ini and the web server's configuration. Returns where its pages begin."""
    for folder in ("configuration", "htdocs/cgi-bin", "run"):
        (base / folder).mkdir(parents=True, mode=0o777)
    base.chmod(0o755)
    (base / "run").chmod(0o777)
    sections = "".join(f"\n[{name}]\nVELARTO_SERVER=127.0.0.1,{port}\n" for name, port in ports.items())
    names = "".join(f"{name}=\n" for name in ports)
    (base / "configuration/clients.ini").write_text("[Velarto Client Definitions]\n" + names + sections)
    for name in ports:
        shutil.copy(gateway, base / "htdocs/cgi-bin" / name)
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = probe.getsockname()[1]
    web = "".join((SOURCE / folder / "lighttpd.conf").read_text() for folder in ("tests/support", "examples"))
    web = web.replace("/usr/local/VelartoServer/5.5", "@BASE@").replace("@BASE@", str(base))
    (base / "web.conf").write_text(web.replace("@PORT@", str(port)))
    return f"http://127.0.0.1:{port}/cgi-bin/"


class Browser:
    """Keeps cookies, follows redirects, and tells where it comes from."""

    def __init__(self, base, start):
        self.jar, self.upload, self.start = base / "jar", base / "upload", start
        self.upload.write_bytes(DATA)

    def get(self, path, *options, status=200, at=None, holds=b""):
        """The page, which has this status, comes from this path in the end, and holds this."""
        curl = ["curl", "-sSL", "--max-time", "60", "-b", self.jar, "-c", self.jar, "--referer", self.start]
        curl += ["-w", "\n%{http_code} %{url_effective}", *options, self.start + path]
        page, _, end = subprocess.run(curl, check=True, stdout=subprocess.PIPE).stdout.rpartition(b"\n")
        assert end.decode() == f"{status} {self.start}{at or path}", (end, page)
        assert re.search(holds, page), page
        return page

    def post(self, path, page, *fields, **expected):
        """Sends a form of this page with the token that Django has put there."""
        token = re.search(rb'name="csrfmiddlewaretoken" value="(\w+)"', page)[1].decode()
        given = (("-F", field) for field in (f"csrfmiddlewaretoken={token}", *fields))
        self.get(path, *(part for option in given for part in option), **expected)


def ask_flask(browser):
    browser.get("/?q=%C3%A9", holds="^visit 1, \\[\\], \u00e9$".encode())
    browser.get("/", holds=rb"^visit 2, \['session'\], None$")
    browser.get("/form", "-F", "name=\u00fc+ &", "-F", f"file=@{browser.upload}",
                at="/sent?name=%C3%BC%2B+%26&size=1024000", holds="^name: \u00fc\\+ &\nsize: 1024000\n$".encode())
    assert browser.get("/download") == DATA
    browser.get("/download", "--head", holds=rb"Content-Length: 1024000\r\n")
    browser.get("/none", status=404)


def ask_django(browser):
    documents = "/admin/auth/document/"
    login = "/admin/login/?next=/cgi-bin/django_site" + documents
    page = browser.get(documents, at=login)
    browser.get(login, "-d", "username=boss", status=403, holds=b"CSRF")
    browser.post(login, page, "username=boss", "password=wrong", holds=b"correct username")
    browser.post(login, page, "username=boss", "password=secret", at=documents, holds=b"Select document to change")
    browser.get("/admin", at="/admin/", holds=b"Site administration")
    page = browser.get(documents + "add/")
    browser.post(documents + "add/", page, f"file=@{browser.upload}", at=documents, holds=b"was added successfully")
    assert browser.get("/download/1") == DATA
    browser.get("/admin/logout/", holds=b"Logged out")
    browser.get(documents, at=login)


def main():
    missing = [module for module in ("flask", "django") if not importlib.util.find_spec(module)]
    missing += [program for program in (LIGHTTPD, "curl") if not shutil.which(program)]
    if missing:
        print("skipped, this is missing:", *missing)
        return 77
    sites = {"flask_site": ask_flask, "django_site": ask_django}
    with tempfile.TemporaryDirectory() as folder, contextlib.ExitStack() as programs:
        environment = {**os.environ, "PYTHONPATH": str(SOURCE / "contrib/python"), "SITE_FOLDER": folder}
        place = {"env": environment, "cwd": SOURCE / "tests/support"}
        python = [sys.executable, "-B"]
        subprocess.run([*python, "python_sites.py"], check=True, **place)
        ports = {}
        for name in sites:
            line = [*python, "-m", "velarto_server", "--listen=127.0.0.1:0", f"python_sites:{name}"]
            server = programs.enter_context(running(*line, **place))
            ports[name] = int(server.stdout.readline().rpartition(":")[2])
        base = pathlib.Path(folder, "web")
        start = set_up(base, sys.argv[1], ports)
        pathlib.Path(folder).chmod(0o755)
        nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []
        programs.enter_context(running(*nobody, LIGHTTPD, "-D", "-f", base / "web.conf"))
        first = ["curl", "-sf", "--retry", "60", "--retry-connrefused", "--retry-delay", "1", f"{start}flask_site/sent"]
        subprocess.run(first, check=True)
        for name, ask in sites.items():
            ask(Browser(base, start + name))
            (base / "jar").unlink()
    return 0


if __name__ == "__main__":
    sys.exit(main())
