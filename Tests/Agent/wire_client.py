"""A client of the wire protocol in Python's standard library alone, and what it finds true of the agent.

Written from Documentation/wire-protocol.md. Run as: wire_client.py AGENT [unittest's arguments]
"""

import array
import os
import select
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


class Endpoint:
    """In a message: the descriptor of the frame with this index."""

    def __init__(self, index=0):
        self.index = index


def encode(item):
    def head(major, number):
        if number < 24:
            return bytes([major << 5 | number])
        for code, (form, limit) in enumerate([("B", 8), ("H", 16), ("I", 32), ("Q", 64)]):
            if number < 1 << limit:
                return bytes([major << 5 | 24 + code]) + struct.pack(">" + form, number)

    if item is None or isinstance(item, bool):
        return {False: b"\xf4", True: b"\xf5", None: b"\xf6"}[item]
    if isinstance(item, int):
        return head(0, item)
    if isinstance(item, str):
        return head(3, len(item.encode())) + item.encode()
    if isinstance(item, list):
        return head(4, len(item)) + b"".join(map(encode, item))
    return head(6, 18245) + head(0, item.index)


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
    if major == 3:
        return data[:low].decode(), data[low:]
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
        self.bytes, self.descriptors = b"", []

    def send(self, message, descriptors=(), declared=None):
        payload = message if isinstance(message, bytes) else encode(message)
        count = len(descriptors) if declared is None else declared
        frame = struct.pack("<II", len(payload), count) + payload
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))]
        self.socket.sendmsg([frame], rights if descriptors else [])

    def receive(self):
        """The next message and its descriptors; None at the end of the connection."""
        while len(self.bytes) < 8 or len(self.bytes) < 8 + struct.unpack("<I", self.bytes[:4])[0]:
            try:
                data, rights, _, _ = self.socket.recvmsg(4096, socket.CMSG_SPACE(253 * 4))
            except ConnectionResetError:
                data, rights = b"", []
            if not data:
                return None
            self.bytes += data
            for _, _, content in rights:
                self.descriptors += array.array("i", content)
        length, count = struct.unpack("<II", self.bytes[:8])
        message, self.bytes = decode(self.bytes[8:8 + length])[0], self.bytes[8 + length:]
        taken, self.descriptors = self.descriptors[:count], self.descriptors[count:]
        return message, taken


def make_listener(folder):
    """An anonymous listener and its endpoint."""
    name = os.path.join(folder, "own")
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(name)
    endpoint = os.open(name, os.O_PATH | os.O_CLOEXEC)
    os.unlink(name)
    listener.listen()
    return listener, endpoint


