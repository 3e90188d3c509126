"""What follows from a snapshot: who waits for whom, since when, and where that goes round.

Pure functions over the plain data that `model` has read; no gdb here.

A thread waits for another if it sleeps, without a time-out, for what only the other one can give:
a lock that the other one holds, the reply to an event that the other one has queued or handles, or
the end of the other one. That is taken from the semaphores and locks themselves: the table of
synchronous calls lists a call until its caller has woken up and taken it out, and lacks those to the
further queues of a task.
"""

from . import deadlocks, stacks

TICK_MASK = 0xFFFFFFFF
HANDLE_MASK = 0xFFFFFFFF
LOOP_BODY = "TCTask::Deliver"
# The functions that wait for a reply, themselves.
REPLY_WAITERS = ("TCQueue::PutSync",)
# The thread that pings the supervised tasks, as far as the kernel keeps its name.
NOTIFIER = "WatchdogNotifie"
PING_SECONDS = 2
SPINS = 0.5  # the share of a processor that nobody uses who sleeps
SEMAPHORES = ("TCSemaphore::", "zor::Reply::")


def analyse(model, clocks, activity=None):
    """The report: the model with states, calls, waits and deadlocks.

    activity: what the kernel said of the threads of a live process
    """
    view = _View(model, clocks, activity or {})
    waits = view.waits()
    calls = view.calls(waits)
    return {
        "deadlocks": deadlocks.find(waits, calls, view),
        "tasks": [view.task(task, calls) for task in model["tasks"]],
        "calls": calls,
        "waits": waits,
        "timers": [_timer(timer, clocks) for timer in model["timers"]],
        "alarms": model["alarms"],
        "locks": view.locks(),
        "threads": [view.thread(thread) for thread in model["threads"]],
        "system_locks": any(thread["in_kernel"] is not None for thread in model["threads"]),
        "remarks": model["remarks"],
    }


def _timer(timer, clocks):
    described = dict(timer)
    due = timer["due_ns"]
    known = due is not None and clocks is not None
    described["due_in_ms"] = (due - clocks["monotonic_ns"]) / 1e6 if known else None
    return described


