#!/usr/bin/env python3
# 20,000 requests, 50 at once, through Apache to two application servers, of which one is stopped and started
# again every second: each answer must be whole and the asker's own, or the page that says nobody could be
# reached (602), or that the server broke off (604, 605); and nothing may be left behind. Ends with 1 when
# something was wrong.
#
# usage: many_at_once.py BUILD-FOLDER
import collections
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile

SOURCE = pathlib.Path(__file__).resolve().parents[2]
REQUESTS = 20000


# A program that ends when this one does.
def start(*command):
    return subprocess.Popen(["setpriv", "--pdeathsig=TERM", *command], stdout=subprocess.PIPE)


# The gateway, its configuration, Apache's, and curl's with a transfer for each number.
def set_up(base, build, port):
    for folder in ("configuration", "htdocs/cgi-bin", "run", "answers"):
        (base / folder).mkdir(parents=True)
    shutil.copy(build / "velarto-cgi", base / "htdocs/cgi-bin/shop")
    servers = f"s001,127.0.0.2,{port}:s002,127.0.0.3,{port}"
    ini = f"[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_SERVER={servers}\n"
    (base / "configuration/clients.ini").write_text(ini)
    web = "".join((SOURCE / folder / "apache.conf").read_text() for folder in ("tests/support", "examples"))
    web = web.replace("/usr/local/VelartoServer/5.5", "@BASE@").replace("@BASE@", str(base))
    (base / "web.conf").write_text(web.replace("@PORT@", str(port)))
    get = f'url="http://127.0.0.1:{port}/cgi-bin/shop/?q=token-%d-"\n' + 'fail\nmax-time=60\noutput="%d"\n'
    post = get.replace("?", "form?") + 'data="token-%d-%s"\n'
    transfers = [post % (n, n, n, "x" * (n % 5000)) if n % 3 == 0 else get % (n, n) for n in range(REQUESTS)]
    (base / "requests").write_text("next\n".join(transfers))


# What became of a request: "answered", the code of an error page, or what is wrong.
def judge(number, file):
    page = file.read_text("latin-1") if file.exists() else ""
    tokens = set(re.findall(r"token-(\d+)-", page))
    code = re.search(r"Error Code: (\d+)<br />", page)
    if code and code[1] in ("602", "604", "605") and page.count("<html>") == 1 and tokens <= {str(number)}:
        return code[1]
    whole = "answered by 127.0.0." in page and page.rstrip().endswith("</html>") and not code
    return "answered" if whole and tokens == {str(number)} else f"wrong: {number} got {tokens}: {page[-300:]}"


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = probe.getsockname()[1]  # Apache's; the servers have it at other loopback addresses
    server = build / "devserver/velarto-devserver"
    steady = start(server, "--sid=s001", f"--listen=127.0.0.2:{port}")
    steady.stdout.readline()  # it listens
    again_and_again = ["bash", "-c", 'while sleep 0.3; do timeout 1 "$@"; done', "bash"]
    start(*again_and_again, server, "--sid=s002", f"--listen=127.0.0.3:{port}")
    with tempfile.TemporaryDirectory() as folder:
        base = pathlib.Path(folder)
        base.chmod(0o755)
        set_up(base, build, port)
        user = ["-cUser nobody", "-cGroup nogroup"]  # where root starts it
        apache = start("/usr/sbin/apache2", "-DFOREGROUND", "-f", base / "web.conf", *user)
        # It serves once it answers; the processes that start programs come after those that listen.
        first = ["curl", "--silent", "--fail", "--retry", "60", "--retry-all-errors", "--retry-delay", "1"]
        subprocess.run([*first, f"http://127.0.0.1:{port}/cgi-bin/shop"], stdout=subprocess.DEVNULL)
        open_before = len(os.listdir(f"/proc/{steady.pid}/fd"))

        curl = ["curl", "--silent", "--parallel", "--parallel-max", "50", "--config", "../requests"]
        subprocess.run(curl, cwd=base / "answers", stderr=subprocess.DEVNULL)

        results = collections.Counter(judge(n, base / f"answers/{n}") for n in range(REQUESTS))
        open_after = len(os.listdir(f"/proc/{steady.pid}/fd"))
        (base / "htdocs/cgi-bin/shop").open("ab").close()  # "Text file busy" when a gateway still runs
        apache.terminate()
        apache.wait()
        complaints = [line for line in (base / "run/error.log").open() if ":notice]" not in line]
    print(*(f"{count:6} {result}" for result, count in results.most_common(9)), *complaints[:9], sep="\n")
    print(f"descriptors of the steady server: {open_before} before, {open_after} after")
    fine = set(results) <= {"answered", "602", "604", "605"} and not complaints and open_after <= open_before
    return 0 if fine and results["answered"] > REQUESTS * 0.9 else 1


if __name__ == "__main__":
    sys.exit(main())
