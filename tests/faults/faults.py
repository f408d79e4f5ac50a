#!/usr/bin/env python3
"""Runs the real gateway once for every system call that it makes and every fault that fits the call.

strace makes one call of one run fail, come up short or be the last one. Whatever happens, the gateway must
end by itself and soon, with one of its exit statuses, with the full answer or exactly one error page behind
the answer's beginning, and must leave clients.ini whole and nothing beside it. One more test starts many
new clients at once on one clients.ini. Servers and files are private, on the loopback address and in a
temporary folder; nothing is left behind.
"""

import argparse
import collections
import contextlib
import dataclasses
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from typing import NamedTuple

LONGEST_RUN = 10  # seconds
NOTHING_TRIED = 77  # exit status
RUNS_AT_ONCE = 2
TRIES = 5  # for a call that the gateway makes only when it has to wait
FIRST_RUNS, FIRST_RUNS_QUICK = 64, 8  # at once

# ---- Faults ----------------------------------------------------------------------------------------------

# What can become of which calls. Beside errors: "short", a transfer of a few bytes; "0", that result: the
# peer has closed, the break has not moved. With a "+" every later call of that name fails too. For 32 bits
# some calls have other names.
FAULTS = {
    "access": "EACCES",
    "arch_prctl set_thread_area rt_sigaction rt_sigprocmask setitimer": "EINVAL",
    "bind": "EADDRINUSE EACCES",
    "brk": "0",
    "clock_gettime clock_gettime64": "EINVAL",
    "close": "EIO EINTR",
    "connect": "ECONNREFUSED ENETUNREACH ETIMEDOUT EINTR EAGAIN",
    "fallocate": "ENOSPC EOPNOTSUPP EINTR",
    "fchmod fchown fchown32": "EPERM",
    "fcntl fcntl64": "ENOLCK EINTR EMFILE",
    "fstat fstat64 lstat lstat64 newfstatat stat stat64 statx": "EIO EACCES ENOMEM",
    "fsync": "EIO EINTR ENOSPC",
    "ftruncate ftruncate64": "EIO EINTR",
    "getpeername shutdown": "ENOTCONN",
    "getrandom": "ENOSYS EINTR",
    "ioctl": "ENOTTY EIO",
    "mmap mmap2": "ENOMEM ENOMEM+",
    "mprotect munmap": "ENOMEM",
    "open openat": "EMFILE EMFILE+ ENOENT EACCES EINTR ENOMEM",
    "poll": "EINVAL EINTR ENOMEM",
    "prlimit64 ugetrlimit": "EPERM",
    "pread64 read": "EIO EINTR short",
    "pwrite64": "EIO EINTR ENOSPC ENOSPC+ short",
    "recv recvfrom": "ECONNRESET ETIMEDOUT EINTR EAGAIN 0",
    "rename": "EXDEV EACCES ENOSPC",
    "send sendto": "ECONNRESET EPIPE EINTR EAGAIN ENOBUFS short",
    "setsockopt": "ENOPROTOOPT ENOBUFS",
    "socket": "EMFILE ENOBUFS EACCES",
    "write writev": "EIO EINTR ENOSPC EPIPE EAGAIN short",
}
FAULTS = {call: kinds.split() for calls, kinds in FAULTS.items() for call in calls.split()}
NEVER_FAIL = ("alarm", "execve", "exit_group", "rseq", "set_robust_list", "set_tid_address")
KILL = "KILL"

# A short transfer is made up: strace skips the call, puts bytes where a read would, and returns their number.
# A reader's source still has those bytes, which does not show where it repeats them without end. What was
# written lacks them.
SHORT_DATA = b"Velarto\n"
SHORT = len(SHORT_DATA)

# Known limits of the design, which are counted but are no failures:
# - When a call before main() fails, the C library may end the process, by a signal or with its loader's
#   status. MAIN_BEGINS is main()'s first call.
# - Nobody examines whether standard output takes what is written: what one failed write had is missing there,
#   or all from there on.
MAIN_BEGINS = "rt_sigaction"
LOADER_FAILED = 127
LOST_OUTPUT = ("EIO", "ENOSPC", "EPIPE")


class Fault(NamedTuple):
    call: str
    n: int  # the n-th of the run, from 1
    kind: str

    def injection(self, short_data):
        when = str(self.n) + self.kind[len(self.kind.rstrip("+")) :]
        effects = {KILL: "signal=KILL", "0": "retval=0", "short": f"retval={SHORT}"}
        effect = effects.get(self.kind, "error=" + self.kind.rstrip("+"))
        if self.kind == "short" and self.call in ("read", "pread64"):
            effect += ":poke_exit=@arg2=" + short_data.hex()
        return f"inject={self.call}:{effect}:when={when}"

    def __str__(self):
        return f"{self.call} {self.n} {self.kind}"


