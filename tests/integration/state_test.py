"""State that outlives the process: killed hosts, full disks, and a Redis server that others write too."""

import contextlib
import ctypes
import json
import os
import random
import shutil
import signal
import socket
import sqlite3
import subprocess
import threading
import time
import unittest

from host_case import HostCase
from running_host import DOWN, PROBE_CONFIG, SERVER_CONFIG, STATUS, UP, captured, stop
from servers import OK, Server, http

KILLS = 50
WEB = ("web", "127.0.0.1")


class Moody(Server):
    """Answers each request as it pleases."""

    def converse(self, connection):
        self.answer = random.choice((OK, http(b"503 Busy")))
        super().converse(connection)


class StateCase(HostCase):
    """The host of each test keeps its state at `url`."""

    def command(self, *options, **place):
        return super().command("--state-db", self.url, *options, **place)

    def config(self):
        return self.told("get", "--config")


class Sqlite(StateCase):
    def setUp(self):
        super().setUp()
        self.url = f"sqlite:{self.home}/state.db"

    def stored(self):
        """Published entries as the file has them, and the port that the load counts up."""
        with sqlite3.connect(f"file:{self.home}/state.db?mode=ro", uri=True) as database:
            rows = dict(database.execute("SELECT path, attributes FROM entity"))
        entries = {tuple(path.split("/")[4::2]): json.loads(attributes)
                   for path, attributes in rows.items() if "/serverProbeStatus/" in path}
        return entries, int(json.loads(rows[PROBE_CONFIG])["encapUdpDstPort"])

    def load(self, acknowledged):
        """Counts a configured port up until the host has gone."""
        with socket.socket(socket.AF_UNIX) as client, contextlib.suppress(ConnectionError):
            client.connect(self.socket)
            answers = client.makefile("rb")
            while True:
                client.sendall(json.dumps({"command": "set", "path": PROBE_CONFIG, "attribute": "encapUdpDstPort",
                                           "value": str(acknowledged[0] + 1)}).encode() + b"\n")
                if b'"done":true' not in answers.readline():
                    return
                acknowledged[0] += 1
                time.sleep(0.005)  # the ports are to last

    def test_killed_at_any_moment(self):
        steady, moody = self.server(), self.server("0.0.0.0", kind=Moody)
        self.host_start()
        self.apply({
            # Patient: on a busy machine a check of it that runs out of time would be a change.
            "steady": steady.group("http", "tcp", timeout=30),
            "absent": (["127.0.0.9"], {"tcpUrl": steady.url("tcp")}),
            "moody": ([f"127.0.1.{i}" for i in range(1, 61)], {"httpUrl": moody.url()}),
        }, responseCodeRule={"pattern": "5..", "action": 0})
        names = ("steady", "127.0.0.1"), ("absent", "127.0.0.9")
        self.eventually(lambda: self.published()[names[0]] == UP, "steady is up")
        steadily = {name: self.entries()[name] for name in names}
        acknowledged = [10000]
        self.told("set", PROBE_CONFIG, "encapUdpDstPort", "10000")
        changed = 0
        for kill in range(KILLS):
            loading = threading.Thread(target=self.load, args=(acknowledged,))
            loading.start()
            time.sleep(random.uniform(0.1, 0.8))
            self.host_kill()
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
            self.host_start()
            now = self.entries()
            self.assertEqual(now.keys(), entries.keys(), f"kill {kill}")
            for name, entry in now.items():
                if entry["since"] < begun:
                    self.assertEqual({k: str(v) for k, v in entry.items()}, entries[name], f"kill {kill}: {name}")
            self.assertEqual({name: now[name] for name in steadily}, steadily, f"kill {kill}")
        self.assertGreater(changed, KILLS)
        # After checks of both kinds as well: none of the restarts was a change.
        self.more_checks(steady, 5)
        self.assertEqual({name: self.entries()[name] for name in steadily}, steadily)

    def test_what_has_no_configuration_any_more_goes(self):
        server = self.server()
        tcp = {"tcpUrl": server.url("tcp")}
        names = ("kept", "gone", "disabled")
        self.host_start()
        self.apply({name: (["127.0.0.1", "127.0.0.9"], tcp) for name in names}, probeInterval=0.3)
        self.expect({(name, f"127.0.0.{each}"): UP if each == 1 else DOWN for name in names for each in (1, 9)})
        self.host_kill()
        # The startup file decides for the paths that it names, on top of what was stored.
        file = f"{self.home}/startup.yaml"
        document = self.document({"kept": server.group("tcp"), "disabled": server.group("tcp", disabled=True)})
        with open(file, "w") as startup:
            json.dump({SERVER_CONFIG: document[SERVER_CONFIG], f"{PROBE_CONFIG}/nhgProbeConfig":
                       document[PROBE_CONFIG]["nhgProbeConfig"]}, startup)
        self.host_start("--config", file)
        self.assertEqual(self.published(), {("kept", "127.0.0.1"): UP})
        self.assertEqual(self.get(PROBE_CONFIG)["probeInterval"], 0.3)
        self.host_stop()
        # And what it named is what the next one has without it.
        self.host_start()
        self.assertEqual(list(self.get(SERVER_CONFIG)["nhgConfig"]), ["disabled", "kept"])
        self.told("set", PROBE_CONFIG, "monitoringEnabled", "false")
        self.eventually(lambda: self.stored()[0] == {}, "it is stored")
        self.host_kill()
        self.host_start()
        self.assertEqual(self.published(), {})

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
            self.host_start()
            self.apply({"web": (["127.0.0.1"], {"tcpUrl": "tcp://127.0.0.1:9"})})
            fill()
            for timeout in range(2, 40):
                self.told("set", f"{PROBE_CONFIG}/nhgProbeConfig/web", "timeout", str(timeout))
                many = {f"g{i}": {"serverIp": ["127.0.0.1"]} for i in range(timeout * 20)}
                self.configure({SERVER_CONFIG: {"nhgConfig": many}})
            self.eventually(lambda: "disk is full" in self.host_log(), "somebody is told")
            time.sleep(2.5)
            self.assertEqual(self.host_log().count("disk is full"), 1)
            os.remove(f"{small}/other")
            self.eventually(lambda: "is written again" in self.host_log(), "it catches up")
            state = self.config()
            self.host_stop()
            self.host_start()
            self.assertEqual(self.config(), state)
            self.host_stop()
            # Begun on a full disk: what the file holds is in force all the same, and stays.
            fill()
            self.host_start()
            self.assertEqual(self.config(), state)
            self.told("set", PROBE_CONFIG, "encapUdpDstPort", "4791")
            os.remove(f"{small}/other")
            self.eventually(lambda: self.host_log().count("is written again") == 2, "it catches up again")
            state = self.config()
            self.host_kill()
            self.host_start()
            self.assertEqual(self.config(), state)
            self.host_stop()
            # A damaged file that cannot be set aside, as a mount point cannot: one line, and later all of it.
            file = f"{small}/state.db"
            with open(file, "wb") as damaged:
                damaged.write(b"x" * 8192)
            subprocess.run(["mount", "--bind", file, file], check=True)
            self.host_start()
            for port in range(5000, 5020):
                self.told("set", PROBE_CONFIG, "encapUdpDstPort", str(port))
            time.sleep(2.5)
            self.assertEqual(self.host_log().count("cannot be set aside"), 1, self.host_log())
            subprocess.run(["umount", file], check=True)
            self.eventually(lambda: "set aside as" in self.host_log(), "it is set aside")
            self.host_stop()
            self.host_start()
            self.assertEqual(self.get(PROBE_CONFIG)["encapUdpDstPort"], 5019)
        finally:
            if self.host:
                self.host_stop()
            subprocess.run(["umount", "--lazy", small], check=True)


