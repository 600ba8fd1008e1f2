"""Interface status from the kernel, and what hmctl doctor sees, in the test's own network namespace."""

import json
import re
import signal
import subprocess
import unittest

from host_case import RunningCase
from running_host import PROBE_CONFIG, STATUS


def ip(*commands):
    """One batch, so that thousands of changes come at once."""
    subprocess.run(["ip", "-batch", "-"], input="\n".join(commands) + "\n", text=True, check=True)


class KernelInterfacesTest(RunningCase):
    options = ("--interfaces", "kernel")

    def setUp(self):
        ip("link add h1 type veth peer name h2", "link set h1 up address 02:00:00:00:00:11",
           "link set h2 up address 02:00:00:00:00:12", "addr add 10.77.0.1/24 dev h1",
           "addr add 2001:db8:77::1/64 dev h1 nodad")
        self.addCleanup(ip, "link del h1")
        super().setUp()

    def ipv4(self):
        return {name: each["ipAddr"] for name, each in self.get("ip/status")["ipIntfStatus"].items()}

    def ipv6(self, name):
        """Without the link-local ones, which come and go with the cable."""
        status = self.get("ip6/status")["intf"].get(name, {"addr": []})
        return sorted(each for each in status["addr"] if not each.startswith("fe80"))

    def reached(self, what, wanted):
        self.eventually(lambda: what() == wanted, lambda: f"{wanted}, not {what()}")

    def test_what_stands_at_the_start(self):
        self.assertEqual(self.ipv4()["h1"], "10.77.0.1")
        self.assertEqual(self.ipv6("h1"), ["2001:db8:77::1/64"])
        self.assertNotIn("lo", self.ipv4())  # 127.0.0.1 and ::1 are of this host alone
        self.assertNotIn("lo", self.get("ip6/status")["intf"])

    def test_probes_have_the_addresses_of_a_real_interface(self):
        def sources():
            status = self.get(STATUS)
            return status["probeSrcIp"], status["probeSrcIp6"]

        self.told("set", PROBE_CONFIG, "localTunnelIntf", "h1")
        self.reached(sources, ("10.77.0.1", "2001:db8:77::1"))
        ip("addr add 2001:db8:77::2/64 dev h1 nodad", "addr del 10.77.0.1/24 dev h1")
        self.reached(sources, ("", ""))
        ip("addr del 2001:db8:77::1/64 dev h1", "addr add 10.77.0.3/24 dev h1")
        self.reached(sources, ("10.77.0.3", "2001:db8:77::2"))
        ip("link set h1 down")
        self.reached(sources, ("", ""))

    def test_changes_are_followed(self):
        ip("link add c1 type veth peer name c2", "link set c1 up", "link set c2 up", "addr add 10.78.0.1/24 dev c1",
           "addr add 10.78.0.2/24 dev c1", "addr add 192.0.2.7/32 dev c1", "addr add 2001:db8:78::1/64 dev c1 nodad")
        self.reached(lambda: (self.ipv4().get("c1"), self.ipv6("c1")), ("10.78.0.1", ["2001:db8:78::1/64"]))
        ip("addr del 10.78.0.1/24 dev c1")
        self.reached(lambda: self.ipv4().get("c1"), "192.0.2.7")
        ip("link set c1 down", "link set c1 name Tunnel1", "link set Tunnel1 up")
        self.reached(lambda: (self.ipv4().get("c1"), self.ipv4().get("Tunnel1")), (None, "192.0.2.7"))
        ip("link set Tunnel1 down")
        self.reached(lambda: self.ipv4().get("Tunnel1"), None)
        ip("link set Tunnel1 up")
        self.reached(lambda: self.ipv4().get("Tunnel1"), "192.0.2.7")
        ip("addr add 2001:db8:78::2/128 dev Tunnel1 nodad", "addr add 2001:db8:78::3/128 dev Tunnel1 nodad")
        self.reached(lambda: self.ipv6("Tunnel1"), ["2001:db8:78::2/128", "2001:db8:78::3/128"])
        ip("addr flush dev Tunnel1")
        self.reached(lambda: (self.ipv4().get("Tunnel1"), self.ipv6("Tunnel1")), (None, []))
        ip("link del Tunnel1")
        self.reached(lambda: [name for name in self.get("ip6/status")["intf"] if name in ("Tunnel1", "c2")], [])

    def test_an_address_that_may_be_taken_is_not_used(self):
        ip("link add d1 type veth peer name d2", "link set d2 address 02:00:00:00:00:22", "link set d1 up",
           "link set d2 up")
        ip("addr add 2001:db8:79::1/64 dev d2 nodad", "addr add 2001:db8:79::1/64 dev d1")
        self.eventually(lambda: "dadfailed" in subprocess.run(
            ["ip", "-6", "addr", "show", "dev", "d1"], capture_output=True, text=True).stdout, "d1 finds it taken")
        self.reached(lambda: (self.ipv6("d1"), self.ipv6("d2")), ([], ["2001:db8:79::1/64"]))
        ip("link del d1")

    def test_more_changes_than_the_kernel_keeps(self):
        ip("link add m1 type veth peer name m2", "link set m1 up", "link set m2 up", "addr add 10.81.0.1/24 dev m1",
           *(f"addr add 2001:db8:81::{i:x}/128 dev m1 nodad" for i in range(1, 300)))
        self.eventually(lambda: len(self.ipv6("m1")) == 299, "all 299 addresses")
        self.host.send_signal(signal.SIGSTOP)  # it reads nothing, and the kernel's buffer runs over
        try:
            ip(*(f"link set m1 alias a{i}" for i in range(5000)))
            ip("addr flush dev m1", "addr add 10.81.0.2/24 dev m1", "addr add 2001:db8:81::ffff/128 dev m1 nodad",
               "link set m2 down", "link set m2 name m3")
        finally:
            self.host.send_signal(signal.SIGCONT)
        self.reached(lambda: (self.ipv4().get("m1"), self.ipv6("m1")), ("10.81.0.2", ["2001:db8:81::ffff/128"]))
        with open(f"{self.home}/HealthMonitor.flog") as file:
            self.assertIn("interfaces are asked for again", file.read())
        ip("link del m1")
        self.reached(lambda: (self.ipv4().get("m1"), self.ipv6("m1")), (None, []))

    def test_the_bridges_mac(self):
        def mac():
            return self.get("bridging/config")["bridgeMac"]

        self.assertEqual(mac(), "02:00:00:00:00:12")  # h2 has the lower index
        ip("link set h2 down")
        self.reached(mac, "02:00:00:00:00:11")
        ip("link set h2 up")
        self.reached(mac, "02:00:00:00:00:12")
        # A bridge counts before the others, up or not, and the first before the next.
        ip(*(f"link add b{i} address 02:00:00:00:00:3{i} type bridge" for i in (1, 2)))
        self.reached(mac, "02:00:00:00:00:31")
        ip("link del b1")
        self.reached(mac, "02:00:00:00:00:32")
        ip("link del b2")
        self.reached(mac, "02:00:00:00:00:12")

    def test_the_paths_are_no_configuration(self):
        why = "follows the kernel's interfaces (--interfaces kernel) and is not configured"
        refused = self.hmctl("set", "bridging/config", "bridgeMac", "02:00:00:00:00:01")
        self.assertEqual((refused.returncode, refused.stderr), (1, f"bridging/config: {why}\n"))
        document = "ip/status: { ipIntfStatus: { h1: { ipAddr: 10.9.9.9 } } }\nip6/status: {}\n"
        refused = self.hmctl("apply", "-", input=document)
        self.assertEqual(refused.returncode, 1)
        self.assertEqual(re.findall(r"\d: (.*)", refused.stderr), [f"ip/status: {why}", f"ip6/status: {why}"])
        self.assertNotIn("ip/status", self.hmctl("get", "--config").stdout)


