"""A client of the wire protocol in Python's standard library alone, and what it finds true of the agent.

Written from Documentation/wire-protocol.md. Run as: wire_client.py AGENT [unittest's arguments]
"""

import array
import os
import socket
import struct
import subprocess
import sys
import tempfile
import unittest

AGENT = sys.argv.pop(1)
SERVICE = "com.gantrel.Gantrel.agent"
REGISTER = "registerListenerEndpoint:forIdentifier:completionHandler:"
RETRIEVE = "retrieveListenerEndpoint:completionHandler:"
REMOVE = "removeListenerEndpoint:"
MESSAGE, CALL, REPLY, REFUSAL = range(4)


class Endpoint(int):
    """In a message: the descriptor of the frame with this index."""


def encode(item):
    def head(major, number):
        if number < 24:
            return bytes([major << 5 | number])
        width = 1 if number < 256 else 2  # enough for what is sent here
        return bytes([major << 5 | 23 + width]) + number.to_bytes(width, "big")

    if item is None or isinstance(item, bool):
        return {False: b"\xf4", True: b"\xf5", None: b"\xf6"}[item]
    if isinstance(item, Endpoint):
        return head(6, 18245) + head(0, item)
    if isinstance(item, int):
        return head(0, item)
    if isinstance(item, str):
        return head(3, len(item.encode())) + item.encode()
    return head(4, len(item)) + b"".join(map(encode, item))


def decode(data):
    """The item at the front of data, and what follows it."""
    major, low, data = data[0] >> 5, data[0] & 31, data[1:]
    if major == 7:
        return {20: False, 21: True, 22: None}[low], data
    if low >= 24:
        width = 1 << (low - 24)
        low, data = int.from_bytes(data[:width], "big"), data[width:]
    if major == 0:
        return low, data
    if major == 4:
        items = []
        for _ in range(low):
            item, data = decode(data)
            items.append(item)
        return items, data
    index, data = decode(data)
    return Endpoint(index), data


class Connection:
    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(60)
        self.socket.connect(path)

    def send(self, message, descriptors=()):
        payload = message if isinstance(message, bytes) else encode(message)
        frame = struct.pack("<II", len(payload), len(descriptors)) + payload
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))]
        self.socket.sendmsg([frame], rights if descriptors else [])

    def receive(self):
        """The next message and its descriptors; None at the end of the connection."""
        received, descriptors = b"", array.array("i")
        while len(received) < 8 or len(received) < 8 + struct.unpack("<I", received[:4])[0]:
            data, rights, _, _ = self.socket.recvmsg(4096, socket.CMSG_SPACE(253 * 4))
            if not data:
                return None
            received += data
            for _, _, content in rights:
                descriptors.frombytes(content)
        message, rest = decode(received[8:])
        assert not rest and struct.unpack("<I", received[4:8])[0] == len(descriptors)
        return message, descriptors.tolist()


class AgentOnTheWire(unittest.TestCase):
    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        environment = dict(os.environ, XDG_RUNTIME_DIR=folder)
        self.agent = subprocess.Popen([AGENT], env=environment, stderr=subprocess.DEVNULL)
        self.addCleanup(self.agent.wait)
        self.addCleanup(self.agent.kill)
        self.path = os.path.join(folder, "gantrel", SERVICE + ".socket")
        while not os.path.exists(self.path):
            self.assertIsNone(self.agent.poll(), "the agent ended")
        self.client = Connection(self.path)
        # An anonymous listener and its endpoint.
        name = os.path.join(folder, "own")
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(name)
        self.endpoint = os.open(name, os.O_PATH | os.O_CLOEXEC)
        os.unlink(name)
        self.listener.listen()

    def call(self, *message, descriptors=()):
        self.client.send([CALL, 1, *message], descriptors)
        return self.client.receive()

    def test_registers_retrieves_connects_and_removes(self):
        answer = self.call(REGISTER, [Endpoint(), "notes"], descriptors=[self.endpoint])
        self.assertEqual(answer, ([REPLY, 1, [True]], []))
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
            ("unknown:", ["a"], []),
            ("unknown:", [Endpoint()], [self.endpoint]),
            (REGISTER, [None, "a"], []),
            (REGISTER, ["a", "a"], []),
            (REGISTER, [Endpoint(), 5], [self.endpoint]),
            (REGISTER, [Endpoint()], [self.endpoint]),
            (RETRIEVE, [5], []),
            (RETRIEVE, ["a", "b"], []),
            (RETRIEVE, [["a"]], []),
            (REMOVE, ["a"], []),  # carried out, but it has no answer to give
        ]
        self.call(RETRIEVE, ["a"])  # the agent has accepted by then
        before = os.listdir(f"/proc/{self.agent.pid}/fd")
        for selector, arguments, descriptors in cases:
            with self.subTest(selector=selector, arguments=arguments):
                answer = self.call(selector, arguments, descriptors=descriptors)
                self.assertEqual(answer, ([REFUSAL, 1], []))
        self.assertEqual(self.call(RETRIEVE, ["a"])[0], [REPLY, 1, [None]])
        self.assertEqual(os.listdir(f"/proc/{self.agent.pid}/fd"), before)

    def test_ends_a_connection_that_breaks_the_rules_and_only_that(self):
        peer = Connection(self.path)
        peer.send(encode([CALL, 1, RETRIEVE, ["a"]]) + b"\x00")  # more than one item
        self.assertIsNone(peer.receive())
        self.assertEqual(self.call(RETRIEVE, ["a"])[0], [REPLY, 1, [None]])


unittest.main(warnings="ignore")  # of sockets that end with the process
