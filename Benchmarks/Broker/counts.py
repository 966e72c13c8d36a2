#!/usr/bin/env python3
"""Counts what a request costs the serving and the asking process, whoever else uses the machine meanwhile:
instructions, allocations, locked mutexes and system calls.

    counts.py [CONTENDER...]

Run by `scripts/bench counts`. Each side runs under callgrind for a few requests, and again for many: what the
many cost more, divided by how many more they are, is a request's cost, without that of start and end. It
counts all threads, so the one that writes the log, too.
"""

import collections
import json
import os
import shutil
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path

from contenders import BUILD, BY_NAME, LOGGING, OURS, Log, Server, finish, results_of
from report import Limit, aligned, goal_lines, machine

FEW, MANY = 500, 6_500
IN_FLIGHT = 64

ALLOCATING = ("malloc", "calloc", "realloc", "aligned_alloc", "memalign", "posix_memalign")  # new calls malloc
LOCKING = ("pthread_mutex_lock", "pthread_mutex_trylock", "pthread_rwlock_rdlock", "pthread_rwlock_wrlock",
           "pthread_spin_lock")

SIDES = ("server", "client")
COLUMNS = ("instructions", "allocations", "mutexes", "system calls")


@dataclass(frozen=True)
class Step:
    name: str  # as Worker.cpp knows it
    title: str
    takers: tuple
    instructions: tuple  # at most so many of each side of the agent's
    runs: int  # with few requests and with many; the least counts


STEPS = (
    Step("retrieve", "retrieve, one client that waits", ("bare", "fair", OURS), (3_000, 2_400), runs=1),
    Step("register", "register, one client that waits", ("bare", "fair", OURS), (3_400, 2_400), runs=1),
    # How many arrive together is a matter of time: what disturbs it only adds.
    Step("flight", f"retrieve, {IN_FLIGHT} in flight", ("gathered", "fair", OURS), (2_000, 1_400), runs=4),
)
MOST_ALLOCATIONS, MOST_MUTEXES = 2, 5  # of the agent's, a request and side


def totals(profile):
    """The COLUMNS of a process, from what callgrind wrote about it."""
    names, calls = {}, collections.Counter()
    instructions = system_calls = clock_readings = 0
    function = callee = ""
    is_inclusive = False  # whether the next line of costs is a callee's, which has lines of its own
    for line in profile.read_text().splitlines():
        key, _, value = line.partition("=")
        if key in ("fn", "cfn"):
            number, _, name = value.partition(" ")
            if name:
                names[number] = name.partition("@")[0]
            if key == "fn":
                function = names[number]
            else:
                callee = names[number]
        elif key == "calls":
            calls[callee] += int(value.split()[0])
            is_inclusive = True
        elif line[:1].isdigit() or line[:1] in ("+", "-", "*"):
            costs = [int(cost) for cost in line.split()[1:]]
            if not is_inclusive and len(costs) > 1 and function == "clock_gettime":
                clock_readings += costs[1]
            is_inclusive = False
        elif line.startswith("totals:"):
            instructions, system_calls = map(int, line.split()[1:3])
    # The kernel's clock is read without a system call, except under callgrind, which hides it.
    return (instructions, sum(calls[name] for name in ALLOCATING), sum(calls[name] for name in LOCKING),
            system_calls - clock_readings)


def run(contender, step, count, log, folder):
    """How many requests there were, and the totals of both sides."""
    valgrind = shutil.which("valgrind") or sys.exit("valgrind is missing; scripts/bench installs it")
    under = (valgrind, "--tool=callgrind", "--collect-systime=yes", f"--callgrind-out-file={folder}/%p",
             f"--log-file={folder}/%p.log")
    with Server(contender, log, under) as server:
        client = server.work("exactly", step.name, count, IN_FLIGHT)
        (result,) = results_of([client])
        finish(client)
        (serving,) = server.processes
        serving.terminate()
        serving.wait()
    lines = Path(log.file.name).read_bytes().count(b"ListenerEndpoint forIdentifier=")
    # The last ones may have been waiting to be written when it ended.
    if contender.name in LOGGING and lines < 0.9 * count:
        sys.exit(f"{contender.name} was asked {count} times and logged {lines} lines")
    log.inspect()
    return result["operations"], [totals(Path(folder, str(process.pid))) for process in (serving, client)]


def each(contender, step, log):
    """What one request costs each side, in the order of COLUMNS."""
    runs = []
    with tempfile.TemporaryDirectory(prefix="gantrel-bench-") as folder:
        for _ in range(step.runs):
            (few, base), (many, whole) = (run(contender, step, count, log, folder) for count in (FEW, MANY))
            runs.append([[(more - less) / (many - few) for more, less in zip(*side)]
                         for side in zip(whole, base)])
    return {side: [min(figures) for figures in zip(*of_runs)]
            for side, of_runs in zip(SIDES, zip(*runs))}


def goals(costs, instructions):
    for side, most in zip(SIDES, instructions):
        figures = dict(zip(COLUMNS, costs[side]))
        for column, bound in (("instructions", most), ("allocations", MOST_ALLOCATIONS),
                              ("mutexes", MOST_MUTEXES)):
            yield Limit(f"{side}: {column}", figures[column], bound).judge(None)


def main(names):
    for name in set(names) - {name for step in STEPS for name in step.takers}:
        sys.exit(f"{name} is not counted")
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
    log = Log()
    where = machine()
    steps = []
    for step in STEPS:
        costs = {name: each(BY_NAME[name], step, log) for name in step.takers if name in names or not names}
        judged = list(goals(costs[OURS], step.instructions)) if OURS in costs else []
        steps.append({"title": step.title, "costs": costs, "goals": judged})
        lines = [("", *COLUMNS)]
        for name, sides in costs.items():
            lines += [(f"{name} {side}", f"{figures[0]:,.0f}", *(f"{figure:.2f}" for figure in figures[1:]))
                      for side, figures in sides.items()]
        print(f"A request's cost: {step.title}", *aligned(lines), *goal_lines(judged), "", sep="\n", flush=True)
    results = {"machine": where, "columns": COLUMNS, "steps": steps}
    (BUILD / "counts.json").write_text(json.dumps(results, indent=1, ensure_ascii=False) + "\n")
    missed = sum(not goal["met"] for step in steps for goal in step["goals"])
    print(f"{missed} goals missed; all figures in {BUILD}/counts.json")


if __name__ == "__main__":
    main(sys.argv[1:])
