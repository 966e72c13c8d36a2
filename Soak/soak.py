"""Dozens of applications register, replace, remove and talk to each other at random. They are killed and
restarted at random, and so is the agent. A model knows what each answer may be.

Run by scripts/soak. Exit status 0 when no answer was wrong, every registration came back in time, and nothing
grew."""

import contextlib
import os
import random
import selectors
import statistics
import subprocess
import sys
import tempfile
import time

from agent_test_case import AGENT, PATIENCE, SERVICE, Connection, eventually, memory, open_descriptors

APPLICATIONS = 24
IDENTIFIERS = 4  # of each application; nobody else registers or removes them
IN_TIME = 1.0  # seconds from an agent's start until every registration is back
MOST_GROWTH = 8 << 20  # bytes, of a process
MOST_BESIDE = 12  # descriptors of an application that are not its listeners'
SEED = 1


class Entry:
    """What an identifier stands for. `possible` are the answers that a question may get now: a listener's name,
    "nil" or "gone". A question that is under way may get whatever became possible since it was asked."""

    def __init__(self):
        self.possible = {"nil"}
        self.registered = None  # the name of the listener that its owner wants known
        self.questions = []

    def may_be(self, *answers):
        for answers_possible in self.possible, *self.questions:
            answers_possible.update(answers)

    def is_now(self, answer):
        self.may_be(answer)
        self.possible = {answer}

    def owner_died(self):
        self.may_be(*("nil" if answer == "nil" else "gone" for answer in self.possible))
        self.possible &= {"nil", "gone"}
        self.registered = None


