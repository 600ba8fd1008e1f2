"""From configuration to published health, as an operator and the switch's other agents see it."""

import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from servers import OK, Server, http

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../scripts/lib"))
import own_network  # noqa: E402

own_network.enter()
BIN = sys.argv.pop(1)
STATUS = "healthMonitor/status/serverStatus"
PROBE_CONFIG = "healthMonitor/config/probeConfig"
UP, DOWN, SHUT = ("enabled", "up"), ("enabled", "down"), ("shutdown", "up")
PATIENCE_SECONDS = 60  # a bound, never a wait: sanitizers on a busy machine are slow


class HostTest(unittest.TestCase):
    """One hm-host for all tests of a class, configured anew by each."""

    @classmethod
    def setUpClass(cls):
        cls.home = tempfile.mkdtemp(prefix="hm-test-")
        cls.socket = f"{cls.home}/hm.sock"
        cls.startHost()

    @classmethod
    def tearDownClass(cls):
        status = cls.stopHost()
        shutil.rmtree(cls.home, ignore_errors=True)
        assert status == 0, f"hm-host ended with status {status}"

    @classmethod
    def startHost(cls, *options):
        environment = {**os.environ, "FLASHLOGDIR": cls.home}
        cls.host = subprocess.Popen([f"{BIN}/hm-host", "--socket", cls.socket, *options], env=environment)
        cls.eventually(lambda: cls.hmctl("get", STATUS).returncode == 0, "hm-host answers")

    @classmethod
    def stopHost(cls, how=signal.SIGTERM):
        cls.host.send_signal(how)
        return cls.host.wait(PATIENCE_SECONDS)

    @classmethod
    def hmctl(cls, *arguments, **options):
        return subprocess.run([f"{BIN}/hmctl", "-s", cls.socket, *arguments], text=True, capture_output=True,
                              timeout=PATIENCE_SECONDS, **options)

    @classmethod
    def eventually(cls, condition, what):
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not condition():
            if cls.host.poll() is not None:
                raise AssertionError(f"hm-host ended with status {cls.host.returncode} while waiting: {what}")
            if time.monotonic() > deadline:
                raise AssertionError(f"not within {PATIENCE_SECONDS} s: {what}")
            time.sleep(0.05)

    def setUp(self):
        self.servers = []

    def tearDown(self):
        for server in self.servers:
            server.stop()
        if self.host.poll() is None:
            self.apply({})
            self.eventually(lambda: self.hmctl("clean-state").returncode == 0,
                            f"clean: {self.hmctl('clean-state').stderr}")

    def server(self, address, port=0, answer=OK):
        self.servers.append(Server(address, port, answer))
        return self.servers[-1]

    def document(self, groups, **settings):
        """groups: name -> (list of servers, probe settings)"""
        probes = {name: {"timeout": 1, "retryCount": 0, "probeInterval": 0.3, **probe}
                  for name, (_, probe) in groups.items()}
        return {
            PROBE_CONFIG: {"monitoringEnabled": True, "nhgProbeConfig": probes, **settings} if groups else {},
            "healthMonitor/config/serverConfig":
                {"nhgConfig": {name: {"serverIp": servers} for name, (servers, _) in groups.items()}},
        }

    def apply(self, groups, **settings):
        answer = self.hmctl("apply", "-", input=json.dumps(self.document(groups, **settings)))
        self.assertEqual(answer.returncode, 0, answer.stderr)

    def status(self):
        answer = self.hmctl("get", "--json", STATUS)
        self.assertEqual(answer.returncode, 0, answer.stderr)
        return json.loads(answer.stdout)[STATUS]

    def hostStatus(self):
        return json.loads(self.hmctl("get", "--json", "host/status").stdout)["host/status"]

    def published(self):
        return {(group, server): (entry["adminState"], entry["operState"])
                for group, servers in self.status()["nhgProbeStatus"].items()
                for server, entry in servers["serverProbeStatus"].items()}

    def expect(self, wanted):
        seen = {}

        def reached():
            seen["last"] = self.published()
            return seen["last"] == wanted
        try:
            self.eventually(reached, "published states")
        except AssertionError as error:
            raise AssertionError(f"{error}: {seen.get('last')}, expected {wanted}") from None


