"""What a client in another language finds true of the agent and of applications: Python's, in Python/gantrel."""

import logging
import math
import os
import subprocess
import sys
import threading
import unittest

from agent_test_case import *

MAIN_APP = AGENT.replace("GantrelAgent", "MainApp")
MENU_APP = AGENT.replace("GantrelAgent", "MenuApp")
MEETINGS = os.path.join(os.path.dirname(__file__), "../../Examples/MainApp/Meetings.plist")


class OnTheWire(AgentTestCase):
    def setUp(self):
        super().setUp()
        self.start_agent()
        self.broker = gantrel.Agent()

    def listen(self, **functions):
        """A connection to these functions, through the agent."""
        listener = gantrel.Listener({f"{name}:": function for name, function in functions.items()})
        self.addCleanup(listener.close)
        threading.Thread(target=listener.serve_forever, daemon=True).start()
        self.broker.register(listener.endpoint, "notes")
        return listener, self.enterContext(gantrel.connect(gantrel.Agent().retrieve("notes")))

    def test_carries_every_kind_of_value_and_texts_of_any_length(self):
        listener, client = self.listen(echo=lambda value: value, both=lambda: ("one", 2))
        values = [[None, True, False, [], {}, "", b"\xff", 0.0, -1.5, gantrel.Date(-1e9), {"caf\u00e9": {"": []}}],
                  [0, 23, 24, 255, 256, 65535, 65536, (1 << 32) - 1, 1 << 32, (1 << 64) - 1, -1, -24, -25, -1 << 63]]
        for value in *values, "x" * (20 * MIB), [["deep"]] * 1000, [None] * (1 << 20):
            [echoed] = client.call("echo:", value, timeout=PATIENCE)
            self.assertEqual((echoed, repr(echoed)), (value, repr(value)))
        self.assertEqual(client.call("both:"), ["one", 2])
        [endpoint] = client.call("echo:", listener.endpoint)
        self.assertEqual(gantrel.connect(endpoint).call("echo:", 7), [7])
        endpoint.close()
        itself = []
        itself.append(itself)
        for value, error, sentence in [
            (endpoint, ValueError, "closed"), (itself, ValueError, "too deep"), (1 << 64, ValueError, "range"),
            ({"\u00e9": 1, "e\u0301": 2}, ValueError, "same text"),
            ([None] * ((1 << 20) + 1), ValueError, "too many"), (object(), TypeError, "object"), ([{1: 2}], TypeError, "key"),
        ]:
            self.assertRaisesRegex(error, sentence, client.send, "echo:", value)
        self.assertEqual(client.call("echo:", 8, timeout=math.inf), [8])

    def test_tells_refusals_from_silence_and_ends(self):
        logging.disable()
        self.addCleanup(logging.disable, logging.NOTSET)
        answer = threading.Event()
        listener, client = self.listen(fail=lambda: 1 / 0, leave=sys.exit, strange=object, text=repr, slow=lambda: answer.wait(PATIENCE))
        for call in ["unknown:"], ["fail:"], ["leave:"], ["fail:", "one too many"], ["strange:"]:
            with self.assertRaises(gantrel.Refused):
                client.call(*call)
        stranger = Connection(f"/proc/self/fd/{listener.endpoint.fileno()}")
        stranger.send([CALL, 1, "text:", [Endpoint(0)]], [0])
        self.assertEqual(stranger.receive(), ([REFUSAL, 1], []), "the descriptor is no endpoint")
        stranger.send_raw(frame([4, "a", []]))
        self.assertEqual(stranger.receive_to_end(), b"")
        self.assertRaises(gantrel.TimedOut, client.send, "text:", 1, timeout=0)  # and nothing was sent
        with self.assertRaises(gantrel.TimedOut):
            client.call("slow:", timeout=0.1)
        answer.set()
        self.assertEqual(client.call("slow:"), [True])
        self.agent.kill()
        self.agent.wait()
        with self.assertRaises(gantrel.Gone):
            self.broker.retrieve("notes")
        os.unlink(self.path)
        self.start_agent()
        self.assertIsNone(self.broker.retrieve("notes"))
        self.broker.register(listener.endpoint, "notes")
        listener.close()
        with self.assertRaises(gantrel.Gone):
            gantrel.connect(self.broker.retrieve("notes"))
        self.broker.remove("notes")
        self.assertIsNone(self.broker.retrieve("notes"))

    def test_reaches_an_application_in_the_other_language(self):
        application = self.enterContext(
            subprocess.Popen([MAIN_APP, MEETINGS], stdout=subprocess.PIPE, text=True))
        self.addCleanup(application.kill)
        self.assertIn("offers 3 meetings", application.stdout.readline())
        client = gantrel.connect(self.broker.retrieve("com.gantrel.Gantrel"))
        [meetings] = client.call("fetchUpcomingMeetings:")
        self.assertEqual({(type(each["id"]), type(each["start"])) for each in meetings}, {(str, gantrel.Date)})
        for number in "nan", "1e+300":
            meeting = {"id": "x", "title": "Never", "start": gantrel.Date(number)}
            listener, _ = self.listen(fetchUpcomingMeetings=lambda: [meeting])
            self.broker.register(listener.endpoint, "com.gantrel.Gantrel")
            shown = subprocess.run([MENU_APP, "upcoming"], stdout=subprocess.PIPE, text=True, check=True).stdout
            self.assertEqual(shown, f"no day of a calendar: {number} seconds after 1970  Never (x)\n")

    def test_refuses_what_is_not_in_the_interface_and_nothing_else_happens(self):
        client = Connection(self.path)

        def call(*message, descriptors=()):
            client.send([CALL, 1, *message], descriptors)
            return client.receive()

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
        call(RETRIEVE, ["a"])  # the agent has accepted by then
        before = open_descriptors(self.agent)
        for selector, arguments, descriptors in cases:
            with self.subTest(selector=selector, arguments=arguments):
                self.assertEqual(call(selector, arguments, descriptors=descriptors), ([REFUSAL, 1], []))
        self.assertEqual(call(RETRIEVE, ["a"])[0], [REPLY, 1, [None]])
        self.assertEqual(open_descriptors(self.agent), before)


unittest.main(warnings="ignore")  # of sockets that end with the process
