#!/usr/bin/env python3
"""Asks every question of the comparison, the contenders in turn round by round, and reports.

Run by scripts/bench, which builds what this needs. Documentation/performance.md explains the numbers.
"""

import contextlib
import os
import resource
import time

from contenders import BY_NAME, LOGGING, OURS, Log, Server, finish, startup
from report import Limit, Question, Ratio, Sample, report

ROUNDS = 9
SECONDS = 0.15  # of measuring, per contender and round; a quarter of it before, to get warm
IN_FLIGHT = 64
USUAL_LENGTH = 40
LARGE_LENGTH = 1_000_000
STARTUPS = 20
REST = 10  # seconds without a system call

FLOOR, GATHERED, SDBUS, BUS = "bare", "bare-gathered", "sd-bus", "bus"
WAITING = [name for name in BY_NAME if name != GATHERED]  # gathering is for many in flight
FIRST, *OTHERS = sorted(os.sched_getaffinity(0))
SECOND = OTHERS[0] if OTHERS else FIRST


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
def serving(names, processors, log=None):
    """A server of each, by name, on these processors; those that log do so to `log`."""
    os.sched_setaffinity(0, processors)
    with contextlib.ExitStack() as stack:
        yield {name: stack.enter_context(Server(BY_NAME[name], log if name in LOGGING else None))
               for name in names}


def compare_waiting(log, where, servers_on, clients_on, decides):
    with serving(WAITING, servers_on, log) as servers:
        os.sched_setaffinity(0, clients_on)
        yield Question(
            f"Retrieve, one client that waits, {where}", "µs",
            interleaved(servers, lambda s: one_after_the_other(s, "retrieve")),
            decides and [Ratio(FLOOR, at_most=1.2), Ratio(SDBUS, at_most=1.0),
                         Ratio(BUS, at_most=0.45)])
        yield Question(
            f"Register, one client that waits, {where}", "µs",
            interleaved(servers, lambda s: one_after_the_other(s, "register")),
            decides and [Ratio(FLOOR, at_most=1.25)])
        meeting = {name: servers[name] for name in (FLOOR, OURS)}
        for server in meeting.values():
            server.keep("host")
        yield Question(
            f"Connect, retrieve, connect to the endpoint, first message answered, {where}", "µs",
            interleaved(meeting, lambda s: one_after_the_other(s, "meet")),
            decides and [Ratio(FLOOR, at_most=1.5)])


def compare_in_flight(log, where, processors, decides):
    with serving(BY_NAME, processors, log) as servers:
        for clients in (1, 4):
            yield Question(
                f"Retrieve, {clients} client{'s' * (clients > 1)} with {IN_FLIGHT} in flight, {where}",
                "per second", interleaved(servers, lambda s, n=clients: in_flight(s, n)),
                decides and [Ratio(SDBUS, at_least=5), Ratio(GATHERED, at_least=0.6),
                             Ratio(SDBUS, at_most=0.4, of="cost")])


def compare_logs(log):
    ours = BY_NAME[OURS]
    with Server(ours, log) as file, Server(ours) as nowhere:
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

    with serving((FLOOR, OURS), {FIRST}) as servers:
        yield Question("Retrieve with an identifier of 1 MB, one core, logging to nowhere", "MB/s",
                       interleaved(servers, bytes_per_second), [Ratio(FLOOR, at_least=0.5)])


def compare_sizes(log):
    """Whether the agent slows down as it fills, and what it keeps in memory."""
    # Every registration holds a descriptor of the agent's, and so does every connection.
    room = resource.getrlimit(resource.RLIMIT_NOFILE)[1] - 1000
    with contextlib.ExitStack() as stack:
        identifiers = {f"{n:,}": (stack.enter_context(Server(BY_NAME[OURS], log)), n)
                       for n in (10, 1_000, min(100_000, room))}
        connections = {f"{n:,}": (stack.enter_context(Server(BY_NAME[OURS], log)), n)
                       for n in (1, 1_000, 8_000)}
        for server, count in identifiers.values():
            server.populate(count)
        for server, count in connections.values():
            server.keep("idle", count)

        for what, subjects, spreads in (("identifiers", identifiers, True),
                                        ("idle connections", connections, False)):
            labels = list(subjects)
            yield Question(
                f"Retrieve, one client that waits, by number of {what}, one core", "µs",
                interleaved(subjects, lambda s: one_after_the_other(
                    s[0], "retrieve", spread=s[1] if spreads else 1)),
                [Ratio(labels[0], of_row=labels[-1], at_most=1.15)])

        def bytes_each(subjects):
            (few, few_count), *_, (many, many_count) = subjects.values()
            grown = many.private_memory() - few.private_memory()
            return grown * 1024 / (many_count - few_count)

        per_connection, per_identifier = bytes_each(connections), bytes_each(identifiers)
        yield Question("Private resident memory of the agent", "bytes", {
            "per idle connection": [Sample(per_connection)],
            f"per identifier of {USUAL_LENGTH} bytes": [Sample(per_identifier)],
        }, [Limit("per idle connection", per_connection, 4096),
            Limit("per identifier", per_identifier, 400)])


def compare_memory_at_start(log):
    """Asked first: pages of files count as private only while no second process maps them."""
    at_start = {}
    for name in (OURS, BUS):
        with Server(BY_NAME[name], log) as server:
            finish(server.work("idle", 1))
            at_start[name] = server.private_memory()
    yield Question("Private resident memory after the first request", "KiB",
                   {name: [Sample(size)] for name, size in at_start.items()},
                   [Limit("gantrel", at_start[OURS], at_start[BUS] + 4096)])


def compare_startup(log):
    yield Question(
        "From exec to the first answered request, one core", "ms",
        interleaved({name: BY_NAME[name] for name in WAITING},
                    lambda c: Sample(startup(c, log) / 1000), STARTUPS),
        [Ratio(BUS, at_most=1.5)])


def questions(log):
    both = {FIRST, SECOND}
    os.sched_setaffinity(0, {FIRST})
    yield from compare_memory_at_start(log)
    with Server(BY_NAME[OURS], log) as resting:
        resting.keep("idle", 1)
        yield from compare_waiting(log, "one core", {FIRST}, {FIRST}, decides=True)
        # All else is measured while this agent rests: what used no processor made no system call.
        start, used = time.monotonic(), resting.processor_time()
        yield from compare_in_flight(log, "one core", {FIRST}, decides=True)
        yield from compare_waiting(log, "server and client on a core each", {FIRST}, {SECOND},
                                   decides=False)
        yield from compare_in_flight(log, "two cores", both, decides=False)
        os.sched_setaffinity(0, {FIRST})
        yield from compare_startup(log)
        yield from compare_logs(log)
        yield from compare_large()
        yield from compare_sizes(log)
        time.sleep(max(0, start + REST - time.monotonic()))
        used = (resting.processor_time() - used) * 1e6
    yield Question(f"At rest, for {REST} seconds or longer", "µs of processor time", {
        OURS: [Sample(used)]}, [Limit("processor time at rest, µs", used, 0)])
    yield Question("The agent's log", "times", {
        "said that lines were dropped": [Sample(log.dropped)]},
        [Limit("dropped log lines", log.dropped, 0)])


if __name__ == "__main__":
    report(questions(Log()), ROUNDS)
