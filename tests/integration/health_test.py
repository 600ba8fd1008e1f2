"""From configuration to published health, as an operator and the switch's other agents see it."""

import json
import signal
import unittest

from host_case import RunningCase
from running_host import DOWN, PROBE_CONFIG, SHUT, STATUS, UP
from certificates import Certificates
from servers import OK, TlsServer, http


class Health(RunningCase):
    def test_servers_go_down_and_come_back_alone(self):
        web1 = self.server("127.2.1.1")
        web2 = self.server("127.2.1.2", web1.port)
        database = self.server("127.2.2.1")
        both = self.server("127.2.3.1")
        self.apply({
            "web": (["127.2.1.1", "127.2.1.2"], {"httpUrl": f"{web1.url()}/health?x#y"}),
            "db": database.group("tcp"),
            "both": both.group("http", "tcp"),
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
        self.apply({"web": server.group()}, responseCodeRule={"pattern": "50.", "action": 0},
                   responsePayloadRule={"pattern": "drain", "action": 1})
        for answer, state in ((OK, UP), (http(b"503 Busy"), DOWN), (http(b"404 No"), UP),
                              (http(b"200 OK", b"draining now"), SHUT),
                              (http(b"500 No", b"drain"), ("shutdown", "down")), (OK, UP)):
            server.answer = answer
            self.expect({("web", "127.2.1.1"): state})
        # Without the rules the same answers mean nothing.
        self.apply({"web": server.group()})
        server.answer = http(b"503 Busy", b"drain")
        self.more_checks(server, 4)
        self.assertEqual(self.published(), {("web", "127.2.1.1"): UP})

    def test_profiles_decide_whom_to_trust(self):
        Certificates(self.home, ["127.2.1.1"])
        server = self.server("127.2.1.1", kind=TlsServer)
        server.certificates = self.home
        client = {"state": "valid", "certFilePath": f"{self.home}/client.pem"}
        self.configure({"mgmt/security/ssl/status": {"profileStatus": {
            "ours": {**client, "caFilePath": f"{self.home}/ca.pem"},
            "others": {**client, "caFilePath": f"{self.home}/client.pem"}}}})
        url = server.url("https")
        groups = {"own": ([server.address], {"httpUrl": url, "sslProfile": "ours"}),
                  "all": ([server.address], {"httpUrl": url})}
        own, common = ("own", "127.2.1.1"), ("all", "127.2.1.1")
        for profile, state in (("ours", UP), ("others", DOWN), ("ours", UP)):
            self.apply(groups, sslProfile=profile)
            self.expect({own: UP, common: state})

    def test_an_attempt_that_may_be_repeated_takes_nobody_down(self):
        server = self.server("127.2.1.1")
        self.apply({"web": server.group(retryCount=2)})
        self.expect({("web", "127.2.1.1"): UP})
        with self.watched(STATUS) as changes:
            for _ in range(3):
                server.failures = 2  # of the three attempts that a check has
                self.more_checks(server, 4)
                self.assertEqual(server.failures, 0)
            server.stop()
            self.expect({("web", "127.2.1.1"): DOWN})
        operational = [change["value"] for change in changes if change.get("attribute") == "operState"]
        self.assertEqual(operational, ["down"])

    def test_ipv6_and_a_virtual_address(self):
        six = self.server("::1")
        vip = self.server("127.2.9.9")
        self.apply({
            "six": six.group("http", "tcp"),
            # Nothing wraps the packets here: the address itself answers for both servers behind it.
            "vip": (["10.99.0.1", "10.99.0.2"], {"httpUrl": vip.url(), "vip": "127.2.9.9"}),
        })
        self.expect({("six", "::1"): UP, ("vip", "10.99.0.1"): UP, ("vip", "10.99.0.2"): UP})
        self.assertIn(f"Host: [::1]:{six.port}\r\n".encode(), six.request)
        vip.stop()
        self.expect({("six", "::1"): UP, ("vip", "10.99.0.1"): DOWN, ("vip", "10.99.0.2"): DOWN})

    def test_switching_off_and_on(self):
        server = self.server("127.2.1.1")
        self.apply({name: server.group() for name in ("a", "b/1")})
        both = {("a", "127.2.1.1"): UP, ("b/1", "127.2.1.1"): UP}
        self.expect(both)

        disabled = f"{PROBE_CONFIG}/nhgProbeConfig/b%2F1"
        self.told("set", disabled, "disabled", "true")
        self.expect({("a", "127.2.1.1"): UP})
        self.assertEqual(self.get(STATUS)["nhgMonitoringDisabled"], ["b/1"])
        self.told("set", PROBE_CONFIG, "monitoringEnabled", "false")
        self.expect({})
        before = server.connections
        self.told("set", disabled, "disabled", "false")
        self.told("set", PROBE_CONFIG, "monitoringEnabled", "true")
        self.expect(both)
        self.assertGreater(server.connections, before)

    def test_a_change_elsewhere_disturbs_nobody(self):
        server = self.server("127.2.1.1")
        web = {"web": server.group()}
        self.apply(web)
        self.expect({("web", "127.2.1.1"): UP})
        with self.watched(f"{STATUS}/nhgProbeStatus/web") as changes:
            self.apply({**web, "more": server.group("tcp")})
            self.expect({("web", "127.2.1.1"): UP, ("more", "127.2.1.1"): UP})
            bad = self.hmctl("apply", "-", input=json.dumps(self.document(web, probeInterval=-1)))
            self.assertEqual(bad.returncode, 1)
            self.assertIn("probeInterval", bad.stderr)
            self.apply(web)
            self.expect({("web", "127.2.1.1"): UP})
        self.assertEqual(changes, [])

    def test_checks_leave_no_connection_waiting_on_this_side(self):
        server = self.server("127.2.1.1")
        self.apply({"web": server.group("http", "tcp", probeInterval=0.1)})
        self.more_checks(server, 20)
        remote = f"0101027F:{server.port:04X}"
        with open("/proc/net/tcp", encoding="ascii") as table:
            waiting = [line for line in table if line.split()[2] == remote and line.split()[3] == "06"]
        self.assertEqual(waiting, [])

    def test_startup_file_hangup_and_a_killed_host(self):
        server = self.server("127.2.1.1")
        web = {"web": server.group()}
        path = f"{self.home}/startup.yaml"

        def write(text):
            with open(path, "w", encoding="utf-8") as file:
                file.write(text)
        write(json.dumps(self.document(web)))
        self.host_kill()  # its socket file stays behind
        self.host_start("--config", path)
        self.expect({("web", "127.2.1.1"): UP})

        write("healthMonitor/config/probeConfig: { probeInterval: never }")
        self.host.send_signal(signal.SIGHUP)
        self.eventually(lambda: "probeInterval" in self.get("host/status")["lastConfigurationError"],
                        "the refusal is told")
        self.assertEqual(self.published(), {("web", "127.2.1.1"): UP})
        both = {("web", "127.2.1.1"): UP, ("db", "127.2.1.1"): UP}
        write(json.dumps(self.document({**web, "db": server.group("tcp")})))
        self.host.send_signal(signal.SIGHUP)
        self.expect(both)

        self.assertIn(self.socket, self.refused())
        self.expect(both)


if __name__ == "__main__":
    unittest.main(verbosity=2)
