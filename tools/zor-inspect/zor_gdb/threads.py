"""The threads of the process: who they are, where they are, and which semaphore they wait for.

Runs inside gdb. Frames of optimised code keep few variables; what is read from them here is what
their own code needs later on, so that the compiler cannot have dropped it.
"""

import re

import gdb

from . import locks, memory

MOST_FRAMES = 256
LOOP = re.compile(r"^TC(MultiQ)?Task::ExecuteEvent$")
SEMAPHORE_WAITS = ("TCSemaphore::State::TakeLocked", "TCSemaphore::State::TryLocked")
ENDED = 0xFFFFFFFF


class Thread:
    """One thread. Addresses are 0 where there is nothing."""

    def __init__(self, tid):
        self.tid = tid
        self.pthread = 0
        self.name = None
        self.frames = []  # dictionaries, innermost first
        self.object = 0  # the TCThread whose body it runs
        self.semaphore = 0  # what it waits for
        self.endless = False  # whether that wait has no time-out
        self.futex = None  # the word that it sleeps on in the kernel
        self.in_kernel = None  # whether it is in a system call; None if that cannot be told
        self.loop = None  # index of the frame of a task's loop
        self.event = 0  # the loop's event, address

    def inside_loop(self):
        """The functions that the loop has called, innermost last."""
        if self.loop is None:
            return []
        return [frame["function"] for frame in reversed(self.frames[: self.loop])]

    def functions(self):
        return [frame["function"] for frame in self.frames]


def _variable(frame, name):
    try:
        value = frame.read_var(name)
        return 0 if value.is_optimized_out else int(value)
    except (ValueError, gdb.error, gdb.MemoryError):
        return 0


def _variable_address(frame, name):
    try:
        value = frame.read_var(name)
        return memory.address_of(value) if value.address is not None else 0
    except (ValueError, TypeError, gdb.error, gdb.MemoryError):
        return 0


def _describe(frame):
    name = frame.name()
    place = frame.find_sal()
    described = {"function": name or "??", "address": frame.pc(), "file": None, "line": None}
    described["module"] = gdb.solib_name(frame.pc())  # None for the program
    if place.symtab is not None:
        described["file"] = place.symtab.filename
        described["line"] = place.line
    return described


def _learn(thread, frame, name):
    """Keeps what the frame of one of the runtime's functions knows."""
    if name in SEMAPHORE_WAITS and not thread.semaphore:
        state = _variable(frame, "this")
        if state:
            thread.semaphore = int(memory.object_at(state, "TCSemaphore::State")["owner"])
        # A wait of any kind that has no end happens here.
        thread.endless = name == "TCSemaphore::State::TakeLocked"
    elif LOOP.match(name):
        thread.loop = len(thread.frames)
        thread.event = _variable_address(frame, "event")
    elif name == "_Process":
        thread.object = _variable(frame, "self") or _variable(frame, "thread")


def _pthread(thread):
    """The thread's pthread_t. Where there is no thread library to ask, it is what the thread
    pointer holds."""
    try:
        return int.from_bytes(thread.handle(), memory.byte_order())
    except gdb.error:
        pass
    for register in ("fs_base", "tpidr"):
        try:
            return int(gdb.newest_frame().read_register(register))
        except (ValueError, gdb.error):
            pass
    return 0


def _in_kernel(frame):
    try:
        call = locks.system_call(frame)
    except (ValueError, gdb.error):
        return None
    return None if call == () else call is not None


def _read(gdb_thread, names):
    thread = Thread(gdb_thread.ptid[1] or gdb_thread.ptid[2])
    gdb_thread.switch()
    thread.pthread = _pthread(gdb_thread)
    thread.name = names.get(thread.tid) or gdb_thread.name
    frame = gdb.newest_frame()
    thread.futex = locks.futex_of(frame)
    thread.in_kernel = _in_kernel(frame)
    while frame is not None and len(thread.frames) < MOST_FRAMES:
        described = _describe(frame)
        _learn(thread, frame, described["function"])
        thread.frames.append(described)
        try:
            frame = frame.older()
        except (gdb.error, gdb.MemoryError):
            break  # a damaged stack ends here
    return thread


def read_threads(names):
    """All threads, the first one of the process first.

    names: what the kernel calls them, as far as that is known, by thread
    """
    threads = sorted(gdb.selected_inferior().threads(), key=lambda thread: thread.num)
    found = []
    for gdb_thread in threads:
        if gdb_thread.is_valid():
            thread = _read(gdb_thread, names)
            if thread.object:
                _name(thread)
            found.append(thread)
    return found


def _name(thread):
    """A core does not keep the names of threads, but the runtime does of its own."""
    try:
        name = memory.char_array(memory.object_at(thread.object, "TCThread")["m_name"])
    except (gdb.error, gdb.MemoryError):
        thread.object = 0
    else:
        thread.name = thread.name or name
