#!/usr/bin/env python3
# 50 users ask a site of six machines: HAProxy in front, two web machines (Apache and lighttpd, each with the
# gateway and an HAProxy of its own behind it), three application servers; all as in examples/. Meanwhile one
# application server's machine is unplugged for a while, and one web machine is started again. Nobody may get
# another user's answer, nobody may leave his server unless it is unplugged, and each error must be one of
# those that the two events explain.
#
# usage: many_machines.py BUILD-FOLDER [--short]
#   --short   500 requests in 10 seconds instead of 5,000 in 60
import collections
import http.client
import pathlib
import re
import socket
import sys
import threading
import time

from machines import GATEWAYS_BIND, SOURCE, Network, enter, ip, replaced, wait_until

USERS = 50
AS_NOBODY = ["-cUser nobody", "-cGroup nogroup"]
SERVERS = ("s001", "s002", "s003")
AWAY = "s003"  # for a while


class Site:
    def __init__(self, build):
        self.network = Network()
        self.build = build
        self.front = self.network.machine("front", 10)
        self.webs = [self.network.machine("web1", 11), self.network.machine("web2", 12)]
        self.servers = {sid: self.network.machine(sid, 21 + n) for n, sid in enumerate(SERVERS)}
        for sid, machine in self.servers.items():
            options = "--misbehave", f"--sid={sid}", f"--listen={machine.address}:18155"
            machine.start("devserver", build / "devserver/velarto-devserver", *options)
        for web in self.webs:
            self.set_up(web)
            self.start(web)
        self.front.start_haproxy(("examples/haproxy-web.cfg",
                                  {f"10.0.0.{n}": web.address for n, web in enumerate(self.webs, 1)}))
        self.wait_until_all_are_up()

    def set_up(self, web):
        servers = ":".join(f"{sid},{machine.address},18155" for sid, machine in self.servers.items())
        web.install_gateway(self.build, servers)
        (web.folder / "run").chmod(0o777)
        (web.folder / "htdocs/up.html").write_text("up\n")
        frames = {"apache": "LoadModule remoteip_module /usr/lib/apache2/modules/mod_remoteip.so\n"
                            f"RemoteIPHeader X-Forwarded-For\nRemoteIPInternalProxy {self.front.address}\n",
                  "lighttpd": 'server.modules += ("mod_extforward")\nextforward.headers = ("Forwarded")\n'
                              f'extforward.forwarder = ("{self.front.address}" => "trust")\n'}
        for name, proxy in frames.items():
            (web.folder / f"{name}.conf").write_text(proxy + replaced(f"tests/support/{name}.conf", {
                f"# @{name}.conf@": (SOURCE / f"examples/{name}.conf").read_text(),
                "/usr/local/VelartoServer/5.5": web.folder, "@BASE@": web.folder,
                "127.0.0.1:@PORT@": f"{web.address}:80", "127.0.0.1": web.address, "@PORT@": "80"}))

    def start(self, web):
        web.start_haproxy(("examples/haproxy-servers.cfg", {}), (web.listeners, {}))
        wait_until(lambda: web.listens(GATEWAYS_BIND), "HAProxy behind the gateways")
        apache = "/usr/sbin/apache2", "-DFOREGROUND", *AS_NOBODY, "-f", web.folder / "apache.conf"
        lighttpd = "/usr/sbin/lighttpd", "-D", "-f", web.folder / "lighttpd.conf"
        web.start("web", *(apache if web is self.webs[0] else lighttpd))

    # The web server first: gateways that find no HAProxy say 602.
    def kill(self, web):
        web.kill("web")
        web.kill("haproxy")
        (web.folder / "run/pid").unlink(missing_ok=True)

    # What HAProxy answers to a command; nothing while it does not run.
    def tell(self, machine, command):
        with socket.socket(socket.AF_UNIX) as admin:
            try:
                admin.connect(str(machine.folder / "admin.sock"))
            except OSError:
                return ""
            admin.sendall(command.encode() + b"\n")
            return b"".join(iter(lambda: admin.recv(65536), b"")).decode()

    def wait_until_all_are_up(self):
        def states(machine):
            lines = [line.split(",") for line in self.tell(machine, "show stat").splitlines() if "," in line]
            return [line[17] for line in lines if line[1] not in ("svname", "FRONTEND", "BACKEND")]

        machines = (self.front, *self.webs)
        wait_until(lambda: all(set(states(machine)) == {"UP"} for machine in machines), "all machines up")


Result = collections.namedtuple("Result", "what seconds")


# What became of a request, and when it began and ended.
Result = collections.namedtuple("Result", "what begin end")


