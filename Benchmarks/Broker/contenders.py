"""The contenders as processes: starting their servers, running their clients, reading what they cost."""

import fcntl
import json
import os
import re
import shutil
import subprocess
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

BUILD = Path(os.environ.get("GANTREL_BENCH_BUILD", "build/bench")).resolve()
PROGRAMS = BUILD / "Benchmarks" / "Broker"


@dataclass(frozen=True)
class Contender:
    name: str
    title: str
    client: str  # executable's name
    server: tuple  # command; paths are absolute
    socket: str = "socket"  # below the server's runtime directory
    handed_name: str = "broker"  # the name under which the listening socket is handed over
    service: tuple = ()  # a second serving process, which gets the bus's address


def program(name):
    return str(PROGRAMS / name)


def agent_service_name():
    for line in (BUILD / "CMakeCache.txt").read_text().splitlines():
        if line.startswith("GANTREL_BUNDLE_IDENTIFIER:"):
            return line.partition("=")[2] + ".agent"
    raise SystemExit(f"{BUILD} is not a build folder of this project")


AGENT = agent_service_name()

BY_NAME = {contender.name: contender for contender in (
    Contender("bare", "bare sockets: the physical limit", "bench_floor_client",
              (program("bench_floor_server"), "bare", "1")),
    Contender("gathered", "the same, replies gathered: the physical limit for many in flight",
              "bench_floor_client", (program("bench_floor_server"), "bare", "64")),
    Contender("fair", "the least that an honest broker does, replies gathered", "bench_fair_client",
              (program("bench_floor_server"), "fair", "64")),
    Contender("sd-bus", "sd-bus, peer to peer", "bench_sdbus_client",
              (program("bench_sdbus_server"),)),
    Contender("bus", "sd-bus through dbus-daemon", "bench_sdbus_client",
              (shutil.which("dbus-daemon"), "--session", "--nofork", "--nopidfile",
               "--address=systemd:"),
              service=(program("bench_sdbus_server"),)),
    Contender("capnp", "Cap'n Proto", "bench_capnp_client", (program("bench_capnp_server"),)),
    Contender("gantrel", "Gantrel's agent", "bench_gantrel_client",
              (str(BUILD / "GantrelAgent.app/Contents/Linux/GantrelAgent"),),
              socket=f"gantrel/{AGENT}.socket", handed_name=AGENT),
)}
OURS = "gantrel"
LOGGING = (OURS, "fair")  # who logs each request


class Log:
    """A regular file for a server's standard error. Emptied as it goes, so that it stays small."""

    def __init__(self):
        self.file = tempfile.NamedTemporaryFile("ab", dir=BUILD, prefix="server-", suffix=".log")
        # Else a server would go on writing where it was, behind a hole as large as all it wrote before.
        fcntl.fcntl(self.file, fcntl.F_SETFL, os.O_APPEND)
        self.dropped = 0  # as the server said

    def inspect(self):
        said = re.findall(rb"(\d+) log lines dropped", Path(self.file.name).read_bytes())
        self.dropped += sum(map(int, said))
        os.truncate(self.file.name, 0)


def start(command, environment, errors=None):
    """A process that has said that it is ready. `errors` takes its standard error; None: ours."""
    process = subprocess.Popen(command, env=environment, stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE, stderr=errors, text=True)
    if process.stdout.readline() != "ready\n":
        raise SystemExit(f"failed: {' '.join(command)}")
    return process


class Place:
    """A runtime directory for one server, with the path of its socket. Use as a context."""

    def __init__(self, contender):
        self.contender = contender

    def __enter__(self):
        self.directory = tempfile.mkdtemp(prefix="gantrel-bench-")
        self.environment = {**os.environ, "XDG_RUNTIME_DIR": self.directory}
        self.socket = f"{self.directory}/{self.contender.socket}"
        Path(self.socket).parent.mkdir(mode=0o700, exist_ok=True)
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.directory)


class Server(Place):
    """A contender's serving processes, on the processors where the process that makes them is."""

    def __init__(self, contender, log=None, under=()):
        """Without a log, what the server says goes nowhere. Server and clients run `under` that command."""
        super().__init__(contender)
        self.log = log
        self.under = under
        self.helpers = []

    def __enter__(self):
        super().__enter__()
        errors = self.log.file if self.log else subprocess.DEVNULL
        launch = [program(self.contender.client), "launch", self.socket, self.contender.handed_name]
        self.address = self.socket
        self.processes = [start([*launch, *self.under, *self.contender.server], self.environment,
                                errors)]
        if self.contender.service:
            self.address = f"unix:path={self.socket}"
            self.processes.append(start([*self.contender.service, self.address], self.environment))
        return self

    def __exit__(self, *arguments):
        for process in [*self.helpers, *reversed(self.processes)]:
            process.kill()
            process.wait()
        super().__exit__(*arguments)

    def work(self, command, *arguments):
        """A client process that has prepared itself for a command of Worker.cpp."""
        return start([*self.under, program(self.contender.client), command, self.address,
                      *map(str, arguments)], self.environment)

    def keep(self, *command):
        """The same for a client that stays as long as the server does."""
        self.helpers.append(self.work(*command))

    def populate(self, count):
        finish(self.work("populate", count))

    def measure(self, *command, clients=1):
        """The results of clients that run a measuring command at once, and what they cost the server:
        processor seconds per operation."""
        workers = [self.work(*command) for _ in range(clients)]
        before = self.processor_time()
        results = results_of(workers)
        cost = self.processor_time() - before
        for worker in workers:
            finish(worker)
        if self.log:
            self.log.inspect()
        return results, cost / sum(result["operations"] for result in results)

    def processor_time(self):
        """Seconds of all serving processes so far, all threads, also those that ended."""
        return sum(time.clock_gettime(processor_clock(process.pid)) for process in self.processes)

    def private_memory(self):
        """KiB that are resident and private to the first serving process."""
        rollup = Path(f"/proc/{self.processes[0].pid}/smaps_rollup").read_text()
        return sum(int(line.split()[1]) for line in rollup.splitlines()
                   if line.startswith(("Private_Clean:", "Private_Dirty:")))


def results_of(workers):
    """Lets clients that have prepared a measuring command run it at once."""
    for worker in workers:
        worker.stdin.write("\n")
        worker.stdin.flush()
    return [json.loads(worker.stdout.readline()) for worker in workers]


def finish(worker):
    """Lets a client process end and waits for it."""
    worker.stdin.close()
    worker.wait()


def processor_clock(pid):
    """The clock of a process's processor time: clock_getcpuclockid(3), as the C library encodes it."""
    scheduler_clock = 2
    return (~pid << 3) | scheduler_clock


def startup(contender, log):
    """Microseconds from a new server's exec to the first answered request."""
    with Place(contender) as place:
        run = subprocess.run(
            [program(contender.client), "startup", place.socket, contender.handed_name,
             *contender.server],
            env=place.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=log.file if log else subprocess.DEVNULL, text=True, check=True)
    return json.loads(run.stdout)["microseconds"]