class AgentOnTheWire(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        environment = dict(os.environ, XDG_RUNTIME_DIR=self.folder.name)
        self.agent = subprocess.Popen([AGENT], env=environment, stderr=subprocess.PIPE)
        path = os.path.join(self.folder.name, "gantrel", SERVICE + ".socket")
        while not os.path.exists(path):
            self.assertIsNone(self.agent.poll(), "the agent ended")
        os.set_blocking(self.agent.stderr.fileno(), False)
        self.path = path
        self.client = Connection(path)
        self.listener, self.endpoint = make_listener(self.folder.name)
        self.call(RETRIEVE, ["x"])  # the agent has accepted by then

    def tearDown(self):
        self.agent.kill()
        self.agent.communicate()
        self.client.socket.close()
        self.listener.close()
        os.close(self.endpoint)
        self.folder.cleanup()

    def call(self, *message, descriptors=()):
        self.client.send([CALL, 1, *message], descriptors)
        return self.client.receive()

    def descriptors_of_agent(self):
        return len(os.listdir(f"/proc/{self.agent.pid}/fd"))

    def test_registers_retrieves_connects_and_removes(self):
        answer, _ = self.call(REGISTER, [Endpoint(), "notes"], descriptors=[self.endpoint])
        self.assertEqual(answer, [REPLY, 1, [True]])
        other = Connection(self.path)
        other.send([CALL, 7, RETRIEVE, ["notes"]])
        answer, descriptors = other.receive()
        self.assertEqual(answer[:2], [REPLY, 7])
        self.assertIsInstance(answer[2][0], Endpoint)
        direct = Connection(f"/proc/self/fd/{descriptors[0]}")
        accepted, _ = self.listener.accept()
        direct.socket.sendall(b"hello")
        self.assertEqual(accepted.recv(5), b"hello")
        self.client.send([MESSAGE, REMOVE, ["notes"]])
        self.assertEqual(self.call(RETRIEVE, ["notes"])[0], [REPLY, 1, [None]])
        for end in (other.socket, direct.socket, accepted):
            end.close()
        os.close(descriptors[0])

    def test_refuses_what_is_not_in_the_interface_and_nothing_else_happens(self):
        before = self.descriptors_of_agent()
        directory = os.open(self.folder.name, os.O_PATH)
        reading, writing = os.pipe()
        cases = [
            (["unknown:", ["a"]], []),
            ([REGISTER, [None, "a"]], []),
            ([REGISTER, ["a", "a"]], []),
            ([REGISTER, [Endpoint(), "a"]], [directory]),
            ([REGISTER, [Endpoint(), "a"]], [reading]),
            ([REGISTER, [Endpoint(), "a"]], [self.client.socket.fileno()]),
            ([REGISTER, [Endpoint(), 5]], [self.endpoint]),
            ([REGISTER, [Endpoint()]], [self.endpoint]),
            ([RETRIEVE, [5]], []),
            ([RETRIEVE, ["a", "b"]], []),
            ([RETRIEVE, [["a"]]], []),
            (["unknown:", [Endpoint()]], [self.endpoint]),
            ([REMOVE, ["a"]], []),  # carried out, but it has no answer to give
        ]
        for message, descriptors in cases:
            with self.subTest(message=message):
                answer = self.call(*message, descriptors=descriptors)
                self.assertEqual(answer, ([REFUSAL, 1], []))
        self.assertEqual(self.call(RETRIEVE, ["a"])[0], [REPLY, 1, [None]])
        self.assertEqual(self.descriptors_of_agent(), before)
        for descriptor in (directory, reading, writing):
            os.close(descriptor)

    def test_ends_a_connection_that_breaks_the_rules_and_only_that(self):
        before = self.descriptors_of_agent()
        retrieve = encode([CALL, 1, RETRIEVE, ["a"]])
        cases = [
            (b"", [], None),
            (b"\x80", [], None),  # an array of nothing
            (retrieve + b"\x00", [], None),  # more than one item
            (retrieve[:-1] + b"\xff", [], None),  # not UTF-8
            (b"\x84\x18\x01" + retrieve[2:], [], None),  # a number not in its shortest form
            (b"\x9f" + retrieve[1:] + b"\xff", [], None),  # an indefinite length
            (encode([9, 1]), [], None),  # no such kind
            (encode([CALL, 1, "unknown:"]) + b"\x81" * 40 + b"\x80", [], None),  # nested too deeply
            (encode([CALL, 1, REGISTER, [Endpoint(1), "a"]]), [self.endpoint], None),
            (retrieve, [self.endpoint], 0),  # a descriptor that no frame declares
            (encode([CALL, 1, REGISTER, [Endpoint(), "a"]]), [], 1),  # one that is not there
            (retrieve, [], 254),
        ]
        for payload, descriptors, declared in cases:
            with self.subTest(payload=payload):
                peer = Connection(self.path)
                peer.send(payload, descriptors, declared)
                self.assertIsNone(peer.receive())
                peer.socket.close()
        self.assertEqual(self.call(RETRIEVE, ["a"])[0], [REPLY, 1, [None]])
        while self.descriptors_of_agent() != before:
            self.assertIsNone(self.agent.poll())

    def test_reads_a_frame_byte_by_byte_and_answers_many_in_order(self):
        message = encode([CALL, 1, RETRIEVE, ["a"]])
        for byte in struct.pack("<II", len(message), 0) + message:
            self.client.socket.send(bytes([byte]))
        self.assertEqual(self.client.receive()[0], [REPLY, 1, [None]])
        for serial in range(1000):
            if serial % 2:
                self.client.send([CALL, serial, REGISTER, [Endpoint(), "a"]], [self.endpoint])
            else:
                self.client.send([MESSAGE, REMOVE, ["a"]])
                self.client.send([CALL, serial, RETRIEVE, ["a"]])
            select.select([self.agent.stderr], [], [], 0)
            self.agent.stderr.read()
        for serial in range(1000):
            value = True if serial % 2 else None
            self.assertEqual(self.client.receive()[0], [REPLY, serial, [value]])


unittest.main()
