"""CPU time a check: the engine, its peers and the bare floor, on the same servers in the same run."""

import tempfile
import time

import measure
from probers import BareLoop, Engine, Haproxy, Load, TunedLoop
from servers import Nginx, make_certificates

# A core cannot do 2,048 full TLS handshakes a second, and a prober that is late does other work than asked.
LOADS = (
    ("HTTP", "http", 2048, None),
    ("TCP", "tcp", 2048, None),
    ("HTTPS, TLS 1.3", "https", 384, "TLSv1.2 TLSv1.3"),
    ("HTTPS, TLS 1.2", "https", 384, "TLSv1.2"),
)
PEERS = (BareLoop, Haproxy, TunedLoop, Engine)
ALL_SERVERS_MET = 2.5  # seconds after which every server has been checked at least once


class Sample:
    """One prober over one window, in slices of a second. The figure is the median of the slices: a moment in
    which the machine was busy elsewhere moves it little."""

    def __init__(self, prober_class, programs, load, nginx, directory, core, window):
        self.remarks, self.ran = [], True
        prober = prober_class(programs, load, directory, core)
        try:
            time.sleep(ALL_SERVERS_MET)
            requests, handshakes = nginx.requests(), nginx.tls_handshakes()
            slices = []
            begin = time.monotonic()
            opened_first = opened = measure.connections_opened()
            cpu = measure.cpu_seconds(prober.pid)
            while time.monotonic() < begin + window:
                time.sleep(1)
                opened_then, cpu_then = opened, cpu
                opened, cpu = measure.connections_opened(), measure.cpu_seconds(prober.pid)
                slices.append((cpu - cpu_then) / max(opened - opened_then, 1) * 1e6)
            seconds = time.monotonic() - begin
            checks = opened - opened_first
            requests = nginx.requests() - requests - 1
            self.memory = measure.memory_kib(prober.pid)
            self.remark(prober.complaint())
        except (OSError, ValueError) as problem:
            prober.stop()
            raise SystemExit(f"{prober.name} does not run: {problem}: {prober.errors.strip()}")
        finally:
            prober.stop()
        self.microseconds = measure.median(slices)
        bad, total = prober.failures()
        if bad:
            self.remark(f"{bad} of {total} checks failed")
        # Every connection begun should bring a reply, at the asked rate; a little hangs over each edge.
        if load.kind != "tcp" and abs(requests - checks) > 0.02 * checks:
            self.remark(f"{checks} connections brought {requests} replies")
        if abs(checks - load.servers * seconds) > 0.1 * load.servers * seconds:
            self.remark(f"{checks / seconds:.0f} checks a second in place of {load.servers}")
        self.ran = checks > load.servers * seconds / 2 and (load.kind == "tcp" or requests > checks / 2)
        self.resumed = None
        if load.kind == "https":
            time.sleep(1.2)  # nginx writes its log once a second
            full, resumed = (now - then for now, then in zip(nginx.tls_handshakes(), handshakes))
            self.resumed = resumed / max(full + resumed, 1)

    def remark(self, text):
        if text:
            self.remarks.append(text)


def run(programs, options, cores, say):
    """Returns (rows for the table, whether all ran)."""
    rows, well = [], True
    peers = [p for p in PEERS if not options.prober or p.name in options.prober]
    for title, kind, servers, tls in LOADS:
        if options.kind and kind not in options.kind:
            continue
        with tempfile.TemporaryDirectory(prefix="hm-bench-") as directory:
            ca_file, certificates = make_certificates(directory, servers) if tls else (None, ())
            nginx = Nginx(directory, cores[1], certificates, tls or "TLSv1.3")
            try:
                samples = {p: [] for p in peers}
                for number in range(options.rounds):
                    # Each round begins with another prober, so that none always runs first.
                    for peer in peers[number % len(peers):] + peers[:number % len(peers)]:
                        sample = Sample(peer, programs, Load(kind, servers, ca_file), nginx, directory, cores[0],
                                        options.window)
                        samples[peer].append(sample)
                        say(f"{title}: {peer.name}: {sample.microseconds:.1f} us a check"
                            + (f", {sample.resumed:.0%} resumed" if sample.resumed is not None else "")
                            + "".join(f"; {remark}" for remark in sample.remarks)
                            + ("" if sample.ran else "; THIS DID NOT RUN AS ASKED"))
                        well = well and sample.ran
            finally:
                nginx.stop()
        rows += table_rows(title, servers, samples)
    return rows, well


def table_rows(title, servers, samples):
    def ratio(peer, other):
        """Median of the ratios within each round."""
        if peer is other or not samples.get(other):
            return ""
        pairs = zip(samples[peer], samples[other])
        return f"{measure.median([a.microseconds / b.microseconds for a, b in pairs]):.2f}"

    rows = []
    for peer, taken in samples.items():
        each = [s.microseconds for s in taken]
        resumed = [s.resumed for s in taken if s.resumed is not None]
        rows.append((title, f"{servers}", peer.name, f"{measure.median(each):.1f}",
                     f"{min(each):.1f} to {max(each):.1f}", ratio(peer, Haproxy), ratio(peer, TunedLoop),
                     f"{measure.median(resumed):.0%}" if resumed else "",
                     f"{measure.median([s.memory for s in taken]) / servers:.1f}"))
    return rows


HEADINGS = ("check", "a second", "prober", "CPU us a check", "least to most", "to HAProxy", "to every trick",
            "resumed", "KiB a server")
