"""hmctl as people use it: the shell on a terminal, scripts, and single commands."""

import json
import os
import re
import socket
import stat
import threading
import unittest

from host_case import BIN, HostCase, RunningCase
from running_host import PROBE_CONFIG, captured
from terminal import Terminal

PROMPT = r"hmctl> $"
MORE = r"\n--More-- .*\)$"


class Shell(Terminal):
    """hmctl at its prompt."""

    def __init__(self, case, **options):
        super().__init__(f"{BIN}/hmctl", ["-s", case.socket], environment={"XDG_STATE_HOME": f"{case.home}/state"},
                         **options)
        case.addCleanup(self.close)
        self.expect(PROMPT)

    def run(self, line):
        """What is written until the next prompt."""
        self.enter(line)
        return self.expect(PROMPT)

    def interrupt(self):
        self.typed("\x03", PROMPT)


class ShellTest(RunningCase):
    def assert_seen(self, text, pattern):
        self.assertRegex(text, re.compile(pattern, re.DOTALL))

    def test_tab_question_mark_and_abbreviations(self):
        self.apply({"web": (["127.2.1.1"], {"disabled": True}), "two words": (["127.2.1.2"], {"disabled": True})})
        shell = Shell(self)
        shell.typed("?", "print the state below a path.*" + PROMPT)  # no Enter
        shell.typed("se\theal\tconf\tp\t", f"set {PROBE_CONFIG}/$")
        shell.typed(" nic\t", "niceValue $")
        shell.typed("?", "integer -128..127.*niceValue $")
        shell.run("3")
        self.assertIn(f"host/status/pid: {self.host.pid}\n", shell.run("ge host/status/pid"))
        self.assertIn("niceValue: 3\n", self.hmctl("get", PROBE_CONFIG).stdout)

        shell.typed("probe ?", "two words .*web .*hmctl> probe $")
        shell.typed("t\t", "'two words' $")
        shell.typed("\t", "127.2.1.2 $")
        shell.interrupt()
        shell.typed(f"set {PROBE_CONFIG}/nhgProbeConfig/web httpUrl http://127.2.1.1/a?b", "a.b$")
        shell.run("")
        self.assertIn("http://127.2.1.1/a?b", self.hmctl("get", PROBE_CONFIG).stdout)
        self.assert_seen(shell.run("s"), r'"s" is ambiguous.*set PATH.*status')
        shell.enter("exit")
        self.assertEqual(shell.ended(), 0)

    def test_show_commands_of_the_agent(self):
        shell = Shell(self)
        shell.typed("sh\thealth-mon\tsum\t", "show health-monitor summary $")
        self.assertIn("\nMonitoring: disabled\n", shell.run(""))
        answer = shell.run("sh health-mon sum | json")
        self.assertIs(json.loads(answer[answer.index("{"):answer.rindex("}") + 1])["monitoring"], False)
        shell.typed("show health-monitor pr\td\t?", "interval.*show health-monitor probe delay $")
        shell.run("int 5 | match ^[^P]")
        self.assertEqual(self.json("sh", "health-mon", "cou"), {"hmCounters": {}})
        self.told("clear", "h", "p", "d")

    def test_ctrl_c_stops_the_output_and_not_the_shell(self):
        shell = Shell(self)
        shell.enter(f"watch --initial {PROBE_CONFIG}")
        shell.expect('"attribute":"encapDstMac".*\n')
        self.told("set", PROBE_CONFIG, "niceValue", "2")
        shell.expect(r'"attribute":"niceValue".*"value":2')
        shell.interrupt()
        shell.typed("get nowhere", "get nowhere$")
        shell.interrupt()
        self.assertIn(str(self.host.pid), shell.run("get host/status/pid"))
        shell.send("\x04")
        self.assertEqual(shell.ended(), 0)

    def test_pages_and_history(self):
        shell = Shell(self, rows=10)
        shell.enter("get")
        page = shell.expect(MORE)
        self.assertEqual(page[page.index("bridging/config"):].count("\n"), 9)
        self.assertEqual(shell.typed(" ", MORE).count("\n"), 9)
        self.assertEqual(shell.typed("\r", MORE).count("\n"), 1)
        shell.typed("q", PROMPT)
        self.assertNotIn("--More--", shell.run("get | match ^host/"))
        shell.enter("get | json")
        shell.expect(MORE)
        shell.interrupt()
        shell.run("get host/status/version")
        shell.typed("\x1b[A\x1b[A", r"get \| json")
        shell.interrupt()
        shell.send("\x04")
        self.assertEqual(shell.ended(), 0)

        later = Shell(self)
        later.typed("\x1b[A", "get host/status/version")
        history = f"{self.home}/state/hmctl_history"
        self.assertEqual(stat.S_IMODE(os.stat(history).st_mode), 0o600)

    def test_the_host_goes_and_comes_back(self):
        shell = Shell(self)
        self.host_kill()
        self.assertIn("no host at", shell.run("get host/status/pid"))
        shell.typed("get host/sta\t?", "get host/sta$")
        shell.interrupt()
        self.host_start()
        self.assert_seen(shell.run("get host/status/pid"), f"connected to the host again.*{self.host.pid}")
        shell.enter("watch --initial host")
        shell.expect('"attribute":"pid"')
        self.host_kill()
        self.assertIn("went away", shell.expect(PROMPT))
        self.host_start()
        shell.run("trace Host 0-4")
        self.assert_seen(shell.run("trace"), r"\nHost +0-4\n")

    def test_scripts(self):
        answer = self.hmctl(input="# levels\ntrace Host 0-3\n\nfrob\ntrace Nope 1\n"
                                  "trace | match '^Host '\n trace|json\nexit\nget")
        self.assertEqual(answer.returncode, 1)
        self.assert_seen(answer.stdout, r"^Host +0-3\n\{")
        self.assertEqual(json.loads(answer.stdout[answer.stdout.index("{"):])["Host"], "0-3")
        self.assert_seen(answer.stderr, r'"frob" is no command; there are:.*no such trace facility: Nope')
        for line, status in (("get host/status/pid", 0), ("get 'a", 2), ("| json", 2), ("get | frob", 2),
                             ("get | match (", 2), ("apply -", 2), ("del ip/status/ipIntfStatus x", 1), ("", 0)):
            self.assertEqual(self.hmctl(input=line + "\nclean-state").returncode, status, line)
        self.assertEqual(captured(f"{BIN}/hmctl", "-s", f"{self.home}/none", input="get\nfrob\n").returncode, 3)


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


