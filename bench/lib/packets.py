"""The packet path: from the kernel's queue to the verdict, in this run's own network namespace."""

import json
import subprocess

from servers import settle

ROUNDS, PACKETS = 60, 8000

# Packets go to a device that drops what is sent on it, so that what is measured ends with the verdict.
SETUP = """
ip link add hm-sink type ifb && ip link set hm-sink up
ip address add 10.9.0.1/32 dev hm-sink && ip -6 address add fd00:9::1/128 dev hm-sink nodad
for to in 192.0.2.10 10.1.1.0/24; do ip route add $to dev hm-sink; done
for to in fd00:2::10 fd00:1::/64; do ip -6 route add $to dev hm-sink; done
for tables in iptables-nft ip6tables-nft; do
   $tables -t mangle -A OUTPUT -m mark ! --mark 0x0/0x3fff -m mark --mark 0x0/0xffffc000 -j NFQUEUE --queue-num 0
done
"""
CLEAN_UP = "iptables-nft -t mangle -F; ip6tables-nft -t mangle -F; ip link del hm-sink"

COST_HEADINGS = ("packets", "loop", "a second", "CPU us a packet", "agent's rate to it")
LOSS_HEADINGS = ("receive buffer, KiB", "queue length", "lost of 3,000", "lost of 16,383", "lost of 40,000")


def run(programs, core, say):
    """Returns (rows of costs, rows of losses, whether all ran)."""
    say("bench-packets ...")
    subprocess.run(["sh", "-ec", SETUP], check=True)
    try:
        done = subprocess.run([programs / "bench-packets", str(ROUNDS), str(PACKETS)], stdout=subprocess.PIPE,
                              text=True, preexec_fn=lambda: settle(core))
    finally:
        subprocess.run(["sh", "-c", CLEAN_UP], check=True)
    if done.returncode != 0:
        return [("THIS DID NOT RUN AS ASKED", *[""] * 4)], [], False
    result = json.loads(done.stdout)
    costs = [(family["family"], name, f"{family[key + 'Rate']:,.0f}", f"{family[key + 'CpuUs']:.2f}",
              f"{family[ratio]:.2f}" if ratio else "")
             for family in result["costs"]
             for name, key, ratio in (("bare", "bare", "ratio"), ("bare, replacing", "replacing", "replacingRatio"),
                                      ("agent", "agent", None))]
    losses = [(f"{row['receiveBufferBytes'] * 2 / 1024:,.0f}", f"{row['queueLength']:,}",
               *[f"{lost:,}" for lost in row["lost"].values()]) for row in result["losses"]]
    return costs, losses, True