class _View:
    """The snapshot with what is looked up in it."""

    def __init__(self, model, clocks, activity):
        self.model = model
        self.clocks = clocks
        self.activity = activity
        self.threads = {thread["thread"]: thread for thread in model["threads"]}
        self.by_handle = {thread["handle"]: thread for thread in model["threads"]}
        self.by_semaphore = {}
        for thread in model["threads"]:
            if thread["semaphore"]:
                self.by_semaphore.setdefault(thread["semaphore"], []).append(thread)
        self.task_of_thread = {
            task["thread"]: task for task in model["tasks"] if task["thread"] is not None
        }
        self.callers = {
            entry["caller_thread"]: entry["caller"] for entry in model["sync_table"] or []
        }
        self.replies = self._find_replies()

    def name(self, tid):
        task = self.task_of_thread.get(tid)
        if task:
            return task["name"]
        thread = self.threads.get(tid)
        # A core has no names of threads, but those that have called somebody are in the table.
        return (thread["name"] if thread else None) or self.callers.get(tid) or f"thread {tid}"

    def _find_replies(self):
        """The events that somebody waits for, by the semaphore of the reply."""
        found = {}
        for task in self.model["tasks"]:
            for queue in task["queues"]:
                for position, event in enumerate(queue["events"]):
                    if event["reply"]:
                        found[event["reply"]] = {
                            "task": task,
                            "event": event,
                            "place": "queued",
                            "queue": queue["index"],
                            "position": position,
                        }
            if _handled_event(task) and task["event"]["reply"]:
                found[task["event"]["reply"]] = {
                    "task": task,
                    "event": task["event"],
                    "place": "handled",
                    "queue": None,
                    "position": None,
                }
        return found

    # Waits

    def waits(self):
        locks = {m["semaphore"]: m for m in self.model["mutexes"] if m.get("semaphore")}
        gates = {gate["semaphore"]: gate["thread"] for gate in self.model["gates"]}
        found = []
        for thread in self.model["threads"]:
            semaphore = thread["semaphore"]
            if not thread["sleeps_for_ever"]:
                continue
            if semaphore and (thread["units"] is None or thread["units"] > 0):
                continue
            if semaphore in locks:
                found.append(self._lock_wait(thread, locks[semaphore]))
            elif semaphore in gates:
                found.append(self._end_wait(thread, gates[semaphore]))
            elif semaphore in self.replies:
                task = self.replies[semaphore]["task"]
                text = f"the reply of {task['name']} to a synchronous send"
                found.append(self._wait(thread, "reply", text, task["thread"], task["name"]))
            else:
                found += self._other_waits(thread)
        return found

    def _other_waits(self, thread):
        """The waits for locks of the application and for ends of its threads. Who waits for several
        readers waits for each of them."""
        wait = thread["wait"]
        if wait is None:
            place = stacks.application_frame(thread["stack"])
            if place is None or _waits_for_reply(thread):
                return []  # at rest in the runtime, or shown among the calls
            return [self._wait(thread, "unknown", _unknown(thread["stack"]), None)]
        if wait["lock"] is None:
            return [self._end_wait(thread, wait["end_of"])]
        lock = self.model["locks"][wait["lock"]]
        holders = [holder for holder in lock["holders"] if holder in self.threads]
        found = [self._wait(thread, "lock", lock["label"], holder) for holder in holders]
        if lock["unnamed_readers"] or not holders:
            found.append(self._wait(thread, "lock", lock["label"], None, _unnamed(lock)))
        return found

    def _end_wait(self, thread, end_of):
        target = end_of if end_of in self.threads else None
        return self._wait(thread, "end", f"the end of thread {self.name(end_of)}", target)

    def _wait(self, thread, kind, text, target, target_name=None):
        return {
            "thread": thread["thread"],
            "name": self.name(thread["thread"]),
            "kind": kind,
            "what": text,
            "target_thread": target,
            "target": target_name or (self.name(target) if target is not None else None),
            "place": stacks.application_frame(thread["stack"]),
        }

    def _lock_wait(self, thread, mutex):
        holder = self.by_handle.get(mutex["owner"]) if mutex["owner"] else None
        text = f"the lock of the {mutex['label']}"
        return self._wait(thread, "lock", text, holder["thread"] if holder else None)

    def locks(self):
        described = []
        for mutex in self.model["mutexes"]:
            if not mutex["created"]:
                continue
            holder = mutex.get("owner_thread") or 0
            if not holder and mutex.get("owner"):
                thread = self.by_handle.get(mutex["owner"])
                holder = thread["thread"] if thread else -1
            waiting = self.by_semaphore.get(mutex.get("semaphore"), [])
            described.append(
                {
                    "lock": mutex["label"],
                    "held": holder != 0,
                    "holder_thread": holder if holder > 0 else None,
                    "holder": self.name(holder) if holder > 0 else None,
                    "depth": mutex["depth"] if holder else 0,
                    "waiting": [self.name(thread["thread"]) for thread in waiting],
                }
            )
        return described + [
            self._application_lock(index, lock) for index, lock in enumerate(self.model["locks"])
        ]

    def _application_lock(self, index, lock):
        holders = [holder for holder in lock["holders"] if holder in self.threads]
        waiting = [t for t in self.model["threads"] if t["wait"] and t["wait"]["lock"] == index]
        names = [self.name(holder) for holder in holders]
        names += [_unnamed(lock)] if lock["unnamed_readers"] else []
        return {
            "lock": lock["label"],
            "held": lock["held"],
            "holder_thread": holders[0] if len(holders) == 1 else None,
            "holder": ", ".join(names) or None,
            "depth": lock["depth"] if lock["held"] else 0,
            "waiting": [self.name(thread["thread"]) for thread in waiting],
        }

    # Calls

    def calls(self, waits):
        entries = [dict(entry) for entry in self.model["sync_table"] or []]
        found = []
        for wait in waits:
            if wait["kind"] == "reply":
                semaphore = self.threads[wait["thread"]]["semaphore"]
                found.append(self._replied_call(wait, self.replies[semaphore], entries))
        others = [self._other_call(entry) for entry in entries]
        return found + others + self._unlisted(found, entries)

    def _age(self, start_tick):
        if self.clocks is None:
            return None
        return ((self.clocks["tick_ms"] - start_tick) & TICK_MASK) / 1000

    def _receives(self, entry, task):
        thread = self.threads.get(task["thread"])
        if thread and thread["handle"]:
            return thread["handle"] & HANDLE_MASK == entry["receiver_id"]
        return task["name"] == entry["receiver"]

    def _replied_call(self, wait, reply, entries):
        """A call whose event is known. Takes its entry out of the table, if it has one."""
        task = reply["task"]
        entry = None
        for candidate in entries:
            if candidate["caller_thread"] == wait["thread"] and self._receives(candidate, task):
                entry = candidate
                entries.remove(candidate)
                break
        return {
            "caller": wait["name"],
            "caller_thread": wait["thread"],
            "receiver": task["name"],
            "receiver_thread": task["thread"],
            "age_s": self._age(entry["start_tick_ms"]) if entry else None,
            "start_tick_ms": entry["start_tick_ms"] if entry else None,
            "listed": entry is not None,
            "place": reply["place"],
            "queue": reply["queue"],
            "position": reply["position"],
            "event_type": reply["event"]["type"],
            "event_type_name": reply["event"]["type_name"],
            "reply": reply["event"]["reply"],
        }

    def _other_call(self, entry):
        """A call in the table without an event: made directly, just begun or ended, or lost."""
        receiver = None
        for task in self.model["tasks"]:
            if self._receives(entry, task):
                receiver = task
        thread = self.threads.get(entry["caller_thread"])
        if receiver and receiver["thread"] == entry["caller_thread"]:
            place = "direct"
        elif thread and _waits_for_reply(thread):
            place = "lost"
        else:
            place = "under way"
        return _call_without_event(
            self.name(entry["caller_thread"]) if thread else entry["caller"],
            entry["caller_thread"],
            receiver["name"] if receiver else entry["receiver"],
            receiver["thread"] if receiver else None,
            place,
            self._age(entry["start_tick_ms"]),
            entry["start_tick_ms"],
        )

    def _unlisted(self, calls, entries):
        """The threads that wait for a reply to nothing that is known: their event is gone."""
        known = {call["caller_thread"] for call in calls}
        known |= {entry["caller_thread"] for entry in entries}
        return [
            _call_without_event(
                self.name(thread["thread"]), thread["thread"], None, None, "lost", None, None
            )
            for thread in self.model["threads"]
            if thread["thread"] not in known and _waits_for_reply(thread)
        ]

    # Tasks and threads

    def task(self, task, calls):
        described = {key: task[key] for key in task if key not in ("loop", "in_loop", "event")}
        described["state"], described["detail"] = _state(task)
        described["event"] = task["event"] if described["state"] == "in handler" else None
        described["since"] = self._since(task, calls) if described["event"] else None
        described["hang"] = self._hang(task) if described["event"] else None
        described["depth"] = sum(queue["depth"] for queue in task["queues"])
        described["queues"] = [
            {key: queue[key] for key in queue if key != "lock"}
            | {"lock": self._holder(self.model["mutexes"][queue["lock"]])}
            for queue in task["queues"]
        ]
        return described

    def _holder(self, mutex):
        thread = self.by_handle.get(mutex["owner"]) if mutex["owner"] else None
        return self.name(thread["thread"]) if thread else None

    def _since(self, task, calls):
        """How long the handler has been running, from what is known: it had begun when it made the
        oldest call that it waits in, and its own event was sent before it began."""
        own = [c["age_s"] for c in calls if c["caller_thread"] == task["thread"]]
        own = [age for age in own if age is not None]
        reply = task["event"]["reply"]
        caused = [c["age_s"] for c in calls if reply and c["reply"] == reply]
        before = [age for age in (*caused[:1], self._sign_age(task)) if age is not None]
        return {"at_least_s": max(own, default=None), "at_most_s": min(before, default=None)}

    def _sign_age(self, task):
        """How long ago the supervisor last heard of the task; None if that is not known. It does
        so before a handler begins, unless the handler gives signs of life itself."""
        sign = self.model["signs_of_life"].get(str(task["thread"]))
        return None if sign is None or self.clocks is None else self._seconds_since(sign)

    def _seconds_since(self, monotonic_ns):
        return max(self.clocks["monotonic_ns"] - monotonic_ns, 0) / 1e9

    def _hang(self, task):
        """Where the handler is, whether it gets on, and what was heard of the task."""
        thread = self.threads.get(task["thread"])
        known = self.activity.get(str(task["thread"]), {})
        state = known.get("state")
        if state is not None:
            running = state == "R" or known["share"] > SPINS
        else:
            in_kernel = thread["in_kernel"] if thread else None
            running = None if in_kernel is None else not in_kernel
        return {
            "place": stacks.application_frame(thread["stack"]) if thread else None,
            "running": running,
            "cpu_s": known.get("cpu_s"),
            "cpu_share": known.get("share"),
            "last_sign_s": self._sign_age(task),
            "pings": _waiting_pings(task),
        }

    def thread(self, thread):
        task = self.task_of_thread.get(thread["thread"])
        return {
            "thread": thread["thread"],
            "name": thread["name"],
            "task": task["name"] if task else None,
            "stack": thread["stack"],
        }


