"""CPU time of a running process, connections opened in this network namespace, memory."""

import re
import time


def cpu_seconds(pid):
    """User and system time of all threads of a process, to the nanosecond (clock_getcpuclockid(3))."""
    return time.clock_gettime((~pid << 3) | 2)


def connections_opened():
    """Connections begun by anyone in this network namespace; the bench has one of its own."""
    with open("/proc/net/snmp") as f:
        names, values = [line.split() for line in f if line.startswith("Tcp:")]
    return int(values[names.index("ActiveOpens")])


def memory_kib(pid, field="VmHWM"):
    with open(f"/proc/{pid}/status") as f:
        return int(re.search(rf"^{field}:\s+(\d+) kB", f.read(), re.M).group(1))


def peak_reset(pid):
    """From now on VmHWM is the peak since now (proc(5), clear_refs)."""
    with open(f"/proc/{pid}/clear_refs", "w") as f:
        f.write("5")


def median(values):
    ordered = sorted(values)
    middle = len(ordered) // 2
    return ordered[middle] if len(ordered) % 2 else (ordered[middle - 1] + ordered[middle]) / 2
