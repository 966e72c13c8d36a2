"""What a broken or malicious peer may do to the agent: end its own connection, and nothing else."""

import multiprocessing
import os
import resource
import select
import socket
import unittest

from agent_test_case import *


def bystand(path, expected, answers):
    """Keeps asking, and counts the answers up to the first that is wrong."""
    connection = Connection(path)
    while connection.retrieve("bystander") == expected:
        answers.value += 1


class HostilePeers(AgentTestCase):
    """While a test runs, a bystander asks the agent. When it ends, every answer must have been right, and the
    agent must hold what it held at first."""

    def setUp(self):
        super().setUp()
        self.start_agent()
        self.control = Connection(self.path)
        self.assertTrue(self.register(self.control, "bystander"))
        self.answers = multiprocessing.Value("l")
        bystander = multiprocessing.Process(
            target=bystand, args=(self.path, self.inode, self.answers), daemon=True)
        bystander.start()
        self.addCleanup(bystander.kill)
        self.wait_for_answers(2000)
        self.descriptors = open_descriptors(self.agent)
        self.memory = memory(self.agent)

    def tearDown(self):
        self.assertTrue(eventually(lambda: open_descriptors(self.agent) == self.descriptors), self.descriptors)
        self.wait_for_answers(1)
        self.assertLessEqual(len(os.listdir(f"/proc/{self.agent.pid}/task")), 16)
        if not IS_SANITIZED:  # sanitizers keep what is freed
            self.assertTrue(eventually(lambda: memory(self.agent) < self.memory + 24 * MIB))

    def wait_for_answers(self, more):
        enough = self.answers.value + more
        self.assertTrue(eventually(lambda: self.answers.value >= enough))

    def answer_to(self, stream, descriptors=()):
        """What the agent answers to all that a peer ever sends."""
        peer = Connection(self.path)
        peer.send_raw(stream, descriptors)
        peer.socket.shutdown(socket.SHUT_WR)
        return peer.receive_to_end()

    def test_stop_inside_any_message_and_change_any_byte_of_it(self):
        messages = [
            (frame([MESSAGE, REMOVE, ["attack"]]), []),
            (frame([CALL, 1, RETRIEVE, ["attack"]]), []),
            (frame([CALL, 1, REGISTER, [Endpoint(), "attack"]], 1), [self.endpoint]),
            (frame([REPLY, 1, [True]]), []),
            (frame([REFUSAL, 1]), []),
        ]
        for message, descriptors in messages:
            for length in range(1, len(message)):
                self.assertEqual(self.answer_to(message[:length], descriptors), b"")
            for place in range(len(message)):
                for change in [0x01, 0x80] if IS_SANITIZED else [1 << bit for bit in range(8)] + [0xFF]:
                    changed = bytearray(message)
                    changed[place] ^= change
                    self.answer_to(changed, descriptors)
        # Some changes registered it all the same, or made another identifier of it.
        for place in range(len("attack")):
            for change in [0] + [1 << bit for bit in range(7)]:
                changed = bytearray(b"attack")
                changed[place] ^= change
                self.control.send([MESSAGE, REMOVE, [changed.decode()]])
        self.assertIsNone(self.control.retrieve("attack"))

    def test_lie(self):
        lies = {
            "longer than allowed": frame(b"", length=(256 << 20) + 1),
            "the largest length": frame(b"", length=0xFFFFFFFF),
            "more descriptors than allowed": frame(b"", 254),
            "no item": frame(b""),
            "a huge array": frame(b"\x9b\x7f" + 7 * b"\xff" + b"\x00"),
            "no such kind": frame([4, "a", []]),
            "not UTF-8": frame(b"\x83\x00\x61\xff\x80"),
            "two items": frame(encode([MESSAGE, "a", []]) + b"\x00"),
            "not the shortest form": frame(b"\x83\x18\x00\x61\x61\x80"),
            "deep": frame(b"\x83\x00\x61a" + 100_000 * b"\x81"),
            "deep maps": frame(b"\x83\x00\x61a" + 100_000 * b"\xa1"),
        }
        with_a_descriptor = {
            "a descriptor missing": frame([CALL, 1, REGISTER, [Endpoint(0), "a"]], 2),
            "another descriptor": frame([CALL, 1, REGISTER, [Endpoint(1), "a"]], 1),
            "descriptors undeclared": frame([CALL, 1, RETRIEVE, ["a"]]),
        }
        for name, lie in (lies | with_a_descriptor).items():
            with self.subTest(name):
                peer = Connection(self.path)
                peer.send_raw(lie, [self.endpoint] if name in with_a_descriptor else [])
                self.assertEqual(peer.receive_to_end(), b"")
        # Claims cost the agent nothing, half a frame only its bytes.
        silent = [Connection(self.path) for _ in range(200)]
        for peer in silent:
            peer.send_raw(frame(b"\x83", 253, 256 << 20))
        self.wait_for_answers(100)
        if not IS_SANITIZED:
            self.assertLess(memory(self.agent, "VmData"), 1 << 30)

    def test_misuse_serials_and_answer_what_was_never_asked(self):
        peer = Connection(self.path)
        for message in [REPLY, 5, [True]], [REFUSAL, 5], [MESSAGE, "unknown:", [1]]:
            peer.send(message)
        request = [CALL, 7, RETRIEVE, ["no"]]
        peer.send_raw(frame(request) + frame(request))
        for byte in frame(request):
            peer.send_raw(bytes([byte]))
        for _ in range(3):
            self.assertEqual(peer.receive(), ([REPLY, 7, [None]], []))

    def test_send_descriptors_of_every_kind_and_any_number(self):
        peer = Connection(self.path)
        epoll = select.epoll()
        listening = socket.socket(socket.AF_UNIX)
        listening.bind(os.path.join(self.folder, "listening"))
        kinds = {
            "pipe": os.pipe()[0],
            "socket pair": socket.socketpair()[0].detach(),
            "directory": os.open("/", os.O_RDONLY),
            "file": os.open("/proc/self/exe", os.O_RDONLY),
            "epoll": epoll.fileno(),
            "bound socket": listening.fileno(),
            "own connection": peer.socket.fileno(),
        }
        for name, descriptor in kinds.items():
            with self.subTest(name):
                peer.send([CALL, 1, REGISTER, [Endpoint(), "kind"]], [descriptor])
                self.assertEqual(peer.receive(), ([REFUSAL, 1], []))
        self.assertIsNone(self.control.retrieve("kind"))

        many = 252 * [peer.socket.fileno()] + [self.endpoint]
        peer.send([CALL, 2, REGISTER, [Endpoint(252), "many"]], many)
        self.assertEqual(peer.receive(), ([REPLY, 2, [True]], []))
        self.assertEqual(self.control.retrieve("many"), self.inode)
        self.control.send([MESSAGE, REMOVE, ["many"]])
        hoarder = Connection(self.path)
        hoarder.send_raw(frame(b"", 253, 100), many)
        while hoarder.send_raw(b"x", many):
            pass
        self.assertEqual(hoarder.receive_to_end(), b"")

    def test_ask_without_reading(self):
        peer = Connection(self.path)
        request = frame([CALL, 1, RETRIEVE, ["no"]])
        peer.socket.setblocking(False)
        sent, since = 0, self.answers.value
        # Until nothing goes while the bystander gets many answers: the agent has stopped reading.
        while self.answers.value < since + 1000:
            if count := peer.send_raw((501 * request)[sent % len(request):]):
                sent, since = sent + count, self.answers.value
                self.assertLess(sent, 16 * MIB)
        if not IS_SANITIZED:
            self.assertLess(memory(self.agent), self.memory + 24 * MIB)
        peer.socket.settimeout(PATIENCE)
        for _ in range(sent // len(request)):
            self.assertEqual(peer.receive(), ([REPLY, 1, [None]], []))

    def test_come_and_go_and_be_many(self):
        for i in range(1000 if IS_SANITIZED else 10_000):
            peer = Connection(self.path)
            if i % 2:
                peer.send([CALL, 1, RETRIEVE, ["no"]])
        most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        crowd = [Connection(self.path) for _ in range(min(1000 if IS_SANITIZED else 5000, most - 100))]
        for peer in crowd:
            peer.send([CALL, 1, RETRIEVE, ["no"]])
        for peer in crowd:
            self.assertEqual(peer.receive(), ([REPLY, 1, [None]], []))


if __name__ == "__main__":
    unittest.main(warnings="ignore")  # of sockets that end with the process
