"""What a client in another language finds true of the agent."""

import os
import unittest

from agent_test_case import *


class AgentOnTheWire(AgentTestCase):
    def setUp(self):
        super().setUp()
        self.start_agent()
        self.client = Connection(self.path)

    def call(self, *message, descriptors=()):
        self.client.send([CALL, 1, *message], descriptors)
        return self.client.receive()

    def test_registers_retrieves_connects_and_removes(self):
        self.assertTrue(self.register(self.client, "notes"))
        other = Connection(self.path)
        other.send([CALL, 700, RETRIEVE, ["notes"]])
        answer, [descriptor] = other.receive()
        self.assertEqual(answer, [REPLY, 700, [Endpoint(0)]])
        direct = Connection(f"/proc/self/fd/{descriptor}")
        accepted, _ = self.listener.accept()
        direct.socket.sendall(b"hello")
        self.assertEqual(accepted.recv(5), b"hello")
        self.client.send([MESSAGE, REMOVE, ["notes"]])
        self.assertEqual(self.call(RETRIEVE, ["notes"]), ([REPLY, 1, [None]], []))

    def test_refuses_what_is_not_in_the_interface_and_nothing_else_happens(self):
        cases = [
            ("unknown:", [Endpoint()], [self.endpoint]),
            (REGISTER, [None, "a"], []),
            (REGISTER, [Endpoint(), 5], [self.endpoint]),
            (REGISTER, [Endpoint()], [self.endpoint]),
            (RETRIEVE, [5], []),
            (RETRIEVE, ["a", "b"], []),
            (RETRIEVE, [["a"]], []),
            (REMOVE, ["a"], []),  # carried out, but it has no answer to give
        ]
        self.call(RETRIEVE, ["a"])  # the agent has accepted by then
        before = open_descriptors(self.agent)
        for selector, arguments, descriptors in cases:
            with self.subTest(selector=selector, arguments=arguments):
                answer = self.call(selector, arguments, descriptors=descriptors)
                self.assertEqual(answer, ([REFUSAL, 1], []))
        self.assertEqual(self.call(RETRIEVE, ["a"])[0], [REPLY, 1, [None]])
        self.assertEqual(open_descriptors(self.agent), before)


unittest.main(warnings="ignore")  # of sockets that end with the process
