"""The packet path between real hosts, for IPv4 and IPv6 side by side: what a server, a client and the wire see."""

import contextlib
import os
import re
import signal
import socket
import struct
import sys
import unittest

sys.path.append(os.path.dirname(__file__) + "/../../scripts/lib")
from capture import ACK, GOOD, PSH, RST, SYN, Capture  # noqa: E402
from running_host import DOWN, PATIENCE_SECONDS, PROBE_CONFIG, ROOT, STATUS, UP, captured  # noqa: E402
from topology import (BRIDGE_MAC, FAMILIES, SERVER_MAC, VXLAN_PORT, Lab, isolate, server, source, vip,  # noqa: E402
                      whole)

Lab.binaries = sys.argv.pop(1)


class LabTest(unittest.TestCase):
    """One topology, with every server's nginx and hm-host up, for all tests of a class."""

    relay = False
    interfaces = "kernel"

    @classmethod
    def setUpClass(cls):
        cls.lab = Lab(servers=3, relay=cls.relay, interfaces=cls.interfaces)
        for number in cls.lab.numbers:
            cls.lab.server_start(number)
        cls.lab.host_start()

    @classmethod
    def tearDownClass(cls):
        cls.lab.close()
        cls.lab.host_stop()

    def up(self, number=1, settings=None, **probe):
        """All servers in a group a family, and up."""
        self.lab.apply(self.lab.groups(number, **probe), **(settings or {}))
        self.lab.expect(self.lab.states())
        self.rules_eventually(vip(number, 4))
        self.rules_eventually(source(0, 6))

    def rules_eventually(self, text):
        self.lab.eventually(lambda: text in self.lab.rules(), f"rules with {text}")

    @contextlib.contextmanager
    def unchanged(self):
        """Nothing that is published about a server may change inside."""
        with self.lab.watched(f"{STATUS}/nhgProbeStatus") as changes:
            yield
        self.assertEqual([change for change in changes if "operState" in str(change)], [])

    def more_served(self, count, address=None, numbers=None):
        """Waits for `count` more requests at each server."""
        def asked(number):
            return sum(times for (_, asked_for), times in self.lab.served(number).items()
                       if address is None or asked_for == address)
        numbers = numbers or self.lab.numbers
        before = {number: asked(number) for number in numbers}
        self.lab.eventually(lambda: all(asked(number) >= before[number] + count for number in numbers),
                            f"{count} more checks of each server")

    def came_from(self, tunnel):
        """Waits until each server has been asked by this source."""
        wanted = {(source(tunnel, family), vip(1, family)) for family in FAMILIES}
        self.lab.eventually(lambda: all(wanted <= self.lab.served(number).keys() for number in self.lab.numbers),
                            "the new source")

    def assert_wrapped(self, packets, tunnels=(0,)):
        """Every packet of a check is in the tunnel to its own server, with that server's mark; { vni: address }."""
        servers, streams = {}, {}
        ours = {source(tunnel, family) for tunnel in tunnels for family in FAMILIES}
        virtual = {vip(number, family) for number in (1, 2) for family in FAMILIES}
        for packet in packets:
            outer, inner = packet.addresses[0], packet.addresses[-1]
            if packet.vni is None:
                self.assertFalse(packet.tcp and outer[0] in ours, f"{packet} has left outside the tunnel")
                self.assertFalse(packet.tcp and outer[1] in virtual, f"{packet} has left outside the tunnel")
                continue
            self.assertIn(outer[0], ours, packet)
            self.assertEqual(inner[0], outer[0], packet)
            self.assertIn(inner[1], virtual, packet)
            self.assertEqual(servers.setdefault(packet.vni, outer[1]), outer[1], packet)
            self.assertEqual(streams.setdefault((inner, packet.port), packet.vni), packet.vni, packet)
            self.assertEqual(set(packet.checksums), {GOOD}, packet)
        self.assertEqual(len(set(servers.values())), len(servers), servers)
        return servers


