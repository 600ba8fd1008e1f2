"""The demo behind scripts/demo: the main job whole, between network namespaces. A virtual address with servers behind
it, probes that find each of them through a tunnel, pings that nobody's interface answers; every published state is
checked. What it starts and makes lives in namespaces of this process alone and goes with it."""

import os
import re
import shutil
import sys

from running_host import PROBE_CONFIG, STATUS
from telling import Demo, say
from topology import FAMILIES, Lab, isolate, server, source, vip

WORK = "/tmp/hm-demo"
PICTURE = """
      client 10.2.0.1        switch: hm-host; probes come from 10.255.0.1 and fd00:255::1 (interface tunnel0)
          |                  s1, s2, s3: nginx, which says who it is; each owns 10.100.0.1 and fd00:100::1 itself,
        switch               unwraps VXLAN and answers directly
       /  |  \\
     s1   s2   s3            Traffic to the virtual addresses is routed to s1, so a probe that is not wrapped would
                             always be answered by s1.
"""


class LabDemo(Demo):
    heading = "group  virtual address  server      "

    def __init__(self, outside):
        super().__init__()
        self.outside = outside  # the process that is in the caller's namespaces

    def row(self, group, address):
        return f"{group}   {vip(1, 4 if group == 'web4' else 6):15}  {address:12}"

    def start(self):
        say(PICTURE)
        shutil.rmtree(WORK, ignore_errors=True)
        os.makedirs(WORK)
        self.switch = self.lab = Lab(servers=3, home=WORK)
        for number in self.lab.numbers:
            self.lab.server_start(number)
        say("starting hm-host --packet-filter auto on the switch ...")
        self.lab.host_start("--state-db", f"sqlite:{WORK}/state.db")
        self.lab.apply(self.lab.groups())

    def run(self):
        self.step("every server answers: all are up")
        self.expect(self.lab.states())

        self.step("all were asked at the same address, and each answered for itself")
        for family in FAMILIES:
            for number in self.lab.numbers:
                check = self.lab.json("probe", f"web{family}", server(number, family))["hmProbe"]["http"]
                body = check.get("bodyBegin", "").strip()
                say(f"   {check['url']:22} for {server(number, family):12} mark {check['mark']}: \"{body}\"")
                self.right(body == f"s{number}", f"{server(number, family)} should have said s{number}, not \"{body}\"")

        self.step("what a check is on the wire to s2: the probe inside, the server's mark as VNI")
        lines = self.lab.inside("switch", "timeout", "20", "tcpdump", "-n", "-t", "-c", "6", "-i", "to-s2", "-Q", "out",
                                "udp", "port", "4789").splitlines()
        say("\n".join(f"   {line}" for line in lines))
        for family in FAMILIES:
            wrapped = rf"{source(0, family)}\.(\d+) > {server(2, family)}\.4789: VXLAN.* vni \d+"
            self.right(any(re.search(wrapped, line) for line in lines), f"no wrapped probe to {server(2, family)} seen")

        self.step("hmctl doctor looks for what commonly breaks the path")
        doctor = self.lab.inside("switch", f"{self.lab.binaries}/hmctl", "-s", self.lab.socket, "doctor")
        say(f"   {doctor.strip()}")

        self.step("s2 is stopped: it goes down, for both addresses, and nobody else does")
        self.lab.server_stop(2)
        self.expect(self.lab.states(down=[2]))

        self.step("s2 is started again: it comes back")
        self.lab.server_start(2)
        self.expect(self.lab.states())

        self.step("the client pings the virtual addresses, which no interface of the switch owns")
        for family in FAMILIES:
            self.ping(vip(1, family), answered=True)
        self.step("one is told to be silent (pingDisabledVip), and no more")
        self.lab.configure({f"{PROBE_CONFIG}/pingDisabledVip": [vip(1, 4)]})
        self.ping(vip(1, 4), answered=False)
        self.ping(vip(1, 6), answered=True)
        self.lab.configure({f"{PROBE_CONFIG}/pingDisabledVip": []})
        self.ping(vip(1, 4), answered=True)

        self.step("what the agent has done with its packets")
        for line in self.lab.told("show", "health-monitor", "packets").splitlines():
            if not line.endswith(" 0"):
                say(f"   {line}")
        self.expect(self.lab.states())

    def ping(self, address, answered):
        received = self.lab.ping(address, 3)
        say(f"   ping {address:12} 3 sent, {received} answered")
        self.right(received == (3 if answered else 0), f"ping {address} should be answered: {answered}")

    def hints(self):
        inside = f"nsenter -m -t {self.outside}"
        hmctl = f"{inside} {self.lab.binaries}/hmctl -s {self.lab.socket}"
        return (f"{hmctl} status", f"{hmctl} watch {STATUS}", f"{inside} ip netns exec client ping {vip(1, 4)}",
                f"{inside} ip netns exec switch tcpdump -ni to-s2 udp port 4789",
                f"{inside} ip -n s2 link set vxlan0 down     # and up again")

    def finish(self):
        super().finish()
        rules = self.lab.rules()
        self.right("health-monitor" not in rules.lower(), f"rules were left behind: {rules}")
        say("   and has left no rule behind")

    def clean_up(self):
        if self.switch:
            self.lab.close()
        shutil.rmtree(WORK, ignore_errors=True)


if __name__ == "__main__":
    caller = os.getpid()
    isolate()
    sys.exit(LabDemo(caller).main())
