"""hmctl as people use it: the shell on a terminal, scripts, and single commands."""

import json
import os
import re
import signal
import socket
import stat
import subprocess
import tempfile
import threading
import unittest

from health_test import BIN, PATIENCE_SECONDS, PROBE_CONFIG, HostTest
from terminal import Terminal

PROMPT = r"hmctl> $"
MORE = r"\n--More-- .*\)$"


class ShellCase(HostTest):
    def setUp(self):
        super().setUp()
        self.terminals = []

    def tearDown(self):
        for terminal in self.terminals:
            terminal.close()
        super().tearDown()

    def shell(self, path=None, **options):
        environment = {"XDG_STATE_HOME": f"{self.home}/state"}
        terminal = Terminal(f"{BIN}/hmctl", ["-s", path or self.socket], environment=environment, **options)
        self.terminals.append(terminal)
        return terminal

    def assert_seen(self, text, pattern):
        self.assertRegex(text, re.compile(pattern, re.DOTALL))

    def script(self, text, *arguments):
        return self.hmctl(*arguments, input=text)


class ShellTest(ShellCase):
    def test_tab_question_mark_and_abbreviations(self):
        self.apply({"web": (["127.2.1.1"], {"disabled": True}), "two words": (["127.2.1.2"], {"disabled": True})})
        shell = self.shell()
        shell.expect(PROMPT)
        shell.send("?")  # no Enter
        shell.expect("print the state below a path.*" + PROMPT)
        shell.send("se\theal\tconf\tp\t")
        shell.expect(f"set {PROBE_CONFIG}/$")
        shell.send(" nic\t")
        shell.expect("niceValue $")
        shell.send("?")
        shell.expect("integer -128..127.*niceValue $")
        shell.enter("3")
        shell.expect(PROMPT)
        shell.enter("ge host/status/pid")
        self.assertIn(f"host/status/pid: {self.host.pid}\n", shell.expect(PROMPT))
        self.assertIn("niceValue: 3\n", self.hmctl("get", PROBE_CONFIG).stdout)

        shell.send("probe ?")
        shell.expect("two words .*web .*hmctl> probe $")
        shell.send("t\t")
        shell.expect("'two words' $")
        shell.send("\t")
        shell.expect("127.2.1.2 $")
        shell.send("\x03")
        shell.expect(PROMPT)
        shell.send(f"set {PROBE_CONFIG}/nhgProbeConfig/web httpUrl http://127.2.1.1/a?b")
        shell.expect("a.b$")
        shell.enter("")
        shell.expect(PROMPT)
        self.assertIn("http://127.2.1.1/a?b", self.hmctl("get", PROBE_CONFIG).stdout)
        shell.enter("s")
        self.assert_seen(shell.expect(PROMPT), r'"s" is ambiguous.*set PATH.*status')
        shell.enter("exit")
        self.assertEqual(shell.ended(), 0)

    def test_show_commands_of_the_agent(self):
        shell = self.shell()
        shell.expect(PROMPT)
        shell.send("sh\thealth-mon\tsum\t")
        shell.expect("show health-monitor summary $")
        shell.enter("")
        self.assertIn("\nMonitoring: disabled\n", shell.expect(PROMPT))
        shell.enter("sh health-mon sum | json")
        answer = shell.expect(PROMPT)
        self.assertIs(json.loads(answer[answer.index("{"):answer.rindex("}") + 1])["monitoring"], False)
        shell.send("show health-monitor pr\td\t?")
        shell.expect("interval.*show health-monitor probe delay $")
        shell.enter("int 5 | match ^[^P]")
        shell.expect(PROMPT)
        counters = self.hmctl("sh", "health-mon", "cou", "--json")
        self.assertEqual((counters.returncode, json.loads(counters.stdout)), (0, {"hmCounters": {}}), counters.stderr)
        self.assertEqual(self.hmctl("clear", "h", "p", "d").returncode, 0)

    def test_ctrl_c_stops_the_output_and_not_the_shell(self):
        shell = self.shell()
        shell.expect(PROMPT)
        shell.enter(f"watch --initial {PROBE_CONFIG}")
        shell.expect('"attribute":"encapDstMac".*\n')
        self.assertEqual(self.hmctl("set", PROBE_CONFIG, "niceValue", "2").returncode, 0)
        shell.expect(r'"attribute":"niceValue".*"value":2')
        shell.send("\x03")
        shell.expect(PROMPT)
        shell.send("get nowhere")
        shell.expect("get nowhere$")
        shell.send("\x03")
        shell.expect(PROMPT)
        shell.enter("get host/status/pid")
        self.assertIn(str(self.host.pid), shell.expect(PROMPT))
        shell.send("\x04")
        self.assertEqual(shell.ended(), 0)

    def test_pages_and_history(self):
        shell = self.shell(rows=10)
        shell.expect(PROMPT)
        shell.enter("get")
        page = shell.expect(MORE)
        self.assertEqual(page[page.index("bridging/config"):].count("\n"), 9)
        shell.send(" ")
        self.assertEqual(shell.expect(MORE).count("\n"), 9)
        shell.send("\r")
        self.assertEqual(shell.expect(MORE).count("\n"), 1)
        shell.send("q")
        shell.expect(PROMPT)
        shell.enter("get | match ^host/")
        self.assertNotIn("--More--", shell.expect(PROMPT))
        shell.enter("get | json")
        shell.expect(MORE)
        shell.send("\x03")
        shell.expect(PROMPT)
        shell.enter("get host/status/version")
        shell.expect(PROMPT)
        shell.send("\x1b[A\x1b[A")
        shell.expect(r"get \| json")
        shell.send("\x03")
        shell.expect(PROMPT)
        shell.send("\x04")
        self.assertEqual(shell.ended(), 0)

        later = self.shell()
        later.expect(PROMPT)
        later.send("\x1b[A")
        later.expect("get host/status/version")
        history = f"{self.home}/state/hmctl_history"
        self.assertEqual(stat.S_IMODE(os.stat(history).st_mode), 0o600)

    def test_the_host_goes_and_comes_back(self):
        shell = self.shell()
        shell.expect(PROMPT)
        self.stopHost(signal.SIGKILL)
        shell.enter("get host/status/pid")
        self.assertIn("no host at", shell.expect(PROMPT))
        shell.send("get host/sta\t?")
        shell.expect("get host/sta$")
        shell.send("\x03")
        shell.expect(PROMPT)
        self.startHost()
        shell.enter("get host/status/pid")
        self.assert_seen(shell.expect(PROMPT), f"connected to the host again.*{self.host.pid}")
        shell.enter("watch --initial host")
        shell.expect('"attribute":"pid"')
        self.stopHost(signal.SIGKILL)
        self.assertIn("went away", shell.expect(PROMPT))
        self.startHost()
        shell.enter("trace Host 0-4")
        shell.expect(PROMPT)
        shell.enter("trace")
        self.assert_seen(shell.expect(PROMPT), r"\nHost +0-4\n")

    def test_scripts(self):
        answer = self.script("# levels\ntrace Host 0-3\n\nfrob\ntrace Nope 1\n"
                             "trace | match '^Host '\n trace|json\nexit\nget")
        self.assertEqual(answer.returncode, 1)
        self.assert_seen(answer.stdout, r"^Host +0-3\n\{")
        self.assertEqual(json.loads(answer.stdout[answer.stdout.index("{"):])["Host"], "0-3")
        self.assert_seen(answer.stderr, r'"frob" is no command; there are:.*no such trace facility: Nope')
        for line, status in (("get host/status/pid", 0), ("get 'a", 2), ("| json", 2), ("get | frob", 2),
                             ("get | match (", 2), ("apply -", 2), ("del ip/status/ipIntfStatus x", 1), ("", 0)):
            self.assertEqual(self.script(line + "\nclean-state").returncode, status, line)
        self.assertEqual(subprocess.run([f"{BIN}/hmctl", "-s", f"{self.home}/none"], input="get\nfrob\n", text=True,
                                        capture_output=True, timeout=PATIENCE_SECONDS).returncode, 3)