class Path(LabTest):
    def test_each_server_answers_for_itself(self):
        self.up()
        for family in FAMILIES:
            for number in self.lab.numbers:
                answer = self.lab.json("probe", f"web{family}", server(number, family))
                self.assertEqual(answer["hmProbe"]["http"].get("bodyBegin"), f"s{number}\n", answer)
        self.more_served(1)
        for number in self.lab.numbers:
            self.assertEqual(set(self.lab.served(number)), {(source(0, family), vip(1, family)) for family in FAMILIES})
        self.lab.server_stop(2)
        self.lab.expect(self.lab.states(down=[2]))
        with self.unchanged():
            self.more_served(3, numbers=[1, 3])
        self.lab.server_start(2)
        self.lab.expect(self.lab.states())

    def test_a_new_virtual_address_moves_the_probes(self):
        self.up(retryCount=2)
        with self.unchanged():
            self.lab.apply(self.lab.groups(2, retryCount=2))
            self.more_served(2, vip(2, 4))
            self.more_served(2, vip(2, 6))
            before = [self.lab.served(number)[source(0, family), vip(1, family)]
                      for number in self.lab.numbers for family in FAMILIES]
            self.more_served(3, vip(2, 6))
        self.assertEqual(before, [self.lab.served(number)[source(0, family), vip(1, family)]
                                  for number in self.lab.numbers for family in FAMILIES])
        self.rules_eventually(vip(2, 4))
        self.assertNotIn(vip(1, 4), self.lab.rules())

    def test_every_packet_of_a_check_is_wrapped(self):
        self.up()
        capture = Capture(self.lab, "checks")
        self.more_served(3)
        self.lab.server_stop(2)  # refuses
        self.lab.ip("s3", "link set vxlan0 down")  # is silent
        groups = self.lab.groups(timeout=4)
        for group in groups.values():
            group[1]["tcpUrl"] = group[1]["httpUrl"].replace("http", "tcp").rstrip("/") + ":80"
        self.lab.apply(groups)
        self.lab.expect(self.lab.states(down=[2, 3]))
        self.lab.server_start(2)
        self.lab.ip("s3", "link set vxlan0 up")
        self.lab.expect(self.lab.states())
        packets = capture.packets()
        servers = self.assert_wrapped(packets)
        self.assertEqual(set(servers.values()),
                         {server(number, family) for number in self.lab.numbers for family in FAMILIES})
        tunnelled = [packet for packet in packets if packet.vni is not None]
        for family in FAMILIES:
            of_family = [packet for packet in tunnelled if packet.addresses[0][0] == source(0, family)]
            kinds = {packet.flags for packet in of_family}
            self.assertTrue({SYN, ACK | PSH} <= kinds and any(flags & RST for flags in kinds), kinds)
            opened = [(packet.port, packet.sequence) for packet in of_family if packet.flags == SYN]
            self.assertLess(len(set(opened)), len(opened), "SYNs to a silent server are repeated")
        self.assert_bytes(capture, tunnelled, servers)

    def assert_bytes(self, capture, tunnelled, servers):
        """The headers around each packet, byte by byte, made anew from what is inside."""
        raw = capture.raw()
        for packet in tunnelled:
            frame, address = raw[packet.number], servers[packet.vni]
            four = "." in address
            inner = frame[50 if four else 70:]
            if four:
                outer = struct.pack("!BBHHHBBH4s4s", 0x45, 0, len(inner) + 50, 0, 0x4000, inner[8], 17, 0,
                                    socket.inet_aton(source(0, 4)), socket.inet_aton(address))
                outer = outer[:10] + struct.pack("!H", checksum(outer)) + outer[12:]
                port = inner[20:22]
            else:
                outer = struct.pack("!IHBB16s16s", 6 << 28, len(inner) + 30, 17, inner[7],
                                    socket.inet_pton(socket.AF_INET6, source(0, 6)),
                                    socket.inet_pton(socket.AF_INET6, address))
                port = inner[40:42]
            expected = (outer + port + struct.pack("!HHH", VXLAN_PORT, len(inner) + 30, 0)
                        + b"\x08\0\0\0" + packet.vni.to_bytes(3, "big") + b"\0"
                        + bytes.fromhex((SERVER_MAC + BRIDGE_MAC).replace(":", ""))
                        + (b"\x08\0" if four else b"\x86\xdd"))
            self.assertEqual(frame[:len(expected)].hex(" "), expected.hex(" "), packet)

    def test_pings_to_virtual_addresses(self):
        self.up()
        before = self.replied()
        for family in FAMILIES:
            self.assertEqual(self.lab.ping(vip(1, family), 3, "-s", "1000"), 3)
        self.assertEqual(self.replied() - before, 6)
        for silent, answered in (([vip(1, family) for family in FAMILIES], 0), ([], 2)):
            self.lab.configure({f"{PROBE_CONFIG}/pingDisabledVip": silent})
            for family in FAMILIES:
                self.assertEqual(self.lab.ping(vip(1, family), 2), answered)

    def test_everything_else_passes(self):
        self.up()
        before = self.replied()
        for family in FAMILIES:
            # Routed to the first server, which owns the addresses: datagrams in fragments or with options, other
            # addresses, and what a client really wants of a virtual address.
            self.lab.ping(vip(1, family), 1, "-s", "3000")  # and the client has learnt the MTU of the way
            self.assertEqual(self.lab.ping(vip(1, family), 2, "-s", "3000"), 2)
            self.assertEqual(self.lab.ping(vip(2, family), 2), 2)
            if family == 4:
                self.assertEqual(self.lab.ping(vip(1, 4), 2, "-R"), 2)
            with socket_in(self.lab, "client", family) as client:
                client.settimeout(PATIENCE_SECONDS)
                client.connect((vip(1, family), 80))
                client.sendall(b"GET / HTTP/1.0\r\n\r\n")
                self.assertIn(b"\r\ns1\n", client.makefile("rb").read())
        # A client on the same link asks who has the address, and later whether it still has.
        self.lab.sysctl("switch", "net.ipv6.conf.all.proxy_ndp=1", "net.ipv6.conf.to-client.proxy_ndp=1")
        self.lab.ip("switch", f"neigh add proxy {vip(1, 6)} dev to-client")
        self.lab.ip("client", f"route add {vip(1, 6)} dev uplink")
        self.assertEqual(self.lab.ping(vip(1, 6)), 1)
        self.lab.ip("client", f"neigh change {vip(1, 6)} dev uplink nud probe")
        self.lab.eventually(lambda: "REACHABLE" in self.lab.inside("client", "ip", "neigh", "show", vip(1, 6)),
                            "a solicitation sent to the address itself is answered")
        self.assertEqual(self.replied() - before, 1)

    def replied(self):
        packets = self.lab.json("show", "health-monitor", "packets")["hmPackets"]
        return packets["repliedIpv4"] + packets["repliedIpv6"]

    def test_a_stateful_firewall_knows_the_answers(self):
        self.up()
        self.lab.inside("switch", "nft", "-f", "-", input="""table inet firewall {
            chain input { type filter hook input priority filter; policy drop; ct state established accept
                          icmpv6 type { nd-neighbor-solicit, nd-neighbor-advert } accept; }
            chain output { type filter hook output priority filter; policy accept; ct state invalid drop; }; }""")
        with self.unchanged():
            self.more_served(3)
        for family in FAMILIES:  # the replies are unknown to it
            self.assertEqual(self.lab.ping(vip(1, family)), 0)
        self.lab.inside("switch", "nft", "-f", "-", input=self.notrack())
        for family in FAMILIES:
            self.assertEqual(self.lab.ping(vip(1, family)), 1)
        for table in ("firewall", "health-monitor-notrack"):
            self.lab.inside("switch", "nft", "delete", "table", "inet", table)

    def notrack(self):
        """What the native example leaves commented out."""
        text = example("nft").split("# table inet health-monitor-notrack")[1]
        return "table inet health-monitor-notrack" + text.replace("\n#", "\n")

    def test_a_dead_route_takes_its_server_down_alone(self):
        self.up()
        self.lab.ip("switch", *(f"route add blackhole {server(2, family)}" for family in FAMILIES))
        self.lab.expect(self.lab.states(down=[2]))
        with self.unchanged():
            self.more_served(3, numbers=[1, 3])
        self.lab.ip("switch", *(f"route del blackhole {server(2, family)}" for family in FAMILIES))
        self.lab.expect(self.lab.states())


