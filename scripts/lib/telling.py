"""How a demo speaks: what it does, every change of what is published on the way, and whether that was right."""

import signal
import sys
import time

from running_host import PROBE_CONFIG, SERVER_CONFIG

SETTLE_SECONDS = 20  # bound for one step; each takes a few probe intervals


def say(text):
    print(text, flush=True)


class Demo:
    """What derives from it has the `heading` of its table and row( group, server ) for what stands there before a
    state; start(), which makes the `switch`, a RunningHost; run(), hints() and clean_up()."""

    switch = None

    def __init__(self):
        self.begin = time.monotonic()
        self.shown = {}

    def step(self, what):
        say(f"\n== {what}")

    def right(self, holds, what):
        if not holds:
            raise AssertionError(f"{what}\n{self.switch.host_log()}")

    def show(self, states):
        if states == self.shown:
            return
        before, self.shown = self.shown, states
        say(f"\n  {time.monotonic() - self.begin:5.1f} s  {self.heading}  admin     oper")
        for (group, server), (admin, oper) in sorted(states.items()):
            mark = "*" if before.get((group, server)) != (admin, oper) else " "
            say(f"        {mark}  {self.row(group, server)}  {admin:9} {oper}")
        if not states:
            say("           (nothing is published)")

    def alive(self):
        status = self.switch.host.poll()
        self.right(status is None, f"hm-host ended with status {status}")

    def expect(self, wanted):
        """Waits for exactly these states; whoever is in its state already may not leave it."""
        steady = {key: state for key, state in self.shown.items() if wanted.get(key) == state}
        deadline = time.monotonic() + SETTLE_SECONDS
        while True:
            self.alive()
            states = self.switch.published()
            self.show(states)
            moved = [key for key, state in steady.items() if states.get(key) != state]
            self.right(not moved, f"{moved} changed though nothing happened to them")
            if states == wanted:
                say("   as it should be")
                return
            self.right(time.monotonic() < deadline, f"not so after {SETTLE_SECONDS} s")
            time.sleep(0.2)

    def keep(self):
        say("\neverything stays up until you interrupt this. Try, in another terminal:\n"
            + "\n".join(f"   {hint}" for hint in self.hints()))
        while True:
            self.alive()
            self.show(self.switch.published())
            time.sleep(0.5)

    def finish(self):
        self.step("the configuration is removed: nothing is published, and the agent is clean")
        self.switch.configure({PROBE_CONFIG: {}, SERVER_CONFIG: {}})
        self.expect({})
        self.switch.eventually(lambda: self.switch.hmctl("clean-state").returncode == 0, "the agent is clean")
        self.switch.host_stop()
        say("   hm-host has stopped with status 0")

    def main(self):
        """The whole of it; returns the exit status."""
        signal.signal(signal.SIGTERM, signal.default_int_handler)
        try:
            self.start()
            self.run()
            if "--keep" in sys.argv:
                self.keep()
            self.finish()
            say(f"\nThe demo is through after {time.monotonic() - self.begin:.0f} s: every published state was right.")
            return 0
        except (AssertionError, RuntimeError) as failure:
            say(f"\nFAILED: {failure}")
            return 1
        except KeyboardInterrupt:
            say("\ninterrupted")
            return 130
        finally:
            self.clean_up()
