"""Runs the programs peer_* round by round and notes who else was on the machine."""
import contextlib
import json
import os
import pathlib
import signal
import subprocess
import sys
import time

from figures import Results
from report import NOISE, busy, children
from rows import BUSY, ONE_CPU

# Programs that are measured more than once, by environment.
ENVIRONMENTS = {"qt": [("qt", {}), ("qt_noglib", {"QT_NO_GLIB": "1"})]}
# These are measured on one processor and with busy neighbours, too.
VARIED = ["W4_", "W6_", "W9_", "W11_", "W12_", "W13_", "W14_"]

# Ends by itself when whoever started it is gone, however that came about.
SPINNER = """
import os, sys
while os.getppid() == int(sys.argv[1]):
    for _ in range(1000000):
        pass
"""


def used_by(processes):
    """Seconds of processor time that these running processes have used."""
    ticks = 0
    for process in processes:
        stat = pathlib.Path(f"/proc/{process.pid}/stat").read_text()
        user, system = stat.rpartition(") ")[2].split()[11:13]
        ticks += int(user) + int(system)
    return ticks / os.sysconf("SC_CLK_TCK")


@contextlib.contextmanager
def spinners(processors):
    """A process on each of these processors that uses all of it; killed at the end, come what may."""
    started = []
    try:
        for processor in processors:
            command = ["taskset", "-c", str(processor), sys.executable, "-c", SPINNER, str(os.getpid())]
            started.append(subprocess.Popen(command))
        deadline = time.monotonic() + 10
        while started and min(used_by([s]) for s in started) < 0.05 and time.monotonic() < deadline:
            time.sleep(0.01)  # until all of them spin
        yield started
    finally:
        for process in started:
            process.kill()
        for process in started:
            process.wait()


def wait_for_quiet():
    for _ in range(30):
        used, began = busy(), time.time()
        time.sleep(0.5)
        if (busy() - used) / (time.time() - began) < 0.1:
            break


def run(command, env, neighbours=()):
    """The figures, and the share of one processor that went to others meanwhile; those spinning on
    the processors `neighbours` belong to the run and are none of the others."""
    wait_for_quiet()
    with spinners(neighbours) as beside:
        used, own, began = busy(), children() + used_by(beside), time.time()
        done = subprocess.run(
            command,
            env={**os.environ, **env},
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
            check=True,
        )
        own = children() + used_by(beside) - own
        foreign = (busy() - used - own) / (time.time() - began)
    return [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")], foreign


def quiet_run(command, env, neighbours=()):
    best = None
    for _ in range(3):
        lines, foreign = run(command, env, neighbours)
        if best is None or foreign < best[1]:
            best = (lines, foreign)
        if foreign < NOISE:
            break
    return best


def variants(program):
    """What is run of a program: (suffix of the workloads, command, processors with a busy neighbour)."""
    yield "", [program], ()
    if program.endswith("peer_raw"):
        return
    processors = sorted(os.sched_getaffinity(0))[:2]
    held = ",".join(map(str, processors))
    yield ONE_CPU, ["taskset", "-c", str(processors[0]), program, *VARIED], ()
    yield BUSY, ["taskset", "-c", held, program, *VARIED], processors


def programs(build):
    """What is measured: (path, environment)."""
    found = []
    for program in sorted(pathlib.Path(build).glob("peer_*")):
        if os.access(program, os.X_OK):
            for name, env in ENVIRONMENTS.get(program.name[5:], [(None, {})]):
                found.append((str(program.resolve()), {**env, **({"PEER_NAME": name} if name else {})}))
    return found


def measure(build, rounds):
    """All programs, `rounds` times; each round begins with another one, so that no framework always
    has the same neighbour."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # neighbours are killed on the way out
    jobs = programs(build)
    if not jobs:
        sys.exit(f"there is no program peer_* in {build}; build the preset 'bench' first")
    results, began = Results(), time.time()
    for number in range(rounds):
        start = number % len(jobs)
        for program, env in jobs[start:] + jobs[:start]:
            start_of_program = time.time()
            for variant, command, neighbours in variants(program):
                lines, foreign = quiet_run(command, env, neighbours)
                results.noisy += foreign >= NOISE
                for line in lines:
                    results.add(line, variant)
            name = env.get("PEER_NAME", os.path.basename(program))
            seconds = time.time() - start_of_program
            print(f"round {number + 1} {name} {seconds:.0f} s", file=sys.stderr, flush=True)
    results.seconds = time.time() - began
    return results
