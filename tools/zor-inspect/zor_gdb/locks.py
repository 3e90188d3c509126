"""What a thread sleeps for in the kernel, and who holds it. Runs inside gdb.

All locks of the C library end in one system call, whose first argument is a word of the lock. So
the lock is known without debug information of the library, and the library's functions on the
stack, whose names it exports, say what kind it is. The layouts are those that its ABI fixes.
"""

import re

import gdb

from . import memory, rtti

FUTEX_COMMAND = 0x7F  # without the flags
# Those that sleep until they are woken: wait, lock, wait with a set, with a requeue, lock again.
FUTEX_WAITS = (0, 6, 9, 11, 13)
OWNER_BITS = 0x3FFFFFFF  # a futex word and an owner may carry flags above them

# The lock's word in the lock, and where it says who holds it.
MUTEX_SIZE = 24
MUTEX_OWNER = 8
RWLOCK_SIZE = 56
RWLOCK_READERS = 0
RWLOCK_READERS_SHIFT = 3
RWLOCK_PHASE_WORD = 8
RWLOCK_WRITERS_WORD = 12
RWLOCK_WRITER = 24

KINDS = (
    ("mutex", re.compile(r"^_*(GI_+)?pthread_mutex_(cond_)?lock(_full)?$")),
    ("rwlock", re.compile(r"^_*(GI_+)?pthread_rwlock_(rd|wr|clockrd|clockwr)lock(_full)?(64)?$")),
    ("end", re.compile(r"^_*(GI_+)?pthread_(clock|timed)?join(_np|_ex)?(64)?$")),
)
INNERMOST = 12  # frames in which the library's function is looked for
MOST_COUNTED = 1 << 20  # nobody holds a lock more often; what says so is no count


class Futex:
    """The word that a thread sleeps on."""

    def __init__(self, address, value, endless):
        self.address = address
        self.value = value
        self.endless = endless


def system_call(frame):
    """The number and the first four arguments of the system call that the thread is in, as the
    registers of its innermost frame have them; None if it is in none; () if that cannot be told."""
    if frame.architecture().name() == "i386:x86-64":
        number = _register(frame, "orig_rax")
        if number >> 63:
            return None
        return (number, *(_register(frame, name) for name in ("rdi", "rsi", "rdx", "r10")))
    return ()


def _register(frame, name):
    return int(frame.read_register(name)) & ((1 << 64) - 1)


FUTEX_NUMBERS = {"i386:x86-64": 202}


def futex_of(frame):
    """What the thread of this innermost frame sleeps on in the kernel, if anything."""
    try:
        call = system_call(frame)
    except (ValueError, gdb.error):
        return None
    if not call or call[0] != FUTEX_NUMBERS[frame.architecture().name()]:
        return None
    _, address, operation, value, timeout = call
    if operation & FUTEX_COMMAND not in FUTEX_WAITS:
        return None
    return Futex(address, value & 0xFFFFFFFF, timeout == 0)


def kind_of(thread):
    """What kind of thing the thread sleeps for; None if its frames do not tell."""
    for frame in thread.frames[:INNERMOST]:
        for kind, pattern in KINDS:
            if pattern.match(frame["function"]):
                return kind
    return None


