"""A running hm-host as its operator and the switch's other agents see it: through hmctl."""

import contextlib
import json
import os
import signal
import subprocess
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
STATUS = "healthMonitor/status/serverStatus"
PROBE_CONFIG = "healthMonitor/config/probeConfig"
SERVER_CONFIG = "healthMonitor/config/serverConfig"
UP, DOWN, SHUT = ("enabled", "up"), ("enabled", "down"), ("shutdown", "up")
PATIENCE_SECONDS = 60  # a bound, never a wait: sanitizers on a busy machine are slow


def captured(*command, **options):
    """A command that has ended, with what it wrote."""
    return subprocess.run(command, text=True, capture_output=True, check=False, timeout=PATIENCE_SECONDS, **options)


def stop(process, how=signal.SIGTERM):
    """Ends a process that we started; returns its exit status."""
    if process.poll() is None:
        process.send_signal(how)
        try:
            process.wait(PATIENCE_SECONDS)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
    return process.returncode


class RunningHost:
    """An hm-host that keeps its socket and its logs in folder `home`. Who derives from it says where that is."""

    binaries = f"{ROOT}/build/bin"
    home = None
    prefix = ()  # words before the host's command
    probe = {"timeout": 1, "retryCount": 0, "probeInterval": 0.2}  # of every group that does not say otherwise
    host = None  # its process while it should run

    @property
    def socket(self):
        return f"{self.home}/hm.sock"

    def command(self, *options, socket=None):
        return [*self.prefix, f"{self.binaries}/hm-host", "--socket", socket or self.socket, *options]

    def host_start(self, *options, **how):
        with open(f"{self.home}/host.log", "a", encoding="utf-8") as log:
            self.host = subprocess.Popen(self.command(*options, **how), stderr=log,
                                         env={**os.environ, "FLASHLOGDIR": self.home})
        self.eventually(lambda: self.hmctl("get", "host/status").returncode == 0, "hm-host answers")

    def host_stop(self, how=signal.SIGTERM):
        process, self.host = self.host, None
        status = stop(process, how)
        if status != (0 if how == signal.SIGTERM else -how):
            raise AssertionError(f"hm-host ended with status {status}\n{self.host_log()}")

    def host_kill(self):
        self.host_stop(signal.SIGKILL)

    def host_log(self):
        """What all hosts of this home wrote to standard error."""
        with open(f"{self.home}/host.log", "a+", encoding="utf-8") as file:
            file.seek(0)
            return file.read()

    def hmctl(self, *arguments, **options):
        return captured(f"{self.binaries}/hmctl", "-s", self.socket, *arguments, **options)

    def told(self, *arguments, **options):
        """The output of an hmctl command that must be obeyed."""
        answer = self.hmctl(*arguments, **options)
        if answer.returncode != 0:
            raise AssertionError(f"hmctl {' '.join(arguments)}: {answer.stderr.strip()}")
        return answer.stdout

    def json(self, *arguments):
        return json.loads(self.told(*arguments, "--json"))

    def get(self, path):
        return self.json("get", path)[path]

    def configure(self, document):
        self.told("apply", "-", input=json.dumps(document))

    def document(self, groups, **settings):
        """groups: name -> (list of servers, probe settings); `settings` are those for all of them."""
        return {
            PROBE_CONFIG: {"monitoringEnabled": True, **settings,
                           "nhgProbeConfig": {name: {**self.probe, **probe} for name, (_, probe) in groups.items()}},
            SERVER_CONFIG: {"nhgConfig": {name: {"serverIp": servers} for name, (servers, _) in groups.items()}},
        }

    def apply(self, groups, **settings):
        self.configure(self.document(groups, **settings))

    def entries(self):
        """{ (group, server): what is published of it }"""
        return {(group, server): entry for group, servers in self.get(STATUS)["nhgProbeStatus"].items()
                for server, entry in servers["serverProbeStatus"].items()}

    def published(self):
        """{ (group, server): (admin state, oper state) }"""
        return {key: (entry["adminState"], entry["operState"]) for key, entry in self.entries().items()}

    def expect(self, wanted):
        seen = {}

        def reached():
            seen["last"] = self.published()
            return seen["last"] == wanted
        self.eventually(reached, lambda: f"published is {seen.get('last')}, expected {wanted}")

    def eventually(self, condition, what):
        """Waits until `condition` holds; `what` that is, or a function that says it."""
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not condition():
            ended = self.host and self.host.poll() is not None
            if ended or time.monotonic() > deadline:
                how = f"hm-host ended with status {self.host.returncode}" if ended else f"not in {PATIENCE_SECONDS} s"
                raise AssertionError(f"{how}: {what() if callable(what) else what}\n{self.host_log()}")
            time.sleep(0.05)

    @contextlib.contextmanager
    def watched(self, path):
        """A list that has, afterwards, the changes that hmctl watch told of."""
        changes = []
        watch = subprocess.Popen([f"{self.binaries}/hmctl", "-s", self.socket, "watch", path], text=True,
                                 stdout=subprocess.PIPE)
        try:
            self.eventually(lambda: self.get("host/status")["clients"] >= 2, "the watcher is there")
            yield changes
        finally:
            watch.terminate()
            changes += map(json.loads, watch.communicate(timeout=PATIENCE_SECONDS)[0].splitlines())
