"""The script that zor-inspect has gdb run: attaches or opens the core, reads, lets go, and leaves
what it has read in a file. Runs inside gdb.

The request is a JSON object in a file that ZOR_INSPECT_REQUEST names; the answer goes to the file
that the request names.
"""

import json
import os
import sys
import time

import gdb

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from zor_gdb import (  # noqa: E402
    activity, copying, death, enumerations, memory, model, typenames,
)

MOST_FRAMES = 64  # in which the reason of a death is looked for
TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")


def _clocks():
    """The clocks that the runtime stamps with, read while the process is stopped."""
    ticks = int(round(os.times().elapsed * TICKS_PER_SECOND))
    return {
        "tick_ms": (1000 // TICKS_PER_SECOND) * ticks,
        "monotonic_ns": time.clock_gettime_ns(time.CLOCK_MONOTONIC),
    }


def _quoted(path):
    """The path as one word of a gdb command."""
    return "'" + path.replace("\\", "\\\\").replace("'", "\\'") + "'"


def _preload(request):
    """Has gdb read the symbols of what the process has mapped, before the process is stopped: what
    is loaded on attaching shares them."""
    for path in request["mapped"]:
        try:
            gdb.execute(f"add-inferior -exec {_quoted(path)}", to_string=True)
        except gdb.error:
            pass  # it may be gone, or be no program


def _attach(request):
    """Stops the process for as long as a copy of its registers and memory takes, and reads that. A
    process that cannot be copied stands still while it is read itself."""
    watch = activity.Watch(request["pid"])
    _preload(request)
    answer = {"activity": watch.finish()}
    hindrance = copying.hindrance(request["pid"], request["copy"])
    # The names of the libraries' functions are looked up in the copy.
    gdb.execute(f"set auto-solib-add {'off' if hindrance is None else 'on'}")
    started = time.monotonic()
    gdb.execute(f"attach {request['pid']}", to_string=True)
    try:
        answer["clocks"] = _clocks()
        names = activity.names(request["pid"])
        if hindrance is None:
            hindrance = copying.copy(request["copy"])
        if hindrance is not None:
            gdb.execute("set auto-solib-add on")
            gdb.execute("sharedlibrary", to_string=True)
            answer["model"] = _model()
            answer["model"]["remarks"].append(f"stopped while it was read, not copied: {hindrance}")
    finally:
        gdb.execute("detach", to_string=True)
        answer["stopped_seconds"] = time.monotonic() - started
    if hindrance is None:
        gdb.execute("set auto-solib-add on")
        _load_core(request["copy"])
        answer["model"] = _model(names)
    return answer


def _model(names=None):
    model.check()
    return model.Reader(names).read()


def _load_core(path):
    # What core-file makes of blanks and quotes in a name differs from one gdb to the next, so it gets
    # a name without any: a descriptor of gdb's own, which stays open as long as gdb needs the core.
    name = f"/proc/self/fd/{os.open(path, os.O_RDONLY)}"
    try:
        gdb.execute(f"core-file {name}", to_string=True)
    except gdb.error as error:
        raise gdb.error(str(error).replace(name, path)) from error


def _open_core(request):
    _load_core(request["core"])
    return {
        "clocks": None,
        "model": _model(),
        "environment": _environment(),
        "reason": _reason(request["death"]),
    }


def _reason(end):
    """What is known behind the signal that has ended the process."""
    for thread in gdb.selected_inferior().threads() if end else ():
        if end["thread"] in thread.ptid:
            thread.switch()
            frames = []
            frame = gdb.newest_frame()
            while frame is not None and len(frames) < MOST_FRAMES:
                frames.append((frame.name() or "??", frame))
                frame = frame.older()
            return death.reason_of(end["number"], end["thread"], frames)
    return None


def _environment():
    """The environment of the process, as far as its recording's name goes."""
    found = {}
    try:
        entry = int(gdb.parse_and_eval("*(unsigned long *)&environ"))
        while pointer := memory.pointer_at(entry):
            name, _, value = memory.c_string_at(pointer).partition("=")
            found[name] = value
            entry += memory.pointer_size()
    except (gdb.error, gdb.MemoryError):
        pass  # a core may lack the page; the recording can be named by hand
    return {"ZOR_RECORD": found.get("ZOR_RECORD")}


def _run(request):
    for command in request["settings"]:
        gdb.execute(command, to_string=True)
    gdb.execute("set language c++", to_string=True)
    if request.get("program"):
        gdb.execute(f"file {_quoted(request['program'])}", to_string=True)
    answer = _attach(request) if request.get("pid") else _open_core(request)
    classes = typenames.classes_without_names(answer["model"])
    answer["type_names"] = enumerations.of_classes(classes)
    return answer


def main():
    with open(os.environ["ZOR_INSPECT_REQUEST"], encoding="utf-8") as file:
        request = json.load(file)
    try:
        answer = _run(request)
    except model.NotTheRuntime as error:
        answer = {"error": "runtime", "text": str(error), "told": error.told}
    except (gdb.error, gdb.MemoryError) as error:
        answer = {"error": "gdb", "text": str(error).strip()}
    with open(request["answer"], "w", encoding="utf-8") as file:
        json.dump(answer, file)


main()
