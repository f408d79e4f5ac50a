#!/usr/bin/env python3
"""Runs the real gateway once for every system call that it makes and every fault that fits the call."""

# strace makes one call of one run fail, come up short or be the last one. Whatever happens, the gateway must
# end by itself and soon, with one of its exit statuses, with the full answer or exactly one error page behind
# the answer's beginning, and must leave clients.ini whole and nothing beside it. One more test starts many
# new clients at once on one clients.ini. Servers and files are private, on the loopback address and in
# temporary folders; nothing is left behind.

import argparse
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from typing import NamedTuple

TRIES = 5  # for a call that the gateway makes only when it has to wait

# ---- Faults ----------------------------------------------------------------------------------------------

# What can become of which calls: errors, or one of EFFECTS. With a "+" every later call of that name fails
# too. For 32 bits some calls have other names. Whatever else the gateway calls ends the test as a KeyError.
FAULTS = {
    "access arch_prctl fchmod fchown fchown32 prctl prlimit64 set_thread_area ugetrlimit": "EPERM",
    "alarm execve exit_group geteuid geteuid32 rseq set_robust_list set_tid_address": "",
    "bind": "EADDRINUSE EACCES",
    "brk": "zero",
    "clock_gettime clock_gettime64 rt_sigaction rt_sigprocmask setitimer": "EINVAL",
    "close ftruncate ftruncate64": "EIO EINTR",
    "connect": "ECONNREFUSED ENETUNREACH ETIMEDOUT EINTR EAGAIN",
    "fallocate": "ENOSPC EOPNOTSUPP EINTR",
    "fcntl fcntl64": "EINTR ENOLCK EMFILE",
    "flistxattr": "EIO EOPNOTSUPP",
    "fstat fstat64 lstat lstat64 newfstatat stat stat64 statx": "EIO EACCES ENOMEM",
    "fsync": "EIO EINTR ENOSPC",
    "getdents64": "EIO",
    "getpeername getsockopt shutdown": "ENOTCONN",
    "getrandom": "ENOSYS EINTR",
    "ioctl": "ENOTTY EIO",
    "landlock_add_rule landlock_create_ruleset landlock_restrict_self": "ENOSYS EOPNOTSUPP EPERM",
    "mmap mmap2": "ENOMEM ENOMEM+",
    "mprotect munmap": "ENOMEM",
    "open openat": "EMFILE EMFILE+ ENOENT EACCES EINTR ENOMEM",
    "openat2": "ENOSYS EPERM EXDEV EAGAIN EMFILE",
    "poll": "EINVAL EINTR ENOMEM",
    "pread64 read": "EIO EINTR short-in",
    "pwrite64": "EIO EINTR ENOSPC ENOSPC+ short-out",
    "recv recvfrom": "ECONNRESET ETIMEDOUT EINTR EAGAIN zero",
    "rename": "EXDEV EACCES ENOSPC",
    "send sendto": "ECONNRESET EPIPE EINTR EAGAIN ENOBUFS short-out",
    "setsockopt": "ENOPROTOOPT ENOBUFS",
    "socket": "EMFILE ENOBUFS EACCES",
    "write": "EIO EINTR EPIPE EAGAIN short-out",
    "writev": "EIO EINTR ENOSPC EPIPE EAGAIN short-out",
}
FAULTS = {call: kinds.split() for calls, kinds in FAULTS.items() for call in calls.split()}
KILLS = {call: ["kill"] for call, kinds in FAULTS.items() if kinds}

# A short transfer is made up: strace skips the call, puts these bytes where a read would, and returns their
# number. All files begin with them, and those that are not read by position repeat them. What was written
# lacks its first bytes.
SHORT_DATA = b";Velarto"
SHORT = len(SHORT_DATA)
EFFECTS = {
    "kill": "signal=KILL",
    "short-in": f"retval={SHORT}:poke_exit=@arg2={SHORT_DATA.hex()}",
    "short-out": f"retval={SHORT}",
    "zero": "retval=0",  # the peer has closed, the break has not moved
}

# A signal only delays the other calls. strace skips the connect, which goes on after a real one.
MAY_BE_INTERRUPTED = ("connect", "fsync", "open", "openat")

# Known limits of the design, which are counted but are no failures: when a call before main() fails, the C
# library may end the process in its own way; and nobody examines whether standard output takes what is
# written, so what a failed write had is missing there.
LOSES_OUTPUT = [("writev", kind) for kind in ("EIO", "ENOSPC", "EPIPE", "short-out")]


def injection(call, n, kind):
    """Tells strace what becomes of the n-th call of this name."""
    name, later, _ = kind.partition("+")
    effect = EFFECTS.get(name, "error=" + name)
    return ["-e", "trace=" + call, "-e", f"inject={call}:{effect}:when={n}{later}"]


