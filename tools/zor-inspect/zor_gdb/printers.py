"""Pretty-printers for the runtime's types, for any gdb session. Runs inside gdb.

They go by the values alone and never run code in the process, so that they serve a core as well.
"""

import gdb
import gdb.printing

from . import memory, objects, threads

EVENTS_SHOWN = 20


def _field(value, type_name, field):
    """A field of one base of the value: bases have fields of the same name."""
    return value.cast(memory.type_named(type_name))[field]


def _handle_name(handle):
    """The thread of a pthread_t, as `info threads` numbers it."""
    for thread in gdb.selected_inferior().threads():
        try:
            if int.from_bytes(thread.handle(), memory.byte_order()) == handle:
                return f"thread {thread.num} (LWP {thread.ptid[1]})"
        except gdb.error:
            pass
    return f"handle {handle:#x}"


class SemaphorePrinter:
    """TCSemaphore: its units."""

    def __init__(self, value):
        self._value = value

    def to_string(self):
        state = int(self._value["m_state"])
        if state == 0:
            return "semaphore, not created"
        units = memory.plain(memory.object_at(state, "TCSemaphore::State")["count"])
        return f"semaphore with {units} unit{'' if units == 1 else 's'}"


def _lock_text(value):
    if int(value["m_semaphore"]["m_state"]) == 0:
        return "not created"
    owner = memory.plain(value["m_owner"])
    if owner == 0:
        return "free"
    return f"held by {_handle_name(owner)}, depth {memory.plain(value['m_depth'])}"


class MutexPrinter:
    """TCMutex: who holds it."""

    def __init__(self, value):
        self._value = value

    def to_string(self):
        return f"mutex, {_lock_text(self._value)}"


class EventPrinter:
    """TSEvent: its type and receiver; the parameters that are set are its children."""

    UNSET = {
        "param3": objects.UNSET_PARAM3,
        "param4": objects.UNSET_PARAM4,
        "param5": objects.UNSET_PARAM5,
    }

    def __init__(self, value):
        self._value = value

    def to_string(self):
        return f"event type {int(self._value['type'])}"

    def children(self):
        value = self._value
        yield "receiver", value["receiver"]
        yield "sender", value["sender"]
        if int(value["sync"]):
            yield "sync", value["sync"]
        for number in range(1, 7):
            name = f"param{number}"
            if int(value[name]) != self.UNSET.get(name):
                yield name, value[name]
        yield "flag", value["flag"]
        if value.address is not None:
            yield "appName", f'"{memory.std_string(memory.address_of(value["appName"])) or ""}"'
        yield "appFlag", int(value["appFlag"])
        yield "wrappedData", value["wrappedData"]


class QueuePrinter:
    """TCQueue: its depth and lock; the queued events, the next one first, are its children."""

    def __init__(self, value):
        self._value = value

    def _slots(self):
        return self._value["m_ring"].type.sizeof // memory.type_named("TSEvent").sizeof

    def to_string(self):
        if int(self._value["m_eventCount"]["m_state"]) == 0:
            return "queue, not created"
        return (
            f"queue with {int(self._value['m_count'])} of {self._slots()} events, lock "
            f"{_lock_text(self._value.cast(memory.type_named('TCMutex')))}"
        )

    def children(self):
        record = memory.type_named("TSEvent").pointer()
        elements = self._value["m_ring"].address.cast(record)
        head = int(self._value["m_head"])
        count = min(int(self._value["m_count"]), self._slots())
        for i in range(min(count, EVENTS_SHOWN)):
            yield f"[{i}]", (elements + (head + i) % self._slots()).dereference()


class TaskPrinter:
    """TCTask and TCMultiQTask: name, flags and queue."""

    def __init__(self, value):
        self._value = value

    def _flags(self):
        value = self._value
        if _plain_field(value, "TCHandler", "m_created") != objects.HANDLER_CREATED:
            return "not created"
        if _plain_field(value, "TCThread", "m_thread") == threads.ENDED:
            return "its thread has ended"
        flags = "running" if _plain_field(value, "TCTask", "m_running") else "not in its loop"
        if _plain_field(value, "TCTask", "m_paused"):
            flags = "paused"
        return flags

    def to_string(self):
        name = memory.char_array(_field(self._value, "TCTask", "m_taskName"))
        return f"task \"{name}\", {self._flags()}"

    def children(self):
        value = self._value
        yield "LWP", _plain_field(value, "TCThread", "m_kernelId")
        yield "queue", value.cast(memory.type_named("TCQueue"))
        yield "wait_ms", _field(value, "TCTask", "m_waitTime")
        yield "watchdog", _field(value, "TCTask", "m_watchdogTime")


def _plain_field(value, type_name, field):
    return memory.plain(_field(value, type_name, field))


class SchedulerPrinter:
    """TCTimersScheduler: its timers, by id, with state and due time."""

    def __init__(self, value):
        self._value = value

    def _timers(self):
        timers = self._value["m_scheduledTimers"]
        schedules = memory.std_vector(timers, "TCTimersScheduler::TimerSchedule")
        return [(i, t) for i, t in enumerate(schedules) if int(t["state"]) != 0]

    def _due(self):
        wakeups = memory.std_tree(self._value["m_wakeups"])
        found = [memory.object_at(a, "TCTimersScheduler::TimerWakeupData") for a in wakeups]
        return {int(w["id"]): int(w["due"]["__d"]["__r"]) / 1e9 for w in found}

    def to_string(self):
        count = len(self._timers())
        return f"scheduler with {count} timer{'' if count == 1 else 's'}"

    def children(self):
        due = self._due()
        states = objects.enumeration("TimerState")
        for number, timer in self._timers():
            state = states.get(int(timer["state"]), str(int(timer["state"])))
            text = f"{state}, every {int(timer['interval']['__r'])} ms, fired {int(timer['fired'])}"
            if number in due:
                text += f", due at {due[number]:.3f} s"
            yield f"[{number}]", text


PRINTERS = {
    "TCSemaphore": SemaphorePrinter,
    "TCMutex": MutexPrinter,
    "TSEvent": EventPrinter,
    "TCQueue": QueuePrinter,
    "TCTask": TaskPrinter,
    "TCMultiQTask": TaskPrinter,
    "TCTimersScheduler": SchedulerPrinter,
}


def register(objfile):
    """Has gdb use the printers for values of that library's types."""
    printers = gdb.printing.RegexpCollectionPrettyPrinter("zor-core")
    for name, printer in PRINTERS.items():
        printers.add_printer(name, f"^{name}$", printer)
    gdb.printing.register_pretty_printer(objfile, printers, replace=True)