class Application:
    def __init__(self, executable, identifiers):
        self.executable, self.entries = executable, {identifier: Entry() for identifier in identifiers}
        self.start()

    def start(self):
        self.process = subprocess.Popen([self.executable], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.request = None

    def kill(self):
        self.process.kill()
        self.process.communicate()
        if self.request:
            self.request.end()
        for entry in self.entries.values():
            entry.owner_died()
        self.start()


class Request:
    def __init__(self, application, word, identifier, entry, agent):
        self.word, self.identifier, self.entry, self.agent = word, identifier, entry, agent
        self.allowed = set(entry.possible)
        if word == "ask":
            entry.questions.append(self.allowed)
        application.request = self
        application.process.stdin.write(f"{word} {identifier}\n")
        application.process.stdin.flush()

    def end(self):
        self.entry.questions = [each for each in self.entry.questions if each is not self.allowed]


class Soak:
    def __init__(self, folder, executable):
        self.path = os.path.join(folder, "gantrel", SERVICE + ".socket")
        self.random = random.Random(SEED)
        self.requests = self.deaths = 0
        self.wrong, self.recoveries = [], []
        self.known_agent = self.start_agent()  # none while one may be away
        assert eventually(self.is_agent_there)
        self.applications = [Application(executable, [f"a{number}.{i}" for i in range(IDENTIFIERS)])
                             for number in range(APPLICATIONS)]
        self.entries = {name: entry for each in self.applications for name, entry in each.entries.items()}

    def start_agent(self):
        self.agent = subprocess.Popen([AGENT], stderr=subprocess.DEVNULL)
        return self.agent

    def processes(self):
        return [self.agent, *(application.process for application in self.applications)]

    def close(self):
        for process in self.processes():
            process.kill()

    def ask_something(self, application):
        chance = self.random.random()
        if chance < 0.6:
            identifier, entry = self.random.choice(list(self.entries.items()))
            Request(application, "ask", identifier, entry, self.known_agent)
            return
        identifier, entry = self.random.choice(list(application.entries.items()))
        if chance < 0.9:
            Request(application, "offer", identifier, entry, self.known_agent)
        else:
            entry.may_be("nil", "gone")
            entry.registered = None
            Request(application, "remove", identifier, entry, self.known_agent)

    def take_answer(self, application):
        answer, request = application.process.stdout.readline().strip(), application.request
        entry = request.entry
        is_same_agent = request.agent is not None and request.agent is self.known_agent
        application.request = None
        request.end()
        self.requests += 1
        if answer == "none" and not is_same_agent:
            return
        if request.word == "offer":
            entry.may_be(answer, "gone")
            entry.registered = answer
            Request(application, "register", request.identifier, entry, self.known_agent)
        elif request.word == "ask":
            if answer not in request.allowed:
                self.wrong.append(f"{request.identifier} is {answer!r}, not {request.allowed}")
        elif answer not in ["registered", "removed"]:
            self.wrong.append(f"{request.word} {request.identifier}: {answer!r}")
        elif is_same_agent:
            entry.is_now(entry.registered or "nil")

    def take_answers(self, patience=PATIENCE):
        with selectors.DefaultSelector() as selector:
            for application in self.applications:
                if application.request:
                    selector.register(application.process.stdout, selectors.EVENT_READ, application)
            for key, _ in selector.select(patience):
                self.take_answer(key.data)

    def take_all_answers(self):
        while any(application.request for application in self.applications):
            self.take_answers()

    def bustle(self, until, kill_chance=0.002):
        while time.monotonic() < until:
            for application in self.applications:
                if not application.request:
                    self.ask_something(application)
            if self.random.random() < kill_chance:
                self.random.choice(self.applications).kill()
                self.deaths += 1
            self.take_answers()

    def kill_agent(self):
        """Kills it, and starts another one a moment later; waits until every registration is back."""
        self.known_agent = None
        self.agent.kill()
        self.agent.wait()
        for entry in self.entries.values():
            entry.may_be("nil")
        self.take_answers(patience=self.random.random() / 10)
        start = time.monotonic()
        self.start_agent()
        self.take_all_answers()
        self.expect_registrations()
        self.known_agent = self.agent
        self.recoveries.append(time.monotonic() - start)

    def expect_registrations(self):
        def is_known(identifier, entry):
            return connection.retrieve(identifier) == (entry.registered and int(entry.registered))

        assert eventually(self.is_agent_there)
        connection = Connection(self.path)
        for identifier, entry in self.entries.items():
            assert eventually(lambda: is_known(identifier, entry)), f"{identifier} is not {entry.registered}"
            entry.is_now(entry.registered or "nil")

    def is_agent_there(self):
        try:
            return Connection(self.path)
        except OSError:
            return False


def threads(process):
    return len(os.listdir(f"/proc/{process.pid}/task"))


def main(executable, seconds):
    with tempfile.TemporaryDirectory() as folder:
        os.environ["XDG_RUNTIME_DIR"] = folder
        with contextlib.closing(Soak(folder, executable)) as soak:
            return is_sound(soak, folder, seconds)


def is_sound(soak, folder, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end - seconds / 3:
        soak.bustle(time.monotonic() + soak.random.random() / 2)
        soak.kill_agent()
    # The last third belongs to one agent, and to applications that live, to see whether they grow.
    processes = soak.processes()
    soak.bustle(time.monotonic() + seconds / 15, kill_chance=0)
    before = [memory(process) for process in processes]
    soak.bustle(end, kill_chance=0)
    soak.take_all_answers()
    soak.expect_registrations()
    growth = max(memory(process) - size for process, size in zip(processes, before))
    listeners = sum(entry.registered is not None for entry in soak.entries.values())
    left = set(os.listdir(os.path.join(folder, "gantrel"))) - {f"{SERVICE}.{end}" for end in ["socket", "lock"]}

    def beside_listeners(application):
        own = sum(entry.registered is not None for entry in application.entries.values())
        return open_descriptors(application.process) - 2 * own

    beside = max(map(beside_listeners, soak.applications))
    print(f"{soak.requests} requests, {len(soak.wrong)} answered wrongly; {soak.deaths} applications killed")
    in_time = sum(recovery <= IN_TIME for recovery in soak.recoveries)
    print(f"{len(soak.recoveries)} agents killed; every registration back within {IN_TIME:.0f} s of the next "
          f"start: {in_time} (median {statistics.median(soak.recoveries) * 1000:.0f} ms, worst "
          f"{max(soak.recoveries) * 1000:.0f} ms)")
    print(f"growth at most {growth >> 10} KiB; {open_descriptors(soak.agent)} descriptors in the agent for "
          f"{listeners} registrations and {APPLICATIONS} applications; at most {beside} in an application beside "
          f"its listeners'; at most {max(map(threads, processes))} threads; files left behind: {len(left)}")
    for sentence in soak.wrong[:10]:
        print("wrong:", sentence)
    is_in_time = in_time == len(soak.recoveries)
    return not soak.wrong and is_in_time and growth <= MOST_GROWTH and beside <= MOST_BESIDE and not left


if __name__ == "__main__":
    sys.exit(0 if main(sys.argv[1], float(sys.argv[2])) else 1)
