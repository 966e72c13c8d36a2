"""What the agent has runs out: descriptors, room for descriptors under way, the reader of its log."""

import os
import re
import resource
import select
import subprocess
import unittest

from agent_test_case import *


def limit_descriptors(most):
    return lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))


class Exhausted(AgentTestCase):
    def agents_processor_time(self):
        with open(f"/proc/{self.agent.pid}/stat") as stat:
            return sum(map(int, stat.read().split()[13:15]))  # in ticks of 10 ms

    @unittest.skipIf("undefined" in os.environ.get("GANTREL_SANITIZE", ""), "the sanitizer needs descriptors too")
    def test_descriptors_make_it_wait_but_never_lie_nor_spin(self):
        self.start_agent(preexec_fn=limit_descriptors(64))
        client, stored = Connection(self.path), 0
        while self.register(client, f"e{stored}"):
            stored += 1
            self.assertLess(stored, 64)
        # The registration was refused for want of room, and nothing else; others are not accepted any more.
        self.assertEqual(client.retrieve("e0"), self.inode)
        visitors = [Connection(self.path) for _ in range(20)]
        for visitor in visitors:
            visitor.send([CALL, 1, RETRIEVE, ["e0"]])
        unanswered = [visitor.socket for visitor in visitors]
        answered = True
        while answered:
            before = self.agents_processor_time()
            answered = select.select(unanswered, [], [], 1)[0]
            unanswered = [socket for socket in unanswered if socket not in answered]
        self.assertTrue(unanswered, "the agent was not full")
        self.assertLessEqual(self.agents_processor_time() - before, 10)

        # Each that leaves makes room for the next; an endpoint needs no room here to be sent.
        client.socket.close()
        while visitors:
            visitor = visitors.pop(0)
            self.assertEqual(visitor.receive()[0], [REPLY, 1, [Endpoint(0)]])
            visitor.socket.close()
        client = Connection(self.path)
        self.assertIsNone(client.retrieve(f"e{stored}"))
        for number in range(stored):
            client.send([MESSAGE, REMOVE, [f"e{number}"]])
        self.assertIsNone(client.retrieve("e0"))  # they are removed by now
        self.assertTrue(self.register(client, "last"))
        self.assertEqual(client.retrieve("last"), self.inode)

    def test_room_for_descriptors_under_way_makes_replies_wait(self):
        # The superuser's capabilities are beyond this limit.
        capless = ["setpriv", "--bounding-set=-sys_admin,-sys_resource"] if os.geteuid() == 0 else []
        self.start_agent(*capless, preexec_fn=limit_descriptors(100))
        self.assertTrue(self.register(Connection(self.path), "a"))
        owed = {}  # answers to each peer, by its socket
        for peer in [Connection(self.path) for _ in range(5)]:
            for _ in range(100):
                peer.send([CALL, 1, RETRIEVE, ["a"]])
            owed[peer.socket] = [peer, 100]

        def has_to_wait():  # what has no descriptor does not
            late = Connection(self.path)
            late.send_raw(frame([CALL, 2, RETRIEVE, ["no"]]) + frame([CALL, 1, RETRIEVE, ["a"]]))
            self.assertEqual(late.receive(), ([REPLY, 2, [None]], []))
            owed[late.socket] = [late, 1]
            return not select.select([late.socket], [], [], 1)[0]

        # In what order the agent serves different peers is its own affair.
        self.assertTrue(eventually(has_to_wait), "there was room")
        self.assertIsNone(Connection(self.path).retrieve("no"))
        while owed:
            readable = select.select(owed, [], [], PATIENCE)[0]
            self.assertTrue(readable, owed)
            for waiting in readable:
                peer, _ = owed[waiting]
                answer, descriptors = peer.receive()
                self.assertEqual(answer, [REPLY, 1, [Endpoint(0)]])
                os.close(*descriptors)
                owed[waiting][1] -= 1
                if owed[waiting][1] == 0:
                    del owed[waiting]

    def test_a_stuck_log_holds_nothing_up_and_counts_what_it_lost(self):
        self.start_agent(stderr=subprocess.PIPE, text=True)
        client, letters, requests = Connection(self.path), 2000 * "x", 5000
        for number in range(requests):  # some 10 MB, of which the pipe and the logger hold less than half
            self.assertIsNone(client.retrieve(f"{letters}{number}"))
        written = dropped = 0
        for line in self.agent.stderr:
            if lost := re.search(r"Z (\d+) log lines dropped", line):
                dropped += int(lost[1])
            elif letters in line:
                self.assertIn(f"{letters}{written} (", line)
                written += 1
            if written + dropped == requests:
                break
        self.assertEqual(written + dropped, requests)
        self.assertGreater(dropped, 0)

    @unittest.skipIf(IS_SANITIZED, "sanitizers keep what is freed")
    def test_a_large_name_that_the_log_makes_larger_leaves_nothing_behind(self):
        self.start_agent()
        client = Connection(self.path)
        self.assertIsNone(client.retrieve("no"))
        before = memory(self.agent)
        self.assertIsNone(client.retrieve("\x01" * (8 * MIB)))

        def is_back():
            Connection(self.path).socket.close()  # whoever goes has the agent look at its memory
            return memory(self.agent) < before + 24 * MIB

        self.assertTrue(eventually(is_back))


if __name__ == "__main__":
    unittest.main(warnings="ignore")  # of sockets that end with the process
