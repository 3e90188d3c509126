"""Reads the runtime's objects into plain data: those of a process that is stopped, or of a core.
Runs inside gdb.

Only what memory says is read here; what follows from it (who waits for whom, how long) is worked
out in `analysis`, when the process runs again.
"""

import gdb

from . import layout, locks, memory, objects, rtti, supervisor, threads
from .analysis import LOOP_BODY

ALL_ONES = (1 << 64) - 1
TICK_MASK = 0xFFFFFFFF
TABLE_SIZE = 64
NEEDED = ("TCTaskList", "TCTask", "TCSyncDet", "TCTimersScheduler", "TSEvent")


class NotTheRuntime(Exception):
    """The process has no zor-core runtime, or one without debug information; the table of the
    library may tell something of it all the same."""

    def __init__(self, text):
        super().__init__(text)
        self.told = layout.what_it_tells()  # while the process is there to be read


def check():
    """Raises NotTheRuntime unless everything that is read has its type."""
    for name in NEEDED:
        try:
            memory.type_named(name)
        except gdb.error:
            raise NotTheRuntime(f"there is no debug information for {name}") from None


class Reader:
    """One pass over the process.

    names: what the kernel calls its threads, by thread, where gdb does not know that
    """

    def __init__(self, names=None):
        self.remarks = []
        self.threads = threads.read_threads(names or {})
        self.by_object = {thread.object: thread for thread in self.threads if thread.object}
        self.handlers = objects.Handlers()
        self.senders = objects.Senders(self.threads)
        self.mutexes = []
        self.gates = []
        self.locks = locks.Locks(self.threads)

    def read(self):
        addresses = self._tasks()
        for address in addresses:
            self.handlers.task_names[address] = self._part(
                "a task's name",
                lambda a=address: memory.char_array(memory.object_at(a, "TCTask")["m_taskName"]),
                "?",
            )
        tasks = self._each("a task", addresses, self._task)
        self._lock("registry", memory.variable("TCTaskList::m_mutex"))
        result = {
            "tasks": tasks,
            "sync_table": self._part("the table of synchronous calls", self._sync_table, None),
            "timers": self._part("the timers", self._timers, []),
            "alarms": self._each("an alarm", self._alarm_threads(), self._alarm),
            "signs_of_life": self._part("the supervisor", supervisor.signs_of_life, {}),
        }
        for thread in self.threads:
            self._part("a thread's gates", lambda thread=thread: self._thread_gates(thread), None)
        known = {mutex.get("semaphore") for mutex in self.mutexes}
        known |= {gate["semaphore"] for gate in self.gates}
        result["threads"] = [self._thread(thread, known) for thread in self.threads]
        result["locks"] = self.locks.locks
        result["mutexes"] = self.mutexes
        result["gates"] = self.gates
        result["remarks"] = self.remarks
        return result

    # A daemon that is inspected may be broken: what cannot be read is left out, and the report
    # says so.

    def _part(self, what, read, otherwise):
        try:
            return read()
        except (gdb.error, gdb.MemoryError, ArithmeticError, LookupError, ValueError) as error:
            self.remarks.append(f"{what} cannot be read: {error}")
            return otherwise

    def _each(self, what, items, read):
        found = [self._part(what, lambda item=item: read(item), None) for item in items]
        return [item for item in found if item is not None]

    def _tasks(self):
        """The registered tasks, oldest first, and behind them those that only their threads know:
        Destroy() takes a task out of the registry before it waits for the thread."""
        listed = self._part(
            "the registry", lambda: memory.std_list(memory.variable("TCTaskList::m_taskList")), []
        )
        known = [a for a in listed if self._part("a task", lambda a=a: memory.read(a, 1), None)]
        self.registered = set(known)
        others = [o for o in self.by_object if o not in self.registered and rtti.is_a(o, "TCTask")]
        return known + others

    def _lock(self, label, value):
        mutex = objects.mutex(value)
        mutex["label"] = label
        self.mutexes.append(mutex)
        return len(self.mutexes) - 1

    # Tasks

    def _task(self, address):
        task = memory.object_at(address, "TCTask")
        thread = self.by_object.get(address)
        name = self.handlers.task_names[address]
        kernel_id = memory.plain(task["m_kernelId"])
        ended = memory.plain(task["m_thread"]) == threads.ENDED
        described = {
            "address": address,
            "name": name,
            "class": rtti.class_name(address),
            "registered": address in self.registered,
            "thread": None if ended or kernel_id < 0 else kernel_id,
            "ended": ended,
            "running": bool(memory.plain(task["m_running"])),
            "exiting": bool(memory.plain(task["m_exit"])),
            "paused": bool(memory.plain(task["m_paused"])),
            "wait_ms": int(task["m_waitTime"]),
            "watchdog": int(task["m_watchdogTime"]),
            "pause_request_holder": objects.std_mutex_owner(task["m_pauseRequestMutex"]),
            "loop": thread.inside_loop() if thread else [],
            "in_loop": thread is not None and thread.loop is not None,
            "event": self._loop_event(thread),
        }
        described["multi_queue"] = rtti.is_a(address, "TCMultiQTask")
        described["queues"] = self._queues(address, name, described["multi_queue"])
        return described

    def _loop_event(self, thread):
        """The event that is being handled. Before the loop has taken one, what lies in its place
        is left over from earlier calls."""
        if thread is None or not thread.event or thread.inside_loop()[:1] != [LOOP_BODY]:
            return None
        return self._part(
            "a handled event",
            lambda: objects.event_at(thread.event, self.handlers, self.senders),
            None,
        )

    def _queues(self, address, name, multi):
        own = memory.object_at(address, "TCTask").cast(memory.type_named("TCQueue"))
        queues = [memory.address_of(own)]
        if multi:
            task = memory.object_at(address, "TCMultiQTask")
            array = int(task["m_pQueueArray"])
            count = min(int(task["m_queueSize"]), 256) if array else 0
            size = memory.pointer_size()
            queues += [memory.pointer_at(array + i * size) for i in range(1, count)]
        read = [(index, name, queue, multi) for index, queue in enumerate(queues)]
        return self._each("a queue", read, self._queue)

    def _queue(self, item):
        index, name, address, multi = item
        queue = memory.object_at(address, "TCQueue")
        label = f"queue {index} of {name}" if multi else f"queue of {name}"
        return {
            "index": index,
            "depth": int(queue["m_count"]),
            "capacity": queue["m_ring"].type.sizeof // memory.type_named("TSEvent").sizeof,
            "lock": self._lock(label, queue.cast(memory.type_named("TCMutex"))),
            "events": objects.queue_events(queue, self.handlers, self.senders),
        }

    # Calls, timers, alarms

    def _sync_table(self):
        """The table of synchronous calls; None if the process has none."""
        address = int(memory.variable("TCSyncDet::m_arrPCSyncDet"))
        if not address:
            return None
        lock = int(memory.variable("TCSyncDet::m_pLock"))
        if lock:
            self._lock("table of synchronous calls", memory.object_at(lock, "TCMutex"))
        size = memory.type_named("PTSyncDetInfo").sizeof
        entries = []
        for index in range(TABLE_SIZE):
            entry = memory.object_at(address + index * size, "PTSyncDetInfo")
            if int(entry["bValid"]):
                entries.append(
                    {
                        "start_tick_ms": int(entry["startTick"]),
                        "caller_thread": int(entry["callerTid"]),
                        "caller": memory.char_array(entry["callerName"]),
                        "receiver_id": int(entry["receiverThread"]),
                        "receiver": memory.char_array(entry["receiverName"]),
                    }
                )
        return entries

    def _timers(self):
        scheduler = memory.variable("TCTimer::m_scheduler")
        schedule = "TCTimersScheduler::TimerSchedule"
        wakeups = {}
        for address in memory.std_tree(scheduler["m_wakeups"]):
            wakeup = memory.object_at(address, "TCTimersScheduler::TimerWakeupData")
            wakeups[int(wakeup["id"])] = int(wakeup["due"]["__d"]["__r"])
        left = {}
        for address in memory.std_tree(scheduler["m_pausedTimers"]):
            data = memory.read(address, 16)
            left[memory.integer(data, 0, 8)] = memory.integer(data, 8, 8, signed=True)
        owner = objects.std_mutex_owner(scheduler["m_mutex"])
        self.mutexes.append(
            {"label": "timers", "owner_thread": owner, "created": True, "depth": 1}
        )
        states = objects.enumeration("TimerState")
        timers = []
        for number, timer in enumerate(memory.std_vector(scheduler["m_scheduledTimers"], schedule)):
            state = states.get(int(timer["state"]), str(int(timer["state"])))
            if state == "TIMER_DESTROYED":
                continue
            event = objects.event_at(
                memory.address_of(timer["event"]), self.handlers, self.senders
            )
            timers.append(
                {
                    "id": number,
                    "state": state.replace("TIMER_", "").lower(),
                    "interval_ms": int(timer["interval"]["__r"]),
                    "count": _endless(int(timer["count"]), TICK_MASK),
                    "fired": int(timer["fired"]),
                    "due_ns": wakeups.get(number),
                    "left_ms": left.get(number),
                    "task": event["receiver"]["task"],
                    "event_type": event["type"],
                }
            )
        return timers

    def _alarm_threads(self):
        return [t for t in self.threads if t.object and "TCAlarm::t_Main" in t.functions()]

    def _alarm(self, thread):
        alarm = memory.object_at(thread.object, "TCAlarm")
        task = int(alarm["task"])
        name = self.handlers.task_names.get(task)
        self._lock(f"alarm in thread {thread.tid}", alarm["m_lock"])
        interval = int(alarm["m_interval"])
        stopped = bool(alarm["m_stopped"])
        return {
            "address": thread.object,
            "class": rtti.class_name(thread.object),
            "task": name,
            "thread": thread.tid,
            "thread_name": thread.name,
            "interval_ms": _endless(int(alarm["m_interval_holder"]) if stopped else interval),
            "count": _endless(int(alarm["m_count"])),
            "state": _alarm_state(stopped, thread.functions()),
        }

    # Threads

    def _thread_gates(self, thread):
        if thread.object:
            value = memory.object_at(thread.object, "TCThread")
            gate = memory.address_of(value["m_exitGate"])
            self.gates.append({"semaphore": gate, "thread": thread.tid})

    def _thread(self, thread, known_semaphores):
        count = None
        if thread.semaphore:
            count = self._part(
                "a semaphore", lambda: objects.semaphore_count(thread.semaphore), None
            )
        sleeps_for_ever = thread.endless or (thread.futex is not None and thread.futex.endless)
        return {
            "thread": thread.tid,
            "name": thread.name,
            "handle": thread.pthread,
            "semaphore": thread.semaphore,
            "endless": thread.endless,
            "units": count,
            "sleeps_for_ever": sleeps_for_ever,
            "in_kernel": thread.in_kernel,
            "wait": self._part(
                "what a thread waits for",
                lambda: self.locks.wait_of(thread, known_semaphores),
                None,
            ),
            "stack": thread.frames,
        }


def _endless(value, mark=ALL_ONES):
    """None stands for a count or an interval without end."""
    return None if value == mark else value


def _alarm_state(stopped, functions):
    if stopped:
        return "stopped"
    inner = functions[: functions.index("TCAlarm::t_Main")]
    if "TCTask::Send" in inner or "TCTask::m_Send" in inner:
        return "firing"
    if "TCAlarm::WaitForIntervalLocked" in inner:
        return "running"
    return "idle" if "TCSemaphore::Take" in inner else "changing"
