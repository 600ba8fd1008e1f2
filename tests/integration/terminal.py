"""A program on a terminal of its own, driven as a person would."""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import termios
import time

PATIENCE_SECONDS = 60  # a bound, never a wait


class Terminal:
    def __init__(self, program, arguments=(), rows=24, columns=100, environment=None):
        self.seen = ""  # what came since the last expect()
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.execve(program, [program, *arguments],
                      {**os.environ, "TERM": "xterm", "LC_ALL": "C.UTF-8", **(environment or {})})
        fcntl.ioctl(self.fd, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        self.status = None

    def send(self, text):
        os.write(self.fd, text.encode())

    def line(self, text):
        self.send(text + "\r")

    def expect(self, pattern):
        """Reads until the regular expression is seen; returns everything up to its end."""
        deadline = time.monotonic() + PATIENCE_SECONDS
        while True:
            found = re.search(pattern, self.seen)
            if found:
                before, self.seen = self.seen[:found.end()], self.seen[found.end():]
                return before
            if not self.read(deadline - time.monotonic()):
                raise AssertionError(f"{pattern!r} never came, but {self.seen[-2000:]!r}")

    def read(self, seconds):
        if not select.select([self.fd], [], [], max(seconds, 0))[0]:
            return False
        try:
            part = os.read(self.fd, 65536)
        except OSError:  # the other side has gone
            return False
        # Colours and cursor moves within the line say nothing here.
        self.seen += re.sub(r"\x1b\[[0-9;?]*[A-Za-z]", "", part.decode(errors="replace"))
        return bool(part)

    def ended(self):
        """Its exit status."""
        deadline = time.monotonic() + PATIENCE_SECONDS
        while self.read(deadline - time.monotonic()):
            pass
        return self.wait()

    def wait(self):
        if self.status is None:
            _, status = os.waitpid(self.pid, 0)
            self.status = os.waitstatus_to_exitcode(status)
            os.close(self.fd)
        return self.status

    def close(self):
        if self.status is None:
            os.kill(self.pid, signal.SIGKILL)
            self.wait()