class StandInHost:
    """Answers "commands", and "run" as it is told: with text, or not at all."""

    COMMANDS = [{"command": "show health-monitor summary", "help": "in short", "arguments": ""},
                {"command": "show health-monitor status detail", "help": "each server", "arguments": ""},
                {"command": "show health-monitor probe delay", "help": "delays", "arguments": "[interval SECONDS]"}]

    def __init__(self, path):
        self.requests, self.sent, self.answer = [], 0, []
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen()
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self.converse, args=(connection,), daemon=True).start()

    def converse(self, connection):
        try:
            with connection, connection.makefile("rb") as lines:
                for line in lines:
                    request = json.loads(line)
                    if request["command"] == "commands":
                        answer = [{"commands": self.COMMANDS}, {"done": True}]
                    else:
                        self.requests.append(request)
                        answer = [{"text": text} for text in self.answer]
                        if self.answer is not None and request["command"] == "run":
                            answer.append({"done": True})
                    for each in answer:
                        connection.sendall(json.dumps(each).encode() + b"\n")
                        self.sent += 1
        except (OSError, ValueError):
            pass

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


class HostCommandsTest(ShellCase):
    def setUp(self):
        super().setUp()
        self.path = tempfile.mktemp(dir=self.home)
        self.standIn = StandInHost(self.path)
        self.addCleanup(self.standIn.close)

    def single(self, *arguments):
        return subprocess.run([f"{BIN}/hmctl", "-s", self.path, *arguments], text=True, capture_output=True,
                              timeout=PATIENCE_SECONDS)

    def run_texts(self):
        return [(request["text"], request["format"]) for request in self.standIn.requests]

    def test_commands_of_the_host_are_expanded_and_passed_on(self):
        self.standIn.answer = ["a\x1b[2J\n"]
        self.assertEqual(self.single("sh", "health-mon", "sum").stdout, "a\x1b[2J\n")
        self.single("sh", "h", "pr", "d", "int", "15", "--json")
        self.assertEqual(self.run_texts(), [("show health-monitor summary", "text"),
                                            ("show health-monitor probe delay interval 15", "json")])
        for words, message in ((["sh", "h", "s"], "ambiguous; there are:\n  show health-monitor status detail"),
                               (["show", "x"], "is no command; there are:\n  show health-monitor"),
                               (["show"], "is not complete; there are:\n  show health-monitor")):
            answer = self.single(*words)
            self.assertEqual((answer.returncode, message in answer.stderr), (1, True), answer.stderr)
        self.assertEqual(self.single("sh", "h", "sum", "more").returncode, 2)

    def test_a_terminal_shows_no_control_bytes(self):
        self.standIn.answer = ["web \x1b[2J\x9b1m up\n"]
        shell = self.shell(self.path)
        shell.expect(PROMPT)
        shell.send("sh\thealth-mon\tsum\t")
        shell.expect("show health-monitor summary $")
        shell.enter("| json")
        self.assertIn(r"web \x1b[2J\x9b1m up", shell.expect(PROMPT))
        self.assertEqual(self.run_texts(), [("show health-monitor summary", "json")])

    def test_a_silent_host_and_a_long_answer(self):
        shell = self.shell(self.path)
        shell.expect(PROMPT)
        shell.send("get x\t")  # waits for a completion that never comes
        self.eventually(lambda: self.standIn.requests, "the question")
        shell.send("\x03")
        shell.enter("sh h sum")
        shell.expect(PROMPT)
        self.standIn.answer, self.standIn.sent = [f"line {i}\n" * 100 for i in range(20_000)], 0
        shell.enter("show health-monitor summary")
        shell.expect(MORE)
        # What nobody asked to see stays with the host.
        self.eventually(lambda: self.standIn.sent > 10, "some of it came")
        for _ in range(3):
            shell.send(" ")
            shell.expect(MORE)
        self.assertLess(self.standIn.sent, 10_000)
        shell.send("q")
        shell.expect(PROMPT)
        self.standIn.answer = ["short\n"]
        shell.enter("sh h sum")
        self.assertIn("short", shell.expect(PROMPT))


if __name__ == "__main__":
    unittest.main(verbosity=2)
