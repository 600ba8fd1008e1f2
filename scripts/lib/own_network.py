"""A network namespace of one's own for a program that runs an agent: netfilter queue 0 can be had once each."""

import os
import sys

INSIDE = "HM_OWN_NETWORK"


def inside():
    return INSIDE in os.environ


def enter():
    """Starts this program again, once, in a network namespace made for it, which goes with it. Who is not root gets a
    user namespace too."""
    if os.environ.pop(INSIDE, None):
        return
    unshare = ["unshare", "--net"] + ([] if os.geteuid() == 0 else ["--user", "--map-root-user"])
    os.environ[INSIDE] = "1"
    sys.stdout.flush()
    os.execvp(unshare[0], [*unshare, "sh", "-c", 'ip link set lo up && exec "$@"', "sh",
                           sys.executable, *sys.orig_argv[1:]])
