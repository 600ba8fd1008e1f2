"""A switch, servers behind it and a client, each in a network namespace of its own.

              client 10.2.0.1, fd00:2::1
                 |
              switch ---- tunnel0 10.255.0.1, fd00:255::1   (where probes come from)
              |  |  | ---- tunnel1 10.255.0.2, fd00:255::2
             s1  s2  s3    10.1.N.1, fd00:1:N::1; each owns every virtual address on lo, takes VXLAN of any VNI and
                           answers directly

Everything lives in mount, process and network namespaces of this process alone: what it starts, makes and mounts
vanishes with it, however it ends.
"""

import ctypes
import json
import os
import signal
import stat
import subprocess
import sys
import tempfile

from running_host import DOWN, ROOT, UP, RunningHost, captured, stop

FAMILIES = (4, 6)
VXLAN_PORT = 4789
SERVER_MAC = "02:00:00:00:00:01"  # of the VXLAN device, the same on every server
BRIDGE_MAC = "02:00:00:00:00:fe"  # of the switch


def server(number, family):
    return f"10.1.{number}.1" if family == 4 else f"fd00:1:{number}::1"


def vip(number, family):
    return f"10.100.0.{number}" if family == 4 else f"fd00:100::{number}"


def source(number, family):
    """Address of interface tunnel`number`."""
    return f"10.255.0.{number + 1}" if family == 4 else f"fd00:255::{number + 1}"


def client(family):
    return "10.2.0.1" if family == 4 else "fd00:2::1"


def url(address):
    return f"http://[{address}]/" if ":" in address else f"http://{address}/"


def whole(address):
    """The network of this address alone."""
    return f"{address}/128" if ":" in address else f"{address}/32"