# ---- Scenarios -------------------------------------------------------------------------------------------

# As the gateway itself would write it, so that nothing changes when it does.
CLIENTS_INI = """\
[Velarto Client Definitions]
other=
shop=

[other]
CLIENTIOTIMEOUT=30
VELARTO_SERVER=127.0.0.1,9

[shop]
CLIENTIOTIMEOUT=4
VELARTO_SERVER={servers}

"""
BODY = SHORT_DATA * 12800  # 100 KB
DOCUMENT = SHORT_DATA * 1000
USER = "s001" + "0" * 24


class Scenario(NamedTuple):
    variables: dict
    program: str = "shop"
    servers: str = "127.0.0.1,{up}"
    body: bytes = b""
    second_name: bool = False  # of clients.ini, which is then written in place instead of being replaced
    comment: str = ""  # in clients.ini, lost when the gateway writes it


SCENARIOS = {
    "get": Scenario({"PATH_INFO": "/"}),
    "post": Scenario(
        {"PATH_INFO": "/echo", "REQUEST_METHOD": "POST", "CONTENT_LENGTH": str(len(BODY))}, body=BODY
    ),
    "document": Scenario({"PATH_INFO": "/document", "PATH_TRANSLATED": "./document"}),
    "new-client": Scenario({"PATH_INFO": "/"}, "newcomer"),
    "new-client-in-place": Scenario({"PATH_INFO": "/"}, "newcomer", second_name=True),
    "shorter-in-place": Scenario(
        {"PATH_INFO": "/"}, "newcomer", second_name=True, comment=";" + "-" * 200 + "\n\n"
    ),
    # The user reference points at all three in this order; else the order would be random.
    "three-servers": Scenario(
        {"PATH_INFO": "/blob", "QUERY_STRING": "size=2000", "HTTP_COOKIE": f"Velarto_UserReference={USER}"},
        servers="s001,127.0.0.1,{down[0]}:s001,127.0.0.1,{down[1]}:s001,127.0.0.1,{up}",
    ),
}
KILLED_SCENARIOS = ("new-client", "new-client-in-place", "shorter-in-place")


class World:
    """The programs, the servers and the folder that all runs share."""

    def __init__(self, gateway, devserver, stack):
        self.gateway = pathlib.Path(gateway).resolve()
        self.folder = stack.enter_context(tempfile.TemporaryDirectory(prefix="velarto-faults."))
        # Bound, but not listening: nobody else gets the port, and nobody answers there.
        down = [stack.enter_context(socket.socket()) for _ in range(2)]
        for one in down:
            one.bind(("127.0.0.1", 0))
        self.ports = {"up": stack.enter_context(application_server(devserver))}
        self.ports["down"] = [one.getsockname()[1] for one in down]

    def clients_ini(self, scenario):
        sections = CLIENTS_INI.format(servers=scenario.servers.format(**self.ports))
        return (scenario.comment + sections).encode()

    @contextlib.contextmanager
    def workplace(self, scenario, programs):
        """A folder to run the gateway in, under these names."""
        with tempfile.TemporaryDirectory(dir=self.folder) as name:
            folder = pathlib.Path(name)
            ini = folder / "configuration/clients.ini"
            ini.parent.mkdir()
            ini.write_bytes(self.clients_ini(scenario))
            ini.chmod(0o640)
            if scenario.second_name:
                os.link(ini, folder / "second-name")
            (folder / "document").write_bytes(DOCUMENT)
            (folder / "body").write_bytes(scenario.body)
            for program in programs:
                (folder / program).symlink_to(self.gateway)
            yield folder


@contextlib.contextmanager
def application_server(program):
    command = [program, "--listen", "127.0.0.1:0"]
    pipes = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.DEVNULL}
    with subprocess.Popen(command, text=True, **pipes) as server:
        try:
            yield int(server.stdout.readline().rpartition(":")[2])
        finally:
            server.terminate()


# ---- One run ---------------------------------------------------------------------------------------------


@dataclasses.dataclass
class Outcome:
    status: int  # as subprocess has it; None when the gateway did not end by itself
    out: bytes
    err: bytes
    trace: list = dataclasses.field(default_factory=list)
    ini: bytes = b""
    mode: int = 0
    beside: list = dataclasses.field(default_factory=list)  # what lies beside clients.ini

    def reached(self, fault):
        if fault.kind == KILL:
            return self.status == -signal.SIGKILL
        return any("(INJECTED" in line for line in self.trace)