# ---- Scenarios -------------------------------------------------------------------------------------------

# The gateway is called shop. When it adds this name, the comment goes.
CLIENTS_INI = """\
;Velarto{comment}

[Velarto Client Definitions]
{client}=

[{client}]
CLIENTIOTIMEOUT=4
{keys}VELARTO_SERVER={servers}

"""
# Each key that changes what is told of failures, how long is waited, or what a server may have.
KEYS = """\
HTTPSTATUS=yes
CLIENTLOG=stderr
ERRORPAGE=page
BROKENANSWER=cut
SERVERRETRY=60
STATEPATH=./state
SERVERCHOICE=random
ALLADDRESSES=yes
CONNECTTIMEOUT=500
ANSWERTIMEOUT=4
REQUESTTIMEOUT=8
KEEPIOTIMEOUT=yes
NEEDLENGTH=yes
OWNCOOKIES=yes
FILEROOT=.
FILELIMIT=100000
"""
PAGE = b"<p>{{STATUS}}: {{CODE}}</p>"  # the operator's
BODY = SHORT_DATA * 12800  # 100 KB
DOCUMENT = SHORT_DATA * 1000
POST = {"REQUEST_METHOD": "POST", "CONTENT_LENGTH": str(len(BODY)), "PATH_INFO": "/echo"}
# The user reference points at all three servers in this order; else the order would be random.
THREE = {"PATH_INFO": "/blob", "QUERY_STRING": "size=99", "HTTP_COOKIE": f"Velarto_UserReference=s001{0:024}"}


class Scenario(NamedTuple):
    variables: dict = {}
    client: str = "shop"
    hosts: tuple = ("127.0.0.1",)  # only at the last of them somebody listens
    in_place: bool = False  # clients.ini, of two names, is rewritten instead of being replaced
    comment: str = ""
    keys: str = ""

    def ini(self, port):
        servers = ":".join(f"s001,{host},{port}" for host in self.hosts)
        return CLIENTS_INI.format(**self._asdict(), servers=servers).encode()


SCENARIOS = {
    "get": Scenario(),
    "post": Scenario(POST),
    "document": Scenario({"PATH_INFO": "/document", "PATH_TRANSLATED": "./document"}),
    "new-client": Scenario(client="other"),
    "new-client-in-place": Scenario(client="other", in_place=True),
    "shorter-in-place": Scenario(client="other", in_place=True, comment="-" * 200),
    "three-servers": Scenario(THREE, hosts=("127.0.0.2", "127.0.0.3", "127.0.0.1")),
    "all-keys": Scenario(
        {**THREE, "PATH_INFO": "/document", "PATH_TRANSLATED": "./document"},
        hosts=("127.0.0.2", "127.0.0.1"),
        keys=KEYS,
    ),
}


# Runs the command in a folder with all that the gateway needs.
def run(options, scenario, command, document=DOCUMENT):
    with tempfile.TemporaryDirectory(prefix="velarto-faults.") as name:
        folder = pathlib.Path(name)
        ini = folder / "configuration/clients.ini"
        ini.parent.mkdir()
        contents = {"document": document, "body": BODY, "page": PAGE, "trace": b""}
        contents[ini] = scenario.ini(options.port)
        for path, content in contents.items():
            (folder / path).write_bytes(content)
        ini.chmod(0o640)
        if scenario.in_place:
            os.link(ini, folder / "second-name")
        (folder / "shop").symlink_to(options.gateway)
        # After 10 seconds all that it started is killed.
        command = ["timeout", "--signal=KILL", "10", *command]
        variables = {"VELARTO_PATH": ".", "REQUEST_METHOD": "GET", "PATH_INFO": "/", **scenario.variables}
        with open(folder / "body", "rb") as body:
            done = subprocess.run(command, cwd=folder, env=variables, stdin=body, capture_output=True)
        done.trace = (folder / "trace").read_text()
        done.files = {one.name: (one.stat().st_mode, one.read_bytes()) for one in ini.parent.iterdir()}
        return done


def run_traced(options, scenario, *inject_options, **files):
    strace = ["strace", "-qq", "-s", "8", "-o", "trace", *inject_options, "./shop"]
    for _ in range(TRIES):
        done = run(options, scenario, strace, **files)
        done.was_reached = done.returncode == -signal.SIGKILL or "(INJECTED" in done.trace
        if done.was_reached or not inject_options:
            break
    return done


