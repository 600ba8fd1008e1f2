"""The demo behind scripts/demo --plain: real servers on loopback addresses, a running host, and a check of every
published state."""

import os
import shutil
import subprocess
import sys

import own_network
from certificates import Certificates
from running_host import DOWN, ROOT, SHUT, STATUS, UP, RunningHost, stop
from telling import Demo, say

WORK = "/run/hm-demo"  # named in examples/demo.yaml

# group -> kind and addresses, as examples/demo.yaml has them
GROUPS = {
    "web": ("http", ["127.1.1.1", "127.1.1.2", "127.1.1.3"]),
    "secure": ("https", ["127.1.2.1", "127.1.2.2"]),
    "db": ("tcp", ["127.1.3.1", "127.1.3.2"]),
    "mixed": ("http+tcp", ["127.1.4.1"]),
}


class Server:
    """One nginx for one address, so that it can be stopped alone."""

    def __init__(self, address, kind):
        self.address = address
        self.home = f"{WORK}/{address}"
        os.makedirs(f"{self.home}/www")
        self.body("ok\n")
        plain, tls = f"listen {address}:8080;", f"listen {address}:8443 ssl;"
        listen = {"http": plain, "https": tls, "tcp": f"listen {address}:5432;",
                  "http+tcp": f"{plain} listen {address}:5432;"}[kind]
        certificate = "" if kind != "https" else (
            f"ssl_certificate {WORK}/{address}.pem; ssl_certificate_key {WORK}/{address}.key;"
            f"ssl_client_certificate {WORK}/ca.pem; ssl_verify_client on;")
        temporary = " ".join(f"{name}_temp_path {self.home}/{name};"
                             for name in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        with open(f"{self.home}/nginx.conf", "w") as file:
            file.write(f"""
daemon off; master_process off; pid {self.home}/nginx.pid; error_log {self.home}/error.log;
events {{ worker_connections 256; }}
http {{
   access_log off; {temporary}
   server {{
      {listen} {certificate}
      root {self.home}/www;
      location = /health {{
         if ( -f {self.home}/overloaded ) {{ return 503; }}
         try_files /body =404;
      }}
   }}
}}
""")
        self.process = None

    def body(self, text):
        with open(f"{self.home}/www/body.new", "w") as file:
            file.write(text)
        os.rename(f"{self.home}/www/body.new", f"{self.home}/www/body")

    def overloaded(self, yes):
        path = f"{self.home}/overloaded"
        if yes:
            open(path, "w").close()
        else:
            os.remove(path)

    def start(self):
        self.process = subprocess.Popen(["nginx", "-p", self.home, "-c", f"{self.home}/nginx.conf",
                                         "-e", f"{self.home}/error.log"])

    def stop(self):
        stop(self.process)


class Switch(RunningHost):
    home = WORK


class PlainDemo(Demo):
    heading = "group    server       kind     "

    def __init__(self):
        super().__init__()
        self.servers = {}

    def row(self, group, server):
        return f"{group:8} {server:12} {GROUPS[group][0]:9}"

    def start(self):
        shutil.rmtree(WORK, ignore_errors=True)
        os.makedirs(WORK, mode=0o755)
        self.switch = Switch()
        say("making a CA and certificates ...")
        Certificates(WORK, GROUPS["secure"][1])
        say("starting nginx servers ...")
        for kind, addresses in GROUPS.values():
            for address in addresses:
                self.servers[address] = Server(address, kind)
                self.servers[address].start()
        say("starting hm-host with examples/demo.yaml ...")
        self.switch.host_start("--config", f"{ROOT}/examples/demo.yaml", "--state-db", f"sqlite:{WORK}/state.db")

    def up_but_for(self, changes, what):
        self.step(what)
        up = {(group, server): UP for group, (_, servers) in GROUPS.items() for server in servers}
        self.expect({**up, **changes})

    def run(self):
        self.up_but_for({}, "every server answers: all are up")

        stopped = {("web", "127.1.1.3"): DOWN, ("secure", "127.1.2.2"): DOWN, ("db", "127.1.3.2"): DOWN}
        for _, address in stopped:
            self.servers[address].stop()
        self.up_but_for(stopped, "one server of each kind is stopped: those three go down")

        for _, address in stopped:
            self.servers[address].start()
        self.up_but_for({}, "they are started again: they come back")

        self.servers["127.1.1.2"].overloaded(True)
        self.servers["127.1.2.1"].body("draining\n")
        self.up_but_for({("web", "127.1.1.2"): DOWN, ("secure", "127.1.2.1"): SHUT},
                        "one answers 503 (code rule, action 0), another says \"draining\" (payload rule, action 1)")

        self.servers["127.1.1.2"].overloaded(False)
        self.servers["127.1.2.1"].body("ok\n")
        self.up_but_for({}, "both answer as before: everything is back")

    def hints(self):
        hmctl = f"{self.switch.binaries}/hmctl -s {self.switch.socket}"
        return f"{hmctl} get {STATUS}", f"{hmctl} watch", f"kill $( cat {WORK}/127.1.1.1/nginx.pid )"

    def clean_up(self):
        if self.switch and self.switch.host:
            stop(self.switch.host)
        for server in self.servers.values():
            server.stop()
        shutil.rmtree(WORK, ignore_errors=True)


if __name__ == "__main__":
    own_network.enter()
    sys.exit(PlainDemo().main())
