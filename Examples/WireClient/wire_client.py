"""A client of the wire protocol in Python's standard library alone, written from Documentation/wire-protocol.md.
It also lets its user break the rules, for tests."""

import array
import os
import socket
import struct

PATIENCE = 60  # seconds to wait for an answer
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
        code = 0 if number < 1 << 8 else 1 if number < 1 << 16 else 2  # enough for what is sent here
        return bytes([major << 5 | 24 + code]) + number.to_bytes(1 << code, "big")

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


def frame(message, declared=0, length=None):
    """A message, or any bytes in its place, behind a header that may lie about them."""
    payload = message if isinstance(message, bytes) else encode(message)
    return struct.pack("<II", len(payload) if length is None else length, declared) + payload


class Connection:
    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(path)  # before there is a timeout: with one it would fail where it has to wait
        self.socket.settimeout(PATIENCE)
        self.descriptors = array.array("i")  # received, and not yet taken by a frame

    def send_raw(self, data, descriptors=()):
        """How many of the bytes went, and the descriptors with them; 0 when it would have to wait or the
        agent has ended the connection."""
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))]
        try:
            return self.socket.sendmsg([data], rights if descriptors else [])
        except (BlockingIOError, BrokenPipeError, ConnectionResetError):
            return 0

    def send(self, message, descriptors=()):
        data = frame(message, len(descriptors))
        sent = self.send_raw(data, descriptors)
        if 0 < sent < len(data):
            self.socket.sendall(data[sent:])

    def receive(self):
        """The next message and its descriptors; None at the end of the connection."""
        received = b""
        while (wanted := 8 if len(received) < 8 else 8 + struct.unpack("<I", received[:4])[0]) > len(received):
            data, rights, _, _ = self.socket.recvmsg(wanted - len(received), socket.CMSG_SPACE(253 * 4))
            if not data:
                return None
            received += data
            for _, _, content in rights:
                self.descriptors.frombytes(content)
        message, rest = decode(received[8:])
        assert not rest
        declared = struct.unpack("<I", received[4:8])[0]
        own, self.descriptors = self.descriptors[:declared].tolist(), self.descriptors[declared:]
        return message, own

    def receive_to_end(self):
        """The bytes that arrive until the agent ends the connection."""
        received = b""
        try:
            while data := self.socket.recv(1 << 16):
                received += data
        except ConnectionResetError:
            pass
        return received

    def retrieve(self, identifier):
        """The inode of the endpoint's socket; None when there is none."""
        self.send([CALL, 1, RETRIEVE, [identifier]])
        _, descriptors = self.receive()
        for descriptor in descriptors:
            inode = os.fstat(descriptor).st_ino
            os.close(descriptor)
            return inode