# What a scenario does without a fault.
class Baseline:
    def __init__(self, options, scenario):
        # How often the gateway has to wait is a matter of chance: the longest run counts.
        usual = max((run_traced(options, scenario) for _ in range(TRIES)), key=lambda done: len(done.trace))
        self.status = usual.returncode
        self.old_ini, self.new_ini = scenario.ini(options.port), usual.files["clients.ini"][1]
        if self.status != 0 and self.old_ini == self.new_ini:
            raise SystemExit(f"without any fault: status {self.status}, {usual.stdout}")
        self.has_keys = scenario.keys != ""
        if not re.search(r"(alarm|setitimer)\(.*" + ("8" if self.has_keys else "300"), usual.trace):
            raise SystemExit("no alarm would end it in time")
        # Of a document that cannot be read, as of an empty one, the server says that there is none.
        self.answers = [usual.stdout, run_traced(options, scenario, document=b"").stdout]
        calls = [call for call in re.findall(r"(?m)^(\w+)\(", usual.trace) if FAULTS[call]]
        self.calls = Counter(calls)
        self.calls_before_main = Counter(calls[: calls.index("rt_sigaction")])  # the first in main()


# ---- Judgement -------------------------------------------------------------------------------------------

ERROR_PAGE = re.compile(
    rb"(?s)(.*)Content-type: text/html\r\n\r\n"
    rb"<html><head><title>Client Error</title>[^\r]*Error Code: (60[123458]|610)<br />[^\r]*</html>"
)


OWN_PAGE = re.compile(
    rb"Status: (\d+ [\w ]+)\r\n(?:Retry-After: 10\r\n)?Content-type: text/html\r\n\r\n<p>\1: (\d+)</p>"
)
LOG = re.compile(rb'((?:time=[\d:TZ.-]+ client="shop" request="\w{16}" [^\n]* )?code=(\d+) [^\n]*\n)?')


# Where the section has all keys: with the answer, its beginning or a page, and with a line in the log of any
# failure. Where clients.ini cannot be had nobody knows of the keys.
def is_honest_end(usual, call, kind, done):
    out, log = done.stdout, LOG.fullmatch(done.stderr)
    if done.returncode == 0:
        return out in usual.answers or (call, kind) in LOSES_OUTPUT
    behind_status = out.partition(b"\r\n")[2] if out.startswith(b"Status:") else out
    page = OWN_PAGE.fullmatch(out) or ERROR_PAGE.fullmatch(behind_status)
    code = int(page[2]) if page else None
    is_log_right = call == "write" or log and (not log[2] or code in (None, int(log[2])))
    is_told = page or log and log[2] and any(answer.startswith(out) for answer in usual.answers)
    return is_log_right and is_told and (code is None or code & 0xFF == done.returncode)


# With the answer, or with the answer's beginning and one error page, and with the right status.
def is_right_end(usual, call, kind, done):
    if usual.has_keys:
        return is_honest_end(usual, call, kind, done)
    answers, out = usual.answers, done.stdout + done.stderr
    if done.returncode == usual.status:
        behind_gap = out[len(os.path.commonprefix([out, answers[0]])) :]
        if out in answers or answers[0].endswith(behind_gap) and (call, kind) in LOSES_OUTPUT:
            return True
        if usual.status == 0:
            return False  # else another page of the same code will do, such as that for a lack of memory
    page = ERROR_PAGE.fullmatch(out)
    fits_status = page and int(page[2]) & 0xFF == done.returncode and b"Client Error" not in page[1]
    return fits_status and any(answer.startswith(page[1]) for answer in answers)


# After a short transfer the next one must, which no answer shows when the server lacks the beginning.
def asks_for_the_rest(n, trace):
    sizes = [sum(map(int, re.findall(r'(?:iov_len=|[".], )(\d+)', line))) for line in trace.splitlines()]
    return sizes[n : n + 1] == [sizes[n - 1] - SHORT]


def what_is_wrong(usual, call, n, kind, done):
    if kind != "kill" and n > usual.calls_before_main[call]:
        if not is_right_end(usual, call, kind, done):
            return "neither the answer nor its beginning and one error page, or not with the right status"
        if (call, n) == ("fsync", 1) and done.returncode == usual.status:
            return "nobody looks whether clients.ini is safe"
        if kind == "EINTR" and done.returncode != usual.status and call not in MAY_BE_INTERRUPTED:
            return "a signal makes a difference"
        if done.was_reached and kind.startswith("short") and not asks_for_the_rest(n, done.trace):
            return f"after {SHORT} bytes it does not go on with exactly the rest"
    allowed = [usual.new_ini] if done.returncode == usual.status else [usual.new_ini, usual.old_ini]
    if kind == "kill":  # before the cut it parses, too: empty lines stand where the old content was longer
        allowed.append(usual.new_ini.ljust(len(usual.old_ini), b"\n"))
    mode, ini = done.files.pop("clients.ini", (0, b""))
    lost = SHORT if (call, kind) == ("pwrite64", "short-out") else 0
    if mode != 0o100640 or ini[lost:] not in [content[lost:] for content in allowed]:
        return f"wrong clients.ini: {mode:o}, {ini}"
    # A killed gateway cannot remove its temporary file.
    may_stay = r"(\.clients\.ini\.\w{6})?" if kind == "kill" else ""
    return None if re.fullmatch(may_stay, " ".join(done.files)) else "something is left beside clients.ini"


