"""The demo behind scripts/demo --plain: real servers on loopback addresses, a running host, and a check of every
published state."""

import json
import os
import shutil
import signal
import subprocess
import sys
import time

import own_network

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BIN = os.path.join(ROOT, "build", "bin")
WORK = "/run/hm-demo"  # named in examples/demo.yaml
SOCKET = f"{WORK}/hm.sock"
STATUS = "healthMonitor/status/serverStatus"
SETTLE_SECONDS = 20  # bound for one step; each takes a few probe intervals

# group -> kind and addresses, as examples/demo.yaml has them
GROUPS = {
    "web": ("http", ["127.1.1.1", "127.1.1.2", "127.1.1.3"]),
    "secure": ("https", ["127.1.2.1", "127.1.2.2"]),
    "db": ("tcp", ["127.1.3.1", "127.1.3.2"]),
    "mixed": ("http+tcp", ["127.1.4.1"]),
}
UP, DOWN, SHUT = ("enabled", "up"), ("enabled", "down"), ("shutdown", "up")


class DemoFailed(Exception):
    pass


def say(text):
    print(text, flush=True)


class Certificates:
    """A CA of its own, a certificate for each HTTPS server's address, and one for the prober."""

    def __init__(self):
        self.openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=Demo CA",
                     "-keyout", f"{WORK}/ca.key", "-out", f"{WORK}/ca.pem")
        self.issue("client", "/CN=prober", None)
        with open(f"{WORK}/client.pem", "a") as pem, open(f"{WORK}/client.key") as key:
            pem.write(key.read())  # the profile names one file with both
        for address in GROUPS["secure"][1]:
            self.issue(address, f"/CN={address}", f"subjectAltName=IP:{address}")

    def issue(self, name, subject, extension):
        request = ["req", "-newkey", "rsa:2048", "-nodes", "-subj", subject, "-keyout", f"{WORK}/{name}.key",
                   "-out", f"{WORK}/{name}.csr"]
        self.openssl(*request)
        sign = ["x509", "-req", "-in", f"{WORK}/{name}.csr", "-CA", f"{WORK}/ca.pem", "-CAkey", f"{WORK}/ca.key",
                "-CAcreateserial", "-days", "2", "-out", f"{WORK}/{name}.pem"]
        if extension:
            with open(f"{WORK}/{name}.ext", "w") as file:
                file.write(extension + "\n")
            sign += ["-extfile", f"{WORK}/{name}.ext"]
        self.openssl(*sign)

    @staticmethod
    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


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
        self.process = None


def stop(process):
    """Ends a process that we started; returns its exit status."""
    if process is None:
        return 0
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
    return process.returncode


def hmctl(*arguments, **options):
    return subprocess.run([f"{BIN}/hmctl", "-s", SOCKET, *arguments], text=True, capture_output=True, timeout=30,
                          **options)


