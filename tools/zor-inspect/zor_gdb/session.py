"""Runs gdb on a target and takes what it has read."""

import json
import os
import subprocess

from . import target as targets
from .problems import FAILED, NO_GDB, NO_PERMISSION, NO_PROGRAM, NO_TARGET, NOT_ZOR_CORE, Problem

SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "snapshot.py")
PATIENCE = 5  # seconds that gdb has to let go of the process when it is told to end

SETTINGS = [
    "set confirm off",
    "set pagination off",
    "set style enabled off",
    "set width 0",
    "set backtrace limit 256",
]
# In effect before the first file is loaded: no symbols from the network, no foreign scripts.
EARLY = [
    "set debuginfod enabled off",
    "set auto-load python-scripts off",
    "set auto-load gdb-scripts off",
    "set auto-load local-gdbinit off",
]


def take_snapshot(target, options, folder):
    """What gdb has read, as `snapshot` hands it over; raises Problem.

    folder: for the exchange with gdb
    """
    request = os.path.join(folder, "request.json")
    answer = os.path.join(folder, "answer.json")
    with open(request, "w", encoding="utf-8") as file:
        json.dump(_request(target, options, answer, os.path.join(folder, "copy")), file)
    output = _run(options, request)
    try:
        with open(answer, encoding="utf-8") as file:
            snapshot = json.load(file)
    except (FileNotFoundError, json.JSONDecodeError):
        raise _failure(output) from None
    if "error" in snapshot:
        raise _problem(target, snapshot)
    return snapshot


def _request(target, options, answer, copy):
    settings = list(SETTINGS)
    sysroot = os.path.abspath(options.sysroot) if options.sysroot else target.root
    if sysroot:
        settings.append(f"set sysroot {sysroot}")
        symbols = "/usr/lib/debug"
        settings.append(f"set debug-file-directory {sysroot}{symbols}:{symbols}")
    return {
        "pid": target.pid,
        "core": target.core_file,
        "program": target.program,
        "mapped": target.mapped,
        "settings": settings,
        "death": target.death,
        "answer": answer,
        "copy": copy,
    }


def _run(options, request):
    command = [options.gdb, "-nx", "-batch"]
    for setting in EARLY:
        command += ["-iex", setting]
    command += ["-x", SCRIPT]
    environment = dict(os.environ, ZOR_INSPECT_REQUEST=request, PYTHONDONTWRITEBYTECODE="1")
    try:
        gdb = subprocess.Popen(
            command,
            env=environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
        )
    except FileNotFoundError:
        text = f"'{options.gdb}' is not there; install the package gdb, or name one with --gdb"
        raise Problem(NO_GDB, text) from None
    except OSError as error:
        raise Problem(NO_GDB, f"'{options.gdb}' cannot be run: {error.strerror}") from None
    try:
        return gdb.communicate(timeout=options.timeout)[0]
    except subprocess.TimeoutExpired:
        text = f"gdb has not finished within {options.timeout} seconds (see --timeout)"
        raise Problem(FAILED, text) from None
    finally:
        _end(gdb)


def _end(gdb):
    """Ends gdb if it still runs. On SIGTERM it lets go of the process; if it is killed, the kernel
    does that."""
    if gdb.poll() is not None:
        return
    gdb.terminate()
    try:
        gdb.wait(timeout=PATIENCE)
    except subprocess.TimeoutExpired:
        gdb.kill()
        gdb.wait()
    finally:
        gdb.stdout.close()


def _failure(output):
    if "Python scripting is not supported" in output or "Scripting in the \"Python\"" in output:
        return Problem(NO_GDB, "this gdb cannot run Python; install the package gdb")
    lines = [line for line in output.splitlines() if line.strip()]
    return Problem(FAILED, f"gdb has failed: {lines[-1]}" if lines else "gdb has failed in silence")


def _assertion(failed):
    """What comes before the words about missing debug information."""
    if not failed:
        return ""
    return (
        f"an assertion has failed: {failed['expression']} at"
        f" {os.path.basename(failed['file'])}:{failed['line']}, in {failed['name']}"
        f" (thread {failed['thread']}); more cannot be said: "
    )


def _tasks(tasks):
    """What the library tells of its tasks without debug information, behind the words about that."""
    if not tasks:
        return ""
    lines = ["", "What the library tells without it:"]
    lines.append(f"  {'TASK':<15}  {'THREAD':>7}  {'QUEUED':>6}  {'HANDLED':>10}  STATE")
    for task in tasks:
        state = "idle" if task["in_hand"] is None else f"handling {task['in_hand']}"
        state = "paused" if task["paused"] else state
        thread = task["thread"] or "-"
        numbers = f"{thread:>7}  {task['queued']:>6}  {task['handled']:>10}"
        lines.append(f"  {task['name']:<15}  {numbers}  {state}")
    return "\n".join(lines)


def _problem(target, snapshot):
    text = snapshot["text"]
    if snapshot["error"] == "runtime":
        told = snapshot["told"]
        text = _assertion(told["assertion"]) + text
        if target.core:
            text += f"; is {target.program} the program of {target.core}, with its libraries?"
            return Problem(NO_PROGRAM, text + _tasks(told["tasks"]))
        text += ": build it with -g, or install its debug symbols"
        return Problem(NOT_ZOR_CORE, text + _tasks(told["tasks"]))
    if "Operation not permitted" in text or "ptrace" in text:
        return Problem(NO_PERMISSION, f"{targets.refused(target.pid)} (gdb: {text})")
    if "No such process" in text:
        return Problem(NO_TARGET, f"process {target.pid} has just ended")
    return Problem(FAILED, f"gdb has failed: {text}")
