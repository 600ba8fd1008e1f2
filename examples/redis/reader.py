"""reader.py SOCKET: the published state of each server, and again whenever it changes, by redis-cli."""
import subprocess
import sys

GROUPS = "hm:healthMonitor/status/serverStatus/nhgProbeStatus"
CLI = ["redis-cli", "-s", sys.argv[1]]
ask = lambda *words: subprocess.run([*CLI, *words], capture_output=True, text=True).stdout.split()  # noqa: E731
show = lambda key: print(*key.split("/")[4::2], *ask("HGET", key, "operState"), flush=True)  # noqa: E731
changes = subprocess.Popen([*CLI, "SUBSCRIBE", "hm:changes@0"], stdout=subprocess.PIPE, text=True)
for group in ask("SMEMBERS", GROUPS):
    for server in ask("SMEMBERS", f"{GROUPS}/{group}/serverProbeStatus"):
        show(f"{GROUPS}/{group}/serverProbeStatus/{server}")
for line in changes.stdout:
    if "/serverProbeStatus/" in line:
        show(line.strip())