class User(threading.Thread):
    def __init__(self, site, number):
        super().__init__(daemon=True)
        self.site, self.number, self.address = site, number, f"10.77.1.{number + 1}"
        self.results = []
        ip("addr", "add", f"{self.address}/16", "dev", "switch")
        cookie = self.ask("GET", "/login", cookie="")[1]["Set-Cookie"]
        self.cookie, self.home = cookie.split(";")[0], re.match(r"Velarto_UserReference=(.{4})", cookie)[1]

    # Status, header and page.
    def ask(self, method, path, body=None, cookie=None):
        connection = http.client.HTTPConnection(
            self.site.front.address, 80, timeout=100, source_address=(self.address, 0))
        header = {"Cookie": self.cookie if cookie is None else cookie}
        connection.request(method, f"/cgi-bin/shop{path}", body, header)
        response = connection.getresponse()
        return response.status, response.headers, response.read().decode("latin-1")

    # So many requests at regular times; one that is late is not left out.
    def go(self, start, requests, interval):
        self.plan = [start + (i + self.number / USERS) * interval for i in range(requests)]
        self.start()

    def run(self):
        for i, due in enumerate(self.plan):
            time.sleep(max(0, due - time.monotonic()))
            begin = time.monotonic()
            self.results.append(Result(self.request(i), begin, time.monotonic()))

    def request(self, i):
        token = f"token-{self.number}-{i}-"
        slow = (i + self.number) % 10 == 0  # under way for a second
        method = "GET" if i % 3 else "POST"
        path = "/misbehave?how=wait&ms=1000&" if slow else "/form?" if method == "POST" else "/?"
        # Some bodies are too long for HAProxy's buffer.
        body = token + "x" * (i * 997 % 40000) if method == "POST" else None
        try:
            status, headers, page = self.ask(method, path + token, body)
        except (OSError, http.client.HTTPException) as error:
            return f"error: {method} ended by {type(error).__name__}"
        code = re.search(r"Error Code: (\d+)<br />", page)
        if code:
            return f"error: {method}, page {code[1]}"
        if status != 200:
            return f"error: {method}, {status} of HAProxy in front"
        tokens = set(re.findall(r"token-\d+-\d+-", page))
        if tokens != (set() if slow else {token}) or not page.endswith("</p>\n" if slow else "</html>\n"):
            return f"wrong: the request with {token} got {page}"
        came_from = re.search(r">REMOTE_ADDR</th><td>([^<]*)<", page)
        if came_from and came_from[1] != self.address:
            return f"wrong: {self.address} passed for {came_from[1]}"
        is_home = server_in(headers) == self.home
        return "answered by the user's server" if is_home else "answered by another server"


def server_in(headers):
    return re.search(r"\((.*)\)", headers["X-Velarto-Server"])[1]


# A drained server gets no new users, and keeps its own.
def drain(site, users):
    def tell_webs(state):
        for web in site.webs:
            site.tell(web, f"set server shop/{AWAY} state {state}")

    tell_webs("drain")
    strangers = {server_in(user.ask("GET", "/", cookie="")[1]) for user in users}
    its_own = {server_in(user.ask("GET", "/")[1]) for user in users if user.home == AWAY}
    tell_webs("ready")
    print(f"while {AWAY} is drained, new users get", *sorted(strangers), "and its own get", *its_own)
    return strangers == set(SERVERS) - {AWAY} and its_own == {AWAY}


# Why a result is as it may be; None when it may not. Events are spans of time by their names.
def reason(user, result, events):
    def meets(event):
        return result.begin <= events[event][1] and events[event][0] <= result.end

    if result.what == "answered by the user's server":
        return "as it should be"
    if result.what == "answered by another server" and user.home == AWAY and meets("without a server"):
        return f"{AWAY} was away, or not found again yet"
    if re.fullmatch("error: .*, page 605", result.what) and user.home == AWAY and meets("a server goes"):
        return f"under way when {AWAY} went"
    if re.fullmatch("error: (POST, 502 of HAProxy in front|.* ended by IncompleteRead)", result.what) and \
            meets("a web machine ends"):
        return "under way when the web machine ended; a POST is not repeated, nor what was answered in part"
    return None


def main():
    enter()
    seconds, requests = (10, 500) if "--short" in sys.argv else (60, 5000)
    site = Site(pathlib.Path(sys.argv[1]).resolve())
    users = [User(site, number) for number in range(USERS)]
    is_drained = drain(site, users)

    start, events = time.monotonic(), {}
    for user in users:
        user.go(start, requests // USERS, seconds * USERS / requests)

    # At this part of the time; what happens is noted with its span.
    def at(part, event, *steps):
        time.sleep(max(0, start + part * seconds - time.monotonic()))
        begin = time.monotonic()
        for step in steps:
            step()
        events[event] = begin, time.monotonic()

    server, web = site.servers[AWAY], site.webs[0]
    at(0.15, "a server goes", lambda: server.plug("down"))
    at(0.5, "a server comes back", lambda: server.plug("up"), site.wait_until_all_are_up)
    events["without a server"] = events["a server goes"][0], events["a server comes back"][1]
    at(0.75, "a web machine ends", lambda: site.kill(web))
    at(0.8, "a web machine starts", lambda: site.start(web), site.wait_until_all_are_up)
    for user in users:
        user.join()

    outcomes = collections.Counter((r.what, reason(u, r, events)) for u in users for r in u.results)
    for (what, why), count in outcomes.most_common():
        print(f"{count:6} {what}: {why or 'UNEXPLAINED'}")
    longest = max(r.end - r.begin for u in users for r in u.results if r.what.startswith("answered"))
    print(f"the longest wait for an answer: {longest:.1f} s")
    is_explained = all(why for _, why in outcomes)
    return 0 if is_drained and is_explained and outcomes.total() == requests else 1


if __name__ == "__main__":
    sys.exit(main())