def _waiting_pings(task):
    """The notifier's pings that the task has not come to. They are sent at intervals, so that many
    of them say for how long the queue has not been worked off."""
    pings = [
        event
        for queue in task["queues"]
        for event in queue["events"]
        if event["type_name"] == "EVENT_PING"
        and (event["sender"]["name"] or "").startswith(NOTIFIER)
    ]
    oldest = max(len(pings) - 1, 0) * PING_SECONDS
    return {"waiting": len(pings), "oldest_at_least_s": oldest if pings else None}


def _call_without_event(caller, caller_thread, receiver, receiver_thread, place, age, tick):
    return {
        "caller": caller,
        "caller_thread": caller_thread,
        "receiver": receiver,
        "receiver_thread": receiver_thread,
        "age_s": age,
        "start_tick_ms": tick,
        "listed": tick is not None,
        "place": place,
        "queue": None,
        "position": None,
        "event_type": None,
        "event_type_name": None,
        "reply": 0,
    }


def _waits_for_reply(thread):
    """Whether the thread sleeps for the reply to a synchronous send."""
    functions = [frame["function"] for frame in thread["stack"]]
    if not thread["endless"] or thread["units"] is None or thread["units"] > 0:
        return False
    waits = [number for number, name in enumerate(functions) if name.startswith(SEMAPHORES)]
    if not waits:
        return False
    callers = [name for name in functions[waits[0] :] if not name.startswith(SEMAPHORES)]
    return bool(callers) and callers[0] in REPLY_WAITERS