class Health(HostTest):
    def test_servers_go_down_and_come_back_alone(self):
        web1 = self.server("127.2.1.1")
        web2 = self.server("127.2.1.2", web1.port)
        database = self.server("127.2.2.1")
        both = self.server("127.2.3.1")
        self.apply({
            "web": (["127.2.1.1", "127.2.1.2"], {"httpUrl": f"http://127.2.1.1:{web1.port}/health?x#y"}),
            "db": (["127.2.2.1"], {"tcpUrl": f"tcp://127.2.2.1:{database.port}"}),
            "both": (["127.2.3.1"], {"httpUrl": f"http://127.2.3.1:{both.port}",
                                     "tcpUrl": f"tcp://127.2.3.1:{both.port}"}),
        })
        up = {("web", "127.2.1.1"): UP, ("web", "127.2.1.2"): UP, ("db", "127.2.2.1"): UP,
              ("both", "127.2.3.1"): UP}
        self.expect(up)
        self.assertIn(b"GET /health HTTP/1.1\r\n", web2.request)
        self.assertIn(f"Host: 127.2.1.2:{web1.port}\r\n".encode(), web2.request)

        for answer in ("silent", "reset", "close", b"garbage\r\n\r\n", http(b"200 OK", b"x" * 9)[:-1]):
            web2.answer = answer
            self.expect({**up, ("web", "127.2.1.2"): DOWN})
            web2.answer = OK
            self.expect(up)
        database.stop()
        both.answer = "close"  # HTTP fails, TCP does not: one configured kind is enough
        self.expect({**up, ("db", "127.2.2.1"): DOWN, ("both", "127.2.3.1"): DOWN})
        database.start()
        both.answer = OK
        self.expect(up)

    def test_rules_on_code_and_body(self):
        server = self.server("127.2.1.1")
        group = {"web": (["127.2.1.1"], {"httpUrl": f"http://127.2.1.1:{server.port}/"})}
        self.apply(group, responseCodeRule={"pattern": "50.", "action": 0},
                   responsePayloadRule={"pattern": "drain", "action": 1})
        for answer, state in ((OK, UP), (http(b"503 Busy"), DOWN), (http(b"404 No"), UP),
                              (http(b"200 OK", b"draining now"), SHUT),
                              (http(b"500 No", b"drain"), ("shutdown", "down")), (OK, UP)):
            server.answer = answer
            self.expect({("web", "127.2.1.1"): state})
        # Without the rules the same answers mean nothing.
        self.apply(group)
        server.answer = http(b"503 Busy", b"drain")
        before = server.connections
        self.eventually(lambda: server.connections > before + 3, "checks go on")
        self.assertEqual(self.published(), {("web", "127.2.1.1"): UP})

    def test_an_attempt_that_may_be_repeated_takes_nobody_down(self):
        server = self.server("127.2.1.1")
        self.apply({"web": (["127.2.1.1"], {"httpUrl": f"http://127.2.1.1:{server.port}/", "retryCount": 2})})
        self.expect({("web", "127.2.1.1"): UP})
        watch = subprocess.Popen([f"{BIN}/hmctl", "-s", self.socket, "watch", STATUS], text=True,
                                 stdout=subprocess.PIPE)
        try:
            self.eventually(lambda: self.hostStatus()["clients"] >= 2,
                            "the watcher is there")
            for _ in range(3):
                server.failures = 2  # of the three attempts that a check has
                before = server.connections
                self.eventually(lambda: server.connections >= before + 4, "it answers again")
                self.assertEqual(server.failures, 0)
            server.stop()
            self.expect({("web", "127.2.1.1"): DOWN})
        finally:
            watch.terminate()
        changes = [json.loads(line) for line in watch.communicate(timeout=PATIENCE_SECONDS)[0].splitlines()]
        operational = [change["value"] for change in changes if change.get("attribute") == "operState"]
        self.assertEqual(operational, ["down"])

    def test_ipv6_and_a_virtual_address(self):
        six = self.server("::1")
        vip = self.server("127.2.9.9")
        self.apply({
            "six": (["::1"], {"httpUrl": f"http://[::1]:{six.port}/", "tcpUrl": f"tcp://[::1]:{six.port}"}),
            # Nothing wraps the packets here: the address itself answers for both servers behind it.
            "vip": (["10.99.0.1", "10.99.0.2"], {"httpUrl": f"http://127.2.9.9:{vip.port}/", "vip": "127.2.9.9"}),
        })
        self.expect({("six", "::1"): UP, ("vip", "10.99.0.1"): UP, ("vip", "10.99.0.2"): UP})
        self.assertIn(f"Host: [::1]:{six.port}\r\n".encode(), six.request)
        vip.stop()
        self.expect({("six", "::1"): UP, ("vip", "10.99.0.1"): DOWN, ("vip", "10.99.0.2"): DOWN})

    def test_switching_off_and_on(self):
        server = self.server("127.2.1.1")
        groups = {name: (["127.2.1.1"], {"httpUrl": f"http://127.2.1.1:{server.port}/"}) for name in ("a", "b/1")}
        self.apply(groups)
        both = {("a", "127.2.1.1"): UP, ("b/1", "127.2.1.1"): UP}
        self.expect(both)

        disabled = f"{PROBE_CONFIG}/nhgProbeConfig/b%2F1"
        self.assertEqual(self.hmctl("set", disabled, "disabled", "true").returncode, 0)
        self.expect({("a", "127.2.1.1"): UP})
        self.assertEqual(self.status()["nhgMonitoringDisabled"], ["b/1"])
        self.assertEqual(self.hmctl("set", PROBE_CONFIG, "monitoringEnabled", "false").returncode, 0)
        self.expect({})
        before = server.connections
        self.assertEqual(self.hmctl("set", disabled, "disabled", "false").returncode, 0)
        self.assertEqual(self.hmctl("set", PROBE_CONFIG, "monitoringEnabled", "true").returncode, 0)
        self.expect(both)
        self.assertGreater(server.connections, before)

    def test_a_change_elsewhere_disturbs_nobody(self):
        server = self.server("127.2.1.1")
        web = {"web": (["127.2.1.1"], {"httpUrl": f"http://127.2.1.1:{server.port}/"})}
        self.apply(web)
        self.expect({("web", "127.2.1.1"): UP})
        watch = subprocess.Popen([f"{BIN}/hmctl", "-s", self.socket, "watch", f"{STATUS}/nhgProbeStatus/web"],
                                 text=True, stdout=subprocess.PIPE)
        try:
            self.eventually(lambda: self.hostStatus()["clients"] >= 2,
                            "the watcher is there")
            self.apply({**web, "more": (["127.2.1.1"], {"tcpUrl": f"tcp://127.2.1.1:{server.port}"})})
            self.expect({("web", "127.2.1.1"): UP, ("more", "127.2.1.1"): UP})
            bad = self.hmctl("apply", "-", input=json.dumps(self.document(web, probeInterval=-1)))
            self.assertEqual(bad.returncode, 1)
            self.assertIn("probeInterval", bad.stderr)
            self.apply(web)
            self.expect({("web", "127.2.1.1"): UP})
        finally:
            watch.terminate()
        self.assertEqual(watch.communicate(timeout=PATIENCE_SECONDS)[0], "")

    def test_checks_leave_no_connection_waiting_on_this_side(self):
        server = self.server("127.2.1.1")
        self.apply({"web": (["127.2.1.1"], {"httpUrl": f"http://127.2.1.1:{server.port}/", "probeInterval": 0.1,
                                            "tcpUrl": f"tcp://127.2.1.1:{server.port}"})})
        self.eventually(lambda: server.connections > 20, "checks")
        remote = f"0101027F:{server.port:04X}"
        with open("/proc/net/tcp", encoding="ascii") as table:
            waiting = [line for line in table if line.split()[2] == remote and line.split()[3] == "06"]
        self.assertEqual(waiting, [])


