"""The command `gantrel`, run as people and scripts run it, beside a real agent that logs to a file."""

import json
import os
import pty
import resource
import select
import signal
import socket
import struct
import subprocess
import threading
import time
import unittest

import gantrel
from agent_test_case import *

GANTREL = os.environ["GANTREL_TOOL"]
EXAMPLES = os.environ["GANTREL_EXAMPLES"]  # the folder with MainApp.app
SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
MAIN_APP = "com.gantrel.Gantrel"
FETCH = "fetchUpcomingMeetings:"
REGISTERED = "registerListenerEndpoint(_:forIdentifier:completionHandler:)"
REGISTRATION = "2026-03-05T14:07:00.000000Z registerListenerEndpoint forIdentifier=%s (GantrelAgent/Agent:57 " + \
    REGISTERED + ")\n"


class Gantrel(AgentTestCase):
    def setUp(self):
        super().setUp()
        name = os.path.join(self.folder, "raw")
        self.socket = self.enterContext(socket.socket(socket.AF_UNIX))
        self.socket.bind(name)
        self.endpoint = os.open(name, os.O_PATH | os.O_CLOEXEC)
        self.addCleanup(os.close, self.endpoint)
        self.socket.listen()
        self.log = os.path.join(self.folder, "log")
        with open(self.log, "ab") as log:
            self.start_agent(stderr=log)

    def start(self, *arguments, program=GANTREL, **options):
        pipes = {name: subprocess.PIPE for name in ("stdin", "stdout", "stderr")}
        process = self.enterContext(subprocess.Popen([program, *arguments], **{**pipes, **options}))
        self.addCleanup(process.kill)
        return process

    def run_tool(self, *arguments, input=b""):
        """Status, standard output, and what went to standard error."""
        done = subprocess.run([GANTREL, *arguments], input=input, capture_output=True, timeout=PATIENCE)
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    def assert_fails(self, status, sentence, *arguments):
        told, output, error = self.run_tool(*arguments)
        self.assertEqual((told, output), (status, ""), error)
        self.assertRegex(error, rf"\Agantrel: [^\n]*{sentence}[^\n]*\.\n\Z")

    def assert_misunderstands(self, listening, answer, sentence, *arguments):
        caller = self.start(*arguments)
        while not (peer := listening.accept()[0]).recv(1):  # a look at whether somebody is there
            pass
        peer.sendall(answer)
        peer.shutdown(socket.SHUT_WR)
        self.assertEqual((caller.wait(PATIENCE), caller.stdout.read()), (5, b""))
        self.assertIn(sentence.encode(), caller.stderr.read())

    def serve(self, identifier, *command, **options):
        server = self.start("serve", identifier, *command, **options)
        self.assertIn(b"serves", server.stderr.readline())
        return server

    def test_lists_a_thousand_entries_whatever_they_are_called_and_who_serves_them(self):
        connection = Connection(self.path)
        names = [f"n{i:04}" for i in range(995)] + ["$(>hole)", "", "\0\t\x1b[31m\\", "-f\u3164", "cafe\u0301"]
        for name in names:
            self.assertTrue(self.register(connection, name))
        self.assertTrue(eventually(lambda: "cafe\u0301" in open(self.log, encoding="utf-8").read()))
        with open(self.log, "ab") as log:  # what is damaged is passed over
            log.write(b"\xff\xfe (GantrelAgent/Agent:57 x)\n" + (REGISTRATION % "a\\xff").encode() + b"unfinished")
        began = time.monotonic()
        status, output, _ = self.run_tool("list", "--log", self.log)
        print(f"\nlist of 1,000 entries: {time.monotonic() - began:.2f} s")
        rows = [line.split("\t") for line in output.splitlines()]
        self.assertEqual(status, 0)
        shown = ["\\u{}", "\\x00\\x09\\x1b[31m\\\\", "\\x2df\\u{3164}", "cafe\u0301"]
        self.assertEqual(sorted(row[0] for row in rows), sorted(names[:-4] + shown))
        name = open("/proc/self/comm").read().strip()
        self.assertEqual({tuple(row[1:]) for row in rows}, {("served", str(os.getpid()), name, "-")})
        listed = json.loads(self.run_tool("list", "--json", "--log", self.log)[1])
        self.assertEqual({entry["identifier"] for entry in listed}, set(names))
        completed = subprocess.run(
            ["bash", "-c", r"""program=$0 log=$2; _init_completion() { words=(gantrel find --json) cword=3 cur='\$'; }
             __ltrim_colon_completions() { :; }; gantrel() { "$program" "$@" --log "$log"; }
             source "$1"; _gantrel; echo "${COMPREPLY[@]}" """, GANTREL, SOURCE + "/Packaging/completion/gantrel", self.log],
            cwd=self.folder, stdout=subprocess.PIPE).stdout
        self.assertEqual((completed, os.path.exists(self.folder + "/hole")), (b"\\$\\(\\>hole\\)\n", False))
        # Looking has not connected: nobody waits to be accepted. What is shown can be typed.
        self.socket.setblocking(False)
        self.assertRaises(BlockingIOError, self.socket.accept)
        self.socket.listen(0)
        waiting = [Connection(f"/proc/self/fd/{self.endpoint}")]
        for identifier in *shown, "caf\u00e9":
            self.assertEqual(self.run_tool("find", identifier)[:2],
                             (6, "\t".join([identifier, "not answering", str(os.getpid()), name, "-"]) + "\n"))
        del waiting
        self.socket.close()
        self.assertEqual(self.run_tool("find", "n0000")[:2], (2, "n0000\tgone\t-\t-\t-\n"))
        self.assertEqual([self.run_tool("remove", "n0000")[0] for _ in range(2)], [0, 1])

    def test_learns_from_the_journal_what_this_users_agent_has_registered_since_it_last_started(self):
        connection = Connection(self.path)
        entries = []

        def add(function, message, user=os.getuid(), program="GantrelAgent"):
            entries.append(b"".join(f"{field}\n".encode() for field in (
                f"__REALTIME_TIMESTAMP={1700000000000000 + len(entries)}", f"__MONOTONIC_TIMESTAMP={len(entries) + 1}",
                "_BOOT_ID=0123456789abcdef0123456789abcdef", f"_UID={user}", f"_COMM={program}",
                "CODE_FILE=GantrelAgent/Agent", f"CODE_FUNC={function}", "MESSAGE"))
                + struct.pack("<Q", len(message)) + message + b"\n\n")

        def add_registration(identifier, **fields):
            self.assertTrue(self.register(connection, identifier.decode(errors="replace")))
            add(REGISTERED, b"registerListenerEndpoint forIdentifier=" + identifier, **fields)

        add_registration(b"before")
        add("resume()", b"Agent resume")
        for identifier in b"", b"a\0\n", b"twice", b"\xff", b"twice":
            add_registration(identifier)
        add("init(serviceName:)", b"Agent init of a second one")
        add_registration(b"another's", user=os.getuid() + 1)
        add_registration(b"forged", program="sh")
        journal = os.path.join(self.folder, "journal")
        os.mkdir(journal)
        subprocess.run(["/lib/systemd/systemd-journal-remote", "--output", journal + "/x.journal", "-"],
                       input=b"".join(entries), check=True, capture_output=True)
        rows = self.run_tool("list", "--log", journal)[1].splitlines()
        self.assertEqual([row.split("\t")[0] for row in rows], ["\\u{}", "a\\x00\\x0a", "twice"])

    def test_says_in_one_sentence_what_is_wrong_and_in_the_status_what_kind_it_is(self):
        main = self.start(os.path.join(SOURCE, "Examples/MainApp/Meetings.plist"),
                          program=os.path.join(EXAMPLES, "MainApp.app/Contents/Linux/MainApp"))
        main.stdout.readline()
        idle = open_descriptors(self.agent)
        meetings = json.loads(self.run_tool("call", MAIN_APP, FETCH)[1])
        self.assertEqual(meetings[0], {"id": "weekly", "title": "Weekly planning", "start": "date:2035-03-05T14:07:00Z"})
        self.assertRegex(self.run_tool("find", MAIN_APP)[1],
                         rf"^{MAIN_APP}\tserved\t{main.pid}\tMainApp\t{MAIN_APP}\n$")
        self.assertEqual(self.run_tool("send", MAIN_APP, "openMeetingWithId:", "text:review")[0], 0)
        self.assertEqual(main.stdout.readline() + main.stdout.readline(),
                         b"answers 3 upcoming meetings\nopens meeting review: Year-end review\n")
        for status, sentence, *arguments in [
            (1, "nothing is registered as no.x1b", "find", "no\\x1b"),
            (4, "refused", "call", MAIN_APP, "unknown:"),
            (64, "no option --bogus", "call", "--bogus", MAIN_APP, FETCH),
            (4, "refused", "call", MAIN_APP, FETCH + "x:", "1"),
            (7, "in the journal of /", "list", "--log", self.folder),
            (7, "No such file", "monitor", "--log", "/nowhere"),
            (7, "no line of the agent", "list", "--log", __file__),
            (7, "neither a file nor", "wait", "--log", "/dev/null", "x"),
            (64, "gantrel --help", "find", "a", "b"),
            (64, "no command or option nope", "nope"),
            (64, "gantrel call .OPTIONS. ID SELECTOR", "call", "a"),
            (65, "a colon for each", "call", MAIN_APP, FETCH, "1"),
            (65, "no JSON from byte 3 on", "send", MAIN_APP, "openMeetingWithId:", '"x'),
            (4, "refused", "call", MAIN_APP, "a::", "[" * 32 + "]" * 32),
            (65, "nested", "call", MAIN_APP, "a::", "[" * 33 + "]" * 33),
            (65, "no date", "send", MAIN_APP, "a:", "date:2026-03-05T14:07:60Z"),
            (65, "no date", "send", MAIN_APP, "a:", "date:2026-02-30T14:07:00Z"),
            (65, "a key twice", "send", MAIN_APP, "a:", '[{"a": {"a": 1}, "e\u0301": 1, "\u00e9": 2}]'),
            *((64, "plain number", "find", "--timeout", wrong, "a") for wrong in ("nan", "inf", "0x5", "-1", "0", "1e3")),
            (65, "larger", "send", MAIN_APP, "a:", json.dumps(["endpoint:" + MAIN_APP] * 254)),
            (65, "UTF-8", "call", MAIN_APP, "a::", b'"\xff"'),
            (65, "UTF-8", "find", b"\xff"),
            (65, "backslash", "find", "\\q"),
            (126, "may not be run", "serve", "a", SOURCE + "/README.md"),
            (127, "no command", "serve", "a", "/nowhere"),
            (127, "no command", "serve", "a", ""),
        ]:
            self.assert_fails(status, sentence, *arguments)
        for arguments in ["--help"], ["find", MAIN_APP], ["monitor", "--log", self.log]:
            with open("/dev/full", "wb") as full:
                unread = self.start(*arguments, stdout=full)
            while unread.poll() is None:  # something for the monitor to tell
                self.run_tool("find", MAIN_APP)
            self.assertEqual(unread.returncode, 74)
            self.assertRegex(unread.stderr.read(), rb"\Agantrel: standard output cannot be written: [^\n]*\.\n\Z")
        self.assertTrue(eventually(lambda: open_descriptors(self.agent) == idle))
        most = resource.prlimit(self.agent.pid, resource.RLIMIT_NOFILE)
        free = min(set(range(idle + 1)) - {int(number) for number in os.listdir(f"/proc/{self.agent.pid}/fd")})
        resource.prlimit(self.agent.pid, resource.RLIMIT_NOFILE, (free + 1, most[1]))  # a connection, and no endpoint
        self.assert_fails(4, "refused to register full", "serve", "full", "cat")
        resource.prlimit(self.agent.pid, resource.RLIMIT_NOFILE, most)
        main.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, main.pid, os.WSTOPPED)
        self.assert_fails(6, "in time", "call", "--timeout", "0.1", MAIN_APP, FETCH)
        self.assert_fails(6, "in time", "send", "--timeout", "0.1", MAIN_APP, "createNewMeeting")
        main.kill()
        main.wait()
        self.assert_fails(2, "gone", "call", MAIN_APP, FETCH)
        self.register(Connection(self.path), "own")
        self.assert_misunderstands(self.socket, b"", "ended", "call", "own", FETCH)
        server = self.serve("kept", "cat")
        self.agent.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.agent.pid, os.WSTOPPED)
        server.send_signal(signal.SIGINT)
        self.assertEqual(server.wait(PATIENCE), 6)
        self.assertIn(b"entry kept could not be removed: the agent runs", server.stderr.read())
        self.assert_fails(6, "in time: the agent runs", "wait", "--timeout", "0.1", "x")
        self.agent.kill()
        self.agent.wait()
        self.assert_fails(3, "not running", "call", MAIN_APP, FETCH)
        os.unlink(self.path)
        with socket.socket(socket.AF_UNIX) as false_agent:
            false_agent.bind(self.path)
            false_agent.listen()
            self.assert_misunderstands(false_agent, frame([4, 1, []]), "sent what is not understood", "find", "a")
            self.assert_misunderstands(false_agent, frame([REPLY, 1, [5]]), "does not answer as the agent", "remove", "a")
            self.assert_fails(6, "the agent runs", "find", "--timeout", "0.1", "a")

    def test_carries_every_value_there_and_back(self):
        listener = gantrel.Listener({"echo::::::::": lambda *values: list(values)})
        gantrel.Agent().register(listener.endpoint, "echo")
        threading.Thread(target=listener.serve_forever, daemon=True).start()
        self.addCleanup(listener.close)
        values = ["null", '[true, -9223372036854775808, 18446744073709551615, 1.0]', "date:2026-03-05T14:07:00.1234567Z",
                  '["date:0001-01-01T00:00:00Z", "date:1938-04-24T22:13:19.75Z", "date:@-0.1", "date:@253402300800"]',
                  "data:AAH/", '{"\\u0000\\u001b": "text:data:", "caf\\u00e9": "date:@1e+300", "\\u202e": "real:-inf"}',
                  "endpoint:echo"]
        status, output, error = self.run_tool("call", "echo", "echo::::::::", *values)
        self.assertEqual((status, error), (0, ""))
        *same, endpoint = json.loads(output)
        self.assertEqual(same, [json.loads(value) if value[0] in "nt[{" else value for value in values[:-1]])
        self.assertRegex(endpoint, rf"^endpoint: served by {os.getpid()} ")
        self.assertIn("café", output)
        self.assertNotRegex(output, "[\\x00-\\x09\\x1b\\u202e]")

    def test_serves_ten_at_once_and_loses_nothing_when_interrupted(self):
        size = (1 if IS_SANITIZED else 100) * MIB
        server = self.serve("count", "wc", "-c")
        self.assertEqual(self.run_tool("connect", "count")[:2], (0, "0\n"))
        descriptors = open_descriptors(server)
        clients = [self.start("connect", "count") for _ in range(10)]

        def feed(client):
            client.stdin.write(bytes(size))
            client.stdin.close()

        feeders = [threading.Thread(target=feed, args=[client]) for client in clients[:9]]
        for feeder in feeders:
            feeder.start()
        for client in clients[:9]:
            self.assertEqual(client.stdout.read(), b"%d\n" % size)
        late = self.serve("count", "cat")  # has taken its place
        server.send_signal(signal.SIGINT)
        self.assertIn(b"second interrupt", server.stderr.readline())
        self.assertLess(open_descriptors(server), descriptors)  # its listener has gone
        feed(clients[9])
        self.assertEqual(clients[9].stdout.read(), b"%d\n" % size)
        self.assertEqual([server.wait(PATIENCE), *(client.wait(PATIENCE) for client in clients)], [0] * 11)
        self.assertEqual(self.run_tool("connect", "count", input=b"late")[1], "late")
        late.send_signal(signal.SIGTERM)
        self.assertEqual(late.wait(PATIENCE), 0)
        self.assertEqual(self.run_tool("find", "count")[0], 1)

    def test_leaves_neither_processes_nor_descriptors_whatever_a_served_command_does(self):
        script = os.path.join(self.folder, "script")

        def write(text):
            with open(script + "~", "w") as file:
                file.write(text)
            os.chmod(script + "~", 0o700)
            os.rename(script + "~", script)

        write("#!/bin/sh\necho early\n")
        server = self.serve("s", script)
        self.assertEqual(self.run_tool("connect", "s")[:2], (0, "early\n"))
        before = open_descriptors(server)
        self.assertEqual(self.run_tool("connect", "s", input=bytes(MIB))[:2], (5, "early\n"))
        write("#!/nowhere\n")
        self.assertEqual(self.run_tool("connect", "s")[1], "")
        self.assertIn(b"could not be started", server.stderr.readline())
        write("#!/bin/sh\ntrap '' TERM\necho up\nread x\nread y\n")
        client = self.start("connect", "s")
        self.assertEqual(client.stdout.readline(), b"up\n")
        for _ in range(3):  # looks start nothing
            self.assertEqual(self.run_tool("find", "s")[0], 0)
        children = open(f"/proc/{server.pid}/task/{server.pid}/children").read().split()
        self.assertEqual((len(children), open_descriptors(server)), (1, before))
        # The agent comes back, and so does the entry.
        self.agent.kill()
        self.agent.wait()
        os.unlink(self.path)
        with open(self.log, "ab") as log:
            self.start_agent(stderr=log)
        self.assertEqual(self.run_tool("wait", "--log", self.log, "s")[0], 0)
        server.send_signal(signal.SIGINT)
        server.stderr.readline()
        server.send_signal(signal.SIGINT)
        self.assertEqual(server.wait(PATIENCE), 0)
        self.assertFalse(os.path.exists(f"/proc/{children[0]}"))

    def test_connects_a_command_and_half_closes_when_its_output_ends(self):
        self.serve("count", "wc", "-c")
        done = self.run_tool("connect", "count", "sh", "-c", "printf abc; exec >&-; cat >&2; exit 3")
        self.assertEqual(done, (3, "", "3\n"))
        self.assert_fails(127, "no command", "connect", "count", "nowhere")
        deaf = self.serve("deaf", "cat", preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        deaf.send_signal(signal.SIGHUP)
        unreadable = os.open(self.folder, os.O_RDONLY)
        client = self.start("connect", "deaf", stdin=unreadable)
        os.close(unreadable)
        self.assertEqual((client.wait(PATIENCE), self.run_tool("connect", "deaf", input=b"x")[:2]), (66, (0, "x")))

    def test_waits_and_monitors_and_shows_it_well_in_a_terminal(self):
        control, terminal = pty.openpty()
        monitor = self.start("monitor", "--log", self.log, stdout=terminal,
                             env={**os.environ, "TERM": "xterm", "NO_COLOR": "1"})
        with open(control, "rb", 0) as screen:
            told = b""
            while b"retrieve" not in told:  # until it watches
                self.run_tool("find", "x\\x1b")
                told += os.read(screen.fileno(), 65536) if select.select([screen], [], [], 0.2)[0] else b""
            waiting = self.start("wait", "x", "--log", self.log)
            self.assert_fails(6, "in time", "wait", "x", "--timeout", "0.1")
            self.assertIsNone(waiting.poll())
            self.serve("x", "cat")
            self.assertEqual(waiting.wait(PATIENCE), 0)
            while b"register  x\r\n" not in told:
                told += os.read(screen.fileno(), 65536)
            os.rename(self.log, self.log + ".1")  # as a log is rotated
            with open(self.log, "w") as log:
                log.write("\0\0" + REGISTRATION % "y")  # which may have been emptied
            while b"register  y\r\n" not in told:
                told += os.read(screen.fileno(), 65536)
            self.assertRegex(told, rb"(?m)^\d\d:\d\d:\d\d\.\d{3}  retrieve  x\\x1b\r$")
            self.assertEqual(told.count(b"register  x\r\n"), 1)
            self.assertNotIn(b"\x1b", told)


if __name__ == "__main__":
    unittest.main(warnings="ignore")  # of sockets that end with the process