def _handled_event(task):
    """Whether the task handles an event now, and it could be read."""
    return bool(task["event"] and task["loop"] and task["loop"][0] == LOOP_BODY)


def _state(task):
    """The task's state and what there is to say about it."""
    if task["ended"]:
        return "not running", "its thread has ended"
    if task["thread"] is None:
        return "not running", "its thread has not begun"
    if task["paused"]:
        return "paused", None
    if not task["in_loop"]:
        if task["running"]:
            return "running", "its loop cannot be seen"
        return "not running", "its loop has ended" if task["exiting"] else "its loop has not begun"
    if _handled_event(task) and task["event"]["receiver"]["address"]:
        return "in handler", None
    if task["loop"] and task["loop"][0] in ("TCQueue::GetSync", "TCSemaphore::Try"):
        return "waiting", None
    return "running", "between two events, or in its idle hook"


def _unnamed(lock):
    """Those who hold a lock without memory saying who they are; None if nobody holds it."""
    readers = lock["unnamed_readers"]
    if readers:
        return f"{readers} reader{'s' if readers > 1 else ''} whom memory does not name"
    if lock["holders"]:
        return f"thread {lock['holders'][0]}, which is gone"
    return None


# What a thread sleeps for by the functions on its stack, if no memory says who is to end that.
UNKNOWN = (
    ("std::__future_base::", "a future"),
    ("std::__atomic_futex", "a future"),
    ("std::condition_variable::", "a condition variable"),
    ("pthread_cond_", "a condition variable"),
    ("sem_wait", "a semaphore"),
    ("TCSemaphore::", "a semaphore"),
    ("pthread_barrier", "a barrier"),
    ("__cxa_guard", "the making of a static object"),
)


def _plain(name):
    """The name of a function of the C library without what its inner names have before it."""
    return name.lstrip("_").removeprefix("GI_").lstrip("_")


def _unknown(stack):
    for beginning, what in UNKNOWN:
        for frame in stack:
            if stacks.is_application(frame):
                break
            name = frame["function"]
            if name.startswith(beginning) or _plain(name).startswith(beginning):
                return what
    return "something that memory does not name"
