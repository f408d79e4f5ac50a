#!/usr/bin/env -S python3 -B
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

HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parents[1]
LIGHTTPD = "/usr/sbin/lighttpd"
DATA = bytes(range(256)) * 4000


@contextlib.contextmanager
def running(*command, **options):
    """A program, which ends at the end without an error and without a word on standard error."""
    program = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
    try:
        yield program
    finally:
        program.terminate()
        complaints = program.communicate(timeout=60)[1]
    assert (program.returncode, complaints) == (0, ""), complaints


def set_up(base, gateway, servers):
    """Folders, gateways, their clients.ini and the web server's configuration. Returns where its pages begin."""
    for folder in ("configuration", "htdocs/cgi-bin", "run"):
        (base / folder).mkdir(parents=True)
    base.chmod(0o755)
    (base / "run").chmod(0o777)
    names = "".join(f"{name}=\n" for name in servers)
    sections = "".join(f"\n[{name}]\nVELARTO_SERVER=127.0.0.1,{port}\n" for name, port in servers.items())
    (base / "configuration/clients.ini").write_text("[Velarto Client Definitions]\n" + names + sections)
    for name in servers:
        shutil.copy(gateway, base / "htdocs/cgi-bin" / name)
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = probe.getsockname()[1]
    web = "".join((SOURCE / folder / "lighttpd.conf").read_text() for folder in ("tests/support", "examples"))
    web = web.replace("/usr/local/VelartoServer/5.5", "@BASE@").replace("@BASE@", str(base))
    (base / "web.conf").write_text(web.replace("@PORT@", str(port)))
    return f"http://127.0.0.1:{port}/cgi-bin"


class Browser:
    """Keeps cookies, follows redirects, and tells where it comes from as browsers do."""

    def __init__(self, base, start):
        self.jar, self.upload, self.start = base / "jar", base / "upload", start
        self.upload.write_bytes(DATA)

    def get(self, path, *options):
        """Status, address in the end, and content."""
        at_end = "\n%{http_code} %{url_effective}"
        curl = ["curl", "-sSL", "--max-time", "60", "-b", self.jar, "-c", self.jar, "-w", at_end, self.start + path]
        content, end = subprocess.run([*curl, *options], check=True, stdout=subprocess.PIPE).stdout.rsplit(b"\n", 1)
        status, address = end.decode().split(" ", 1)
        return int(status), address[len(self.start) :], content

    def expect(self, path, *options, status=200, at=None, holds=b""):
        answer = self.get(path, *options)
        assert answer[:2] == (status, at or path), answer
        assert re.search(holds, answer[2]), answer
        return answer[2]

    def post(self, path, page, *fields, **expected):
        """Sends a form of this page with the token that Django has put there."""
        token = re.search(rb'name="csrfmiddlewaretoken" value="(\w+)"', page)
        given = [option for field in [f"csrfmiddlewaretoken={token[1].decode()}", *fields] for option in ("-F", field)]
        self.expect(path, *given, "--referer", self.start + path, **expected)


def ask_flask(browser):
    browser.expect("/?q=%C3%A9", holds="^visit 1, \\[\\], \u00e9$".encode())
    browser.expect("/", holds=rb"^visit 2, \['session'\], None$")
    browser.expect("/form", "-F", "name=\u00fc+ &", "-F", f"file=@{browser.upload}",
                   at="/sent?name=%C3%BC%2B+%26&size=1024000", holds="^name: \u00fc\\+ &\nsize: 1024000\n$".encode())
    assert browser.expect("/download") == DATA
    browser.expect("/download", "--head", holds=rb"Content-Length: 1024000\r\n")
    browser.expect("/none", status=404)


def ask_django(browser):
    documents = "/admin/auth/document/"
    login = "/admin/login/?next=/cgi-bin/django" + documents
    page = browser.expect(documents, at=login)
    browser.expect(login, "-d", "username=boss", status=403, holds=b"CSRF")
    browser.post(login, page, "username=boss", "password=wrong", holds=b"correct username")
    browser.post(login, page, "username=boss", "password=secret", at=documents, holds=b"Select document to change")
    browser.expect("/admin", at="/admin/", holds=b"Site administration")
    page = browser.expect(documents + "add/")
    browser.post(documents + "add/", page, f"file=@{browser.upload}", at=documents, holds=b"was added successfully")
    assert browser.expect("/download/1") == DATA
    browser.expect(documents + "1/change/", holds=b"uploads/upload")
    browser.expect("/admin/logout/", holds=b"Logged out")
    browser.expect(documents, at=login)
    browser.expect("/none", status=404)


def main():
    missing = [module for module in ("flask", "django") if not importlib.util.find_spec(module)]
    missing += [program for program in (LIGHTTPD, "curl") if not shutil.which(program)]
    if missing:
        print("skipped, this is missing:", *missing)
        return 77
    with tempfile.TemporaryDirectory() as folder, contextlib.ExitStack() as programs:
        base = pathlib.Path(folder)
        (base / "site").mkdir()
        environment = {**os.environ, "PYTHONPATH": str(SOURCE / "contrib/python"), "SITE_FOLDER": f"{base}/site"}
        subprocess.run([sys.executable, "-B", HERE / "django_site.py"], env=environment, check=True)
        servers = {}
        for name in ("flask", "django"):
            line = [sys.executable, "-B", "-m", "velarto_server", "--listen=127.0.0.1:0", f"{name}_site:application"]
            server = programs.enter_context(running(*line, cwd=HERE, env=environment))
            servers[name] = int(server.stdout.readline().rpartition(":")[2])
        start = set_up(base, sys.argv[1], servers)
        nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []
        programs.enter_context(running(*nobody, LIGHTTPD, "-D", "-f", base / "web.conf"))
        first = ["curl", "-sf", "--retry", "60", "--retry-connrefused", "--retry-delay", "1", f"{start}/flask/sent"]
        subprocess.run(first, check=True)
        for name, ask in {"flask": ask_flask, "django": ask_django}.items():
            ask(Browser(base, f"{start}/{name}"))
            (base / "jar").unlink()
    return 0


if __name__ == "__main__":
    sys.exit(main())
