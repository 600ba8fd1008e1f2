"""The commands of a running agent: for an operator at hmctl, and against clients of the socket who mean no good."""

import contextlib
import json
import os
import random
import re
import socket
import threading
import unittest

from host_case import BIN, RunningCase
from running_host import PATIENCE_SECONDS
from servers import OK, http
from terminal import Terminal

CONFIGURED_GROUPS = "healthMonitor/config/serverConfig/nhgConfig"


class OperatorTest(RunningCase):
    def test_status_is_drawn_anew_on_a_terminal(self):
        server = self.server("127.2.1.1")
        self.apply({"web": server.group()})
        terminal = Terminal(f"{BIN}/hmctl", ["-s", self.socket, "status", "--watch"])
        self.addCleanup(terminal.close)
        terminal.expect(r"Nexthop Group.*\nweb +127\.2\.1\.1 +up +up +-.*answered")
        server.answer = http(b"200 OK", b"x")[:-1]
        terminal.expect(r"\nweb +127\.2\.1\.1 +down +down ")
        server.stop()
        terminal.expect("connection refused")
        terminal.send("\x03")
        self.assertLess(terminal.ended(), 0)  # by the signal

    def test_groups_may_have_any_name(self):
        server = self.server("127.2.1.1")
        names = ["two  words ", " it's \"quoted\" ", "größe 中", "-dash", "--json", "a/b|c\\d", "line\nfeed"]
        self.apply({name: server.group() for name in names})
        for name in names:
            with self.subTest(name=name):
                probe = ["probe", "--json", "--", name, "127.2.1.1"]
                self.eventually(lambda: self.hmctl(*probe).returncode == 0, "the engine knows it")
                self.assertEqual(json.loads(self.told(*probe))["hmProbe"]["http"]["status"], 200)
                status = json.loads(self.told("status", "--json", "--", name))["hmStatus"]
                self.assertEqual(list(status), [name])

    def test_trace_levels_reach_the_engine(self):
        self.apply({"web": (["127.2.1.1"], {"tcpUrl": "tcp://127.2.1.1:9"})})  # whose failures are a detail

        def detailed():
            with open(f"{self.home}/HealthMonitor.flog", encoding="utf-8") as file:
                return re.search(r" NetCHASM [3-9] ", file.read())
        self.assertIsNone(detailed())
        self.told("trace", "NetCHASM", "0-9")
        self.eventually(detailed, "the engine says more")
        self.told("trace", "NetCHASM", "0-2")