def run(*command, **options):
    done = captured(*command, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {done.stderr.strip() or done.stdout.strip()}")
    return done.stdout


def isolate():
    """From here on this process lives alone: in namespaces that end with it. The caller's process only waits."""
    new_mounts, new_pids, new_network, parent_death_signal = 0x00020000, 0x20000000, 0x40000000, 1
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(new_mounts | new_pids | new_network) != 0:
        sys.exit(f"the lab needs root and namespaces of its own: {os.strerror(ctypes.get_errno())}")
    sys.stdout.flush()
    inside = os.fork()
    if inside:
        signal.signal(signal.SIGTERM, lambda *_: os.kill(inside, signal.SIGTERM))
        signal.signal(signal.SIGINT, signal.SIG_IGN)  # the terminal has sent it to the one inside as well
        status = os.waitstatus_to_exitcode(os.waitpid(inside, 0)[1])
        os._exit(status if status >= 0 else 128 - status)
    libc.prctl(parent_death_signal, signal.SIGKILL)
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    run("mount", "--make-rprivate", "/")
    run("mount", "-t", "proc", "proc", "/proc")
    os.makedirs("/run/netns", exist_ok=True)
    run("mount", "-t", "tmpfs", "lab", "/run/netns")
    # Devices of its own as well, so that the system's log can be stood in for.
    run("mount", "-t", "tmpfs", "-o", "mode=755", "lab", "/dev")
    for name, minor in (("null", 3), ("zero", 5), ("full", 7), ("random", 8), ("urandom", 9)):
        os.mknod(f"/dev/{name}", 0o666 | stat.S_IFCHR, os.makedev(1, minor))
    if not ROOT.startswith("/tmp/"):
        run("mount", "-t", "tmpfs", "lab", "/tmp")  # the agent's files go with everything else


class Lab(RunningHost):
    """The topology, the servers' nginx and, once started, hm-host on the switch. After isolate(), once."""

    prefix = ("nsenter", "--net=/run/netns/switch")
    probe = {"timeout": 2, "retryCount": 1, "probeInterval": 0.5}

    def __init__(self, servers=2, home=None, relay=False, interfaces="kernel"):
        self.interfaces = interfaces  # where hm-host has the addresses of the switch from
        self.numbers = range(1, servers + 1)
        self.home = home or tempfile.mkdtemp(prefix="hm-lab-")
        self.nginx = {}
        self.relay = None
        self.build(relay)

    # Namespaces and addresses

    def build(self, relay):
        for name in ("switch", "client", *(f"s{number}" for number in self.numbers)):
            run("ip", "netns", "add", name)
            self.sysctl(name, "net.ipv6.conf.all.accept_dad=0", "net.ipv6.conf.default.accept_dad=0")
            self.ip(name, "link set lo up")
        self.sysctl("switch", "net.ipv4.ip_forward=1", "net.ipv6.conf.all.forwarding=1",
                    # Answers come from the virtual address, over whatever link: strict filtering would drop them.
                    "net.ipv4.conf.all.rp_filter=2", "net.ipv4.conf.default.rp_filter=2")
        self.ip("switch", f"link add bridge0 address {BRIDGE_MAC} type bridge", "link set bridge0 up")
        for number in (0, 1):
            # A pair with both ends here stands for a loopback interface of its own.
            self.ip("switch", f"link add tunnel{number} type veth peer name tunnel{number}p",
                    f"link set tunnel{number}p up", f"link set tunnel{number} up",
                    *(f"addr add {whole(source(number, family))} dev tunnel{number}" for family in FAMILIES))
        self.connect("client", "10.2.0", "fd00:2:")
        for number in self.numbers:
            self.connect(f"s{number}", f"10.1.{number}", f"fd00:1:{number}:", relay)
            self.server_build(f"s{number}")
        # Ordinary traffic for the virtual addresses goes to the first server. A probe that is not wrapped would as
        # well, whoever it was meant for. The tunnel takes its room from the links to the servers.
        self.ip("switch", f"route add {vip(0, 4)}/24 via {server(1, 4)} mtu 1450",
                f"-6 route add {vip(0, 6)}/64 via {server(1, 6)} mtu 1430")
        if relay:
            self.relay_start()

    def connect(self, name, net4, net6, relay=False):
        """The link between the switch ("to-NAME" there) and NAME ("uplink" there), and NAME's way out."""
        if relay:  # wire frames between the two ends by hand
            run("ip", "link", "add", "to-" + name, "netns", "switch", "type", "veth", "peer", "name", f"{name}-a")
            run("ip", "link", "add", "uplink", "netns", name, "type", "veth", "peer", "name", f"{name}-b")
            for end in ("a", "b"):
                run("ip", "link", "set", f"{name}-{end}", "up")
        else:
            run("ip", "link", "add", "to-" + name, "netns", "switch", "type", "veth",
                "peer", "name", "uplink", "netns", name)
        self.ip("switch", f"link set to-{name} up", f"addr add {net4}.254/24 dev to-{name}",
                f"addr add {net6}:254/64 dev to-{name}")
        self.ip(name, "link set uplink up", f"addr add {net4}.1/24 dev uplink", f"addr add {net6}:1/64 dev uplink",
                f"route add default via {net4}.254", f"-6 route add default via {net6}:254")

    def server_build(self, name):
        # Packets come out of the tunnel from an address that is routed elsewhere (rp_filter), for an address that the
        # link must not be told of (arp_*).
        self.sysctl(name, "net.ipv4.conf.all.rp_filter=0", "net.ipv4.conf.default.rp_filter=0",
                    "net.ipv4.conf.all.arp_ignore=1", "net.ipv4.conf.all.arp_announce=2")
        self.ip(name, f"link add vxlan0 address {SERVER_MAC} type vxlan external dstport {VXLAN_PORT} udp6zerocsumrx",
                "link set vxlan0 up",
                *(f"addr add {whole(vip(each, family))} dev lo" for family in FAMILIES for each in (1, 2)))
        self.sysctl(name, "net.ipv4.conf.vxlan0.rp_filter=0")

    def ip(self, name, *lines):
        for line in lines:
            run("ip", "-n", name, *line.split())

    def sysctl(self, name, *settings):
        self.inside(name, "sysctl", "-qw", *settings)

    def inside(self, name, *command, **options):
        return run("nsenter", f"--net=/run/netns/{name}", *command, **options)

    def start(self, name, *command, **options):
        return subprocess.Popen(["nsenter", f"--net=/run/netns/{name}", *command], **options)

    @staticmethod
    def enter(namespace):
        """Moves this thread into a network namespace, given as an open file."""
        if ctypes.CDLL(None).setns(namespace.fileno(), 0) != 0:
            raise RuntimeError("cannot enter a network namespace")

    # Servers

    def server_start(self, number):
        home = f"{self.home}/s{number}"
        os.makedirs(home, exist_ok=True)
        temporary = " ".join(f"{name}_temp_path {home}/{name};"
                             for name in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        listen = " ".join(f"listen {vip(each, 4)}:80; listen [{vip(each, 6)}]:80;" for each in (1, 2))
        with open(f"{home}/nginx.conf", "w", encoding="ascii") as file:
            file.write(f"""
daemon off; master_process off; pid {home}/nginx.pid; error_log {home}/error.log;
events {{ worker_connections 256; }}
http {{
   log_format who "$remote_addr $server_addr";
   access_log {home}/access.log who; {temporary}
   server {{ {listen} return 200 "s{number}\\n"; }}
}}
""")
        self.nginx[number] = self.start(f"s{number}", "nginx", "-p", home, "-c", f"{home}/nginx.conf",
                                        "-e", f"{home}/error.log")

    def server_stop(self, number):
        stop(self.nginx.pop(number))

    def served(self, number):
        """{ (client address, address asked for): how often } of one server."""
        seen = {}
        with open(f"{self.home}/s{number}/access.log", encoding="ascii") as log:
            for line in log:
                pair = tuple(line.split())
                seen[pair] = seen.get(pair, 0) + 1
        return seen

    # A wire that loses, delays and reorders

    def relay_start(self):
        pairs = [f"s{number}-{end}" for number in self.numbers for end in ("a", "b")]
        program = os.path.join(os.path.dirname(os.path.abspath(__file__)), "relay.py")
        self.relay = subprocess.Popen([sys.executable, "-B", program, *pairs], stdin=subprocess.PIPE, text=True)

    def wires(self, **settings):
        """What every wire to a server does from now on: see relay.py. Without settings it is a plain wire."""
        self.relay.stdin.write(json.dumps(settings) + "\n")
        self.relay.stdin.flush()

    # The switch

    def command(self, *options, packet_filter="auto", **place):
        return super().command("--packet-filter", packet_filter, "--interfaces", self.interfaces, *options, **place)

    def document(self, groups, **settings):
        document = super().document(groups, **{"localTunnelIntf": "tunnel0", "encapDstMac": SERVER_MAC,
                                               "encapUdpDstPort": VXLAN_PORT, **settings})
        if self.interfaces == "config":
            tunnels = {f"tunnel{each}": each for each in (0, 1)}
            document["bridging/config"] = {"bridgeMac": BRIDGE_MAC}
            document["ip/status"] = {"ipIntfStatus": {name: {"ipAddr": source(each, 4)}
                                                      for name, each in tunnels.items()}}
            document["ip6/status"] = {"intf": {name: {"addr": [f"{source(each, 6)}/128", "fe80::1/64"]}
                                               for name, each in tunnels.items()}}
        return document

    def groups(self, number=1, **probe):
        """One group a family behind virtual address `number`, all servers in each."""
        return {f"web{family}": ([server(each, family) for each in self.numbers],
                                 {"vip": vip(number, family), "httpUrl": url(vip(number, family)), **probe})
                for family in FAMILIES}

    def states(self, down=()):
        """What should be published for groups(): everybody up, but for the named numbers."""
        return {(f"web{family}", server(number, family)): DOWN if number in down else UP
                for family in FAMILIES for number in self.numbers}

    def close(self):
        """Ends what runs beside the host; all else goes with this process."""
        for process in (*self.nginx.values(), *([self.relay] if self.relay else [])):
            stop(process)
        if self.relay:
            self.relay.stdin.close()

    def rules(self):
        """The packet-filter rules of the switch, whichever form they have."""
        return "".join(self.inside("switch", *command.split())
                       for command in ("nft list ruleset", "iptables-nft -t mangle -S", "ip6tables-nft -t mangle -S"))

    # The client

    def ping(self, address, count=1, *options):
        """How many of `count` echo requests from the client were answered."""
        done = captured("nsenter", "--net=/run/netns/client", "ping", "-n", "-c", str(count), "-i", "0.2", "-W", "1",
                        *options, address)
        if " received" not in done.stdout:
            raise RuntimeError(f"ping {address}: {done.stderr.strip() or done.stdout.strip()}")
        return int(done.stdout.split(" received")[0].split()[-1])
