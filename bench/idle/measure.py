#!/usr/bin/env python3
"""Measures what the library costs a daemon that does nothing.

Processor time of each thread of an idle daemon (20 tasks, 5 alarms, 50 timers that do not run), its
memory, and how much longer a program with the library takes from start to end than one without.
"""
import argparse
import collections
import os
import pathlib
import signal
import statistics
import subprocess
import sys
import time

PID_FILE = pathlib.Path("/tmp/.zor-daemon.pid")  # the daemon leaves it behind
SILENT = {**os.environ, "ZOR_DLOG": "none"}


def threads(pid):
    """Name of each thread and its nanoseconds on a processor, by thread id."""
    result = {}
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        name = (task / "comm").read_text().strip()
        result[task.name] = (name, int((task / "schedstat").read_text().split()[0]))
    return result


def settled(pid, wanted):
    """Waits until the daemon has made its threads and all of them sleep."""
    deadline = time.monotonic() + 30
    while time.monotonic() < deadline:
        states = [
            (task / "stat").read_text().rpartition(") ")[2][0]
            for task in pathlib.Path(f"/proc/{pid}/task").iterdir()
        ]
        if len(states) >= wanted and set(states) == {"S"}:
            return
        time.sleep(0.05)
    sys.exit("the idle daemon did not come to rest")


def idle(daemon, seconds):
    PID_FILE.unlink(missing_ok=True)
    with subprocess.Popen([daemon], env=SILENT) as process:
        try:
            settled(process.pid, 20 + 5)
            time.sleep(1)  # what is due right after a start
            before, began = threads(process.pid), time.monotonic()
            time.sleep(seconds)
            after, took = threads(process.pid), time.monotonic() - began
            resident = [
                line.split()[1]
                for line in pathlib.Path(f"/proc/{process.pid}/status").read_text().splitlines()
                if line.startswith("VmRSS")
            ][0]
        finally:
            process.send_signal(signal.SIGTERM)
    if process.returncode != 0:
        sys.exit(f"the idle daemon ended with status {process.returncode}")
    used = collections.Counter()
    for tid, (name, nanoseconds) in after.items():
        used[name] += nanoseconds - before.get(tid, (name, 0))[1]
    print(f"idle for {took:.0f} s, {len(after)} threads, {resident} KiB resident")
    for name, nanoseconds in used.most_common():
        if nanoseconds:
            print(f"  {name:16} {nanoseconds / 1e6:9.3f} ms on a processor")
    print(f"  {'together':16} {sum(used.values()) / 1e6:9.3f} ms")


def duration(command):
    PID_FILE.unlink(missing_ok=True)
    began = time.perf_counter()
    subprocess.run(command, env=SILENT, check=True)
    return time.perf_counter() - began


def start(daemon, bare, runs):
    with_library, without = [], []
    for _ in range(runs):
        with_library.append(duration([daemon, "start"]))
        without.append(duration([bare]))
    PID_FILE.unlink(missing_ok=True)
    medians = statistics.median(with_library) * 1e3, statistics.median(without) * 1e3
    print(
        f"start to end, median of {runs}: {medians[0]:.3f} ms with the library,"
        f" {medians[1]:.3f} ms without it: {medians[0] - medians[1]:.3f} ms"
    )


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("bin", type=pathlib.Path, help="folder of the built programs")
    parser.add_argument("--seconds", type=float, default=60, help="how long to watch (60)")
    parser.add_argument("--runs", type=int, default=200, help="starts to measure (200)")
    arguments = parser.parse_args()
    idle(arguments.bin / "idle_daemon", arguments.seconds)
    start(arguments.bin / "idle_daemon", arguments.bin / "idle_bare", arguments.runs)


main()
