"""The last records of the recording that a process makes, printed by zor-record."""

import os
import shutil
import subprocess

CUT = 2  # zor-record's exit code for a file that ends early; what there is was shown
VARIABLE = "ZOR_RECORD"


def find_recording(target, environment, named):
    """The path of the recording; None if the process makes none."""
    if named:
        return named
    if target.pid:
        path = _environment_of(target.pid).get(VARIABLE)
    else:
        path = (environment or {}).get(VARIABLE)
    if not path:
        return None
    if target.own_pid:
        path = path.replace("%p", str(target.own_pid))
    if target.root:
        return target.root + path if os.path.isabs(path) else f"/proc/{target.pid}/cwd/{path}"
    if os.path.isabs(path):
        return path
    folder = os.getcwd()
    try:
        folder = os.readlink(f"/proc/{target.pid}/cwd") if target.pid else folder
    except OSError:
        pass
    return os.path.join(folder, path)


def _environment_of(pid):
    try:
        with open(f"/proc/{pid}/environ", "rb") as file:
            entries = file.read().split(b"\0")
    except OSError:
        return {}
    pairs = [entry.decode("utf-8", "replace").partition("=") for entry in entries]
    return {name: value for name, _, value in pairs}


def find_tool(beside):
    """zor-record: in the folder of zor-inspect, or on the path."""
    here = os.path.join(beside, "zor-record")
    return here if os.access(here, os.X_OK) else shutil.which("zor-record")


def last_records(path, count, tool, types=None):
    """The last lines of the recording, with what went wrong, if anything.

    types: a file with names of event types
    """
    records = {"file": path, "lines": [], "problem": None}
    if tool is None:
        records["problem"] = "zor-record, which reads it, is not installed"
        return records
    run = subprocess.run(
        [tool, "print", *(["--types", types] if types else []), path],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        errors="replace",
        check=False,
    )
    if run.returncode not in (0, CUT):
        records["problem"] = run.stderr.strip() or f"zor-record ends with {run.returncode}"
        return records
    records["lines"] = run.stdout.splitlines()[-count:]
    return records
