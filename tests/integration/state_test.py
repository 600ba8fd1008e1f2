"""State that outlives the process: killed hosts, full disks, and a Redis server that others write too."""

import ctypes
import json
import os
import random
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from servers import OK, Server, http

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts", "lib"))
import own_network  # noqa: E402

own_network.enter()

BIN = sys.argv.pop(1)
STATUS = "healthMonitor/status/serverStatus"
PROBE_CONFIG = "healthMonitor/config/probeConfig"
SERVER_CONFIG = "healthMonitor/config/serverConfig"
PATIENCE_SECONDS = 60  # a bound, never a wait: sanitizers on a busy machine are slow
KILLS = 50


class Moody(Server):
    """Answers each request as it pleases."""

    def converse(self, connection):
        self.answer = random.choice((OK, http(b"503 Busy")))
        super().converse(connection)


class StateTest(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="hm-state-")
        self.socket = f"{self.home}/hm.sock"
        self.url = f"sqlite:{self.home}/state.db"
        self.processes, self.servers = [], []

    def tearDown(self):
        for server in self.servers:
            server.stop()
        for process in self.processes:
            if process.poll() is None:
                process.kill()
                process.wait()
        shutil.rmtree(self.home, ignore_errors=True)

    def spawn(self, *arguments, **options):
        self.processes.append(subprocess.Popen(arguments, text=True, **options))
        return self.processes[-1]

    def hostStart(self, *options):
        with open(f"{self.home}/errors", "a") as errors:
            self.host = self.spawn(f"{BIN}/hm-host", "--socket", self.socket, "--state-db", self.url, *options,
                                   stderr=errors, env={**os.environ, "FLASHLOG_DISABLE": "1"})
        self.eventually(lambda: self.hmctl("get", "host/status").returncode == 0, "hm-host answers")

    def hostKill(self):
        self.host.kill()
        self.host.wait()

    def hostStop(self):
        self.host.terminate()
        self.assertEqual(self.host.wait(PATIENCE_SECONDS), 0)

    def hostRefused(self, *options):
        """What a second host says that is refused."""
        second = subprocess.run([f"{BIN}/hm-host", "--socket", f"{self.home}/second.sock", "--state-db", self.url,
                                 *options], text=True, capture_output=True, timeout=PATIENCE_SECONDS)
        self.assertEqual(second.returncode, 1, second.stderr)
        return second.stderr

    def errors(self):
        with open(f"{self.home}/errors") as file:
            return file.read()

    def hmctl(self, *arguments, **options):
        return subprocess.run([f"{BIN}/hmctl", "-s", self.socket, *arguments], text=True, capture_output=True,
                              timeout=PATIENCE_SECONDS, **options)

    def eventually(self, condition, what, host=True):
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not condition():
            if host:
                self.assertIsNone(self.host.poll(), f"hm-host ended while waiting: {what}")
            self.assertLess(time.monotonic(), deadline, what)
            time.sleep(0.02)

    def apply(self, document):
        answer = self.hmctl("apply", "-", input=json.dumps(document))
        self.assertEqual(answer.returncode, 0, answer.stderr)

    def set(self, path, attribute, value):
        answer = self.hmctl("set", path, attribute, value)
        self.assertEqual(answer.returncode, 0, answer.stderr)

    def get(self, path):
        answer = self.hmctl("get", "--json", path)
        self.assertEqual(answer.returncode, 0, answer.stderr)
        return json.loads(answer.stdout)[path]

    def published(self):
        return {f"{group}/{server}": entry for group, servers in self.get(STATUS)["nhgProbeStatus"].items()
                for server, entry in servers["serverProbeStatus"].items()}

    def groups(self, groups, **settings):
        """groups: name -> (servers, probe settings)"""
        probes = {name: {"timeout": 1, "retryCount": 0, "probeInterval": 0.2, **probe}
                  for name, (_, probe) in groups.items()}
        return {PROBE_CONFIG: {"monitoringEnabled": True, "probeInterval": 0.2, "nhgProbeConfig": probes, **settings},
                SERVER_CONFIG: {"nhgConfig": {name: {"serverIp": servers} for name, (servers, _) in groups.items()}}}


