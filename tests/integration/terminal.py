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

from running_host import PATIENCE_SECONDS


class Terminal:
    """Keeps what was written as text; within its last line the cursor moves as editing makes it move."""

    def __init__(self, program, arguments=(), rows=24, columns=200, environment=None):
        self.text, self.line, self.column = "", [], 0  # of whole lines; the last line and the cursor in it
        self.rest = ""  # of a control sequence
        self.consumed = 0
        self.status = None
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
            os.execve(program, [program, *arguments],
                      {**os.environ, "TERM": "xterm", "LC_ALL": "C.UTF-8", **(environment or {})})

    def send(self, text):
        os.write(self.fd, text.encode())

    def enter(self, text):
        self.send(text + "\r")

    def expect(self, pattern):
        """Reads until the regular expression is seen; returns everything from the last time up to its end."""
        deadline = time.monotonic() + PATIENCE_SECONDS
        while True:
            whole = self.text + "".join(self.line)
            found = re.compile(pattern, re.DOTALL).search(whole, min(self.consumed, len(whole)))
            if found:
                before, self.consumed = whole[self.consumed:found.end()], found.end()
                return before
            if not self.read(deadline - time.monotonic()):
                raise AssertionError(f"{pattern!r} never came, but {whole[self.consumed:][-2000:]!r}")

    def typed(self, text, pattern):
        """What is seen from the text that is typed now to the regular expression."""
        self.send(text)
        return self.expect(pattern)

    def read(self, seconds):
        if not select.select([self.fd], [], [], max(seconds, 0))[0]:
            return False
        try:
            part = os.read(self.fd, 65536)
        except OSError:  # the other side has gone
            return False
        text = self.rest + part.decode(errors="replace")
        pieces = re.split(r"(\x1b\[[0-9;?]*[A-Za-z@]|\x1b[^\[]|[\r\n\b\x07])", text)
        self.rest = ""
        if "\x1b" in pieces[-1]:
            self.rest, pieces[-1] = pieces[-1], ""
        for piece in pieces:
            self.show(piece)
        return bool(part)

    def show(self, piece):
        if piece == "\n":
            self.text += "".join(self.line) + "\n"
            self.line, self.column = [], 0
        elif piece == "\r":
            self.column = 0
            self.consumed = min(self.consumed, len(self.text))  # it may be written anew
        elif piece == "\b":
            self.column = max(self.column - 1, 0)
        elif piece.startswith("\x1b["):
            count = int(piece[2:-1]) if piece[2:-1].isdigit() else 1
            if piece[-1] == "G":
                self.column = count - 1
            elif piece[-1] in "KJ":
                del self.line[self.column:]
        elif piece and piece[0] not in "\x1b\x07":
            self.line.extend(" " * (self.column - len(self.line)))
            self.line[self.column:self.column + len(piece)] = piece
            self.column += len(piece)

    def ended(self):
        """Its exit status."""
        deadline = time.monotonic() + PATIENCE_SECONDS
        while self.read(deadline - time.monotonic()):
            pass
        if time.monotonic() > deadline:
            raise AssertionError(f"it goes on: {''.join(self.line)!r}")
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
