"""The checking side: what is measured and its peers. Each prober is one process pinned to one core."""

import json
import os
import pathlib
import signal
import socket
import subprocess

from servers import HTTP_PORT, HTTPS_PORT, address, settle


class Load:
    """What a prober is asked to do: `servers` checks a second of one kind, each server once a second."""

    def __init__(self, kind, servers, ca_file=None):
        self.kind, self.servers, self.ca_file = kind, servers, ca_file
        self.port = HTTPS_PORT if kind == "https" else HTTP_PORT


class Prober:
    def __init__(self, arguments, directory, core):
        self.log = open(pathlib.Path(directory) / f"{self.name}.log", "w+")
        self.process = subprocess.Popen([str(a) for a in arguments], stdout=subprocess.PIPE,
                                        stderr=self.log, text=True, preexec_fn=lambda: settle(core))
        self.pid = self.process.pid

    def running(self):
        return self.process.poll() is None

    def complaint(self):
        """Why the last checks were not all good, or None; asked once, while the prober still runs."""
        return None

    def stop(self):
        if self.log.closed:
            return
        if self.running():
            self.process.send_signal(signal.SIGTERM)
        try:
            self.output = self.process.communicate(timeout=30)[0]
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.output = self.process.communicate()[0]
        self.log.seek(0)
        self.errors = self.log.read()
        self.log.close()


class CountingProber(Prober):
    """One of our own programs: prints {"good": N, "bad": N} when it ends."""

    def failures(self):
        if self.process.returncode != 0:
            raise SystemExit(f"{self.name} ended with status {self.process.returncode}: {self.errors.strip()}")
        counts = json.loads(self.output)
        return counts["bad"], counts["good"] + counts["bad"]


class Loop(CountingProber):
    def __init__(self, program, load, directory, core):
        arguments = [program, load.kind, load.servers, load.port]
        super().__init__(arguments + ([load.ca_file] if load.ca_file else []), directory, core)


class BareLoop(Loop):
    name = "bare loop"

    def __init__(self, programs, load, directory, core):
        super().__init__(programs / "bench-bare-loop", load, directory, core)


class TunedLoop(Loop):
    name = "bare loop, every trick"

    def __init__(self, programs, load, directory, core):
        super().__init__(programs / "bench-tuned-loop", load, directory, core)


class Haproxy(Prober):
    """Debian's HAProxy with one thread and health checks only: nothing ever connects to its frontend, for it
    has none."""
    name = "HAProxy"

    def __init__(self, programs, load, directory, core):
        self.directory = pathlib.Path(directory)
        self.socket = self.directory / "haproxy.sock"
        self.servers = load.servers
        check = {
            "http": "   option httpchk\n   http-check send meth GET uri / ver HTTP/1.1 hdr Host 127.1.0.1\n"
                    "   http-check expect status 200\n",
            "tcp": "   option tcp-check\n   tcp-check connect\n",
        }
        check["https"] = check["http"]
        tls = f" check-ssl verify required ca-file {load.ca_file}" if load.kind == "https" else ""
        configuration = self.directory / "haproxy.cfg"
        configuration.write_text(
            "global\n   nbthread 1\n   maxconn 100\n   spread-checks 0\n"
            f"   stats socket {self.socket} mode 600 level admin\n"
            f"defaults\n   mode {'tcp' if load.kind == 'tcp' else 'http'}\n   timeout connect 3s\n"
            "   timeout server 3s\n   timeout client 3s\n   timeout check 3s\n"
            f"backend checked\n{check[load.kind]}   default-server check inter 1s fall 3 rise 1{tls}\n"
            + "".join(f"   server s{i} {address(i)}:{load.port}\n" for i in range(load.servers)))
        super().__init__(["haproxy", "-db", "-q", "-f", configuration], directory, core)

    def complaint(self):
        with socket.socket(socket.AF_UNIX) as s:
            s.settimeout(10)
            s.connect(str(self.socket))
            s.sendall(b"show stat -1 4 -1\n")
            text = b""
            while more := s.recv(65536):
                text += more
        states = [line.split(b",")[17] for line in text.splitlines() if line.startswith(b"checked,s")]
        up = sum(state.startswith(b"UP") for state in states)
        return None if up == self.servers else f"{self.servers - up} of {self.servers} servers are not up"

    def failures(self):
        return 0, 0


class Engine(CountingProber):
    """The check engine with one thread, as HAProxy has."""
    name = "engine"

    def __init__(self, programs, load, directory, core):
        arguments = [programs / "bench-engine", directory, 1, load.kind, load.servers, load.port]
        super().__init__(arguments + ([load.ca_file] if load.ca_file else []), directory, core)
