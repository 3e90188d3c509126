"""What the kernel says of a process's threads: their names, and how much of the processor they use.
Needs no gdb."""

import os
import time

SHORTEST_SECONDS = 0.1  # over which the use of the processor is measured


def names(pid):
    """The name of each thread."""
    found = {}
    try:
        for tid in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{tid}/comm", encoding="utf-8", errors="replace") as file:
                found[int(tid)] = file.read().rstrip("\n")
    except OSError:
        pass  # who is stopped cannot end, unless it is killed
    return found


class Watch:
    """Measures from its making on. The process must run meanwhile."""

    def __init__(self, pid):
        self._pid = pid
        self._began = time.monotonic()
        self._before = self._used()

    def finish(self):
        """For each thread its state, its processor time and its share of a processor."""
        time.sleep(max(SHORTEST_SECONDS - (time.monotonic() - self._began), 0))
        seconds = time.monotonic() - self._began
        found = {}
        for tid, used in self._used().items():
            before = self._before.get(tid, used)
            share = min((used - before) / seconds, 1.0)
            found[tid] = {"state": self._state(tid), "cpu_s": used, "share": share}
        return found

    def _used(self):
        """The processor time of each thread in seconds."""
        found = {}
        try:
            for name in os.listdir(f"/proc/{self._pid}/task"):
                found[int(name)] = self._seconds(name)
        except OSError:
            pass  # it has ended, which is noticed soon enough
        return found

    def _seconds(self, tid):
        try:
            with open(f"/proc/{self._pid}/task/{tid}/schedstat", encoding="ascii") as file:
                return int(file.read().split()[0]) / 1e9
        except (FileNotFoundError, IndexError):  # not every kernel keeps it
            with open(f"/proc/{self._pid}/task/{tid}/stat", "rb") as file:
                fields = file.read().rpartition(b")")[2].split()
            return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def _state(self, tid):
        try:
            with open(f"/proc/{self._pid}/task/{tid}/stat", "rb") as file:
                return file.read().rpartition(b")")[2].split()[0].decode()
        except (OSError, IndexError):
            return "?"
