#!/usr/bin/env python3
"""Asks every question of the comparison, the contenders in turn round by round, and reports.

Run by scripts/bench, which builds what this needs. Documentation/performance.md explains the numbers.
"""

import contextlib
import os
import resource
import time
from pathlib import Path

from contenders import BY_NAME, LOGGING, OURS, Log, Server, finish, startup
from report import Growth, Limit, Question, Ratio, Sample, report

ROUNDS = 9
SECONDS = 0.15  # of measuring, per contender and round; a quarter of it before, to get warm
IN_FLIGHT = 64
USUAL_LENGTH = 40
LARGE_LENGTH = 1_000_000
LARGE_SERVERS = 4
STARTUPS = 20
REST = 10  # seconds without a system call


def threads_beside(processor):
    """The processors that share a core with this one, and it itself; {} when the kernel does not say."""
    path = Path(f"/sys/devices/system/cpu/cpu{processor}/topology/thread_siblings_list")
    found = set()
    for part in path.read_text().split(",") if path.exists() else ():
        first, _, last = part.partition("-")
        found |= set(range(int(first), int(last or first) + 1))
    return found


BARE, GATHERED, FAIR, SDBUS, BUS = "bare", "gathered", "fair", "sd-bus", "bus"
WAITING = [name for name in BY_NAME if name != GATHERED]  # gathering is for many in flight
FIRST, *OTHERS = sorted(os.sched_getaffinity(0))
# On another core, not another thread of the same; none when there is but one.
SECOND = next((other for other in OTHERS if other not in threads_beside(FIRST)), None)


def one_after_the_other(server, step, spread=1):
    (result,), cost = server.measure("latency", step, SECONDS, spread)
    return Sample(result["median"], p99=result["p99"], cost=cost * 1e6)


def in_flight(server, clients):
    results, cost = server.measure("throughput", SECONDS, IN_FLIGHT, USUAL_LENGTH, clients=clients)
    return Sample(sum(r["operations"] / r["seconds"] for r in results), cost=cost * 1e6)


def interleaved(subjects, measure, rounds=ROUNDS):
    """For each label of `subjects`, one sample per round."""
    samples = {label: [] for label in subjects}
    for _ in range(rounds):
        for label, subject in subjects.items():
            samples[label].append(measure(subject))
    return samples


@contextlib.contextmanager
def serving(names, processors, logs):
    """A server of each, by name, on these processors; those in `logs` log there."""
    os.sched_setaffinity(0, processors)
    with contextlib.ExitStack() as stack:
        yield {name: stack.enter_context(Server(BY_NAME[name], logs.get(name)))
               for name in names}


def compare_waiting(logs, where, servers_on, clients_on, decides):
    with serving(WAITING, servers_on, logs) as servers:
        os.sched_setaffinity(0, clients_on)
        yield Question(
            f"Retrieve, one client that waits, {where}", "µs",
            interleaved(servers, lambda s: one_after_the_other(s, "retrieve")),
            decides and [Ratio(FAIR, at_most=1.15), Ratio(SDBUS, at_most=1.0),
                         Ratio(BUS, at_most=0.45)])
        yield Question(
            f"Register, one client that waits, {where}", "µs",
            interleaved(servers, lambda s: one_after_the_other(s, "register")),
            decides and [Ratio(FAIR, at_most=1.2)])
        meeting = {name: servers[name] for name in (BARE, OURS)}
        for server in meeting.values():
            server.keep("host")
        yield Question(
            f"Connect, retrieve, connect to the endpoint, first message answered, {where}", "µs",
            interleaved(meeting, lambda s: one_after_the_other(s, "meet")),
            decides and [Ratio(BARE, at_most=1.5)])


def compare_in_flight(logs, where, processors, decides):
    with serving(BY_NAME, processors, logs) as servers:
        for clients in (1, 4):
            yield Question(
                f"Retrieve, {clients} client{'s' * (clients > 1)} with {IN_FLIGHT} in flight, {where}",
                "per second", interleaved(servers, lambda s, n=clients: in_flight(s, n)),
                decides and [Ratio(FAIR, at_least=0.7), Ratio(SDBUS, at_least=8),
                             Ratio(BUS, at_least=30), Ratio(SDBUS, at_most=0.4, of="cost")])


def compare_logs(logs):
    ours = BY_NAME[OURS]
    with Server(ours, logs[OURS]) as file, Server(ours) as nowhere:
        servers = {"to a file": file, "to nowhere": nowhere}
        yield Question("Logging: retrieve, one client that waits, one core", "µs",
                       interleaved(servers, lambda s: one_after_the_other(s, "retrieve")),
                       [Ratio("to nowhere", of_row="to a file", at_most=1.15)])
        yield Question(f"Logging: retrieve, {IN_FLIGHT} in flight, one core", "per second",
                       interleaved(servers, lambda s: in_flight(s, 1)),
                       [Ratio("to nowhere", of_row="to a file", at_least=0.75)])