class Redis(StateCase):
    def setUp(self):
        super().setUp()
        self.redisSocket = f"{self.home}/redis.sock"
        self.url = f"redis+unix:{self.redisSocket}"
        self.redisStart()

    def redisStart(self, *options):
        self.redisServer = subprocess.Popen(["redis-server", "--port", "0", "--unixsocket", self.redisSocket, "--save",
                                             "", "--dir", self.home, *options], stdout=subprocess.DEVNULL)
        self.addCleanup(stop, self.redisServer, signal.SIGKILL)
        self.eventually(lambda: os.path.exists(self.redisSocket), "redis-server starts")
        self.assertEqual(self.redis("PING"), "PONG")

    def redisStop(self, how=signal.SIGTERM):
        stop(self.redisServer, how)
        if os.path.exists(self.redisSocket):
            os.remove(self.redisSocket)

    def redis(self, *command, **options):
        answer = captured("redis-cli", "-s", self.redisSocket, *command, **options)
        answer.check_returncode()
        return answer.stdout[:-1]

    def transaction(self, *lines):
        self.redis(input="".join(f"{line}\n" for line in ("MULTI", *lines, "EXEC")))

    def hash(self, path):
        words = self.redis("HGETALL", f"hm:{path}").split("\n")
        return dict(zip(words[::2], words[1::2]))

    def members(self, path):
        return sorted(self.redis("SMEMBERS", f"hm:{path}").split())

    def hostAndGroup(self):
        server = self.server()
        self.host_start()
        self.apply({"web": server.group()}, probeInterval=0.2)
        self.written(self.entry, operState="up")
        return server

    def written(self, path, **attributes):
        """Readers see it, sooner or later."""
        self.eventually(lambda: attributes.items() <= self.hash(path).items(),
                        lambda: f"{attributes} in {self.hash(path)}")

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
        shown = self.entries()[WEB]
        self.assertEqual(self.hash(self.entry), {name: str(value) for name, value in shown.items()})
        self.assertEqual(self.hash(PROBE_CONFIG)["probeInterval"], "0.2")
        # Nothing is written, and nothing announced, while nothing changes; a change is, by its key.
        keys = self.announcements()
        turn = self.redis("GET", "hm:turn")
        self.more_checks(server, 5)
        self.assertEqual((keys(), self.redis("GET", "hm:turn")), ([], turn))
        server.stop()
        self.eventually(lambda: keys() == [f"hm:{self.entry}"], "the change is announced")
        self.assertEqual(self.hash(self.entry)["operState"], "down")
        # Counters come by themselves, later.
        counters = "healthMonitor/counters/web/127.0.0.1/http"
        self.eventually(lambda: self.hash(counters).get("numConnectFailures", "0") != "0", "counters are written")
        self.assertIn("web/127.0.0.1/http", self.members("healthMonitor/counters"))
        # A group that goes leaves nothing behind.
        self.apply({})
        self.eventually(lambda: self.redis("EXISTS", f"hm:{self.entry}", f"hm:{STATUS}/nhgProbeStatus", "hm:"
                                           f"{PROBE_CONFIG}/nhgProbeConfig/web") == "0", "its keys go")
        # A dead agent is told from healthy servers.
        self.assertGreater(int(self.redis("PTTL", "hm:heartbeat")), 0)
        self.host.send_signal(signal.SIGSTOP)
        self.eventually(lambda: self.redis("EXISTS", "hm:heartbeat") == "0", "the heartbeat ends")
        self.host.send_signal(signal.SIGCONT)
        self.eventually(lambda: self.redis("EXISTS", "hm:heartbeat") == "1", "it comes back")
        self.host_stop()
        self.assertEqual(self.redis("EXISTS", "hm:heartbeat"), "0")
        self.assertNotIn("cmdstat_keys:", self.redis("INFO", "commandstats"))  # which would stop the server for others

    def test_writers(self):
        self.hostAndGroup()
        self.redis("HSET", f"hm:{PROBE_CONFIG}", "probeInterval", "0.3")
        self.eventually(lambda: self.get(PROBE_CONFIG)["probeInterval"] == 0.3, "a value is taken up")
        self.transaction(
            f"SADD hm:{SERVER_CONFIG}/nhgConfig db", f"SADD hm:{SERVER_CONFIG}/nhgConfig/db/serverIp ::1",
            f"SADD hm:{PROBE_CONFIG}/nhgProbeConfig db", f"HSET hm:{PROBE_CONFIG}/nhgProbeConfig/db timeout 3")
        self.eventually(lambda: ("db", "::1") in self.published(), "a group is taken up")
        # The hash has all of the entry's values now, as every entry has.
        self.written(f"{PROBE_CONFIG}/nhgProbeConfig/db", retryCount="3")  # completed
        self.redis("SREM", f"hm:{SERVER_CONFIG}/nhgConfig", "web")
        self.eventually(lambda: list(self.published()) == [("db", "::1")], "a group goes")
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
                before = self.config()
                self.redis(*command)
                self.eventually(lambda: told in self.redis("LRANGE", "hm:refused", "0", "-1"), f"{name}: told")
                self.eventually(lambda: self.hash(PROBE_CONFIG).get("probeInterval") == "0.3" and
                                "colour" not in self.hash(PROBE_CONFIG) and
                                self.members(f"{SERVER_CONFIG}/nhgConfig/db/serverIp") == ["::1"], f"{name}: put back")
                self.assertEqual(self.config(), before)
                refusals += 1
                self.assertGreaterEqual(self.get("host/status")["stateRefusals"], refusals)
                if name == "a value":
                    self.assertIn("probeInterval", self.get("host/status")["lastConfigurationError"])
        # What others write over the published state is put back.
        entry = f"{STATUS}/nhgProbeStatus/db/serverProbeStatus/::1"
        self.redis("DEL", f"hm:{entry}")
        self.eventually(lambda: "operState" in self.hash(entry), "put back")

    def test_another_database_over_tcp(self):
        self.redisStop()
        self.redisStart("--port", "6379")
        self.url = "redis://127.0.0.1:6379/3"
        self.host_start()
        self.apply({"web": self.server().group()})
        state = ("-n", "3", "HGET", f"hm:{self.entry}", "operState")
        self.eventually(lambda: self.redis(*state) == "up", "it is published")
        self.assertEqual(self.redis("DBSIZE"), "0")

    def test_hostile_content(self):
        self.hostAndGroup()
        self.host_kill()
        self.redis("EVAL", "for i = 1, 1000000 do redis.call( 'SET', 'hm:" + STATUS + "/' .. i, 'x' ) end", "0")
        self.redis("EVAL", f"for i = 1, 200000 do redis.call( 'SADD', 'hm:ip/status/ipIntfStatus', i ) end", "0")
        self.redis("EVAL", f"redis.call( 'HSET', 'hm:{PROBE_CONFIG}', 'globalUrl', string.rep( 'x', 50000000 ) )", "0")
        self.redis("HSET", f"hm:{PROBE_CONFIG}/responseCodeRule", "action", "-1")
        self.redis("LPUSH", f"hm:{PROBE_CONFIG}/pingDisabledVip", "x")
        self.redis("HSET", "hm:refused", "x", "y")
        self.redis("HSET", "hm:healthMonitor/counters", "x", "y")
        self.host_start()
        told = self.host_log()
        for line in ("ip/status/ipIntfStatus: has more than 65536 members", "probeConfig: globalUrl: ",
                     'responseCodeRule: action: "-1"', "pingDisabledVip: is a list instead of a set"):
            self.assertEqual(told.count(line), 1, told)
        self.assertGreaterEqual(self.get("host/status")["stateRefusals"], 4)
        self.assertEqual(self.published(), {WEB: UP})
        self.eventually(lambda: self.redis("TYPE", f"hm:{PROBE_CONFIG}/pingDisabledVip") == "none" and
                        self.redis("SCARD", "hm:ip/status/ipIntfStatus") == "0", "it is put right")
        # The same while it runs: keys that are none of ours, of which one line tells; more of them at once than the
        # server holds for a client end the connection, and that is all.
        many = "for i = 1, {} do redis.call( 'SET', 'hm:" + PROBE_CONFIG + "/' .. i, 'x' ) end"
        self.redis("EVAL", many.format(100000), "0")
        self.eventually(lambda: self.get("host/status")["stateRefusals"] > 100000, "they are counted")
        self.redis("EVAL", many.format(1000000), "0")
        self.told("set", PROBE_CONFIG, "encapUdpDstPort", "4790")
        self.written(PROBE_CONFIG, encapUdpDstPort="4790")  # it goes on
        self.assertLess(len(self.host_log().splitlines()), 20, self.host_log())

    def test_a_server_that_is_away(self):
        server = self.hostAndGroup()
        self.host_kill()
        self.redisStop()
        self.host_start()  # without it
        self.assertIn("the host goes on without what it holds", self.host_log())
        self.apply({"web": server.group()})
        self.redisStart("--appendonly", "yes")
        self.written(self.entry, operState="up")  # published once it is there
        # Both sides write while they do not see each other.
        self.redisServer.send_signal(signal.SIGSTOP)
        self.told("set", PROBE_CONFIG, "encapUdpDstPort", "4790")
        self.eventually(lambda: "no answer for" in self.host_log(), "the host gives it up")
        server.stop()
        self.expect({WEB: DOWN})  # monitoring goes on
        self.redisServer.send_signal(signal.SIGCONT)
        self.redis("HSET", f"hm:{PROBE_CONFIG}", "maxNumberOfThreads", "3")
        self.written(PROBE_CONFIG, encapUdpDstPort="4790", maxNumberOfThreads="3")
        self.written(self.entry, operState="down")
        self.eventually(lambda: self.get(PROBE_CONFIG)["maxNumberOfThreads"] == 3, "both are right again")
        # A server that begins anew, or whose database is emptied, gets everything once more.
        self.redis("FLUSHALL")
        self.written(self.entry, operState="down")  # after FLUSHALL
        self.redis("CONFIG", "SET", "appendonly", "no")
        self.redisStop(signal.SIGKILL)
        shutil.rmtree(f"{self.home}/appendonlydir", ignore_errors=True)
        self.redisStart()
        self.written(self.entry, operState="down")  # after a restart
        self.assertEqual(self.get(PROBE_CONFIG)["maxNumberOfThreads"], 3)

    def test_a_configuration_stands_whole(self):
        documents = [json.dumps({SERVER_CONFIG: {"nhgConfig": {
            f"{kind}{i}": {"serverIp": [f"10.0.{i // 256}.{i % 256}"]} for i in range(3000)}}}) for kind in "ab"]
        self.host_start()
        self.told("apply", "-", input=documents[0])
        self.eventually(lambda: len(self.members(f"{SERVER_CONFIG}/nhgConfig")) == 3000, "the first is there")
        asking = socket.socket(socket.AF_UNIX)
        self.addCleanup(asking.close)
        asking.connect(self.redisSocket)
        for kill in range(4):
            kind = "ba"[kill % 2]
            turn = self.ask(asking, "GET", "hm:turn")
            applying = threading.Thread(target=self.hmctl, args=("apply", "-"),
                                        kwargs={"input": documents["ab".index(kind)]})
            applying.start()
            while self.ask(asking, "SCARD", f"hm:{SERVER_CONFIG}/nhgConfig") == b":3000" and \
                    self.ask(asking, "GET", "hm:turn") == turn and applying.is_alive():
                pass
            self.host_kill()
            applying.join()
            names = self.members(f"{SERVER_CONFIG}/nhgConfig")
            self.assertEqual((len(names), len({name[0] for name in names})), (3000, 1), f"kill {kill}")
            self.host_start()
            self.assertEqual(sorted(self.get(SERVER_CONFIG)["nhgConfig"]), names, f"kill {kill}")

    def test_what_others_wrote_meanwhile(self):
        self.hostAndGroup()
        kill = ("CLIENT KILL TYPE normal SKIPME yes", "CLIENT KILL TYPE pubsub SKIPME yes")
        for threads in range(3, 6):
            # Once without any difference, which must not count as something that the server has lost since.
            for meanwhile in ((), (f"HSET hm:{PROBE_CONFIG} maxNumberOfThreads {threads}",)):
                self.transaction(*kill, *meanwhile)
                time.sleep(1.5)
            self.eventually(lambda: self.get(PROBE_CONFIG)["maxNumberOfThreads"] == threads, "it is taken up")

    def test_one_host_at_a_time(self):
        self.hostAndGroup()
        second = f"{self.home}/second.sock"
        self.assertIn("another host writes it", self.refused(socket=second))
        # A killed one is known by its process, and not waited for.
        self.host_kill()
        self.host_start()
        self.assertEqual(self.published(), {WEB: UP})
        self.host_kill()
        self.redis("SET", "hm:heartbeat", "somebody elsewhere", "PX", "3000")
        self.assertIn("another host writes it: somebody elsewhere", self.refused(socket=second))
        self.eventually(lambda: self.redis("EXISTS", "hm:heartbeat") == "0", "its time runs out")
        self.host_start()
        # One that has lost the lock writes nothing until it has it again.
        self.redis("SET", "hm:heartbeat", "somebody elsewhere", "PX", "4000")
        self.eventually(lambda: "another host writes it: somebody elsewhere" in self.host_log(), "it notices")
        self.told("set", PROBE_CONFIG, "encapUdpDstPort", "4791")
        self.assertNotEqual(self.hash(PROBE_CONFIG)["encapUdpDstPort"], "4791")
        self.written(PROBE_CONFIG, encapUdpDstPort="4791")  # it writes again

    def test_a_paused_host_asks_before_it_writes(self):
        moody = self.server("0.0.0.0", kind=Moody)
        self.host_start()
        self.apply({"moody": ([f"127.0.1.{i}" for i in range(1, 61)], {"httpUrl": moody.url()})},
                   responseCodeRule={"pattern": "5..", "action": 0})
        self.eventually(lambda: int(self.redis("GET", "hm:turn") or 0) > 20, "states change all the time")
        self.host.send_signal(signal.SIGSTOP)
        self.eventually(lambda: self.redis("EXISTS", "hm:heartbeat") == "0", "its time runs out")
        self.redis("SET", "hm:heartbeat", "somebody elsewhere", "PX", "60000")
        turn, announced = self.redis("GET", "hm:turn"), self.announcements()
        self.host.send_signal(signal.SIGCONT)
        self.eventually(lambda: "another host writes it: somebody elsewhere" in self.host_log(), "it notices")
        self.assertEqual((self.redis("GET", "hm:turn"), announced()), (turn, []))


if __name__ == "__main__":
    unittest.main()
