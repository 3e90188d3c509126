"""The processes that run the library. Needs no gdb."""

import os
import time

from .target import LIBRARY


def find():
    """The processes, oldest first, and the number of those that may not be looked into."""
    found, refused = [], 0
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            if _runs_the_library(name):
                found.append(_describe(int(name)))
        except PermissionError:
            refused += 1
        except OSError:
            pass  # it has just ended
    return sorted(found, key=lambda process: -process["age_s"]), refused


def _runs_the_library(pid):
    with open(f"/proc/{pid}/maps", "rb") as file:
        return any(os.path.basename(line.split()[-1]).startswith(LIBRARY.encode())
                   for line in file if b" r-xp " in line and line.strip())


def _describe(pid):
    with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
        fields = file.read().rpartition(")")[2].split()
    with open(f"/proc/{pid}/cmdline", "rb") as file:
        words = file.read().split(b"\0")
    age = time.clock_gettime(time.CLOCK_BOOTTIME) - int(fields[19]) / os.sysconf("SC_CLK_TCK")
    return {
        "pid": pid,
        "age_s": age,
        "threads": int(fields[17]),
        "command": b" ".join(words).decode("utf-8", "replace").strip(),
    }


def render(found, refused):
    """The list as text."""
    if not found:
        lines = [f"no process runs {LIBRARY}"]
    else:
        lines = [f"{'PID':>7}  {'RUNS FOR':>10}  {'THREADS':>7}  COMMAND"]
    for process in found:
        age = _duration(process["age_s"])
        numbers = f"{process['pid']:>7}  {age:>10}  {process['threads']:>7}"
        lines.append(f"{numbers}  {process['command']}")
    if refused:
        lines.append(f"and {refused} that may not be looked into: only their user, or root, may")
    return "\n".join(lines) + "\n"


def _duration(seconds):
    if seconds < 120:
        return f"{seconds:.0f} s"
    if seconds < 2 * 3600:
        return f"{seconds / 60:.0f} min"
    return f"{seconds / 3600:.0f} h"