class Doctor(LabTest):
    def test_doctor_finds_what_is_wrong_and_nothing_else(self):
        self.up()
        self.assertEqual(self.doctor()[0], 0, self.doctor())
        for what, harm, repair, said in (  # that takes rules which the host keeps, or real links
                ("no room", f"ip route replace {vip(0, 4)}/24 via {server(1, 4)}",
                 f"ip route replace {vip(0, 4)}/24 via {server(1, 4)} mtu 1450", "do not fit"),
                ("bypass", "ip6tables-nft -t mangle -I OUTPUT -p tcp -j NFQUEUE --queue-num 0 --queue-bypass",
                 "ip6tables-nft -t mangle -D OUTPUT -p tcp -j NFQUEUE --queue-num 0 --queue-bypass", "bypass"),
                ("unwrapped", "iptables-nft -t mangle -I OUTPUT -p tcp -j ACCEPT",
                 "iptables-nft -t mangle -D OUTPUT -p tcp -j ACCEPT", "no rule hands marked TCP to queue 0")):
            with self.subTest(what):
                self.lab.inside("switch", *harm.split())
                status, text = self.doctor()
                self.lab.inside("switch", *repair.split())
                self.assertEqual(status, 1)
                self.assertIn(said, text)
        self.assertEqual(self.doctor()[0], 0, self.doctor())

    def doctor(self):
        done = captured(*self.lab.prefix, f"{self.lab.binaries}/hmctl", "-s", self.lab.socket, "doctor")
        return done.returncode, done.stdout