class Demo:
    def __init__(self):
        self.host = None
        self.servers = {}
        self.shown = None
        self.begin = time.monotonic()

    def published(self):
        """{ (group, server): (admin state, oper state) } as other agents see it."""
        answer = hmctl("get", "--json", STATUS)
        if answer.returncode != 0:
            raise DemoFailed(f"hmctl get: {answer.stderr.strip()}")
        groups = json.loads(answer.stdout)[STATUS]["nhgProbeStatus"]
        return {(group, server): (status["adminState"], status["operState"])
                for group, entry in groups.items() for server, status in entry["serverProbeStatus"].items()}

    def show(self, states):
        if states == self.shown:
            return
        before, self.shown = self.shown or {}, states
        say(f"\n  {time.monotonic() - self.begin:5.1f} s  group    server       kind      admin     oper")
        for (group, server), (admin, oper) in sorted(states.items()):
            mark = "*" if before.get((group, server)) != (admin, oper) else " "
            say(f"        {mark}  {group:8} {server:12} {GROUPS[group][0]:9} {admin:9} {oper}")
        if not states:
            say("           (nothing is published)")

    def expect(self, what, changes=None):
        """Waits until exactly the named servers differ from enabled and up; nobody else may change meanwhile."""
        say(f"\n== {what}")
        wanted = {(group, server): UP for group, (_, servers) in GROUPS.items() for server in servers}
        wanted.update(changes or {})
        steady = {key: state for key, state in (self.shown or {}).items() if wanted[key] == state}
        deadline = time.monotonic() + SETTLE_SECONDS
        while True:
            states = self.published()
            self.show(states)
            moved = [key for key, state in steady.items() if states.get(key) != state]
            if moved:
                raise DemoFailed(f"{what}: {moved} changed though nothing happened to them")
            if states == wanted:
                say("   as it should be")
                return
            if time.monotonic() > deadline:
                wrong = {key: states.get(key) for key in wanted if states.get(key) != wanted[key]}
                raise DemoFailed(f"{what}: not so after {SETTLE_SECONDS} s: {wrong}")
            if self.host.poll() is not None:
                raise DemoFailed(f"hm-host ended with status {self.host.returncode}")
            time.sleep(0.2)

    def start(self):
        shutil.rmtree(WORK, ignore_errors=True)
        os.makedirs(WORK, mode=0o755)
        say("making a CA and certificates ...")
        Certificates()
        say("starting nginx servers ...")
        for kind, addresses in GROUPS.values():
            for address in addresses:
                self.servers[address] = Server(address, kind)
                self.servers[address].start()
        say("starting hm-host with examples/demo.yaml ...")
        self.host = subprocess.Popen([f"{BIN}/hm-host", "--config", f"{ROOT}/examples/demo.yaml",
                                      "--socket", SOCKET, "--state-db", f"sqlite:{WORK}/state.db"],
                                     env={**os.environ, "FLASHLOGDIR": WORK})
        deadline = time.monotonic() + SETTLE_SECONDS
        while hmctl("get", STATUS).returncode != 0:
            if self.host.poll() is not None or time.monotonic() > deadline:
                raise DemoFailed("hm-host does not answer")
            time.sleep(0.1)

    def run(self):
        self.expect("every server answers: all are up")

        stopped = {("web", "127.1.1.3"): DOWN, ("secure", "127.1.2.2"): DOWN, ("db", "127.1.3.2"): DOWN}
        for _, address in stopped:
            self.servers[address].stop()
        self.expect("one server of each kind is stopped: those three go down", stopped)

        for _, address in stopped:
            self.servers[address].start()
        self.expect("they are started again: they come back")

        self.servers["127.1.1.2"].overloaded(True)
        self.servers["127.1.2.1"].body("draining\n")
        self.expect("one answers 503 (code rule, action 0), another says \"draining\" (payload rule, action 1)",
                    {("web", "127.1.1.2"): DOWN, ("secure", "127.1.2.1"): SHUT})

        self.servers["127.1.1.2"].overloaded(False)
        self.servers["127.1.2.1"].body("ok\n")
        self.expect("both answer as before: everything is back")

    def keep(self):
        say(f"\nhm-host stays up until you interrupt this. Try, in another terminal:\n"
            f"   {BIN}/hmctl -s {SOCKET} get {STATUS}\n"
            f"   {BIN}/hmctl -s {SOCKET} watch\n"
            f"   kill $( cat {WORK}/127.1.1.1/nginx.pid )")
        try:
            while self.host.poll() is None:
                self.show(self.published())
                time.sleep(0.5)
            raise DemoFailed(f"hm-host ended with status {self.host.returncode}")
        except KeyboardInterrupt:
            say("")

    def finish(self):
        say("\n== the configuration is removed: nothing is published, and the agent is clean")
        empty = "{healthMonitor/config/probeConfig: {}, healthMonitor/config/serverConfig: {}}"
        answer = hmctl("apply", "-", input=empty)
        if answer.returncode != 0:
            raise DemoFailed(f"hmctl apply: {answer.stderr.strip()}")
        deadline = time.monotonic() + SETTLE_SECONDS
        while True:
            states, clean = self.published(), hmctl("clean-state")
            self.show(states)
            if not states and clean.returncode == 0:
                say(f"   as it should be: {clean.stdout.strip()}")
                break
            if time.monotonic() > deadline:
                raise DemoFailed(f"not clean after {SETTLE_SECONDS} s: {states or clean.stderr.strip()}")
            time.sleep(0.2)
        status = stop(self.host)
        if status != 0:
            raise DemoFailed(f"hm-host ended with status {status}")
        say("\nhm-host has stopped with status 0")

    def clean_up(self):
        stop(self.host)
        for server in self.servers.values():
            server.stop()


def main():
    own_network.enter()
    demo = Demo()
    signal.signal(signal.SIGTERM, lambda *_: (_ for _ in ()).throw(KeyboardInterrupt))
    try:
        demo.start()
        demo.run()
        if "--keep" in sys.argv:
            demo.keep()
        demo.finish()
        say(f"\nThe demo is through after {time.monotonic() - demo.begin:.0f} s: every published state was right.")
        shutil.rmtree(WORK, ignore_errors=True)
        return 0
    except DemoFailed as failure:
        say(f"\nFAILED: {failure}\n(what was left behind for a look: {WORK})")
        return 1
    except KeyboardInterrupt:
        say("\ninterrupted")
        return 130
    finally:
        demo.clean_up()


if __name__ == "__main__":
    sys.exit(main())