class HostCommandsTest(HostCase):
    def setUp(self):
        super().setUp()
        self.standIn = StandInHost(self.socket)
        self.addCleanup(self.standIn.close)

    def run_texts(self):
        return [(request["text"], request["format"]) for request in self.standIn.requests]

    def test_commands_of_the_host_are_expanded_and_passed_on(self):
        self.standIn.answer = ["a\x1b[2J\n"]
        self.assertEqual(self.hmctl("sh", "health-mon", "sum").stdout, "a\x1b[2J\n")
        self.hmctl("sh", "h", "pr", "d", "int", "15", "--json")
        self.assertEqual(self.run_texts(), [("show health-monitor summary", "text"),
                                            ("show health-monitor probe delay interval 15", "json")])
        for words, message in ((["sh", "h", "s"], "ambiguous; there are:\n  show health-monitor status detail"),
                               (["show", "x"], "is no command; there are:\n  show health-monitor"),
                               (["show"], "is not complete; there are:\n  show health-monitor")):
            answer = self.hmctl(*words)
            self.assertEqual((answer.returncode, message in answer.stderr), (1, True), answer.stderr)
        self.assertEqual(self.hmctl("sh", "h", "sum", "more").returncode, 2)

    def test_a_terminal_shows_no_control_bytes(self):
        self.standIn.answer = ["web \x1b[2J\x9b1m up\n"]
        shell = Shell(self)
        shell.typed("sh\thealth-mon\tsum\t", "show health-monitor summary $")
        self.assertIn(r"web \x1b[2J\x9b1m up", shell.run("| json"))
        self.assertEqual(self.run_texts(), [("show health-monitor summary", "json")])

    def test_a_silent_host_and_a_long_answer(self):
        shell = Shell(self)
        shell.send("get x\t")  # waits for a completion that never comes
        self.eventually(lambda: self.standIn.requests, "the question")
        shell.send("\x03")
        shell.run("sh h sum")
        self.standIn.answer, self.standIn.sent = [f"line {i}\n" * 100 for i in range(20_000)], 0
        shell.enter("show health-monitor summary")
        shell.expect(MORE)
        # What nobody asked to see stays with the host.
        self.eventually(lambda: self.standIn.sent > 10, "some of it came")
        for _ in range(3):
            shell.typed(" ", MORE)
        self.assertLess(self.standIn.sent, 10_000)
        shell.typed("q", PROMPT)
        self.standIn.answer = ["short\n"]
        self.assertIn("short", shell.run("sh h sum"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
