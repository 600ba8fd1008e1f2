"""The demo behind scripts/demo: the main job whole, between network namespaces. A virtual address with servers behind
it, probes that find each of them through a tunnel, pings that nobody's interface answers; every published state is
checked. What it starts and makes lives in namespaces of this process alone and goes with it."""

import json
import os
import re
import shutil
import sys
import time

from demo_plain import SETTLE_SECONDS, DemoFailed, say

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.append(os.path.join(ROOT, "tests", "lab"))
import topology  # noqa: E402
from topology import FAMILIES, PROBE_CONFIG, STATUS, server, source, vip  # noqa: E402

WORK = "/tmp/hm-demo"
PICTURE = """
      client 10.2.0.1        switch: hm-host; probes come from 10.255.0.1 and fd00:255::1 (interface tunnel0)
          |                  s1, s2, s3: nginx, which says who it is; each owns 10.100.0.1 and fd00:100::1 itself,
        switch               unwraps VXLAN and answers directly
       /  |  \\
     s1   s2   s3            Traffic to the virtual addresses is routed to s1, so a probe that is not wrapped would
                             always be answered by s1.
"""


class Demo:
    def __init__(self):
        self.begin = time.monotonic()
        self.shown = None
        self.lab = None

    def start(self, outside):
        say(PICTURE)
        shutil.rmtree(WORK, ignore_errors=True)
        os.makedirs(WORK)
        self.lab = topology.Lab(servers=3, home=WORK)
        for number in self.lab.numbers:
            self.lab.server_start(number)
        say("starting hm-host --packet-filter auto on the switch ...")
        self.lab.host_start("--state-db", f"sqlite:{WORK}/state.db")
        self.lab.apply(self.lab.groups(timeout=2, retryCount=1))
        self.outside = outside

    def step(self, what):
        say(f"\n== {what}")

    def right(self, holds, what):
        if not holds:
            raise DemoFailed(what)

    def show(self, states):
        if states == self.shown:
            return
        before, self.shown = self.shown or {}, states
        say(f"\n  {time.monotonic() - self.begin:5.1f} s  group  virtual address  server        admin     oper")
        for (group, address), (admin, oper) in sorted(states.items()):
            mark = "*" if before.get((group, address)) != (admin, oper) else " "
            virtual = vip(1, 4 if group == "web4" else 6)
            say(f"        {mark}  {group}   {virtual:15}  {address:12}  {admin:9} {oper}")
        if not states:
            say("           (nothing is published)")

    def expect(self, wanted):
        """Waits for exactly these states; whoever is in its state already may not leave it."""
        steady = {key: state for key, state in (self.shown or {}).items() if wanted.get(key) == state}
        deadline = time.monotonic() + SETTLE_SECONDS
        while True:
            states = self.lab.published()
            self.show(states)
            moved = [key for key, state in steady.items() if states.get(key) != state]
            self.right(not moved, f"{moved} changed though nothing happened to them")
            if states == wanted:
                say("   as it should be")
                return
            self.right(time.monotonic() < deadline, f"not so after {SETTLE_SECONDS} s")
            self.right(self.lab.host.poll() is None, f"hm-host ended with status {self.lab.host.returncode}")
            time.sleep(0.2)

    def run(self):
        self.step("every server answers: all are up")
        self.expect(self.lab.states())

        self.step("all were asked at the same address, and each answered for itself")
        for family in FAMILIES:
            for number in self.lab.numbers:
                check = json.loads(self.lab.told("probe", f"web{family}", server(number, family), "--json"))
                check = check["hmProbe"]["http"]
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
        self.lab.told("apply", "-", input=json.dumps({f"{PROBE_CONFIG}/pingDisabledVip": [vip(1, 4)]}))
        self.ping(vip(1, 4), answered=False)
        self.ping(vip(1, 6), answered=True)
        self.lab.told("apply", "-", input=json.dumps({f"{PROBE_CONFIG}/pingDisabledVip": []}))
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

    def keep(self):
        inside = f"nsenter -m -t {self.outside}"
        hmctl = f"{inside} {self.lab.binaries}/hmctl -s {self.lab.socket}"
        say(f"\neverything stays up until you interrupt this. Try, in another terminal:\n"
            f"   {hmctl} status\n"
            f"   {hmctl} watch {STATUS}\n"
            f"   {inside} ip netns exec client ping {vip(1, 4)}\n"
            f"   {inside} ip netns exec switch tcpdump -ni to-s2 udp port 4789\n"
            f"   {inside} ip -n s2 link set vxlan0 down     # and up again")
        while self.lab.host.poll() is None:
            self.show(self.lab.published())
            time.sleep(0.5)
        raise DemoFailed(f"hm-host ended with status {self.lab.host.returncode}")

    def finish(self):
        self.step("the configuration is removed: nothing is published, the agent is clean, no rule is left")
        self.lab.told("apply", "-", input=json.dumps({PROBE_CONFIG: {}, topology.SERVER_CONFIG: {}}))
        self.expect({})
        self.lab.eventually(lambda: self.lab.hmctl("clean-state").returncode == 0, "the agent is clean", SETTLE_SECONDS)
        status = self.lab.host_stop()
        self.right(status == 0, f"hm-host ended with status {status}")
        rules = "".join(self.lab.inside("switch", *command.split())
                        for command in ("nft list ruleset", "iptables-nft -t mangle -S", "ip6tables-nft -t mangle -S"))
        self.right("health-monitor" not in rules.lower(), f"rules were left behind: {rules}")
        say("   hm-host has stopped with status 0")


def main():
    outside = os.getpid()
    topology.isolate()
    demo = Demo()
    try:
        demo.start(outside)
        demo.run()
        if "--keep" in sys.argv:
            demo.keep()
        demo.finish()
        say(f"\nThe demo is through after {time.monotonic() - demo.begin:.0f} s: every published state was right.")
        return 0
    except (DemoFailed, AssertionError, RuntimeError) as failure:
        say(f"\nFAILED: {failure}")
        if demo.lab and demo.lab.log:
            say(f"(hm-host said: {demo.lab.host_log().strip() or 'nothing'})")
        return 1
    except KeyboardInterrupt:
        say("\ninterrupted")
        return 130
    finally:
        if demo.lab:
            demo.lab.close()
        shutil.rmtree(WORK, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
