# Machines of a small data centre on this one: each is a network namespace of its own at a switch, with a
# folder for its files. Nothing of it is left when the program ends, however it does: its processes are a
# process namespace, too.
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time

SOURCE = pathlib.Path(__file__).resolve().parents[2]
NAMESPACES = ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
SKIPPED = 77
GATEWAYS_BIND = "127.0.0.1:18200"  # where HAProxy listens for the gateways of its machine


# Runs the program in namespaces; ends with 77 where they cannot be made.
def enter():
    if "VELARTO_MACHINES" in os.environ:
        return
    missing = subprocess.run([*NAMESPACES, "ip", "link", "set", "lo", "up"], capture_output=True, text=True)
    if missing.returncode != 0:
        print("no namespaces can be made:", missing.stderr.strip())
        sys.exit(SKIPPED)
    os.environ["VELARTO_MACHINES"] = "entered"
    os.execvp(NAMESPACES[0], [*NAMESPACES, sys.executable, *sys.argv])


def wait_until(condition, what):
    for _ in range(1200):
        if condition():
            return
        time.sleep(0.05)
    sys.exit(f"{what}: not within a minute")


class Machine:
    def __init__(self, network, name, address):
        self.address, self.folder, self.programs = address, network.folder / name, {}
        self.folder.mkdir(mode=0o755)
        self.port_of_switch = f"to-{name}"
        holder = ["unshare", "--net", "sh", "-c", "echo; exec sleep infinity"]
        self.holder = subprocess.Popen(holder, stdout=subprocess.PIPE)
        self.holder.stdout.readline()  # it has its namespace
        peer = "peer", "name", "eth0", "netns", self.holder.pid
        ip("link", "add", self.port_of_switch, "type", "veth", *peer)
        ip("link", "set", self.port_of_switch, "master", "switch", "up")
        for command in ("addr add {0}/16 dev eth0", "link set eth0 up", "link set lo up"):
            self.run("ip", *command.format(address).split())

    def inside(self, *command):
        return ["nsenter", f"--net=/proc/{self.holder.pid}/ns/net", *map(str, command)]

    def run(self, *command, check=True, **options):
        ended = subprocess.run(self.inside(*command), capture_output=True, text=True, **options)
        if check and ended.returncode != 0:
            sys.exit(f"{command} ends with {ended.returncode}: {ended.stderr}")
        return ended

    # A program that runs until it is ended; what it says is in the file of its name.
    def start(self, name, *command):
        log = (self.folder / f"{name}.log").open("a")
        self.programs[name] = subprocess.Popen(
            self.inside(*command), stdout=log, stderr=log, start_new_session=True)

    # As when the power fails: with everything that it started.
    def kill(self, name):
        program = self.programs.pop(name)
        os.killpg(program.pid, 9)
        program.wait()

    def log(self, name):
        return (self.folder / f"{name}.log").read_text()

    def listens(self, endpoint):
        return f" {endpoint} " in self.run("ss", "-Hltn").stdout

    # The gateway as the program in cgi-bin, its configuration for HAProxy at 127.0.0.1, and that of HAProxy.
    def install_gateway(self, build, servers):
        for folder in ("configuration", "htdocs/cgi-bin", "run"):
            (self.folder / folder).mkdir(parents=True)
        self.gateway = self.folder / "htdocs/cgi-bin/shop"
        self.gateway.symlink_to(build / "velarto-cgi")
        servers_file = self.folder / "servers.ini"
        servers_file.write_text(configuration(servers))
        export = "--file", servers_file, "export", "haproxy", "shop", "--bind", GATEWAYS_BIND, "--json"
        exported = json.loads(self.run(build / "admin/velarto-config", *export).stdout)
        (self.folder / "configuration/clients.ini").write_text(configuration(exported["VELARTO_SERVER"]))
        self.listeners = exported["configuration"]

    # HAProxy with these files, their places in the system replaced by the machine's folder.
    def start_haproxy(self, *files):
        options = []
        for number, (file, places) in enumerate(files):
            target = self.folder / f"haproxy-{number}.cfg"
            target.write_text(replaced(file, {
                **places, "/etc/haproxy/haproxy-refuse.lua": SOURCE / "examples/haproxy-refuse.lua",
                "/run/haproxy": self.folder}))
            options += ["-f", target]
        self.run("haproxy", "-c", *options)
        self.start("haproxy", "haproxy", "-db", *options)

    def metrics(self):
        return self.run("curl", "--silent", "http://127.0.0.1:8405/metrics", check=False).stdout

    def plug(self, state):  # "up" or "down"
        ip("link", "set", self.port_of_switch, state)


class Network:
    def __init__(self):
        self.owner = tempfile.TemporaryDirectory()
        self.folder = pathlib.Path(self.owner.name)
        self.folder.chmod(0o755)
        ip("link", "set", "lo", "up")
        ip("link", "add", "switch", "type", "bridge")
        ip("link", "set", "switch", "up")
        ip("addr", "add", "10.77.0.1/16", "dev", "switch")

    def machine(self, name, number):
        return Machine(self, name, f"10.77.0.{number}")


def ip(*command):
    subprocess.run(["ip", *map(str, command)], check=True)


def replaced(file, places):
    text = file if "\n" in str(file) else (SOURCE / file).read_text()
    for place, by in places.items():
        text = text.replace(place, str(by))
    return text


def configuration(servers):
    return f"[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_SERVER={servers}\nCLIENTIOTIMEOUT=30\n"
