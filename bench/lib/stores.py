"""State that outlives the process: coming back with 16,383 servers, and a burst of 32,766 changes.

The restart is that of the whole agent, killed with SIGKILL while it checks; the burst is made by an agent of this
campaign's own, which turns every server over when the probe interval changes.
"""

import json
import os
import pathlib
import signal
import socket
import sqlite3
import subprocess
import tempfile
import time

import measure
import scale
from servers import Nginx, be_first

BURST = 32766
PATIENCE = 120
ROUNDS = 3


class Redis:
    def __init__(self, directory):
        self.socket = f"{directory}/redis.sock"
        self.process = subprocess.Popen(
            ["redis-server", "--port", "0", "--unixsocket", self.socket, "--save", "", "--dir", directory],
            stdout=subprocess.DEVNULL)
        self.url = f"redis+unix:{self.socket}"
        self.wait()

    def wait(self):
        deadline = time.monotonic() + 20
        while subprocess.run(["redis-cli", "-s", self.socket, "ping"], capture_output=True).returncode != 0:
            if time.monotonic() > deadline:
                raise SystemExit("redis-server does not start")
            time.sleep(0.05)

    def listen(self, up):
        """Returns a function that waits until every server of the burst was announced, and is in that state."""
        listener = socket.socket(socket.AF_UNIX)
        listener.connect(self.socket)
        listener.sendall(b"SUBSCRIBE hm:changes@0\r\n")
        listener.recv(4096)
        listener.settimeout(PATIENCE)

        def wait():
            announced, left = set(), b""
            while len(announced) < BURST:
                lines = (left + listener.recv(1 << 20)).split(b"\r\n")
                left = lines.pop()
                announced.update(line for line in lines if b"/serverProbeStatus/" in line)
            at = time.monotonic()
            listener.close()
            script = ("local n = 0 for _, k in ipairs( ARGV ) do "
                      f"if redis.call( 'HGET', k, 'operState' ) == '{up}' then n = n + 1 end end return n")
            keys = sorted(key.decode() for key in announced)
            count = sum(int(subprocess.run(["redis-cli", "-s", self.socket, "EVAL", script, "0", *part], check=True,
                                           capture_output=True, text=True).stdout)
                        for part in (keys[i:i + 1000] for i in range(0, len(keys), 1000)))
            return at, count
        return wait

    def stop(self):
        self.process.terminate()
        self.process.wait(20)


class Sqlite:
    def __init__(self, directory):
        self.file = f"{directory}/state.db"
        self.url = f"sqlite:{self.file}"

    def listen(self, up):
        def wait():
            deadline = time.monotonic() + PATIENCE
            with sqlite3.connect(f"file:{self.file}?mode=ro", uri=True) as database:
                while time.monotonic() < deadline:
                    count, = database.execute(
                        "SELECT count(*) FROM entity WHERE path LIKE '%/serverProbeStatus/%' AND "
                        "attributes ->> 'operState' = ?", (up,)).fetchone()
                    if count == BURST:
                        break
                    time.sleep(0.01)
            return time.monotonic(), count
        return wait

    def stop(self):
        pass


def up(agent):
    text = subprocess.run([*agent.hmctl, "get", "--json", scale.STATUS], capture_output=True, text=True).stdout
    groups = json.loads(text)[scale.STATUS]["nhgProbeStatus"] if text else {}
    return sum(entry["operState"] == "up" for group in groups.values()
               for entry in group["serverProbeStatus"].values())


def killed(agent):
    agent.process.send_signal(signal.SIGKILL)
    agent.process.wait()
    agent.socket.unlink(missing_ok=True)


def restart(programs, directory, url, servers, row):
    """From the start of a host that was killed to all published states there as they were."""
    file = pathlib.Path(directory) / "scale.yaml"
    file.write_text(scale.document(servers))
    agent = scale.Agent(programs, directory, "--state-db", url)
    try:
        agent.apply(file)
        deadline = time.monotonic() + PATIENCE
        while up(agent) < servers and time.monotonic() < deadline:
            time.sleep(0.2)
        if up(agent) < servers:
            row("restart", "THIS DID NOT RUN AS ASKED: not all servers up before")
            return False
        time.sleep(12)  # one round of statistics, as in a host that has run for a while
        row("peak memory before the restart", f"{measure.memory_kib(agent.process.pid) / 1024:.1f} MiB")
        row("longest hold of the main loop before the restart", f"{agent.status()['longestHoldUs'] / 1000:.1f} ms")
        answered, took, memory, well = [], [], 0, True
        for _ in range(ROUNDS):
            killed(agent)
            begin = time.monotonic()
            agent = scale.Agent(programs, directory, "--state-db", url)
            agent.status()
            answered.append(time.monotonic() - begin)
            well = up(agent) == servers and well
            took.append(time.monotonic() - begin)
            memory = max(memory, measure.memory_kib(agent.process.pid))
        row("restart to a host that answers, all published states there", f"{measure.median(answered):.2f} s")
        row("and to all of them read by hmctl, beside the first checks",
            f"{measure.median(took):.2f} s" + ("" if well else ": THIS DID NOT RUN AS ASKED"))
        row("peak memory of the restart", f"{memory / 1024:.1f} MiB")
        return well
    finally:
        agent.stop()


def burst(programs, directory, store, row):
    agent = scale.Agent(programs, directory, "--state-db", store.url, "--agent", programs / "bench-burst-agent.so")
    took, well = [], True
    try:
        time.sleep(2)  # all of it stored once
        for i in range(ROUNDS):
            wait = store.listen("up" if i % 2 == 0 else "down")
            begin = time.monotonic()
            subprocess.run([*agent.hmctl, "set", "healthMonitor/config/probeConfig", "probeInterval", str(10 + i)],
                           check=True)
            at, count = wait()
            took.append(at - begin)
            well = well and count == BURST
        row(f"{BURST:,} changes until the last one is there",
            f"{measure.median(took):.2f} s" + ("" if well else ": THIS DID NOT RUN AS ASKED"))
        row("longest hold of the main loop", f"{agent.status()['longestHoldUs'] / 1000:.1f} ms")
        row("peak memory", f"{measure.memory_kib(agent.process.pid) / 1024:.1f} MiB")
    finally:
        agent.stop()
    return well


def run(programs, cores, servers, say):
    """Returns (rows for the table, whether all ran)."""
    rows, well = [], True
    for kind in (Sqlite, Redis):
        def row(what, value, name=kind.__name__):
            rows.append((f"{name}: {what}", value))
            say(f"{name}: {what}: {value}")

        for part in ("restart", "burst"):
            with tempfile.TemporaryDirectory(prefix="hm-bench-") as directory:
                store = kind(directory)
                try:
                    if part == "restart":
                        nginx = Nginx(directory, cores[1])
                        try:
                            well = restart(programs, directory, store.url, servers, row) and well
                        finally:
                            nginx.stop()
                    else:
                        well = burst(programs, directory, store, row) and well
                finally:
                    store.stop()
    return rows, well
