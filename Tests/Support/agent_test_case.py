"""A test case with an agent of its own, and a connection that can break the rules of the wire."""

import array
import contextlib
import errno
import os
import re
import socket
import struct
import subprocess
import tempfile
import time
import unittest

import gantrel
from gantrel import AGENT as SERVICE
from gantrel.wire import CALL, MESSAGE, REFUSAL, REPLY, Channel, Index as Endpoint, encode

PATIENCE = 60  # seconds, after which a test gives up
REGISTER = "registerListenerEndpoint:forIdentifier:completionHandler:"
RETRIEVE = "retrieveListenerEndpoint:completionHandler:"
REMOVE = "removeListenerEndpoint:"
AGENT = os.environ["GANTREL_AGENT"]  # the executable
IS_SANITIZED = bool(os.environ.get("GANTREL_SANITIZE"))  # slower by far: large amounts are less then
MIB = 1 << 20


def eventually(condition, patience=PATIENCE):
    """Looks again and again, whenever nobody else wants to run, for something that no event tells of."""
    end = time.monotonic() + patience
    while not condition():
        if time.monotonic() > end:
            return False
        os.sched_yield()
    return True


def memory(process, kind="RssAnon"):  # bytes
    with open(f"/proc/{process.pid}/status") as status:
        return 1024 * int(re.search(rf"{kind}:\s*(\d+)", status.read())[1])


def open_descriptors(process):
    return len(os.listdir(f"/proc/{process.pid}/fd"))


def frame(message, declared=0, length=None):
    """A message, or any bytes in its place, behind a header that may lie about them."""
    payload = message if isinstance(message, bytes) else encode(message)
    return struct.pack("<II", len(payload) if length is None else length, declared) + payload


class Connection(Channel):
    def __init__(self, path):
        super().__init__(socket.socket(socket.AF_UNIX))
        self.socket.connect(path)

    def send_raw(self, data, descriptors=()):
        """How many of the bytes went, and the descriptors with them; 0 when it would have to wait or the
        agent has ended the connection, None when the user has no room for more descriptors under way."""
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))]
        try:
            return self.socket.sendmsg([data], rights if descriptors else [])
        except (BlockingIOError, BrokenPipeError, ConnectionResetError):
            return 0
        except OSError as error:
            if error.errno != errno.ETOOMANYREFS:
                raise
            return None

    def receive(self):
        return super().receive(time.monotonic() + PATIENCE)

    def receive_to_end(self):
        """The bytes that arrive until the agent ends the connection."""
        self.socket.settimeout(PATIENCE)
        received = b""
        with contextlib.suppress(ConnectionResetError):
            while data := self.socket.recv(1 << 16):
                received += data
        return received

    def retrieve(self, identifier):
        """The inode of the endpoint's socket; None when there is none."""
        self.send([CALL, 1, RETRIEVE, [identifier]])
        _, descriptors = self.receive()
        for descriptor in descriptors:
            inode = os.fstat(descriptor).st_ino
            os.close(descriptor)
            return inode


class AgentTestCase(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.path = os.path.join(self.folder, "gantrel", SERVICE + ".socket")
        os.environ["XDG_RUNTIME_DIR"] = self.folder
        self.listener = gantrel.Listener({})
        self.endpoint = self.listener.endpoint.fileno()
        self.inode = os.fstat(self.endpoint).st_ino

    def start_agent(self, *prefix, **options):
        options = {"stderr": subprocess.DEVNULL, **options}
        self.agent = self.enterContext(subprocess.Popen([*prefix, AGENT], **options))
        self.addCleanup(self.agent.kill)
        while not os.path.exists(self.path):
            self.assertIsNone(self.agent.poll(), "the agent ended")

    def register(self, connection, identifier):
        """Whether the agent says that it has stored the endpoint."""
        connection.send([CALL, 1, REGISTER, [Endpoint(), identifier]], [self.endpoint])
        answer = connection.receive()
        return answer is not None and answer[0] == [REPLY, 1, [True]]
