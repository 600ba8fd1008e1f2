"""The checked side: one nginx worker that answers on every address of 127/8, for all probers alike.

One listening socket serves all addresses, so thousands of servers cost the probed side nothing extra. Only the
prober's CPU time is counted, and nginx is pinned to another core.
"""

import os
import pathlib
import re
import signal
import socket
import subprocess
import time

SERVERS_PER_GROUP = 128
ADDRESSES_PER_CERTIFICATE = 32
HTTP_PORT = 18080
HTTPS_PORT = 18443
STATUS_PORT = 18081


def address(i):
    """Address of server i, as peers/Load.h counts them."""
    return f"127.1.{i // SERVERS_PER_GROUP}.{1 + i % SERVERS_PER_GROUP}"


def be_first():
    """For a process about to start: puts it ahead of others on the machine, where that is allowed.

    The kernel may share the cores out by session first (sched_autogroup), and niceness then counts only within one.
    """
    os.setsid()
    try:
        os.nice(-20)
        pathlib.Path("/proc/self/autogroup").write_text("-20")
    except OSError:
        pass


def settle(core):
    """For a process about to start: gives it a core, ahead of others."""
    os.sched_setaffinity(0, {core})
    be_first()


def make_certificates(directory, servers):
    """A CA and, for each 32 addresses, a certificate that names them; ECDSA P-256 throughout.

    Few names in each certificate keep the handshake as small as it is with one server a certificate. Returns the
    CA file and a list of (addresses, certificate file, key file).
    """
    directory = pathlib.Path(directory)

    def openssl(*arguments):
        subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True)

    ca, ca_key = directory / "ca.pem", directory / "ca.key"
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", 2,
                "-subj", "/CN=bench CA", "-keyout", ca_key, "-out", ca)
    made = []
    for first in range(0, servers, ADDRESSES_PER_CERTIFICATE):
        addresses = [address(i) for i in range(first, min(first + ADDRESSES_PER_CERTIFICATE, servers))]
        stem = directory / f"server{first}"
        extensions, key = stem.with_suffix(".ext"), stem.with_suffix(".key")
        request, certificate = stem.with_suffix(".csr"), stem.with_suffix(".pem")
        extensions.write_text("subjectAltName=" + ",".join("IP:" + a for a in addresses) + "\n")
        openssl("req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                    "-subj", f"/CN={addresses[0]}", "-keyout", key, "-out", request)
        openssl("x509", "-req", "-in", request, "-CA", ca, "-CAkey", ca_key, "-set_serial", first + 2,
                    "-days", 2, "-extfile", extensions, "-out", certificate)
        made.append((addresses, certificate, key))
    return ca, made


class Nginx:
    """Answers GET / with "ok" by HTTP and HTTPS; its HTTP port serves the TCP checks too."""

    def __init__(self, directory, core, certificates=(), tls="TLSv1.2 TLSv1.3"):
        self.directory = pathlib.Path(directory)
        self.tls_log = self.directory / "tls.log"
        tls_servers = "".join(
            "   server {\n"
            + "".join(f"      listen {a}:{HTTPS_PORT} ssl;\n" for a in addresses)
            + f"      ssl_certificate {certificate}; ssl_certificate_key {key};\n"
            + f"      access_log {self.tls_log} tls buffer=64k flush=1s;\n"
            + '      location / { return 200 "ok\\n"; }\n   }\n'
            for addresses, certificate, key in certificates)
        first = certificates[0] if certificates else None
        # A listener on every address makes nginx open one socket in place of one an address.
        wildcard = (f"   server {{ listen {HTTPS_PORT} ssl default_server backlog=4096; ssl_certificate {first[1]};"
                    f" ssl_certificate_key {first[2]}; return 404; }}\n" if first else "")
        configuration = self.directory / "nginx.conf"
        configuration.write_text(f"""\
worker_processes 1;
worker_cpu_affinity {1 << core:b};
worker_rlimit_nofile 20000;
pid {self.directory}/nginx.pid;
error_log {self.directory}/error.log crit;
{"user root;" if os.geteuid() == 0 else ""}
events {{ worker_connections 19000; multi_accept on; }}
http {{
   log_format tls '$ssl_session_reused $ssl_protocol';
   access_log off;
   default_type text/plain;
   keepalive_timeout 30s;
   ssl_protocols {tls};
   client_body_temp_path {self.directory}/body;
   proxy_temp_path {self.directory}/proxy;
   fastcgi_temp_path {self.directory}/fastcgi;
   uwsgi_temp_path {self.directory}/uwsgi;
   scgi_temp_path {self.directory}/scgi;
   server {{ listen {HTTP_PORT} backlog=4096; location / {{ return 200 "ok\\n"; }} }}
   server {{ listen 127.0.0.1:{STATUS_PORT}; location / {{ stub_status; }} }}
{wildcard}{tls_servers}}}
""")
        self.process = subprocess.Popen(
            ["nginx", "-e", self.directory / "error.log", "-c", configuration, "-g", "daemon off;"],
            preexec_fn=lambda: settle(core))
        deadline = time.monotonic() + 20
        while True:
            try:
                self.requests()
                return
            except OSError:
                if self.process.poll() is not None or time.monotonic() > deadline:
                    self.stop()
                    raise SystemExit(f"nginx does not start: see {self.directory}/error.log")
                time.sleep(0.05)

    def requests(self):
        """Requests answered since the start, this one among them."""
        with socket.create_connection(("127.0.0.1", STATUS_PORT), timeout=5) as s:
            s.sendall(b"GET / HTTP/1.0\r\n\r\n")
            text = b""
            while more := s.recv(4096):
                text += more
        return int(re.search(rb"requests\s+\d+ \d+ (\d+)", text).group(1))

    def tls_handshakes(self):
        """(full, resumed) since the start; the log reaches the file within a second."""
        lines = self.tls_log.read_text().splitlines() if self.tls_log.exists() else []
        return sum(l.startswith(". ") for l in lines), sum(l.startswith("r ") for l in lines)

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(20)