# ---- The table -------------------------------------------------------------------------------------------


def show(title, *columns):
    print(f"{title:28}", *(f"{column or '-':>8}" for column in columns), flush=True)


# Prints a line of the table; returns the failures.
def inject(options, title, scenario, usual, faults):
    with ThreadPoolExecutor(2) as pool:
        runs = list(pool.map(lambda fault: run_traced(options, scenario, *injection(*fault)), faults))
    missed = limits = 0
    failures = []
    for (call, n, kind), done in zip(faults, runs):
        missed += not done.was_reached
        limits += (call, kind) in LOSES_OUTPUT or kind != "kill" and n <= usual.calls_before_main[call]
        wrong = what_is_wrong(usual, call, n, kind, done)
        if wrong:
            done.stdout = done.stdout[-200:]
            failures.append(f"FAILED {title} {call} {n} {kind}: {wrong}\n    {vars(done)}")
    kinds = {(call, kind) for call, _, kind in faults}
    show(title, usual.calls.total(), len(kinds), len(faults), missed, limits, len(failures))
    return failures


def first_runs(options):
    scenario = SCENARIOS["new-client"]
    names = sorted(f"client{i}" for i in range(8 if options.quick else 64))
    together = 'for name; do ln -s shop "$name"; { "./$name" >page; echo $?; } & done; wait'
    done = run(options, scenario, ["sh", "-c", together, "sh", *names])
    added = "".join(f"[{name}]\nVELARTO_SERVER=127.0.0.1,18155\n\n" for name in names)
    _, _, old = scenario.ini(options.port).decode().partition("\n\n")
    expected = (old.replace("other=\n", "=\n".join([*names, "other=\n"])) + added).encode()
    _, ini = done.files.pop("clients.ini", (0, b""))
    right = sorted(ini.split(b"\n\n")) == sorted(expected.split(b"\n\n"))  # whatever order they came in
    # Whoever listens on that port may answer as a server or otherwise.
    right &= set(done.stdout.split()) <= {b"0", b"90", b"92", b"93"} and not done.files
    show("first-runs", "", "", len(names), "", "", int(not right))
    return [] if right else [f"FAILED first-runs: {ini}\n    {vars(done)}"]


def everything(options):
    failures = []
    show("scenario", "calls", "faults", "runs", "missed", "limits", "failures")
    for name, scenario in SCENARIOS.items():
        usual = Baseline(options, scenario)
        tables = {name: FAULTS, f"{name}, killed": KILLS if scenario.client == "other" else {}}
        for title, table in tables.items():
            faults = [
                (call, n, kind)
                for call, count in usual.calls.items()
                for kind in table.get(call, [])[: 1 if options.quick else None]
                for n in range(1, count + 1)
                if re.search(options.only, f"{title} {call} {n} {kind}")
            ]
            if faults:
                failures += inject(options, title, scenario, usual, faults)
    if re.search(options.only, "first-runs"):
        failures += first_runs(options)
    notes = "missed: the run ended before the fault; limits: known limits of the design, no failures"
    print(notes, *failures, sep="\n")
    return bool(failures)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("gateway", type=os.path.realpath)
    parser.add_argument("devserver")
    parser.add_argument("--quick", action="store_true", help="one fault for each call, fewer first runs")
    parser.add_argument("--only", default="", metavar="PATTERN", help="what FAILED names, or a part of that")
    options = parser.parse_args()
    if subprocess.run("strace -qq -o /dev/null true", shell=True, stderr=subprocess.DEVNULL).returncode != 0:
        print("strace is missing or may not trace here: nothing was tried")
        return 77  # which ctest takes for skipped

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # files go, and the server goes with its parent
    # A slow server lets the gateway wait.
    command = ["setpriv", "--pdeathsig=TERM", "nice", "-n19", options.devserver, "--listen=127.0.0.1:0"]
    server = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    options.port = server.stdout.readline().rpartition(":")[2].strip()
    failed = everything(options)
    server.terminate()
    server.wait()
    return failed


if __name__ == "__main__":
    sys.exit(main())
