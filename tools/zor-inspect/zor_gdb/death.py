"""Why the process of a core died, as far as the stack of the thread that died tells. Runs inside
gdb.
"""

import gdb

from . import layout, memory, rtti

ABORT = 6
ASSERTION = "_TCAssert"
THROWS = ("__cxa_throw", "__cxa_rethrow")
TERMINATE = ("std::terminate", "__cxxabiv1::__terminate")
REPORT = ("zorhost::TCSupervisor::Report", "zorhost::TCSupervisor::Monitor")

# An exception in flight, as the C++ ABI lays it out: type and more, the unwinder's part, which
# begins with a mark of who has made it, and the object that was thrown.
EXCEPTION_MARK = int.from_bytes(b"GNUCC++\0", "big")
TYPE_BEFORE_MARK = 80
OBJECT_BEHIND_MARK = 32
HEAD_BEFORE_MARK = 96
SAVED_REGISTERS = ("rbx", "rbp", "r12", "r13", "r14", "r15") + tuple(f"x{i}" for i in range(19, 29))
LONGEST_SEARCH = 16384  # bytes of stack
HIGHEST_ADDRESS = 1 << 48

WITH_MESSAGE = {"St13runtime_error", "St11logic_error"}  # a pointer to the text follows the table
TEXT = "PKc"
STRING = "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
INTEGERS = {"i": (4, True), "j": (4, False), "l": (8, True), "m": (8, False)}


def reason_of(signal, thread, frames):
    """What is known behind the signal, as plain data; None if it is the signal alone.

    thread: kernel id of the selected thread
    frames: those of that thread, innermost first, as (name, frame of gdb's)
    """
    if signal != ABORT:
        return None
    recorded = recorded_assertion(thread)
    if recorded:
        return recorded
    for index, (name, frame) in enumerate(frames):
        if name == ASSERTION:
            return _assertion(frame, frames[index + 1 :])
        if name in REPORT:
            missed = _missed(frame)
            if missed:
                return missed
        if name.startswith(TERMINATE):
            return _exception(frames)
    return None


def recorded_assertion(thread):
    """The failed assertion of that thread, if the process has recorded it. Of threads that fail at
    the same time the process records one, and another may be the one that aborts."""
    found = layout.failed_assertion()
    if found is None or found["thread"] != thread:
        return None
    return {"kind": "assertion"} | {name: found[name] for name in ("expression", "file", "line")}


def _assertion(frame, callers):
    """The innermost of the two functions has what failed, whichever was called."""
    expression, file = (_text(_argument(frame, name)) for name in ("expr", "file"))
    line = _argument(frame, "line")
    outside = [caller for name, caller in callers if name != ASSERTION]
    if (file is None or line is None) and outside:
        place = outside[0].find_sal()
        file, line = (place.symtab.filename, place.line) if place.symtab else (file, line)
    return {"kind": "assertion", "expression": expression, "file": file, "line": line}


def _argument(frame, name):
    """An argument of a function, also where its code no longer needs it: what its caller passed."""
    frame.select()
    for expression in (name, f"{name}@entry"):
        try:
            return int(gdb.parse_and_eval(expression))
        except (gdb.error, gdb.MemoryError, ValueError):
            pass
    return None


def _text(pointer):
    try:
        return memory.c_string_at(pointer) if pointer else None
    except (gdb.error, gdb.MemoryError):
        return None


def _missed(frame):
    """Whom the supervisor has ended the process for."""
    try:
        miss = memory.reference(frame.read_var("miss"))
        return {
            "kind": "watchdog",
            "thread": int(miss["tid"]),
            "name": memory.char_array(miss["name"]),
            "silent_s": (int(miss["timeoutNsec"]) + int(miss["lateNsec"])) / 1e9,
        }
    except (gdb.error, gdb.MemoryError, ValueError, TypeError):
        return None


# Exceptions


def _exception(frames):
    found = {"kind": "terminate", "type": None, "what": None}
    mark = _exception_in_flight(frames)
    if mark is None:
        return found
    try:
        type_info = memory.pointer_at(mark - TYPE_BEFORE_MARK)
        found["type"] = rtti.name_of(type_info)
        found["what"] = _what(type_info, mark + OBJECT_BEHIND_MARK)
    except (gdb.error, gdb.MemoryError):
        pass
    return found


def _exception_in_flight(frames):
    """Where the mark of the exception is that was thrown on this stack; None if none was."""
    thrown = [i for i, (name, _) in enumerate(frames) if name.split("(")[0] in THROWS]
    if not thrown:
        return None
    last = min(thrown[0] + 1, len(frames) - 1)
    inner = [frame for _, frame in frames[: last + 1]]
    for candidate in _candidates([frames[thrown[0]][1], *inner], inner[0], inner[-1]):
        for mark in (candidate, candidate - OBJECT_BEHIND_MARK, candidate + HEAD_BEFORE_MARK):
            if _is_mark(mark):
                return mark
    return None


def _candidates(with_registers, innermost, outermost):
    """What may point to the exception: registers that functions keep, and what is on the stack."""
    for frame in with_registers:
        for name in SAVED_REGISTERS:
            try:
                yield int(frame.read_register(name))
            except (ValueError, gdb.error):
                pass
    size = memory.pointer_size()
    begin, end = _stack_pointer(innermost), _stack_pointer(outermost)
    try:
        data = memory.read(begin, max(min(end - begin, LONGEST_SEARCH), 0))
    except gdb.MemoryError:
        return
    for at in range(0, len(data) - size + 1, size):
        yield memory.integer(data, at, size)


def _stack_pointer(frame):
    return int(frame.read_register("sp")) & (HIGHEST_ADDRESS - 1)


def _is_mark(address):
    if not 0 < address < HIGHEST_ADDRESS or address % 8:
        return False
    try:
        return memory.integer(memory.read(address, 8), 0, 8) == EXCEPTION_MARK
    except gdb.MemoryError:
        return False


def _what(type_info, address):
    """The text of the exception, if it lies in memory and no code has to run to make it."""
    mangled = rtti.mangled(type_info)
    if mangled in INTEGERS:
        size, signed = INTEGERS[mangled]
        return str(memory.integer(memory.read(address, size), 0, size, signed))
    if mangled == TEXT:
        return memory.c_string_at(memory.pointer_at(address))
    if mangled == STRING:
        return memory.std_string(address)
    if WITH_MESSAGE & rtti.only_ancestors(type_info):
        return memory.c_string_at(memory.pointer_at(address + memory.pointer_size()))
    return None
