"""A wire by hand between pairs of interfaces: relay.py A B [A B …]. Each line of JSON on standard input says what
every wire does from then on; without a word it is a plain wire:

   loss     share of the frames that vanish
   delay    seconds that each frame takes
   reorder  share of the frames that are held back for 20 ms, so that later ones overtake them

The same seed gives the same frames each time. It ends with its standard input.
"""

import heapq
import json
import random
import selectors
import socket
import sys
import time

PACKET, VNET_HDR, IGNORE_OUTGOING, EVERY_PROTOCOL = 263, 15, 23, 3
HOLD_SECONDS = 0.02


def interface(name):
    wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(EVERY_PROTOCOL))
    wire.setsockopt(PACKET, VNET_HDR, 1)  # what hardware would still have to do travels along, such as checksums
    wire.setsockopt(PACKET, IGNORE_OUTGOING, 1)
    wire.bind((name, EVERY_PROTOCOL))
    wire.setblocking(False)
    return wire


def main():
    chance = random.Random(1)
    settings = {}
    waiting = []  # heap of (due, order, where to, frame)
    order = 0
    selector = selectors.DefaultSelector()
    for first, second in zip(sys.argv[1::2], sys.argv[2::2]):
        one, other = interface(first), interface(second)
        selector.register(one, selectors.EVENT_READ, other)
        selector.register(other, selectors.EVENT_READ, one)
    selector.register(sys.stdin, selectors.EVENT_READ)

    while True:
        patience = max(0, waiting[0][0] - time.monotonic()) if waiting else None
        for key, _ in selector.select(patience):
            if key.fileobj is sys.stdin:
                line = sys.stdin.readline()
                if not line:
                    return
                settings = json.loads(line)
                continue
            try:
                frame = key.fileobj.recv(1 << 17)
            except OSError:  # the interface has gone down, or there was nothing after all
                continue
            if chance.random() < settings.get("loss", 0):
                continue
            due = time.monotonic() + settings.get("delay", 0)
            if chance.random() < settings.get("reorder", 0):
                due += HOLD_SECONDS
            order += 1
            heapq.heappush(waiting, (due, order, key.data, frame))
        while waiting and waiting[0][0] <= time.monotonic():
            _, _, where, frame = heapq.heappop(waiting)
            try:
                where.send(frame)
            except OSError:
                pass


if __name__ == "__main__":
    main()
