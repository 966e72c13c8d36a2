"""A test case with an agent of its own for the wire client to talk to."""

import os
import re
import socket
import subprocess
import tempfile
import time
import unittest

from wire_client import *

AGENT = os.environ["GANTREL_AGENT"]  # the executable
IS_SANITIZED = bool(os.environ.get("GANTREL_SANITIZE"))  # slower by far: large amounts are less then
MIB = 1 << 20


def eventually(condition):
    """Looks again and again, without rest, for something that no event tells of."""
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            return False
    return True


def memory(process, kind="RssAnon"):  # bytes
    with open(f"/proc/{process.pid}/status") as status:
        return 1024 * int(re.search(rf"{kind}:\s*(\d+)", status.read())[1])


def open_descriptors(process):
    return len(os.listdir(f"/proc/{process.pid}/fd"))


class AgentTestCase(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.path = os.path.join(self.folder, "gantrel", SERVICE + ".socket")
        # An anonymous listener and its endpoint.
        name = os.path.join(self.folder, "own")
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(name)
        self.endpoint = os.open(name, os.O_PATH | os.O_CLOEXEC)
        self.inode = os.fstat(self.endpoint).st_ino
        os.unlink(name)
        self.listener.listen()

    def start_agent(self, *prefix, **options):
        environment = dict(os.environ, XDG_RUNTIME_DIR=self.folder)
        options = {"stderr": subprocess.DEVNULL, **options}
        self.agent = self.enterContext(subprocess.Popen([*prefix, AGENT], env=environment, **options))
        self.addCleanup(self.agent.kill)
        while not os.path.exists(self.path):
            self.assertIsNone(self.agent.poll(), "the agent ended")

    def register(self, connection, identifier):
        """Whether the agent says that it has stored the endpoint."""
        connection.send([CALL, 1, REGISTER, [Endpoint(), identifier]], [self.endpoint])
        answer = connection.receive()
        return answer is not None and answer[0] == [REPLY, 1, [True]]