class Sqlite(StateTest):
    def stored(self):
        """Published entries as the file has them, and the port that the load counts up."""
        with sqlite3.connect(f"file:{self.home}/state.db?mode=ro", uri=True) as database:
            rows = dict(database.execute("SELECT path, attributes FROM entity"))
        entries = {path.split("/nhgProbeStatus/")[1].replace("/serverProbeStatus", ""): json.loads(attributes)
                   for path, attributes in rows.items() if "/serverProbeStatus/" in path}
        return entries, int(json.loads(rows[PROBE_CONFIG])["encapUdpDstPort"])

    def load(self, acknowledged):
        """Counts a configured port up, one `hmctl set` after the other, until the host has gone."""
        while True:
            if self.hmctl("set", PROBE_CONFIG, "encapUdpDstPort", str(acknowledged[0] + 1)).returncode != 0:
                return
            acknowledged[0] += 1

    def test_killed_at_any_moment(self):
        steady, moody = Server("127.0.0.1"), Moody("0.0.0.0")
        self.servers += [steady, moody]
        web = f"http://127.0.0.1:{steady.port}/"
        self.hostStart()
        self.apply(self.groups({
            # patient: on a busy machine a check of it that runs out of time would be a change
            "steady": (["127.0.0.1"], {"httpUrl": web, "tcpUrl": web.replace("http", "tcp").rstrip("/"), "timeout": 30}),
            "absent": (["127.0.0.9"], {"tcpUrl": f"tcp://127.0.0.9:{steady.port}"}),
            "moody": ([f"127.0.1.{i}" for i in range(1, 61)], {"httpUrl": f"http://127.0.0.1:{moody.port}/"}),
        }, responseCodeRule={"pattern": "5..", "action": 0}))
        self.eventually(lambda: self.published()["steady/127.0.0.1"]["operState"] == "up", "steady is up")
        steadily = {name: self.published()[name] for name in ("steady/127.0.0.1", "absent/127.0.0.9")}
        acknowledged = [10000]
        self.set(PROBE_CONFIG, "encapUdpDstPort", "10000")
        changed = 0
        for kill in range(KILLS):
            loading = threading.Thread(target=self.load, args=(acknowledged,))
            loading.start()
            time.sleep(random.uniform(0.1, 0.8))
            self.hostKill()
            loading.join()
            entries, port = self.stored()
            # What was acknowledged stands; what was under way may stand as well.
            self.assertIn(port - acknowledged[0], (0, 1), f"kill {kill}")
            acknowledged[0] = port
            self.assertEqual(len(entries), 62, f"kill {kill}")
            for name, entry in entries.items():
                # Never torn: the words are written with the state that they speak of.
                if entry["lastChange"]:
                    self.assertIn(f"new state: {entry['adminState']} {entry['operState']},", entry["lastChange"], name)
                changed += int(entry["since"]) > 0
            begun = int(time.time() * 1000)
            self.hostStart()
            now = self.published()
            self.assertEqual(now.keys(), entries.keys(), f"kill {kill}")
            for name, entry in now.items():
                if entry["since"] < begun:
                    self.assertEqual({k: str(v) for k, v in entry.items()}, entries[name], f"kill {kill}: {name}")
            self.assertEqual({name: now[name] for name in steadily}, steadily, f"kill {kill}")
        self.assertGreater(changed, KILLS)
        # After checks of both kinds as well: none of the restarts was a change.
        before = steady.connections
        self.eventually(lambda: steady.connections > before + 4, "checks go on")
        self.assertEqual({name: self.published()[name] for name in steadily}, steadily)
        self.hostStop()

    def test_what_has_no_configuration_any_more_goes(self):
        server = Server("127.0.0.1")
        self.servers.append(server)
        tcp = {"tcpUrl": f"tcp://127.0.0.1:{server.port}"}
        names = ("kept", "gone", "disabled")
        self.hostStart()
        self.apply(self.groups({name: (["127.0.0.1", "127.0.0.9"], tcp) for name in names}))
        self.eventually(lambda: sum(e["operState"] == "up" for e in self.published().values()) == 3, "all are up")
        self.hostKill()
        # The startup file decides for the paths that it names, on top of what was stored.
        file = f"{self.home}/startup.yaml"
        document = self.groups({"kept": (["127.0.0.1"], tcp), "disabled": (["127.0.0.1"], {**tcp, "disabled": True})})
        with open(file, "w") as startup:
            json.dump({SERVER_CONFIG: document[SERVER_CONFIG], f"{PROBE_CONFIG}/nhgProbeConfig":
                       document[PROBE_CONFIG]["nhgProbeConfig"]}, startup)
        self.hostStart("--config", file)
        self.assertEqual({k: e["operState"] for k, e in self.published().items()}, {"kept/127.0.0.1": "up"})
        self.assertEqual(self.get(PROBE_CONFIG)["probeInterval"], 0.2)
        self.hostStop()
        # And what it named is what the next one has without it.
        self.hostStart()
        self.assertEqual(list(self.get(SERVER_CONFIG)["nhgConfig"]), ["disabled", "kept"])
        self.set(PROBE_CONFIG, "monitoringEnabled", "false")
        self.eventually(lambda: self.stored()[0] == {}, "it is stored")
        self.hostKill()
        self.hostStart()
        self.assertEqual(self.published(), {})
        self.hostStop()

    def test_a_full_disk(self):
        small = f"{self.home}/small"
        os.mkdir(small)
        # In a namespace of mounts too, which the process shares with nobody from here on.
        self.assertEqual(ctypes.CDLL(None).unshare(0x20000), 0)  # CLONE_NEWNS
        subprocess.run(["mount", "--make-rprivate", "/"], check=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4m", "none", small], check=True)
        self.url = f"sqlite:{small}/state.db"

        def fill():
            with open(f"{small}/other", "wb", buffering=0) as other:
                try:
                    while True:
                        other.write(b"x" * 4096)
                except OSError:
                    pass
        try:
            self.hostStart()
            self.apply(self.groups({"web": (["127.0.0.1"], {"tcpUrl": "tcp://127.0.0.1:9"})}))
            fill()
            for timeout in range(2, 40):
                self.set(f"{PROBE_CONFIG}/nhgProbeConfig/web", "timeout", str(timeout))
                many = {f"g{i}": {"serverIp": ["127.0.0.1"]} for i in range(timeout * 20)}
                self.apply({SERVER_CONFIG: {"nhgConfig": many}})
            self.eventually(lambda: "disk is full" in self.errors(), "somebody is told")
            time.sleep(2.5)
            self.assertEqual(self.errors().count("disk is full"), 1)
            os.remove(f"{small}/other")
            self.eventually(lambda: "is written again" in self.errors(), "it catches up")
            state = self.hmctl("get", "--config").stdout
            self.hostStop()
            self.hostStart()
            self.assertEqual(self.hmctl("get", "--config").stdout, state)
            self.hostStop()
            # Begun on a full disk: what the file holds is in force all the same, and stays.
            fill()
            self.hostStart()
            self.assertEqual(self.hmctl("get", "--config").stdout, state)
            self.set(PROBE_CONFIG, "encapUdpDstPort", "4791")
            os.remove(f"{small}/other")
            self.eventually(lambda: self.errors().count("is written again") == 2, "it catches up again")
            state = self.hmctl("get", "--config").stdout
            self.hostKill()
            self.hostStart()
            self.assertEqual(self.hmctl("get", "--config").stdout, state)
            self.hostStop()
            # A damaged file that cannot be set aside, as a mount point cannot: one line, and later all of it.
            file = f"{small}/state.db"
            with open(file, "wb") as damaged:
                damaged.write(b"x" * 8192)
            subprocess.run(["mount", "--bind", file, file], check=True)
            self.hostStart()
            for port in range(5000, 5020):
                self.set(PROBE_CONFIG, "encapUdpDstPort", str(port))
            time.sleep(2.5)
            self.assertEqual(self.errors().count("cannot be set aside"), 1, self.errors())
            subprocess.run(["umount", file], check=True)
            self.eventually(lambda: "set aside as" in self.errors(), "it is set aside")
            self.hostStop()
            self.hostStart()
            self.assertEqual(self.get(PROBE_CONFIG)["encapUdpDstPort"], 5019)
            self.hostStop()
        finally:
            if self.host.poll() is None:
                self.hostKill()
            subprocess.run(["umount", "--lazy", small], check=True)


class Redis(StateTest):
    def setUp(self):
        super().setUp()
        self.redisSocket = f"{self.home}/redis.sock"
        self.url = f"redis+unix:{self.redisSocket}"
        self.redisStart()

    def redisStart(self, *options):
        self.server = self.spawn("redis-server", "--port", "0", "--unixsocket", self.redisSocket, "--save", "", "--dir",
                                 self.home, *options, stdout=subprocess.DEVNULL)
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not os.path.exists(self.redisSocket):
            self.assertLess(time.monotonic(), deadline, "redis-server starts")
            time.sleep(0.02)
        self.assertEqual(self.redis("PING"), "PONG")

    def redisStop(self, how=signal.SIGTERM):
        self.server.send_signal(how)
        self.server.wait()
        if os.path.exists(self.redisSocket):
            os.remove(self.redisSocket)

    def redis(self, *command, **options):
        answer = subprocess.run(["redis-cli", "-s", self.redisSocket, *command], text=True, capture_output=True,
                                check=True, timeout=PATIENCE_SECONDS, **options).stdout
        return answer[:-1]

    def hash(self, path):
        words = self.redis("HGETALL", f"hm:{path}").split("\n")
        return dict(zip(words[::2], words[1::2]))

    def members(self, path):
        return sorted(self.redis("SMEMBERS", f"hm:{path}").split())

    def hostAndGroup(self):
        server = Server("127.0.0.1")
        self.servers.append(server)
        self.hostStart()
        self.apply(self.groups({"web": (["127.0.0.1"], {"httpUrl": f"http://127.0.0.1:{server.port}/"})}))
        self.eventually(lambda: self.hash(self.entry).get("operState") == "up", "the server is up for readers")
        return server

    entry = f"{STATUS}/nhgProbeStatus/web/serverProbeStatus/127.0.0.1"

    @staticmethod
    def ask(connection, *command):
        """The last line of a short answer, without the time that a program takes to start."""
        connection.sendall(" ".join(command).encode() + b"\r\n")
        return connection.recv(4096).split(b"\r\n")[-2]

    def announcements(self):
        """A connection that is told of changes, and a function that gives the keys so far."""
        listener = socket.socket(socket.AF_UNIX)
        listener.connect(self.redisSocket)
        listener.sendall(b"SUBSCRIBE hm:changes@0\r\n")
        listener.recv(4096)
        listener.settimeout(0.05)
        heard = []

        def keys():
            try:
                while part := listener.recv(1 << 16):
                    heard.append(part)
            except TimeoutError:
                pass
            return [line for line in b"".join(heard).decode().split("\r\n") if line.startswith("hm:health")]
        self.addCleanup(listener.close)
        return keys

    def test_readers(self):
        server = self.hostAndGroup()
        self.assertEqual(self.members(f"{STATUS}/nhgProbeStatus"), ["web"])
        self.assertEqual(self.members(f"{STATUS}/nhgProbeStatus/web/serverProbeStatus"), ["127.0.0.1"])
        shown = self.published()["web/127.0.0.1"]
        self.assertEqual(self.hash(self.entry), {name: str(value) for name, value in shown.items()})
        self.assertEqual(self.hash(PROBE_CONFIG)["probeInterval"], "0.2")
        # Nothing is written, and nothing announced, while nothing changes; a change is, by its key.
        keys = self.announcements()
        turn = self.redis("GET", "hm:turn")
        before = server.connections
        self.eventually(lambda: server.connections > before + 4, "checks go on")
        self.assertEqual((keys(), self.redis("GET", "hm:turn")), ([], turn))
        server.stop()
        self.eventually(lambda: keys() == [f"hm:{self.entry}"], "the change is announced")
        self.assertEqual(self.hash(self.entry)["operState"], "down")
        # Counters come by themselves, later.
        counters = "healthMonitor/counters/web/127.0.0.1/http"
        self.eventually(lambda: self.hash(counters).get("numConnectFailures", "0") != "0", "counters are written")
        self.assertIn("web/127.0.0.1/http", self.members("healthMonitor/counters"))
        # A group that goes leaves nothing behind.
        self.apply(self.groups({}))
        self.eventually(lambda: self.redis("EXISTS", f"hm:{self.entry}", f"hm:{STATUS}/nhgProbeStatus", "hm:"
                                           f"{PROBE_CONFIG}/nhgProbeConfig/web") == "0", "its keys go")
        # A dead agent is told from healthy servers.
        self.assertGreater(int(self.redis("PTTL", "hm:heartbeat")), 0)
        self.host.send_signal(signal.SIGSTOP)
        self.eventually(lambda: self.redis("EXISTS", "hm:heartbeat") == "0", "the heartbeat ends")
        self.host.send_signal(signal.SIGCONT)
        self.eventually(lambda: self.redis("EXISTS", "hm:heartbeat") == "1", "it comes back")
        self.hostStop()
        self.assertEqual(self.redis("EXISTS", "hm:heartbeat"), "0")

    def test_writers(self):
        self.hostAndGroup()
        self.redis("HSET", f"hm:{PROBE_CONFIG}", "probeInterval", "0.3")
        self.eventually(lambda: self.get(PROBE_CONFIG)["probeInterval"] == 0.3, "a value is taken up")
        self.redis(input="".join(f"{line}\n" for line in (
            "MULTI", f"SADD hm:{SERVER_CONFIG}/nhgConfig db", f"SADD hm:{SERVER_CONFIG}/nhgConfig/db/serverIp ::1",
            f"SADD hm:{PROBE_CONFIG}/nhgProbeConfig db", f"HSET hm:{PROBE_CONFIG}/nhgProbeConfig/db timeout 3", "EXEC")))
        self.eventually(lambda: "db/::1" in self.published(), "a group is taken up")
        # The hash has all of the entry's values now, as every entry has.
        self.eventually(lambda: self.hash(f"{PROBE_CONFIG}/nhgProbeConfig/db").get("retryCount") == "3", "completed")
        self.redis("SREM", f"hm:{SERVER_CONFIG}/nhgConfig", "web")
        self.eventually(lambda: list(self.published()) == ["db/::1"], "a group goes")
        self.eventually(lambda: self.redis("EXISTS", f"hm:{SERVER_CONFIG}/nhgConfig/web/serverIp") == "0", "all of it")

        refusals = 0
        for name, command, told in (
                ("a value", ("HSET", f"hm:{PROBE_CONFIG}", "probeInterval", "soon"), 'probeInterval: "soon"'),
                ("an attribute", ("HSET", f"hm:{PROBE_CONFIG}", "colour", "red"), "colour: is no single value"),
                ("two families", ("SADD", f"hm:{SERVER_CONFIG}/nhgConfig/db/serverIp", "10.0.0.1"), "db"),
                ("a key", ("SADD", f"hm:{SERVER_CONFIG}/nhgConfig/db/serverIp", "x y"), '"x y"'),
                ("too long", ("HSET", f"hm:{PROBE_CONFIG}", "globalUrl", "http://h/" + "x" * 100000), "globalUrl"),
                ("a type", ("SET", f"hm:{PROBE_CONFIG}", "x"), "is a string instead of a hash"),
                ("no key of ours", ("SET", f"hm:{PROBE_CONFIG}/x", "y"), "no key of ours")):
            with self.subTest(name):
                self.redis("DEL", "hm:refused")
                before = self.hmctl("get", "--config").stdout
                self.redis(*command)
                self.eventually(lambda: told in self.redis("LRANGE", "hm:refused", "0", "-1"), f"{name}: told")
                self.eventually(lambda: self.hash(PROBE_CONFIG).get("probeInterval") == "0.3" and
                                "colour" not in self.hash(PROBE_CONFIG) and
                                self.members(f"{SERVER_CONFIG}/nhgConfig/db/serverIp") == ["::1"], f"{name}: put back")
                self.assertEqual(self.hmctl("get", "--config").stdout, before)
                refusals += 1
                self.assertGreaterEqual(self.get("host/status")["stateRefusals"], refusals)
        # What others write over the published state is put back.
        self.redis("DEL", f"hm:{STATUS}/nhgProbeStatus/db/serverProbeStatus/::1")
        self.eventually(lambda: "operState" in self.hash(f"{STATUS}/nhgProbeStatus/db/serverProbeStatus/::1"), "put back")
        self.hostStop()

    def test_hostile_content(self):
        self.hostAndGroup()
        self.hostKill()
        self.redis("EVAL", "for i = 1, 1000000 do redis.call( 'SET', 'hm:" + STATUS + "/' .. i, 'x' ) end", "0")
        self.redis("EVAL", f"for i = 1, 200000 do redis.call( 'SADD', 'hm:ip/status/ipIntfStatus', i ) end", "0")
        self.redis("EVAL", f"redis.call( 'HSET', 'hm:{PROBE_CONFIG}', 'globalUrl', string.rep( 'x', 50000000 ) )", "0")
        self.redis("HSET", f"hm:{PROBE_CONFIG}/responseCodeRule", "action", "-1")
        self.redis("LPUSH", f"hm:{PROBE_CONFIG}/pingDisabledVip", "x")
        self.redis("HSET", "hm:refused", "x", "y")
        self.redis("HSET", "hm:healthMonitor/counters", "x", "y")
        self.hostStart()
        told = self.errors()
        for line in ("ip/status/ipIntfStatus: has more than 65536 members", "probeConfig: globalUrl: ",
                     'responseCodeRule: action: "-1"', "pingDisabledVip: is a list instead of a set"):
            self.assertEqual(told.count(line), 1, told)
        self.assertGreaterEqual(self.get("host/status")["stateRefusals"], 4)
        self.assertEqual(self.published()["web/127.0.0.1"]["operState"], "up")
        self.eventually(lambda: self.redis("TYPE", f"hm:{PROBE_CONFIG}/pingDisabledVip") == "none" and
                        self.redis("SCARD", "hm:ip/status/ipIntfStatus") == "0", "it is put right")
        # The same while it runs: keys that are none of ours, of which one line tells; more of them at once than the
        # server holds for a client end the connection, and that is all.
        many = "for i = 1, {} do redis.call( 'SET', 'hm:" + PROBE_CONFIG + "/' .. i, 'x' ) end"
        self.redis("EVAL", many.format(100000), "0")
        self.eventually(lambda: self.get("host/status")["stateRefusals"] > 100000, "they are counted")
        self.redis("EVAL", many.format(1000000), "0")
        self.set(PROBE_CONFIG, "encapUdpDstPort", "4790")
        self.eventually(lambda: self.hash(PROBE_CONFIG).get("encapUdpDstPort") == "4790", "it goes on")
        self.assertLess(len(self.errors().splitlines()), 20, self.errors())
        self.hostStop()

    def test_a_server_that_is_away(self):
        server = self.hostAndGroup()
        self.hostKill()
        self.redisStop()
        self.hostStart()  # without it
        self.assertIn("the host goes on without what it holds", self.errors())
        self.apply(self.groups({"web": (["127.0.0.1"], {"httpUrl": f"http://127.0.0.1:{server.port}/"})}))
        self.redisStart("--appendonly", "yes")
        self.eventually(lambda: self.hash(self.entry).get("operState") == "up", "published once it is there")
        # Both sides write while they do not see each other.
        self.server.send_signal(signal.SIGSTOP)
        self.set(PROBE_CONFIG, "encapUdpDstPort", "4790")
        self.eventually(lambda: "no answer for" in self.errors(), "the host gives it up")
        server.stop()
        self.eventually(lambda: self.published()["web/127.0.0.1"]["operState"] == "down", "monitoring goes on")
        self.server.send_signal(signal.SIGCONT)
        self.redis("HSET", f"hm:{PROBE_CONFIG}", "maxNumberOfThreads", "3")
        self.eventually(lambda: self.hash(PROBE_CONFIG).get("encapUdpDstPort") == "4790" and
                        self.hash(self.entry).get("operState") == "down" and
                        self.get(PROBE_CONFIG)["maxNumberOfThreads"] == 3, "both are right again")
        # A server that begins anew, or whose database is emptied, gets everything once more.
        self.redis("FLUSHALL")
        self.eventually(lambda: self.hash(self.entry).get("operState") == "down", "after FLUSHALL")
        self.redis("CONFIG", "SET", "appendonly", "no")
        self.redisStop(signal.SIGKILL)
        shutil.rmtree(f"{self.home}/appendonlydir", ignore_errors=True)
        self.redisStart()
        self.eventually(lambda: self.hash(self.entry).get("operState") == "down", "after a restart")
        self.assertEqual(self.get(PROBE_CONFIG)["maxNumberOfThreads"], 3)
        self.hostStop()

    def test_a_configuration_stands_whole(self):
        documents = [json.dumps({SERVER_CONFIG: {"nhgConfig": {
            f"{kind}{i}": {"serverIp": [f"10.0.{i // 256}.{i % 256}"]} for i in range(3000)}}}) for kind in "ab"]
        self.hostStart()
        self.assertEqual(self.hmctl("apply", "-", input=documents[0]).returncode, 0)
        self.eventually(lambda: len(self.members(f"{SERVER_CONFIG}/nhgConfig")) == 3000, "the first is there")
        asking = socket.socket(socket.AF_UNIX)
        self.addCleanup(asking.close)
        asking.connect(self.redisSocket)
        for kill in range(6):
            kind = "ba"[kill % 2]
            turn = self.ask(asking, "GET", "hm:turn")
            applying = threading.Thread(target=self.hmctl, args=("apply", "-"),
                                        kwargs={"input": documents["ab".index(kind)]})
            applying.start()
            while self.ask(asking, "SCARD", f"hm:{SERVER_CONFIG}/nhgConfig") == b":3000" and \
                    self.ask(asking, "GET", "hm:turn") == turn and applying.is_alive():
                pass
            self.hostKill()
            applying.join()
            names = self.members(f"{SERVER_CONFIG}/nhgConfig")
            self.assertEqual((len(names), len({name[0] for name in names})), (3000, 1), f"kill {kill}")
            self.hostStart()
            self.assertEqual(sorted(self.get(SERVER_CONFIG)["nhgConfig"]), names, f"kill {kill}")
        self.hostStop()

    def test_what_others_wrote_meanwhile(self):
        self.hostAndGroup()
        kill = ("CLIENT KILL TYPE normal SKIPME yes", "CLIENT KILL TYPE pubsub SKIPME yes")
        for threads in range(3, 6):
            # Once without any difference, which must not count as something that the server has lost since.
            for meanwhile in ((), (f"HSET hm:{PROBE_CONFIG} maxNumberOfThreads {threads}",)):
                self.redis(input="".join(f"{line}\n" for line in ("MULTI", *kill, *meanwhile, "EXEC")))
                time.sleep(1.5)
            self.eventually(lambda: self.get(PROBE_CONFIG)["maxNumberOfThreads"] == threads, "it is taken up")
        self.hostStop()

    def test_one_host_at_a_time(self):
        self.hostAndGroup()
        self.assertIn("another host writes it", self.hostRefused())
        # A killed one is known by its process, and not waited for.
        self.hostKill()
        self.hostStart()
        self.assertEqual(self.published()["web/127.0.0.1"]["operState"], "up")
        self.hostKill()
        self.redis("SET", "hm:heartbeat", "somebody elsewhere", "PX", "3000")
        self.assertIn("another host writes it: somebody elsewhere", self.hostRefused())
        self.eventually(lambda: self.redis("EXISTS", "hm:heartbeat") == "0", "its time runs out", host=False)
        self.hostStart()
        # One that has lost the lock writes nothing until it has it again.
        self.redis("SET", "hm:heartbeat", "somebody elsewhere", "PX", "4000")
        self.eventually(lambda: "another host writes it: somebody elsewhere" in self.errors(), "it notices")
        self.set(PROBE_CONFIG, "encapUdpDstPort", "4791")
        self.assertNotEqual(self.hash(PROBE_CONFIG)["encapUdpDstPort"], "4791")
        self.eventually(lambda: self.hash(PROBE_CONFIG)["encapUdpDstPort"] == "4791", "it writes again")
        self.hostStop()

    def test_a_paused_host_asks_before_it_writes(self):
        moody = Moody("0.0.0.0")
        self.servers.append(moody)
        self.hostStart()
        self.apply(self.groups({"moody": ([f"127.0.1.{i}" for i in range(1, 61)],
                                          {"httpUrl": f"http://127.0.0.1:{moody.port}/"})},
                               responseCodeRule={"pattern": "5..", "action": 0}))
        self.eventually(lambda: int(self.redis("GET", "hm:turn") or 0) > 20, "states change all the time")
        self.host.send_signal(signal.SIGSTOP)
        self.eventually(lambda: self.redis("EXISTS", "hm:heartbeat") == "0", "its time runs out", host=False)
        self.redis("SET", "hm:heartbeat", "somebody elsewhere", "PX", "60000")
        turn, announced = self.redis("GET", "hm:turn"), self.announcements()
        self.host.send_signal(signal.SIGCONT)
        self.eventually(lambda: "another host writes it: somebody elsewhere" in self.errors(), "it notices")
        self.assertEqual((self.redis("GET", "hm:turn"), announced()), (turn, []))
        self.hostStop()


if __name__ == "__main__":
    unittest.main()