class Locks:
    """The locks that threads wait for, other than those that belong to tasks, timers and alarms."""

    def __init__(self, threads):
        self._threads = threads
        self._known = {}
        self.locks = []  # plain data

    def wait_of(self, thread, known_semaphores):
        """What the thread waits for, as plain data: an index into the locks, or the end of a
        thread; None if it is nothing that is known here."""
        if thread.semaphore:
            if thread.semaphore in known_semaphores:
                return None
            return self._wait_for_lock(self._runtime_mutex(thread.semaphore))
        if thread.futex is None:
            return None
        kind = kind_of(thread)
        if kind == "mutex":
            return self._wait_for_lock(self._lock(thread.futex.address, self._mutex))
        if kind == "rwlock":
            return self._wait_for_lock(self._lock(_rwlock_at(thread.futex.address), self._rwlock))
        if kind == "end":
            # The word is the thread's own id, which the kernel clears when the thread is gone.
            return {"lock": None, "end_of": thread.futex.value}
        return None

    @staticmethod
    def _wait_for_lock(index):
        return None if index is None else {"lock": index, "end_of": None}

    def _lock(self, address, read):
        if address not in self._known:
            self._known[address] = len(self.locks)
            self.locks.append(read(address))
        return self._known[address]

    # The kinds of locks

    def _runtime_mutex(self, semaphore):
        """A semaphore in the place where a TCMutex has its own, in an object that is one."""
        address = semaphore - memory.offset("TCMutex", "m_semaphore")
        if not rtti.is_a(address, "TCMutex"):
            return None
        return self._lock(address, self._tc_mutex)

    def _tc_mutex(self, address):
        value = memory.object_at(address, "TCMutex")
        owner = memory.plain(value["m_owner"])
        holders = [thread.tid for thread in self._threads if thread.pthread == owner]
        return {
            "label": _label(rtti.class_name(address) or "TCMutex", address),
            "holders": holders[:1],
            "held": owner != 0,
            "depth": memory.plain(value["m_depth"]) if owner else 0,
            "unnamed_readers": 0,
        }

    def _mutex(self, address):
        data = memory.read(address, MUTEX_SIZE)
        owner = memory.integer(data, MUTEX_OWNER, 4) & OWNER_BITS
        return {
            "label": _label("mutex", address),
            "holders": [owner] if owner else [],
            "held": memory.integer(data, 0, 4) != 0,
            "depth": 1,
            "unnamed_readers": 0,
        }

    def _rwlock(self, address):
        data = memory.read(address, RWLOCK_SIZE)
        writer = memory.integer(data, RWLOCK_WRITER, 4)
        readers = memory.integer(data, RWLOCK_READERS, 4) >> RWLOCK_READERS_SHIFT
        owner = address - memory.offset("TCRWLock", "m_lock")
        counted = rtti.is_a(owner, "TCRWLock")
        holders = [writer] if writer else []
        if not writer and counted:
            holders = self._readers_of(owner)
        label = _label("TCRWLock", owner) if counted else _label("rwlock", address)
        return {
            "label": label,
            "holders": holders,
            "held": bool(writer or readers),
            "depth": 1,
            "unnamed_readers": 0 if writer else max(readers - len(holders), 0),
        }

    def _readers_of(self, address):
        """The threads that read-hold a TCRWLock: each has a count of its own."""
        key = int(memory.object_at(address, "TCRWLock")["m_readCountKey"])
        found = []
        for thread in self._threads:
            try:
                count = thread_specific(thread.pthread, key)
                if count and 0 < memory.integer(memory.read(count, 4), 0, 4) < MOST_COUNTED:
                    found.append(thread.tid)
            except (gdb.error, gdb.MemoryError):
                pass  # a handle that leads nowhere
        return found


def _rwlock_at(word):
    """The lock, which is aligned to eight bytes, by the word that its waiters sleep on."""
    return word - (RWLOCK_WRITERS_WORD if word % 8 == 4 else RWLOCK_PHASE_WORD)


def _label(kind, address):
    symbol = rtti.symbol_at(address)
    return f"{kind} {symbol}" if symbol else f"{kind} at {address:#x}"


def _thread_library(name):
    """One of the numbers that the C library exports for debuggers: size, elements and offset."""
    where = int(gdb.parse_and_eval(f"(unsigned long) &_thread_db_{name}"))
    data = memory.read(where, 12)
    return [memory.integer(data, i * 4, 4) for i in range(3)]


def thread_specific(handle, key):
    """The pointer that pthread_setspecific() has stored for the thread; 0 if there is none."""
    if not handle:
        return 0
    tables = _thread_library("pthread_specific")[2]
    in_table = _thread_library("pthread_key_data_level2_data")[1]
    size = _thread_library("sizeof_pthread_key_data")[0]
    data = _thread_library("pthread_key_data_data")[2]
    pointer = memory.pointer_size()
    table = memory.pointer_at(handle + tables + key // in_table * pointer)
    return memory.pointer_at(table + key % in_table * size + data) if table else 0
