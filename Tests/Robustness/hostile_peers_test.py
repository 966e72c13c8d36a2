"""What a broken or malicious peer may do to the agent: end its own connection, and nothing else."""

import contextlib
import itertools
import multiprocessing
import os
import resource
import select
import socket
import struct
import threading
import time
import unittest

from agent_test_case import *


# Words of eight bytes, each twice, that MurmurHash64A takes for the same wherever in a text they begin a word and
# whatever its seed: once mixed they differ in the highest bit alone, and two such bits leave the sum as it was.
ALIKE = 2 * "&Ht klz{", 2 * '&H1:\x06R"\n'


def bystand(path, expected, answers, worst):
    """Keeps asking, and counts the answers up to the first that is wrong."""
    connection, start = Connection(path), time.perf_counter()
    while connection.retrieve("bystander") == expected:
        worst.value, start = max(worst.value, time.perf_counter() - start), time.perf_counter()
        answers.value += 1


def flood(path, requests):
    """Asks without end, and reads the answers as they come."""
    peer = Connection(path)
    asking = threading.Thread(target=peer.socket.sendall, args=(requests * frame([CALL, 1, RETRIEVE, [200 * "f"]]),))
    asking.start()
    for _ in range(requests):
        assert peer.receive() == ([REPLY, 1, [None]], [])
    asking.join()