class Client:
    """One connection to the control socket, without hmctl's manners."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE_SECONDS)
        self.socket.connect(path)
        self.lines = self.socket.makefile("rb")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.lines.close()
        self.socket.close()

    def send(self, request):
        """As far as the host takes it."""
        with contextlib.suppress(ConnectionError):
            self.socket.sendall(request if isinstance(request, bytes) else json.dumps(request).encode() + b"\n")

    def answer(self):
        """The texts of the next answer together, and its last line."""
        text = ""
        for line in map(json.loads, self.lines):
            if "text" not in line:
                return text, line
            text += line["text"]
        raise AssertionError(f"the host closed after {text[-200:]!r}")


class HostileClientTest(RunningCase):
    """While an answer is long, or nobody takes it, everybody else is served."""

    COUNTERS = {"command": "run", "text": "show health-monitor counters", "format": "json"}
    DONE = {"done": True}
    GROUPS, SERVERS_PER_GROUP = 30, 100

    def setUp(self):
        super().setUp()
        # Nobody listens there, and each is asked once.
        self.apply({f"g{g:02}": ([f"127.3.{g}.{i}" for i in range(1, self.SERVERS_PER_GROUP + 1)],
                                 {"tcpUrl": "tcp://127.3.0.1:9", "probeInterval": 3600}) for g in range(self.GROUPS)})
        with self.client(self.COUNTERS) as client:
            self.assert_counters(client.answer())
        self.eventually(lambda: self.get("host/status")["clients"] == 1, "only the one who asks")
        self.descriptors = self.open_descriptors()

    def tearDown(self):
        self.eventually(lambda: self.get("host/status")["clients"] == 1, "the clients are gone")
        self.assertEqual(self.open_descriptors(), self.descriptors)
        super().tearDown()

    def open_descriptors(self):
        return len([link for link in os.listdir(f"/proc/{self.host.pid}/fd")
                    if self.is_pipe(f"/proc/{self.host.pid}/fd/{link}")])

    @staticmethod
    def is_pipe(link):
        with contextlib.suppress(FileNotFoundError):
            return os.readlink(link).startswith("pipe:")
        return False

    def client(self, request=b""):
        client = Client(self.socket)
        client.send(request)
        return client

    def assert_counters(self, answer, groups=None):
        text, last = answer
        self.assertEqual(last, self.DONE)
        counters = json.loads(text)["hmCounters"]
        self.assertEqual(len(counters), groups or self.GROUPS)
        self.assertEqual(len(counters["g00"]["servers"]), self.SERVERS_PER_GROUP)

    def assert_served(self):
        self.assertEqual(self.told("status", "g01").count("\ng01 "), self.SERVERS_PER_GROUP)

    def test_an_answer_waits_for_its_reader(self):
        with contextlib.ExitStack() as stack:
            stalled = [stack.enter_context(self.client(self.COUNTERS)) for _ in range(20)]
            for _ in range(5):
                self.assert_served()
            gone = f"g{self.GROUPS - 1}"
            self.told("del", CONFIGURED_GROUPS, gone)
            self.eventually(lambda: self.hmctl("status", gone).returncode == 1, "the last group is gone")
            # It was not printed yet for any of them.
            for client in stalled:
                self.assert_counters(client.answer(), self.GROUPS - 1)

    def test_readers_that_leave_at_any_byte(self):
        with self.client(self.COUNTERS) as client:
            size = sum(len(client.lines.readline()) for _ in range(100))
        for length in (*range(0, 100), *random.Random(3).sample(range(100, size), 25)):
            with self.client(self.COUNTERS) as client:
                self.assertEqual(len(client.lines.read(length)), length)
            if length % 20 == 0:
                self.assert_served()

    def test_requests_that_are_cut_or_too_long(self):
        line = json.dumps(self.COUNTERS).encode() + b"\n"
        for length in range(len(line)):
            with self.client(line[:length]):
                pass
            with self.client(line[:length]) as client:
                client.socket.shutdown(socket.SHUT_WR)
                if length > 0:
                    self.assertEqual(client.answer(), ("", {"refused": ["the request is not complete"]}))
                self.assertEqual(client.lines.read(), b"")
        with self.client(line[:-3] + b"x" * (1 << 20)) as client:
            self.assertEqual(client.answer(), ("", {"refused": ["the request is longer than 65536 bytes"]}))
        for text in ("", " ", "show health-monitor counters ", "show health-monitor\ncounters", "\0", "x" * 65000,
                     "status " + "x" * 65000, "probe " + "\n" * 10000 + " 1.1.1.1", 7):
            with self.client({"command": "run", "text": text}) as client:
                printed, last = client.answer()
                self.assertEqual((printed, list(last)), ("", ["refused"]), text)
        self.assert_served()

    def test_many_requests_at_once(self):
        summary = {"command": "run", "text": "show health-monitor summary", "format": "json"}
        with self.client() as flood:
            line = json.dumps(summary).encode() + b"\n"
            sender = threading.Thread(target=flood.send, args=(line * 50_000,), daemon=True)
            sender.start()
            with contextlib.ExitStack() as stack:
                others = [stack.enter_context(self.client(self.COUNTERS)) for _ in range(20)]
                self.assert_served()
                for client in others:
                    self.assert_counters(client.answer())
            for _ in range(1000):
                text, last = flood.answer()
                self.assertEqual((json.loads(text)["monitoring"], last), (True, self.DONE))
            flood.socket.shutdown(socket.SHUT_RDWR)
            sender.join(PATIENCE_SECONDS)
            self.assertFalse(sender.is_alive())

    def test_checks_that_nobody_waits_for(self):
        silent = self.server("127.2.1.1", answer="silent")
        group = {"silent": silent.group(timeout=60)}
        self.apply(group)
        self.eventually(lambda: silent.connections > 0, "the engine knows it")
        probe = {"command": "run", "text": "probe silent 127.2.1.1"}

        def crowded():
            with self.client(probe) as client:
                client.socket.settimeout(0.05)
                with contextlib.suppress(TimeoutError):
                    return client.answer() == ("", {"refused": ["too many checks are under way"]})
            return False
        for _ in range(200):
            with self.client(probe):
                pass
        self.eventually(lambda: self.get("host/status")["clients"] == 1, "nobody stays for them")
        self.eventually(crowded, "there are enough of them")
        silent.answer = OK
        self.apply({})  # ends them
        self.apply(group)
        self.eventually(lambda: self.hmctl("probe", "silent", "127.2.1.1").returncode == 0, "checks go on")


if __name__ == "__main__":
    unittest.main(verbosity=2)
