"""What every test of a running host begins with: `FOLDER-OF-PROGRAMS [TEST…]` on its command line, a network
namespace, a home for the host, and servers."""

import os
import shutil
import sys
import tempfile
import unittest

from servers import OK, Server

sys.path.append(os.path.dirname(__file__) + "/../../scripts/lib")
import own_network  # noqa: E402
from running_host import RunningHost, captured  # noqa: E402

own_network.enter()
BIN = sys.argv.pop(1)


class HostCase(RunningHost, unittest.TestCase):
    """A host that still runs after a test is to end well."""

    binaries = BIN

    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="hm-test-")
        self.addCleanup(shutil.rmtree, self.home, ignore_errors=True)
        self.addCleanup(HostCase.tearDown, self)  # when setUp or tearDown fails

    def tearDown(self):
        if self.host:
            self.host_stop()

    def server(self, address="127.0.0.1", port=0, answer=OK, kind=Server):
        server = kind(address, port, answer)
        self.addCleanup(server.stop)
        return server

    def refused(self, *options, **place):
        """What a second host says that must not start."""
        second = captured(*self.command(*options, **place), env={**os.environ, "FLASHLOG_DISABLE": "1"})
        self.assertEqual(second.returncode, 1, second.stderr)
        return second.stderr

    def more_checks(self, server, count):
        before = server.connections
        self.eventually(lambda: server.connections >= before + count, f"{count} more connections to {server.address}")


class RunningCase(HostCase):
    """A host runs from the beginning, and is clean without configuration."""

    options = ()

    def setUp(self):
        super().setUp()
        self.host_start(*self.options)

    def tearDown(self):
        if self.host:
            self.apply({})
            self.eventually(lambda: self.hmctl("clean-state").returncode == 0,
                            lambda: self.hmctl("clean-state").stderr)
        super().tearDown()
