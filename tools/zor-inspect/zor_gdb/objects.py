"""Events, handlers and queues as plain data. Runs inside gdb."""

import functools

import gdb

from . import memory, rtti

HANDLER_CREATED = 0x12C272B
UNSET_PARAM3 = 0xFFFF
UNSET_PARAM4 = 0xFFFF
UNSET_PARAM5 = (1 << 64) - 1
THREAD_ID_BITS = 0xFFFFFFFF

# name: bytes. A pointer's width is taken from the type.
EVENT_NUMBERS = {
    "sync": None,
    "receiver": None,
    "sender": 4,
    "type": None,
    "param1": 4,
    "param2": 4,
    "param3": 4,
    "param4": 2,
    "param5": 8,
    "param6": 8,
    "flag": 1,
    "appFlag": 1,
}


@functools.lru_cache(maxsize=None)
def _event_layout():
    return {
        name: (memory.offset("TSEvent", name), size or memory.pointer_size())
        for name, size in EVENT_NUMBERS.items()
    }


@functools.lru_cache(maxsize=None)
def enumeration(name):
    """The names of an enumeration's values; empty if it is in no debug information."""
    try:
        fields = memory.type_named(name).fields()
    except gdb.error:
        return {}
    return {field.enumval: field.name.split("::")[-1] for field in fields}


class Handlers:
    """Who the receivers of events are. Many events have the same receiver."""

    def __init__(self):
        self.task_names = {}  # by the address of the task, filled in by the model
        self._known = {}

    def describe(self, address):
        if address not in self._known:
            self._known[address] = self._read(address)
        return dict(self._known[address])

    def _read(self, address):
        described = {"address": address, "class": None, "task": None, "created": False}
        if address == 0:
            return described
        try:
            handler = memory.object_at(address, "TCHandler")
            if memory.plain(handler["m_created"]) != HANDLER_CREATED:
                return described
            described["created"] = True
            described["class"] = rtti.class_name(address)
            task = int(handler["task"])
            described["task"] = self.task_names.get(task)
            described["is_task"] = address == memory.address_of(
                memory.object_at(task, "TCTask").cast(memory.type_named("TCHandler"))
            )
            described["events"] = _types_of(address, described["is_task"])
        except (gdb.error, gdb.MemoryError):
            pass
        return described


def _types_of(address, is_task):
    if is_task:
        return enumeration("TCTask::EEventType")
    if rtti.is_a(address, "TCAlarm"):
        return enumeration("TCAlarm::EEventType")
    if rtti.class_name(address) == "TCTimer::TCTimerHandler":
        return enumeration("TimerEventType")
    return {}


class Senders:
    """Who has sent an event, by what it keeps of the sending thread's handle."""

    def __init__(self, threads):
        self._names = {}
        for thread in threads:
            self._names.setdefault(thread.pthread & THREAD_ID_BITS, thread)

    def describe(self, sender):
        thread = self._names.get(sender)
        return {
            "id": sender,
            "thread": thread.tid if thread else None,
            "name": thread.name if thread else None,
        }


def event_from(data, base, at, handlers, senders):
    """One event as plain data; data has been read from the address base."""
    number = {
        name: memory.integer(data, at + where, size)
        for name, (where, size) in _event_layout().items()
    }
    receiver = handlers.describe(number["receiver"])
    type_name = receiver.pop("events", {}).get(number["type"])
    return {
        "address": base + at,
        "type": number["type"],
        "type_name": type_name,
        "receiver": receiver,
        "sender": senders.describe(number["sender"]),
        "synchronous": number["sync"] != 0,
        "reply": number["sync"],
        "application": memory.std_string(base + at + memory.offset("TSEvent", "appName")),
        "application_flag": number["appFlag"],
        "flag": bool(number["flag"]),
        "attachment": _attachment(data, at),
        "params": {
            "param1": number["param1"],
            "param2": number["param2"],
            "param3": _set(number["param3"], UNSET_PARAM3),
            "param4": _set(number["param4"], UNSET_PARAM4),
            "param5": _set(number["param5"], UNSET_PARAM5),
            "param6": number["param6"],
        },
    }


def _set(value, unset):
    return None if value == unset else value


def _attachment(data, at):
    """The class of the attachment. A shared pointer begins with the pointer."""
    where = at + memory.offset("TSEvent", "wrappedData")
    address = memory.integer(data, where, memory.pointer_size())
    return rtti.class_name(address) if address else None


def event_at(address, handlers, senders):
    data = memory.read(address, memory.type_named("TSEvent").sizeof)
    return event_from(data, address, 0, handlers, senders)


def queue_events(queue, handlers, senders):
    """The queued events, the next one first. The ring is read in one go."""
    ring = queue["m_ring"]
    size = memory.type_named("TSEvent").sizeof
    slots = ring.type.sizeof // size
    base = memory.address_of(ring)
    data = memory.read(base, ring.type.sizeof)
    head = int(queue["m_head"])
    count = min(int(queue["m_count"]), slots)
    return [
        event_from(data, base, (head + i) % slots * size, handlers, senders) for i in range(count)
    ]


def semaphore_count(address):
    """The units of a semaphore; None if it is not created."""
    state = int(memory.object_at(address, "TCSemaphore")["m_state"])
    if state == 0:
        return None
    return memory.plain(memory.object_at(state, "TCSemaphore::State")["count"])


def mutex(value):
    """A TCMutex as plain data; the owner is a pthread_t, 0 while it is free."""
    owner = memory.plain(value["m_owner"])
    return {
        "created": int(value["m_semaphore"]["m_state"]) != 0,
        "owner": owner,
        "depth": memory.plain(value["m_depth"]) if owner else 0,
        "semaphore": memory.address_of(value["m_semaphore"]),
    }


def std_mutex_owner(value):
    """The kernel id of the thread that holds a std::mutex, 0 while it is free."""
    return int(value["_M_mutex"]["__data"]["__owner"])