class Source(LabTest):
    # Until the engine has been told of a new source, checks still come from the former one and are dropped: some 5 s.
    probe = {"timeout": 2, "retryCount": 3}

    def test_moving_the_tunnel_source(self):
        self.up(**self.probe)
        capture = Capture(self.lab, "moving")
        with self.unchanged():
            self.lab.told("set", PROBE_CONFIG, "localTunnelIntf", "tunnel1")
            self.came_from(1)
            self.rules_eventually(source(1, 6))
            self.more_served(3)
        self.assert_wrapped(capture.packets(), tunnels=(0, 1))

    def test_an_ambiguous_or_missing_source(self):
        self.up(**self.probe)
        with SystemLog() as log:
            self.lab.ip("switch", "addr add fd00:255::99/128 dev tunnel0")
            self.lab.expect({key: UP if key[0] == "web4" else DOWN for key in self.lab.states()})
            self.assertIn("HEALTH_MONITOR_INVALID_IPV6_TUNNEL_ADDRESS: IPv6 tunnel address configuration is being "
                          "ignored due to multiple IPv6 addresses on tunnel0.", log.text())
        self.assertEqual((self.lab.ping(vip(1, 4)), self.lab.ping(vip(1, 6))), (1, 0))
        self.lab.ip("switch", "addr del fd00:255::99/128 dev tunnel0")
        self.lab.expect(self.lab.states())

        self.lab.told("set", PROBE_CONFIG, "localTunnelIntf", "")
        self.lab.expect(self.lab.states(down=self.lab.numbers))
        capture = Capture(self.lab, "unset")
        self.assertEqual((self.lab.ping(vip(1, 4)), self.lab.ping(vip(1, 6))), (0, 0))
        packets = capture.packets()
        self.assertFalse([packet for packet in packets if packet.tcp or packet.vni is not None])
        self.up(**self.probe)

    def test_the_address_of_the_tunnel_interface_changes(self):
        self.up(**self.probe)
        with self.unchanged():
            for each in FAMILIES:
                self.lab.ip("switch", f"addr del {whole(source(1, each))} dev tunnel1",
                            f"addr del {whole(source(0, each))} dev tunnel0",
                            f"addr add {whole(source(1, each))} dev tunnel0")
            self.came_from(1)