class HostilePeers(AgentTestCase):
    """While a test runs, a bystander asks the agent. When it ends, every answer must have been right, and the
    agent must hold what it held at first."""

    def setUp(self):
        super().setUp()
        self.most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (self.most, self.most))
        self.start_agent()
        self.control = Connection(self.path)
        self.assertTrue(self.register(self.control, "bystander"))
        self.answers = multiprocessing.Value("l")
        self.worst = multiprocessing.Value("d")  # in seconds: told, not judged
        arguments = (self.path, self.inode, self.answers, self.worst)
        bystander = multiprocessing.Process(target=bystand, args=arguments, daemon=True)
        bystander.start()
        self.addCleanup(bystander.kill)
        self.wait_for_answers(2000)
        self.worst.value = 0
        self.descriptors = open_descriptors(self.agent)
        self.memory = memory(self.agent)

    def tearDown(self):
        self.assertTrue(eventually(lambda: open_descriptors(self.agent) == self.descriptors), self.descriptors)
        self.wait_for_answers(1)
        print(f"{self._testMethodName}: others were answered within {1000 * self.worst.value:.0f} ms")
        self.assertLessEqual(len(os.listdir(f"/proc/{self.agent.pid}/task")), 16)
        if not IS_SANITIZED:  # sanitizers keep what is freed
            self.assertTrue(eventually(lambda: memory(self.agent) < self.memory + 24 * MIB))

    def wait_for_answers(self, more):
        """So many answers come to the bystander, each within five seconds."""
        for enough in range(self.answers.value, self.answers.value + more):
            self.assertTrue(eventually(lambda: self.answers.value > enough, 5))

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
        peer.send([MESSAGE, REGISTER, [Endpoint(), "no"]], [self.endpoint])  # which is a call
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
        self.assertTrue(eventually(lambda: hoarder.send_raw(b"x", many) == 0))
        self.assertEqual(hoarder.receive_to_end(), b"")

    def test_send_descriptors_that_block_their_closing(self):
        listening = socket.create_server(("127.0.0.1", 0), backlog=100)
        peers, others = [Connection(self.path) for _ in range(8)], []
        for number in range(64):
            stuck = socket.create_connection(listening.getsockname())
            others.append(listening.accept()[0])  # which never reads
            stuck.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                while stuck.send(MIB * b"x"):
                    pass
            stuck.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 300))
            peers[number % 8].send([MESSAGE, "unknown:", [Endpoint()]], [stuck.fileno()])
            self.wait_for_answers(1)
            stuck.close()
        for peer in peers:
            self.assertIsNone(peer.retrieve("no"))

    def test_shut_their_sending_side(self):
        for count in 1000, 5000:
            peer = Connection(self.path)
            requests = count * frame([CALL, 1, RETRIEVE, ["bystander"]])
            asking = threading.Thread(target=lambda: (peer.socket.sendall(requests),
                                                      peer.socket.shutdown(socket.SHUT_WR)))
            asking.start()
            for _ in range(count):
                answer, descriptors = peer.receive()
                self.assertEqual(answer, [REPLY, 1, [Endpoint(0)]])
                os.close(*descriptors)
            self.assertIsNone(peer.receive())
            asking.join()

    def test_hold_half_a_large_message_each(self):
        peers = [Connection(self.path) for _ in range(8)]
        for peer in peers:
            peer.send_raw(frame(b"", length=255 * MIB))
            peer.socket.setblocking(False)
        pushed, since = 8 * [0], self.answers.value
        while self.answers.value < since + 1000:  # until nothing more goes
            for number, peer in enumerate(peers):
                if pushed[number] < 254 and peer.send_raw(MIB * b"\x80"):
                    pushed[number], since = pushed[number] + 0.2, self.answers.value
        if not IS_SANITIZED:
            self.assertLess(memory(self.agent), self.memory + 350 * MIB)
        other = Connection(self.path)
        self.assertIsNone(other.retrieve(60_000 * "x"))
        held = open_descriptors(self.agent)
        for _ in range(20):  # who goes meanwhile is let go
            gone = Connection(self.path)
            gone.send_raw(frame(b"", length=255 * MIB))
            gone.socket.close()
        self.assertTrue(eventually(lambda: open_descriptors(self.agent) == held))
        for peer in peers:
            peer.socket.close()
        self.assertIsNone(other.retrieve(MIB * "x"))

        # An ordinary user's descriptors under way are limited, too.
        crowd = [Connection(self.path) for _ in range(min(100, self.most * 3 // 4 // 253))]
        for peer in crowd:
            peer.send_raw(frame([REFUSAL, 1]) + frame(b"", 253, 100), 253 * [self.endpoint])
        self.assertTrue(self.register(other, "meanwhile"))
        other.send([MESSAGE, REMOVE, ["meanwhile"]])
        self.assertLess(open_descriptors(self.agent), self.most / 4 + 16 * 253)

    def test_ask_without_reading(self):
        peers = [Connection(self.path) for _ in range(200)]
        request = frame([CALL, 1, RETRIEVE, ["no"]])
        for peer in peers:
            peer.socket.setblocking(False)
        sent, since = 200 * [0], self.answers.value
        # Until nothing goes while the bystander gets many answers: the agent has stopped reading.
        while self.answers.value < since + 1000:
            for number, peer in enumerate(peers):
                if count := peer.send_raw((501 * request)[sent[number] % len(request):]):
                    sent[number], since = sent[number] + count, self.answers.value
                    self.assertLess(sent[number], MIB)
        if not IS_SANITIZED:  # 64 KiB of each, and what the log takes while it is written
            self.assertLess(memory(self.agent), self.memory + 64 * MIB)
        for number, peer in enumerate(peers[:10]):
            peer.socket.settimeout(PATIENCE)
            for _ in range(sent[number] // len(request)):
                self.assertEqual(peer.receive(), ([REPLY, 1, [None]], []))

    def test_ask_without_end(self):
        flooders = [multiprocessing.Process(target=flood, args=(self.path, 2000 if IS_SANITIZED else 20_000))
                    for _ in range(8)]
        for flooder in flooders:
            flooder.start()
        while any(flooder.is_alive() for flooder in flooders):
            self.wait_for_answers(1)
            self.assertTrue(IS_SANITIZED or memory(self.agent) < self.memory + 48 * MIB)
        self.assertEqual([flooder.exitcode for flooder in flooders], 8 * [0])

    def test_choose_identifiers_that_a_hash_without_a_key_takes_for_one(self):
        names = [1600 * "x" + "".join(parts) for parts in itertools.product(ALIKE, repeat=14)]
        stored = names[:min(6000, self.most // 2)]
        for name in stored:
            self.assertTrue(self.register(self.control, name))
        requests = [frame([CALL, 1, RETRIEVE, [name]]) for name in names[-40:]]
        peers = [Connection(self.path) for _ in range(300)]
        for peer in peers:
            peer.send_raw(b"".join(requests))
        self.wait_for_answers(10)
        for peer in peers:
            for _ in requests:
                self.assertEqual(peer.receive(), ([REPLY, 1, [None]], []))
        for name in stored:
            self.control.send([MESSAGE, REMOVE, [name]])

    def test_come_and_go_and_be_many(self):
        for i in range(1000 if IS_SANITIZED else 10_000):
            peer = Connection(self.path)
            if i % 2:
                peer.send([CALL, 1, RETRIEVE, ["no"]])
        crowd = [Connection(self.path) for _ in range(min(1000 if IS_SANITIZED else 5000, self.most - 100))]
        for peer in crowd:
            peer.send([CALL, 1, RETRIEVE, ["no"]])
        for peer in crowd:
            self.assertEqual(peer.receive(), ([REPLY, 1, [None]], []))


if __name__ == "__main__":
    unittest.main(warnings="ignore")  # of sockets that end with the process
