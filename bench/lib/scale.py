"""The whole agent under one large configuration: 16,383 servers, each checked by HTTP and TCP.

16,383 is the number of servers that can have a firewall mark, and so the most that an agent monitors.
"""

import json
import os
import pathlib
import signal
import socket
import subprocess
import tempfile
import threading
import time

import measure
from servers import HTTP_PORT, SERVERS_PER_GROUP, Nginx, address, be_first

SERVERS = 16383
INTERVAL = 5  # seconds, the default
PATIENCE = 180  # seconds after which a configuration counts as not taken up
SLOW_SECONDS = 15  # that the slow reader reads
SETTLED = 15  # seconds of plain checking after the last first check


def document(servers):
    """One configuration document that brings up `servers` servers in groups of 128."""
    groups = range((servers + SERVERS_PER_GROUP - 1) // SERVERS_PER_GROUP)
    members = {g: [address(i) for i in range(g * SERVERS_PER_GROUP, min((g + 1) * SERVERS_PER_GROUP, servers))]
               for g in groups}
    return json.dumps({
        "healthMonitor/config/probeConfig": {
            "monitoringEnabled": True, "probeInterval": INTERVAL,
            "nhgProbeConfig": {f"g{g}": {"httpUrl": f"http://{members[g][0]}:{HTTP_PORT}/",
                                         "tcpUrl": f"tcp://{members[g][0]}:{HTTP_PORT}"} for g in groups}},
        "healthMonitor/config/serverConfig": {
            "nhgConfig": {f"g{g}": {"serverIp": members[g]} for g in groups}},
    })


STATUS = "healthMonitor/status/serverStatus"


class UpCounter(threading.Thread):
    """Follows "hmctl watch" and keeps which servers are published up, and since when."""

    def __init__(self, hmctl):
        super().__init__(daemon=True)
        self.get = [*hmctl, "get", "--json", STATUS]
        self.process = subprocess.Popen([*hmctl, "watch", STATUS], stdout=subprocess.PIPE, text=True)
        self.up, self.since = set(), {}
        self.start()

    def run(self):
        for line in self.process.stdout:
            change = json.loads(line)
            if "path" not in change:  # says how many changes did not wait for us: look at all instead
                self.reread()
                continue
            path, value = f"{change['path']}/{change['attribute']}", change.get("value")
            if change.get("change") == "removed":
                gone = f"{path}/{change['key']}"
                self.up = {server for server in self.up if server != gone and not server.startswith(gone + "/")}
            elif change.get("change") == "added":
                self.note(f"{path}/{change['key']}", value)
            elif change["attribute"] == "operState":
                self.note(change["path"], {"operState": value})

    def reread(self):
        status = json.loads(subprocess.run(self.get, check=True, capture_output=True, text=True).stdout)[STATUS]
        for group, entry in status["nhgProbeStatus"].items():
            self.note(f"{STATUS}/nhgProbeStatus/{group}", entry)

    def note(self, path, entry):
        """An entry is a server's state, or a group's with servers below it."""
        if not isinstance(entry, dict):
            return
        for server, state in entry.get("serverProbeStatus", {}).items():
            self.note(f"{path}/serverProbeStatus/{server}", state)
        if entry.get("operState") == "up":
            if path not in self.up:
                self.since[path] = time.monotonic()
            self.up.add(path)
        elif "operState" in entry:
            self.up.discard(path)

    def stop(self):
        self.process.terminate()
        self.process.wait(10)


class Agent:
    def __init__(self, programs, directory, *options):
        self.socket = pathlib.Path(directory) / "hm.sock"
        self.hmctl = [str(programs / "hmctl"), "-s", str(self.socket)]
        self.log = open(pathlib.Path(directory) / "hm-host.log", "w+")
        self.process = subprocess.Popen([programs / "hm-host", "--socket", self.socket, *options], stderr=self.log,
                                        env=dict(os.environ, FLASHLOG_DISABLE="1"), preexec_fn=be_first)
        deadline = time.monotonic() + 20
        while not self.socket.exists():
            if self.process.poll() is not None or time.monotonic() > deadline:
                self.stop()
                raise SystemExit(f"hm-host does not start: {self.complaints()}")
            time.sleep(0.05)

    def status(self):
        text = subprocess.run([*self.hmctl, "get", "--json", "host/status"], check=True, capture_output=True,
                              text=True).stdout
        status = json.loads(text)
        return status.get("host/status", status)

    def apply(self, file):
        subprocess.run([*self.hmctl, "apply", file], check=True)

    def complaints(self):
        self.log.seek(0)
        return self.log.read().strip()[-2000:]

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(60)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


class OtherClient(threading.Thread):
    """Asks the host for a small thing every millisecond and keeps how long the slowest answer took."""

    def __init__(self, path):
        super().__init__(daemon=True)
        self.longest, self.more = 0, True
        self.connection = socket.socket(socket.AF_UNIX)
        self.connection.connect(str(path))
        self.start()

    def run(self):
        with self.connection, self.connection.makefile("rb") as lines:
            while self.more:
                begin = time.monotonic()
                self.connection.sendall(b'{"command":"get","path":"host/status/pid"}\n')
                while b'"done"' not in lines.readline():
                    pass
                self.longest = max(self.longest, time.monotonic() - begin)
                time.sleep(0.001)

    def stop(self):
        self.more = False
        self.join()
        return self.longest


def show(agent, row):
    """What printing everything costs: to a reader that takes it at once, and to one that takes 10 KiB a second."""
    command = [*agent.hmctl, "show", "health-monitor", "counters", "--json"]
    measure.peak_reset(agent.process.pid)
    before = measure.memory_kib(agent.process.pid)
    held = agent.status()["longestHoldUs"]
    other = OtherClient(agent.socket)
    begin = time.monotonic()
    text = subprocess.run(command, check=True, capture_output=True).stdout
    seconds = time.monotonic() - begin
    longest = other.stop()
    row("show health-monitor counters, as JSON", f"{seconds:.2f} s, {len(text) / 1024:.0f} KiB")
    json.loads(text)
    row("another client waited meanwhile, at most", f"{longest * 1000:.1f} ms")
    reader = subprocess.Popen(command, stdout=subprocess.PIPE, bufsize=0)
    try:
        read = 0
        for _ in range(SLOW_SECONDS):
            read += len(reader.stdout.read(10 * 1024))
            time.sleep(1)
        if reader.poll() is not None or read >= len(text):
            row("a slow reader", "had it all at once: THIS DID NOT RUN AS ASKED")
    finally:
        reader.kill()
        reader.wait()
    grown = measure.memory_kib(agent.process.pid) - before
    row("peak memory, risen for both readers", f"{grown / 1024:.1f} MiB")
    now = agent.status()["longestHoldUs"]
    row("longest hold while printing", f"{now / 1000:.1f} ms" if now > held else f"at most {held / 1000:.1f} ms")


def run(programs, cores, servers, say):
    """Returns (rows for the table, whether all ran)."""
    rows, well = [], True

    def row(what, value):
        rows.append((what, value))
        say(f"{what}: {value}")

    with tempfile.TemporaryDirectory(prefix="hm-bench-") as directory:
        file = pathlib.Path(directory) / "scale.yaml"
        file.write_text(document(servers))
        nginx = Nginx(directory, cores[1])
        try:
            agent = Agent(programs, directory)
            try:
                counter = UpCounter(agent.hmctl)
                memory_before = measure.memory_kib(agent.process.pid)
                begin = time.monotonic()
                agent.apply(file)
                row("apply answered after", f"{time.monotonic() - begin:.2f} s")
                while len(counter.up) < servers and time.monotonic() < begin + PATIENCE and \
                        agent.process.poll() is None:
                    time.sleep(0.02)
                if len(counter.up) < servers:
                    row("servers up", f"{len(counter.up)} of {servers}: THIS DID NOT RUN AS ASKED")
                    say(agent.complaints())
                    return rows, False
                moments = sorted(counter.since.values())
                row("apply to half of the servers up", f"{moments[len(moments) // 2] - begin:.2f} s")
                row("apply to the last server up", f"{moments[-1] - begin:.2f} s")
                memory = measure.memory_kib(agent.process.pid)
                row("peak memory", f"{memory / 1024:.1f} MiB")
                row("memory a server (HTTP and TCP check)", f"{(memory - memory_before) / servers:.1f} KiB")
                row("longest hold of the main loop, so far", f"{agent.status()['longestHoldUs'] / 1000:.1f} ms")
                cpu, opened, then = (measure.cpu_seconds(agent.process.pid), measure.connections_opened(),
                                     time.monotonic())
                time.sleep(SETTLED)
                cpu = measure.cpu_seconds(agent.process.pid) - cpu
                opened = measure.connections_opened() - opened
                seconds = time.monotonic() - then
                row("then, checks a second", f"{opened / seconds:.0f} of {2 * servers / INTERVAL:.0f}")
                row("CPU time a check, agent and engine", f"{cpu / max(opened, 1) * 1e6:.1f} us")
                down = servers - len(counter.up)
                row("servers not up after that", f"{down}")
                row("longest hold of the main loop", f"{agent.status()['longestHoldUs'] / 1000:.1f} ms")
                show(agent, row)
                file.write_text(json.dumps({
                    "healthMonitor/config/probeConfig": {}, "healthMonitor/config/serverConfig": {}}))
                begin = time.monotonic()
                agent.apply(file)
                while agent.status()["cleanState"] and time.monotonic() < begin + PATIENCE:
                    time.sleep(0.2)
                left = agent.status()["cleanState"]
                row("from removing it all to a clean agent",
                    f"{time.monotonic() - begin:.2f} s" if not left else f"never: {left}")
                row("longest hold of the main loop, removal included",
                    f"{agent.status()['longestHoldUs'] / 1000:.1f} ms")
                counter.stop()
                well = well and not left
            finally:
                agent.stop()
            if agent.process.returncode != 0:
                row("hm-host ended with status", f"{agent.process.returncode}: THIS DID NOT RUN AS ASKED")
                say(agent.complaints())
                well = False
        finally:
            nginx.stop()
    return rows, well


HEADINGS = ("what", "measured")