class Configured(LabTest):
    interfaces = "config"

    def test_interfaces_of_the_configuration(self):
        """The switch's interfaces as another subsystem of it reports them."""
        def addresses(*more):
            listed = [f"{address}/128" for address in (source(0, 6), *more)]
            self.lab.configure({"ip6/status": {"intf": {"tunnel0": {"addr": listed}}}})
        self.up()
        addresses("fd00:255::99")
        self.lab.expect({key: UP if key[0] == "web4" else DOWN for key in self.lab.states()})
        addresses("fe80::1")
        self.lab.expect(self.lab.states())


class Wire(LabTest):
    relay = True

    def test_loss_and_reordering_take_nobody_down(self):
        probe = {"timeout": 8, "retryCount": 3, "probeInterval": 0.5}
        self.up(**probe)
        self.lab.wires(loss=0.05, reorder=0.2)
        with self.unchanged():
            self.more_served(10)
        self.lab.wires()

    def test_answers_that_come_too_late_meet_no_reset_outside_the_tunnel(self):
        self.up(timeout=1, retryCount=0)
        self.lab.wires(delay=0.8)  # there and back in 1.6 s; a check may take 1 s
        self.lab.expect(self.lab.states(down=self.lab.numbers))
        capture = Capture(self.lab, "late")
        before = self.dropped()
        self.lab.eventually(lambda: all(count > before[family] + 3 for family, count in self.dropped().items()),
                            "resets of connections that are gone, dropped by rule")
        packets = capture.packets()
        self.assert_wrapped(packets)
        self.assertTrue(any(packet.vni is not None for packet in packets))
        self.lab.wires()
        self.lab.expect(self.lab.states())

    def dropped(self):
        """{ family: how many packets the rules on what is left of probes have dropped }"""
        if "table inet health-monitor" in self.lab.rules():
            text = self.lab.inside("switch", "nft", "list", "chain", "inet", "health-monitor", "output")
            found = [int(count) for count in re.findall(r"counter packets (\d+) bytes \d+ drop", text)]
            return dict(zip(FAMILIES, found))
        found = {}
        for family, program in zip(FAMILIES, ("iptables-nft", "ip6tables-nft")):
            text = self.lab.inside("switch", program, "-t", "mangle", "-v", "-S", "HEALTH-MONITOR-STRAY")
            found[family] = int(re.search(r"-c (\d+) \d+ -j ", text)[1])
        return found