def compare_large():
    def bytes_per_second(server):
        (result,), cost = server.measure("throughput", SECONDS, 1, LARGE_LENGTH)
        return Sample(result["operations"] * LARGE_LENGTH / result["seconds"] / 1e6, cost=cost * 1e6)

    # Where a process's memory happens to lie makes a difference, so there are several of each.
    samples = {BARE: [], OURS: []}
    for _ in range(LARGE_SERVERS):
        with serving(samples, {FIRST}, {}) as servers:
            for name, more in interleaved(servers, bytes_per_second).items():
                samples[name] += more
    yield Question("Retrieve with an identifier of 1 MB, one core, logging to nowhere", "MB/s", samples,
                   [Ratio(BARE, at_least=0.7)])


def compare_sizes(logs):
    """Whether the agent slows down as it fills, and what it keeps in memory."""
    # Every registration holds a descriptor of the agent's, and so does every connection.
    room = resource.getrlimit(resource.RLIMIT_NOFILE)[1] - 1000
    with contextlib.ExitStack() as stack:
        def servers(name, counts):
            return {f"{name} {n:,}": (stack.enter_context(Server(BY_NAME[name], logs[name])), n)
                    for n in counts}

        some = (10, 1_000, min(100_000, room))
        identifiers, floors = servers(OURS, some), servers(FAIR, some)
        connections = servers(OURS, (1, 1_000, 8_000))
        for server, count in [*identifiers.values(), *floors.values()]:
            server.populate(count)
        for server, count in connections.values():
            server.keep("idle", count)

        # Going through more descriptors takes the kernel more time, too: the floor shows how much.
        ours, floor = list(identifiers), list(floors)
        yield Question(
            "Retrieve, one client that waits, by number of identifiers, one core", "µs",
            interleaved(identifiers | floors,
                        lambda s: one_after_the_other(s[0], "retrieve", spread=s[1])),
            [Growth((ours[0], ours[-1]), (floor[0], floor[-1]), at_most=1.1)])
        few, *_, many = connections
        yield Question(
            "Retrieve, one client that waits, by number of idle connections, one core", "µs",
            interleaved(connections, lambda s: one_after_the_other(s[0], "retrieve")),
            [Ratio(few, of_row=many, at_most=1.15)])

        def bytes_each(subjects):
            (less, less_count), *_, (more, more_count) = subjects.values()
            grown = more.private_memory() - less.private_memory()
            return grown * 1024 / (more_count - less_count)

        per_connection, per_identifier = bytes_each(connections), bytes_each(identifiers)
        yield Question("Private resident memory of the agent", "bytes", {
            "per idle connection": [Sample(per_connection)],
            f"per identifier of {USUAL_LENGTH} bytes": [Sample(per_identifier)],
        }, [Limit("per idle connection", per_connection, 4096),
            Limit("per identifier", per_identifier, 400)])


def compare_memory_at_start(logs):
    """Asked first: pages of files count as private only while no second process maps them."""
    at_start = {}
    for name in (OURS, BUS):
        with Server(BY_NAME[name], logs.get(name)) as server:
            finish(server.work("idle", 1))
            at_start[name] = server.private_memory()
    yield Question("Private resident memory after the first request", "KiB",
                   {name: [Sample(size)] for name, size in at_start.items()},
                   [Limit("gantrel", at_start[OURS], at_start[BUS] + 4096)])


def compare_startup(logs):
    yield Question(
        "From exec to the first answered request, one core", "ms",
        interleaved({name: BY_NAME[name] for name in WAITING},
                    lambda c: Sample(startup(c, logs.get(c.name)) / 1000), STARTUPS),
        [Ratio(BUS, at_most=1.5)])


def questions(logs):
    os.sched_setaffinity(0, {FIRST})
    yield from compare_memory_at_start(logs)
    with Server(BY_NAME[OURS], logs[OURS]) as resting:
        resting.keep("idle", 1)
        yield from compare_waiting(logs, "one core", {FIRST}, {FIRST}, decides=True)
        # All else is measured while this agent rests: what used no processor made no system call.
        start, used = time.monotonic(), resting.processor_time()
        yield from compare_in_flight(logs, "one core", {FIRST}, decides=True)
        if SECOND is not None:
            yield from compare_waiting(logs, "server and client on a core each", {FIRST}, {SECOND},
                                       decides=False)
            yield from compare_in_flight(logs, "two cores", {FIRST, SECOND}, decides=False)
        os.sched_setaffinity(0, {FIRST})
        yield from compare_startup(logs)
        yield from compare_logs(logs)
        yield from compare_large()
        yield from compare_sizes(logs)
        time.sleep(max(0, start + REST - time.monotonic()))
        used = (resting.processor_time() - used) * 1e6
    yield Question(f"At rest, for {REST} seconds or longer", "µs of processor time", {
        OURS: [Sample(used)]}, [Limit("processor time at rest, µs", used, 0)])
    yield Question("Log lines dropped", "lines",
                   {f"{name}'s log": [Sample(log.dropped)] for name, log in logs.items()},
                   [Limit(f"lines that {name} dropped", log.dropped, 0) for name, log in logs.items()])


if __name__ == "__main__":
    for contender in BY_NAME.values():
        print(f"{contender.name:>9}  {contender.title}")
    report(questions({name: Log() for name in LOGGING}), ROUNDS)
