"""What the switch sends, recorded by tcpdump and decoded by tshark: neither knows anything of ours."""

import subprocess

from running_host import stop
from topology import run

FIELDS = ("frame.number", "ip.src", "ip.dst", "ipv6.src", "ipv6.dst", "udp.dstport", "vxlan.vni", "tcp.srcport",
          "tcp.dstport", "tcp.seq_raw", "tcp.flags", "tcp.checksum.status", "ip.checksum.status")
SYN, RST, PSH, ACK = 0x02, 0x04, 0x08, 0x10
GOOD = "1"


class Packet:
    """One sent packet. `addresses` are (source, destination), the outermost first; `vni` is None outside a tunnel."""

    def __init__(self, fields):
        values = {name: value.split(",") if value else [] for name, value in zip(FIELDS, fields)}
        self.number = int(values["frame.number"][0])
        self.addresses = list(zip(values["ip.src"] + values["ipv6.src"], values["ip.dst"] + values["ipv6.dst"]))
        self.vni = int(values["vxlan.vni"][0]) if values["vxlan.vni"] else None
        self.tcp = bool(values["tcp.flags"])
        self.port = int(values["tcp.srcport"][0]) if self.tcp else None
        self.sequence = int(values["tcp.seq_raw"][0]) if self.tcp else None
        self.flags = int(values["tcp.flags"][0], 16) if self.tcp else 0
        self.checksums = values["ip.checksum.status"] + values["tcp.checksum.status"]

    def __repr__(self):
        return f"#{self.number} {self.addresses} vni {self.vni} port {self.port} flags {self.flags:#x}"


class Capture:
    """Records what leaves the switch on every link from its making to packets()."""

    def __init__(self, lab, name):
        self.path = f"{lab.home}/{name}.pcap"
        self.process = lab.start("switch", "tcpdump", "-i", "any", "-Q", "out", "-n", "-U", "--immediate-mode",
                                 "-s", "0", "-w", self.path, "ip or ip6", stderr=subprocess.PIPE, text=True)
        for line in self.process.stderr:
            if "listening on" in line:
                break

    def packets(self):
        """The recorded packets, in their order; those that stay inside the switch are left out."""
        if self.process:
            stop(self.process)
            self.process.stderr.close()
            self.process = None
        lines = run("tshark", "-n", "-r", self.path, "-Y", "not sll.ifindex == 1", "-T", "fields",
                    "-E", "separator=/t", "-E", "occurrence=a",
                    "-o", "tcp.check_checksum:TRUE", "-o", "ip.check_checksum:TRUE",
                    *(word for field in FIELDS for word in ("-e", field)))
        return [Packet(line.split("\t")) for line in lines.splitlines()]

    def raw(self):
        """{ frame number: the bytes from the IP header on }"""
        with open(self.path, "rb") as file:
            data = file.read()
        frames, at, link_header = {}, 24, 20  # of a pcap file; LINUX_SLL2
        while at < len(data):
            size = int.from_bytes(data[at + 8:at + 12], "little")
            frames[len(frames) + 1] = data[at + 16 + link_header:at + 16 + size]
            at += 16 + size
        return frames