class Filter(LabTest):
    def test_rules_come_follow_and_go(self):
        own = "-A OUTPUT -s 192.0.2.1/32 -j ACCEPT"
        self.lab.inside("switch", "iptables-nft", "-t", "mangle", *own.split())
        self.up()
        self.lab.host_kill()
        self.assertIn(vip(1, 4), self.lab.rules(), "nobody takes the rules of a killed host away")
        self.lab.host_start()  # knows of no virtual address yet
        after = self.lab.rules()
        self.assertNotIn(vip(1, 4), after)
        self.assertEqual(after.count("-A OUTPUT -j HEALTH-MONITOR-OUT") in (0, 2), True, after)
        self.up()

        self.lab.inside("switch", "nft", "flush", "ruleset")  # what a reload of somebody's firewall does
        self.lab.inside("switch", "iptables-nft", "-t", "mangle", *own.split())
        self.lab.apply(self.lab.groups(2))
        self.rules_eventually(vip(2, 6))
        self.lab.host_stop()
        left = self.lab.rules()
        self.assertIn(own, left)
        self.assertNotRegex(left.lower(), "health-monitor|queue")
        self.lab.host_start()

    def test_a_host_that_stops_or_dies_leaves_nothing_of_its_checks_on_the_wire(self):
        self.up()
        with contextlib.ExitStack() as taken:  # connections that nobody answers, one a server
            for number in self.lab.numbers:
                self.lab.server_stop(number)
                for family in FAMILIES:
                    listener = taken.enter_context(socket_in(self.lab, f"s{number}", family))
                    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                    listener.bind((vip(1, family), 80))
                    listener.listen()
            self.lab.apply(self.lab.groups(timeout=60))
            for how in (signal.SIGTERM, signal.SIGKILL):
                self.lab.eventually(lambda: len(self.connections("state", "established")) >= len(self.lab.states()),
                                    "an open check of each")
                capture = Capture(self.lab, f"stop{how}")
                self.lab.host_stop(how)
                self.assertEqual(self.connections("-a"), [])
                self.assert_wrapped(capture.packets())
                self.lab.host_start()
                self.lab.apply(self.lab.groups(timeout=60))
        for number in self.lab.numbers:
            self.lab.server_start(number)

    def connections(self, *which):
        return self.lab.inside("switch", "ss", "-Htn", *which).splitlines()

    def test_a_packet_filter_that_refuses_is_told_of_and_nothing_else(self):
        self.lab.host_stop()
        path = f"{self.lab.home}/bin"
        os.makedirs(path)
        for program in ("nft", "iptables-nft", "ip6tables-nft", "iptables-nft-restore", "ip6tables-nft-restore"):
            with open(f"{path}/{program}", "w", encoding="ascii") as file:
                file.write("#!/bin/sh\necho no rules today >&2\nexit 1\n")
            os.chmod(f"{path}/{program}", 0o755)
        before = os.environ["PATH"]
        os.environ["PATH"] = f"{path}:{before}"
        try:
            self.lab.host_start()
        finally:
            os.environ["PATH"] = before
        self.assertIn("no rules today", self.lab.host_log())
        self.assertIn("no rules today", self.lab.told("get", "host/status"))
        self.lab.host_stop()
        self.lab.host_start()

    def test_the_example_rules_do(self):
        self.lab.host_stop()
        # Not every kernel has the statement itself.
        self.lab.inside("switch", "nft", "-c", "-f", "-", input=example("nft").replace("queue to 0", "accept"))
        for name in ("iptables", "ip6tables"):
            self.lab.inside("switch", f"{name}-nft-restore", "--noflush", input=example(name))
        self.lab.host_start(packet_filter="off")
        self.lab.apply(self.lab.groups())
        self.lab.expect(self.lab.states())
        self.lab.server_stop(2)
        self.lab.expect(self.lab.states(down=[2]))
        self.lab.server_start(2)
        for family in FAMILIES:
            self.assertEqual(self.lab.ping(vip(1, family), 2), 2)
        self.lab.host_stop()
        self.assertIn("-j NFQUEUE", self.lab.rules(), "off leaves rules alone")
        self.lab.inside("switch", "nft", "flush", "ruleset")
        self.lab.host_start()


def example(name):
    """The rules that come with the agent, with the addresses of this switch."""
    with open(f"{ROOT}/packaging/packet-filter/health-monitor.{name}", encoding="utf-8") as file:
        text = file.read()
    for there, here in (("192.0.2.10", vip(1, 4)), ("2001:db8::10", vip(1, 6)),
                        ("192.0.2.1", source(0, 4)), ("2001:db8::1", source(0, 6))):
        text = text.replace(there, here)
    return text


class SystemLog:
    """Stands in for the system's log: what is sent to syslog(3) inside."""

    def __enter__(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("/dev/log")
        self.socket.setblocking(False)
        return self

    def __exit__(self, *_):
        self.socket.close()
        os.unlink("/dev/log")

    def text(self):
        lines = []
        with contextlib.suppress(BlockingIOError):
            while True:
                lines.append(self.socket.recv(65536).decode())
        return "\n".join(lines)


@contextlib.contextmanager
def socket_in(lab, name, family):
    """A TCP socket of namespace `name`."""
    with open("/proc/self/ns/net", encoding="ascii") as here, open(f"/run/netns/{name}", encoding="ascii") as there:
        lab.enter(there)
        try:
            made = socket.socket(socket.AF_INET if family == 4 else socket.AF_INET6, socket.SOCK_STREAM)
        finally:
            lab.enter(here)
    with made:
        yield made


def checksum(header):
    total = sum(struct.unpack(f"!{len(header) // 2}H", header))
    while total >> 16:
        total = (total & 0xffff) + (total >> 16)
    return ~total & 0xffff


if __name__ == "__main__":
    isolate()
    unittest.main(verbosity=2)