class DoctorTest(RunningCase):
    VIP, VIP6 = "192.0.2.10", "2001:db8::10"
    options = ("--interfaces", "kernel")

    def setUp(self):
        ip("link add s1 type veth peer name s2", "link set s1 up", "link set s2 up", "addr add 10.80.0.1/24 dev s1",
           "addr add 2001:db8:80::1/64 dev s1 nodad")
        self.addCleanup(ip, "link del s1")
        self.sysctl("conf/all/rp_filter", 0)
        self.sysctl("conf/s1/rp_filter", 1)
        super().setUp()

    @staticmethod
    def sysctl(name, value):
        with open(f"/proc/sys/net/ipv4/{name}", "w") as file:
            file.write(str(value))

    def doctor(self):
        answer = self.hmctl("doctor", "--json")
        found = [(each["subject"], each["problem"]) for each in json.loads(answer.stdout)["findings"]]
        self.assertEqual(answer.returncode, 1 if found else 0, answer.stderr)
        return found

    def test_without_virtual_addresses_there_is_nothing_to_look_at(self):
        for groups in ({}, {"web": (["127.2.1.1"], {"tcpUrl": "tcp://127.2.1.1:9"})}):
            self.apply(groups)
            answer = self.hmctl("doctor")
            self.assertEqual((answer.returncode, answer.stdout.count("\n"), answer.stderr), (0, 1, ""))
            self.assertIn("nothing to look at", answer.stdout)

    def test_what_is_wrong_is_said_until_it_is_put_right(self):
        self.apply({"web": (["10.80.0.11", "10.80.0.12", "10.99.0.1"],
                            {"tcpUrl": f"tcp://{self.VIP}:80", "vip": self.VIP}),
                    "six": (["2001:db8:80::11"], {"tcpUrl": f"tcp://[{self.VIP6}]:80", "vip": self.VIP6})})
        ip(f"addr add {self.VIP}/32 dev lo", "link set lo up")
        found = self.doctor()
        for subject, problem in (("IPv4 source address", "no tunnel interface"), ("IPv4 probe rules", "no rule"),
                                 ("IPv6 source address", "no tunnel interface"), ("IPv6 probe rules", "no rule"),
                                 ("echo rules", f"nobody answers them: {self.VIP}, {self.VIP6}"),
                                 (f"VIP {self.VIP}", "interface lo has it"), (f"VIP {self.VIP6}", "no route to it"),
                                 ("servers", "no route to 1 of them: 10.99.0.1 (group web)"),
                                 ("reverse-path filter", "strict on links to servers and drops their answers: s1")):
            self.assertEqual(len([1 for each in found if each[0] == subject and problem in each[1]]), 1,
                             (subject, problem, found))
        self.assertEqual(len(found), 9, found)
        text = self.hmctl("doctor")
        self.assertEqual((text.returncode, text.stdout.count("\n"), text.stderr), (1, 9, "to be put right: 9\n"))

        ip(f"addr del {self.VIP}/32 dev lo")
        ip(f"route add {self.VIP} dev s1 mtu 1450", "route add 10.99.0.1 via 10.80.0.11",
           f"route add {self.VIP6} dev s1 mtu 1430")
        self.sysctl("conf/s1/rp_filter", 2)
        self.told("set", PROBE_CONFIG, "localTunnelIntf", "s1")
        for program, protocol, kind, vip in (("iptables-nft", "icmp", "--icmp-type", self.VIP),
                                             ("ip6tables-nft", "ipv6-icmp", "--icmpv6-type", self.VIP6)):
            for rule in (f"OUTPUT -p tcp -m mark ! --mark 0x0/0x3fff -m mark --mark 0x0/0xffffc000",
                         f"PREROUTING -d {vip} -p {protocol} {kind} echo-request"):
                subprocess.run([program, "-w", "-t", "mangle", "-A", *rule.split(), "-j", "NFQUEUE", "--queue-num",
                                "0"], check=True)
        self.eventually(lambda: self.doctor() == [], lambda: f"wrong is {self.doctor()}")
        self.assertIn("nothing is wrong", self.hmctl("doctor").stdout)

    def test_thousands_of_servers(self):
        servers = [f"10.80.{i // 250 + 8}.{i % 250 + 1}" for i in range(4000)]
        self.apply({"web": (servers, {"tcpUrl": f"tcp://{self.VIP}:80", "vip": self.VIP, "disabled": False,
                                      "probeInterval": 1, "timeout": 9})})
        found = self.doctor()
        self.assertIn("no route to 4000 of them: 10.80.8.1 (group web), ", dict(found)["servers"])
        self.assertIn("10.80.8.5 (group web) and 3995 more", dict(found)["servers"])
        self.assertEqual([problem for _, problem in found if "source ports" in problem],
                         ["its checks may need 36000 source ports at a time, and there are 28232"])


if __name__ == "__main__":
    unittest.main()