def run(scenario, folder, program, tracer=()):
    environment = {"VELARTO_PATH": ".", "REQUEST_METHOD": "GET", **scenario.variables}
    with open(folder / "body", "rb") as body:
        pipes = {"stdin": body, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        command = [*tracer, "./" + program]
        process = subprocess.Popen(command, cwd=folder, env=environment, start_new_session=True, **pipes)
    with process:
        try:
            out, err = process.communicate(timeout=LONGEST_RUN)
            return Outcome(process.returncode, out, err)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            return Outcome(None, *process.communicate())


def run_traced(world, scenario, *selection, without=None):
    """A run under strace in a fresh folder, which may lack one file."""
    with world.workplace(scenario, [scenario.program]) as folder:
        if without:
            (folder / without).unlink()
        strace = ["strace", "-qq", "-s", "8", "-o", "trace", *selection]
        outcome = run(scenario, folder, scenario.program, strace)
        outcome.trace = (folder / "trace").read_text().splitlines()
        ini = folder / "configuration/clients.ini"
        if ini.exists():
            outcome.ini, outcome.mode = ini.read_bytes(), ini.stat().st_mode & 0o7777
        outcome.beside = sorted(set(os.listdir(ini.parent)) - {ini.name})
        return outcome


def run_with_fault(world, scenario, fault):
    short_data = SHORT_DATA if fault.call == "read" else world.clients_ini(scenario)[:SHORT]
    selection = ["-e", "trace=" + fault.call, "-e", fault.injection(short_data)]
    for _ in range(TRIES):
        outcome = run_traced(world, scenario, *selection)
        if outcome.reached(fault):
            break
    return outcome


class Baseline:
    """What a scenario does without a fault."""

    def __init__(self, world, scenario):
        self.old_ini = world.clients_ini(scenario)
        # How often the gateway has to wait is a matter of chance: the longest run counts.
        outcome = max((run_traced(world, scenario) for _ in range(TRIES)), key=lambda one: len(one.trace))
        self.status, self.new_ini = outcome.status, outcome.ini
        works = b"[newcomer]" in self.new_ini if scenario.program == "newcomer" else self.status == 0
        if not works:
            raise SystemExit(f"without any fault: status {self.status}, {excerpt(outcome.out + outcome.err)}")
        # Of a document that cannot be read the server says that there is none.
        self.answers = [outcome.out, run_traced(world, scenario, without="document").out]
        self.counts = collections.Counter()
        self.before_main = set()
        self.writes = []  # place and size in standard output
        for line in outcome.trace:
            self.count(line)

    def count(self, line):
        call = line.partition("(")[0]
        if not call.isidentifier() or call in NEVER_FAIL:
            return
        if call not in FAULTS:
            raise SystemExit(f"the gateway calls {call}(): tell FAULTS what can become of it")
        self.counts[call] += 1
        if MAIN_BEGINS not in self.counts:
            self.before_main.add((call, self.counts[call]))
        if call in ("write", "writev"):
            self.writes.append((sum(self.writes[-1]) if self.writes else 0, int(line.rpartition("= ")[2])))

    def faults(self, kinds):
        """At every call, each of the kinds of fault that its name has."""
        numbers = {call: range(1, count + 1) for call, count in self.counts.items()}
        return [Fault(call, n, kind) for call in numbers for kind in kinds[call] for n in numbers[call]]

    def is_end_before_main(self, fault, outcome):
        ended = outcome.status == LOADER_FAILED or (outcome.status or 0) < 0
        return ended and (fault.call, fault.n) in self.before_main and fault.kind != KILL

    def right_answers(self, fault):
        """What standard output may get: all of the answer, but for what the fault itself takes from it."""
        if fault.call not in ("write", "writev") or fault.kind not in (*LOST_OUTPUT, "short"):
            return self.answers
        place, size = self.writes[fault.n - 1]
        end = place + (SHORT if fault.kind == "short" else size)
        answers = [answer[:place] + answer[end:] for answer in self.answers]
        return answers + [answer[:place] for answer in self.answers if fault.kind in LOST_OUTPUT]


# ---- Judgement -------------------------------------------------------------------------------------------

STATUSES = {code & 0xFF: code for code in (601, 602, 603, 604, 605, 608, 610)}
ERROR_PAGE = re.compile(
    rb"Content-type: text/html\r\n\r\n"
    rb"<html><head><title>Client Error</title>.*?Error Code: (\d+)<br />.*?</html>"
)


def what_is_wrong(baseline, fault, outcome):
    """The first thing wrong with a run; empty when there is none."""
    if outcome.status is None:
        return f"still running after {LONGEST_RUN} s"
    if fault.kind == KILL or baseline.is_end_before_main(fault, outcome):
        return wrong_file(baseline, fault, outcome)
    if outcome.err:
        return f"standard error: {excerpt(outcome.err)}"
    if outcome.status < 0:
        return "ended by " + signal.Signals(-outcome.status).name
    return (
        wrong_output(baseline, fault, outcome)
        or wrong_continuation(fault, outcome)
        or wrong_file(baseline, fault, outcome)
    )


def wrong_output(baseline, fault, outcome):
    answers = baseline.right_answers(fault)
    if outcome.status == baseline.status and outcome.out in answers:
        return ""
    pages = list(ERROR_PAGE.finditer(outcome.out))
    ends_in_page = len(pages) == 1 and pages[0].end() == len(outcome.out)
    if not ends_in_page or STATUSES.get(outcome.status) != int(pages[0][1]):
        return f"neither the answer nor one page with the status {outcome.status}: {excerpt(outcome.out)}"
    if not any(answer.startswith(outcome.out[: pages[0].start()]) for answer in answers):
        return f"in front of the error page is not the answer's beginning: {excerpt(outcome.out)}"
    return ""


def wrong_continuation(fault, outcome):
    """After a short transfer the next one must ask for exactly the rest."""
    if fault.kind != "short" or not outcome.reached(fault):
        return ""
    pattern = r"iov_len=(\d+)" if fault.call == "writev" else r'"(?:\.\.\.)?, (\d+)'
    calls = [line for line in outcome.trace if line.startswith(fault.call)][fault.n - 1 : fault.n + 1]
    sizes = [sum(map(int, re.findall(pattern, line))) for line in calls]
    goes_on = sizes[1:] == [sizes[0] - SHORT]
    return "" if goes_on else f"{SHORT} of {sizes[0]} bytes done, it goes on with {sizes[1:]}"


def wrong_file(baseline, fault, outcome):
    """clients.ini must be the old or the new one, and the new one when the run went as ever."""
    allowed = [baseline.new_ini]
    if outcome.status != baseline.status:
        allowed.append(baseline.old_ini)
    if fault.kind == KILL:  # before the cut
        allowed.append(baseline.new_ini + baseline.old_ini[len(baseline.new_ini) :])
    if fault.call == "pwrite64" and fault.kind == "short":  # strace kept the first bytes to itself
        allowed = [start[:SHORT] + baseline.new_ini[SHORT:] for start in (bytes(SHORT), baseline.old_ini)]
    if outcome.ini not in allowed or outcome.mode != 0o640:
        return f"wrong clients.ini: mode {outcome.mode:o}, {excerpt(outcome.ini)}"
    # Nobody is left to remove the temporary file of a killed gateway. In no other case may it stay.
    may_stay = r"\.clients\.ini\.\w{6}" if fault.kind == KILL else "(?!)"
    beside = [name for name in outcome.beside if not re.fullmatch(may_stay, name)]
    return f"left beside clients.ini: {beside}" if beside else ""


def excerpt(content):
    if len(content) <= 160:
        return repr(content)
    return f"{content[:80]!r}...{content[-80:]!r}, {len(content)} bytes"


# ---- Every call, every fault -----------------------------------------------------------------------------


@dataclasses.dataclass
class Row:
    """A line of the table; failures are what was wrong and the arguments that repeat it."""

    scenario: str
    calls: int = 0
    faults: int = 0
    runs: int = 0
    missed: int = 0
    limits: int = 0
    failures: list = dataclasses.field(default_factory=list)


def inject(world, name, baseline, faults, title):
    scenario = SCENARIOS[name]
    kinds = {(fault.call, fault.kind) for fault in faults}
    row = Row(title, baseline.counts.total(), len(kinds), len(faults))
    with ThreadPoolExecutor(RUNS_AT_ONCE) as pool:
        outcomes = pool.map(lambda fault: run_with_fault(world, scenario, fault), faults)
        for fault, outcome in zip(faults, outcomes):
            row.missed += not outcome.reached(fault)
            loses_output = baseline.right_answers(fault) is not baseline.answers and fault.kind in LOST_OUTPUT
            row.limits += loses_output or baseline.is_end_before_main(fault, outcome)
            wrong = what_is_wrong(baseline, fault, outcome)
            if wrong:
                row.failures.append((wrong, f"one {name} {fault}"))
    return row


def show_one(world, name, fault):
    """Repeats one run and shows all of it; true when something was wrong."""
    baseline = Baseline(world, SCENARIOS[name])
    outcome = run_with_fault(world, SCENARIOS[name], fault)
    print(*outcome.trace, f"status {outcome.status}", excerpt(outcome.out), "clients.ini:", sep="\n")
    print(outcome.ini.decode(errors="replace") + "beside it:", outcome.beside)
    wrong = what_is_wrong(baseline, fault, outcome)
    print(wrong or "nothing is wrong")
    return bool(wrong)


# ---- Many gateways on one clients.ini --------------------------------------------------------------------


def sections(content):
    """Each with its lines in order, whatever order the clients came in."""
    blocks = [block.split(b"\n") for block in content.rstrip(b"\n").split(b"\n\n")]
    return sorted((header, sorted(lines)) for header, *lines in blocks)


def first_runs(world, count):
    """So many new clients at once."""
    scenario = SCENARIOS["new-client"]
    names = [f"client{i}" for i in range(count)]
    with world.workplace(scenario, names) as folder, ThreadPoolExecutor(count) as pool:
        outcomes = list(pool.map(lambda name: run(scenario, folder, name), names))
        content = (folder / "configuration/clients.ini").read_bytes()
        files = os.listdir(folder / "configuration")
    listed = "".join(f"{name}=\n" for name in names)
    added = "".join(f"[{name}]\nVELARTO_SERVER=127.0.0.1,18155\n\n" for name in names)
    expected = world.clients_ini(scenario).replace(b"other=\n", b"other=\n" + listed.encode(), 1) + added.encode()
    wrong = [f"status {one.status}" for one in outcomes if one.status not in (0, 602 & 0xFF)]
    if sections(content) != sections(expected):
        wrong.append(f"wrong clients.ini: {content.decode(errors='replace')}")
    if files != ["clients.ini"]:
        wrong.append(f"left beside clients.ini: {files}")
    return Row("first-runs", runs=count, failures=[(one, "all") for one in wrong])


# ---- Command line ----------------------------------------------------------------------------------------


def everything(world, quick):
    kinds = {call: every[: 1 if quick else None] for call, every in FAULTS.items()}
    for name, scenario in SCENARIOS.items():
        baseline = Baseline(world, scenario)
        yield inject(world, name, baseline, baseline.faults(kinds), name)
        if name in KILLED_SCENARIOS:
            kills = baseline.faults(dict.fromkeys(FAULTS, [KILL]))
            yield inject(world, name, baseline, kills, name + ", killed")
    yield first_runs(world, FIRST_RUNS_QUICK if quick else FIRST_RUNS)


def report(rows, command):
    """Prints the table, line by line as the rows come, then the failures; true when there were any."""
    columns = [field.name for field in dataclasses.fields(Row)]
    print(f"{columns[0]:28}", *(f"{column:>8}" for column in columns[1:]))
    failures = []
    for row in rows:
        numbers = [getattr(row, column) for column in columns[1:-1]] + [len(row.failures)]
        print(f"{row.scenario:28}", *(f"{number or '-':>8}" for number in numbers), flush=True)
        failures += row.failures
    print("missed: the run ended before the fault; limits: known limits of the design, no failures")
    for wrong, arguments in failures:
        print(f"FAILED {arguments}: {wrong}\n    repeat: {command} {arguments}")
    return bool(failures)


def can_trace():
    """Some containers forbid it."""
    try:
        return subprocess.run(["strace", "-qq", "-o", "/dev/null", "true"], stderr=subprocess.DEVNULL).returncode == 0
    except FileNotFoundError:
        return False


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--gateway", default="build/release/velarto-cgi")
    parser.add_argument("--devserver", default="build/release/devserver/velarto-devserver")
    commands = parser.add_subparsers(dest="command", required=True)
    commands.add_parser("all", help="everything").add_argument(
        "--quick", action="store_true", help="one fault for each call, fewer first runs"
    )
    one = commands.add_parser("one", help="one run with one fault, shown whole")
    one.add_argument("scenario", choices=SCENARIOS)
    one.add_argument("call", choices=FAULTS)
    one.add_argument("n", type=int)
    one.add_argument("fault")
    options = parser.parse_args()
    if not can_trace():
        print("strace is missing or may not trace here: nothing was tried")
        return NOTHING_TRIED

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # servers and files go
    with contextlib.ExitStack() as stack:
        world = World(options.gateway, options.devserver, stack)
        if options.command == "one":
            return show_one(world, options.scenario, Fault(options.call, options.n, options.fault))
        programs = f"--gateway {options.gateway} --devserver {options.devserver}"
        return report(everything(world, options.quick), f"{os.path.relpath(__file__)} {programs}")


if __name__ == "__main__":
    sys.exit(main())