class Lifecycle(HostTest):
    def test_startup_file_hangup_and_a_killed_host(self):
        server = self.server("127.2.1.1")
        web = {"web": (["127.2.1.1"], {"httpUrl": f"http://127.2.1.1:{server.port}/"})}
        path = f"{self.home}/startup.yaml"

        def write(text):
            with open(path, "w", encoding="utf-8") as file:
                file.write(text)
        write(json.dumps(self.document(web)))
        self.stopHost(signal.SIGKILL)  # its socket file stays behind
        self.startHost("--config", path)
        self.expect({("web", "127.2.1.1"): UP})

        write("healthMonitor/config/probeConfig: { probeInterval: never }")
        self.host.send_signal(signal.SIGHUP)
        self.eventually(lambda: "probeInterval" in self.hostStatus()["lastConfigurationError"], "the refusal is told")
        self.assertEqual(self.published(), {("web", "127.2.1.1"): UP})
        write(json.dumps(self.document({**web, "db": (["127.2.1.1"], {"tcpUrl": f"tcp://127.2.1.1:{server.port}"})})))
        self.host.send_signal(signal.SIGHUP)
        self.expect({("web", "127.2.1.1"): UP, ("db", "127.2.1.1"): UP})

        second = subprocess.run([f"{BIN}/hm-host", "--socket", self.socket], text=True, capture_output=True,
                                timeout=PATIENCE_SECONDS, env={**os.environ, "FLASHLOG_DISABLE": "1"})
        self.assertNotEqual(second.returncode, 0)
        self.assertIn(self.socket, second.stderr)
        self.expect({("web", "127.2.1.1"): UP, ("db", "127.2.1.1"): UP})


if __name__ == "__main__":
    unittest.main(verbosity=2)
