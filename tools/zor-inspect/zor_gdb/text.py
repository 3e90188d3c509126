"""The report as text. Everything it says is in the report that --json prints."""

import os

from . import stacks
from .deadlocks import place
from .names import short


def render(report, events_shown, all_stacks, full=False):
    """The whole text, ending with a line end.

    full: whether stacks show the frames of the runtime and of the system one by one
    """
    sections = [
        _head(report),
        _death(report, full),
        _deadlocks(report, full),
        _section("Tasks", _tasks(report)),
        _section("Queued events", _queues(report, events_shown)),
        _section("Synchronous calls in progress", _calls(report)),
        _section("Threads that wait for another one", _waits(report)),
        _section("Timers", _timers(report)),
        _section("Alarms", _alarms(report)),
        _section("Locks", _locks(report)),
        _section("Stacks", _stacks(report, full)) if all_stacks else "",
        _section("Last records", _records(report)),
        _section("Remarks", report["remarks"]) if report["remarks"] else "",
    ]
    return "\n".join(section for section in sections if section)


def _section(title, lines):
    if not lines:
        return ""
    return f"{title}\n" + "".join(f"  {line}\n" for line in lines)


def _table(rows):
    """Columns as wide as they must be; the last one is free."""
    if not rows:
        return []
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    lines = []
    for row in rows:
        padded = [cell.ljust(width) for cell, width in zip(row[:-1], widths)]
        lines.append("  ".join(padded + [row[-1]]).rstrip())
    return lines


def _head(report):
    target = report["target"]
    if target["kind"] == "core":
        return f"core {target['core']} of {target['program']}\n"
    stopped = report["stopped_seconds"]
    return f"process {target['pid']} ({target['program']}), stopped for {stopped:.2f} s\n"


def seconds(value):
    return "?" if value is None else f"{value:.1f} s"


def milliseconds(value):
    return f"{value} ms"


def _count(value):
    return "endless" if value is None else str(value)


def _thread(tid):
    return "no thread" if tid is None else f"thread {tid}"


def _death(report, full):
    """Why the process has died, before everything else."""
    death = report["death"]
    if death is None:
        return ""
    who = f"{death['name'] or 'a thread'} (thread {death['told_thread']})"
    if death["task"]:
        who += f", task {death['task']}"
    if death["event"]:
        who += f", in handler of event type {event_type(death['event'])}, "
        who += event_text(death["event"])
    lines = [death["summary"], f"  {who}"]
    return "\n".join(lines + [f"    {line}" for line in _stack(death["stack"], full)]) + "\n"


# Deadlocks and stacks


def _deadlocks(report, full):
    lines = []
    for deadlock in report["deadlocks"]:
        lines.append("deadlock: " + " -> ".join(deadlock["chain"]))
        for thread in deadlock["threads"]:
            lines.append(f"  {thread['name']}: {thread['summary']}")
    for deadlock in report["deadlocks"]:
        for thread in deadlock["threads"]:
            lines.append("")
            lines.append(f"  {thread['name']} (thread {thread['thread']})")
            lines += [f"    {line}" for line in _stack(thread["stack"], full)]
    return "\n".join([*lines, *([""] if lines else []), *_looked_at(report)]) + "\n"


def _looked_at(report):
    """What the search for deadlocks covers: nobody is to take more from it."""
    known = ["synchronous sends", "TCMutex", "ends of tasks"]
    if report["system_locks"]:
        known[2:] = ["mutexes", "read-write locks", "ends of threads"]
    found = "no further deadlock" if report["deadlocks"] else "no deadlock"
    lines = [f"{found} through {', '.join(known[:-1])} or {known[-1]}"]
    unknown = [wait for wait in report["waits"] if wait["target_thread"] is None]
    if unknown:
        count = f"{len(unknown)} thread{'s' if len(unknown) > 1 else ''}"
        lines.append(f"not followed, for memory does not say who ends them: the waits of {count}")
        lines += [f"  {_wait(wait)}" for wait in unknown]
    return lines


def _stack(stack, full):
    if full:
        return [f"#{level:<2} {_frame(frame)}" for level, frame in enumerate(stack)]
    entries = stacks.folded(stack)
    numbers = [f"#{first}" if first == last else f"#{first}-{last}" for first, last, _ in entries]
    width = max(map(len, numbers), default=0)
    return [f"{n:<{width}} {_folded(entry)}" for n, entry in zip(numbers, entries)]


def _folded(entry):
    first, last, frame = entry
    return _frame(frame) if first == last else f"... {short(frame['function'])}"


def _frame(frame):
    name = short(frame["function"])
    if frame["file"]:
        return f"{name} at {os.path.basename(frame['file'])}:{frame['line']}"
    module = os.path.basename(frame.get("module") or "")
    return name + (f" in {module}" if module else f" ({frame['address']:#x})")


def _stacks(report, full):
    lines = []
    for thread in report["threads"]:
        lines.append(f"{thread['name'] or '(no name)'}, thread {thread['thread']}")
        lines += [f"  {line}" for line in _stack(thread["stack"], full)]
    return lines


# Tasks, queues and events


def _tasks(report):
    if not report["tasks"]:
        return ["none"]
    rows = [("TASK", "THREAD", "QUEUED", "STATE")]
    for task in report["tasks"]:
        thread = "-" if task["thread"] is None else str(task["thread"])
        rows.append((task["name"], thread, _depths(task), _state(task)))
    return _table(rows)


def _depths(task):
    return "+".join(str(queue["depth"]) for queue in task["queues"])


def _state(task):
    text = task["state"]
    if task["event"]:
        text += f" of event type {event_type(task['event'])} {_since(task['since'])}"
        text += f"{_hang(task['hang'])}, {event_text(task['event'])}"
    if task["detail"]:
        text += f": {task['detail']}"
    if not task["registered"]:
        text += " (being destroyed: not in the registry)"
    return text


def _hang(hang):
    """Where a handler is, whether it gets on, and what was heard of its task."""
    text = place(hang["place"])
    if hang["running"] is not None:
        text += ", running" if hang["running"] else ", sleeping"
    if hang["cpu_share"] is not None and hang["running"]:
        text += f" ({hang['cpu_share']:.0%} of a processor)"
    if hang["cpu_s"] is not None:
        text += f", {hang['cpu_s']:.1f} s of processor time"
    if hang["last_sign_s"] is not None:
        text += f", last sign of life {hang['last_sign_s']:.1f} s ago"
    if hang["pings"]["waiting"]:
        pings = hang["pings"]
        many = "s wait" if pings["waiting"] > 1 else " waits"
        text += f", {pings['waiting']} ping{many}"
        if pings["oldest_at_least_s"]:
            text += f", the oldest for at least {pings['oldest_at_least_s']} s"
    return text


def _since(since):
    low, high = since["at_least_s"], since["at_most_s"]
    if low is not None and high is not None:
        return f"for {low:.1f} to {high:.1f} s"
    if low is not None:
        return f"for at least {low:.1f} s"
    if high is not None:
        return f"for at most {high:.1f} s"
    return "since unknown"


def event_type(event):
    name = event["type_name"]
    return f"{event['type']} ({name})" if name else str(event["type"])


def _receiver(receiver):
    if not receiver["created"]:
        return f"{receiver['address']:#x} (not created)"
    if receiver.get("is_task"):
        return receiver["task"] or f"{receiver['address']:#x}"
    return f"{short(receiver['class']) or hex(receiver['address'])} of {receiver['task'] or '?'}"


def event_text(event):
    sender = event["sender"]
    who = sender["name"] or (sender["thread"] and f"thread {sender['thread']}")
    who = who or f"a thread that is gone (handle ...{sender['id']:08x})"
    parts = [f"for {_receiver(event['receiver'])}", f"from {who}"]
    if event["application"]:
        parts.append(f"application \"{event['application']}\" {event['application_flag']}")
    if event["synchronous"]:
        parts.append("sender waits")
    params = [f"{k}={v}" for k, v in event["params"].items() if v is not None]
    parts.append(" ".join(params))
    if event["attachment"]:
        parts.append(f"attached {short(event['attachment'])}")
    return ", ".join(parts)


def _queues(report, shown):
    lines = []
    for task in report["tasks"]:
        for queue in task["queues"]:
            if not queue["events"]:
                continue
            number = f", queue {queue['index']}" if task["multi_queue"] else ""
            lines.append(f"{task['name']}{number}: {queue['depth']} of {queue['capacity']}")
            for position, event in enumerate(queue["events"][:shown]):
                lines.append(f"  {position}: type {event_type(event)} {event_text(event)}")
            if len(queue["events"]) > shown:
                more = len(queue["events"]) - shown
                lines.append(f"  and {more} more (--events {len(queue['events'])} shows all)")
    return lines


# Calls and waits


def _calls(report):
    return [_call(call) for call in report["calls"]]


def _call(call):
    who = f"{call['caller']} ({_thread(call['caller_thread'])})"
    whom = f"{call['receiver'] or '?'} ({_thread(call['receiver_thread'])})"
    return f"{who} -> {whom}, {_age(call)}: {_place(call)}"


def _age(call):
    if call["age_s"] is not None:
        return f"for {seconds(call['age_s'])}"
    if call["start_tick_ms"] is not None:
        return f"since tick {call['start_tick_ms']} ms"
    return "since unknown (not in the table)"


def _place(call):
    kind = call["event_type"]
    if kind is not None and call["event_type_name"]:
        kind = f"{kind} ({call['event_type_name']})"
    place = call["place"]
    if place == "queued":
        return f"event type {kind} is queued, position {call['position']} of queue {call['queue']}"
    if place == "handled":
        return f"event type {kind} is being handled"
    if place == "direct":
        return "handled by the calling thread itself"
    if place == "lost":
        return "its event is in no task's queue and in no handler"
    return "has just begun, or is over"


def _waits(report):
    return [_wait(wait) for wait in report["waits"] if wait["target_thread"] is not None]


def _wait(wait):
    held = f", held by {wait['target']}" if wait["kind"] == "lock" and wait["target"] else ""
    what = f"{wait['what']}{place(wait['place'])}{held}"
    return f"{wait['name']} (thread {wait['thread']}) waits for {what}"


# Timers, alarms, locks


def _timers(report):
    rows = []
    for timer in report["timers"]:
        task = timer["task"] or "?"
        interval = f"every {milliseconds(timer['interval_ms'])}"
        fired = f"fired {timer['fired']} of {_count(timer['count'])}"
        number = f"timer {timer['id']}"
        rows.append((number, f"of {task}", timer["state"], interval, fired, _due(timer)))
    return _table(rows)


def _due(timer):
    if timer["left_ms"] is not None:
        return f"{milliseconds(timer['left_ms'])} left"
    if timer["due_in_ms"] is not None:
        return f"due in {timer['due_in_ms']:.0f} ms"
    if timer["due_ns"] is not None:
        return f"due at {timer['due_ns'] / 1e9:.3f} s of the monotonic clock"
    return "not due"


def _alarms(report):
    rows = []
    for alarm in report["alarms"]:
        interval = alarm["interval_ms"]
        every = "never" if interval is None else f"every {milliseconds(interval)}"
        rows.append(
            (
                f"alarm of {alarm['task'] or '?'}",
                f"thread {alarm['thread']}",
                alarm["state"],
                every,
                f"count {_count(alarm['count'])}",
                short(alarm["class"]) or "",
            )
        )
    return _table(rows)


def _locks(report):
    lines = []
    for lock in report["locks"]:
        if lock["held"]:
            holder = lock["holder"] or "a thread that is gone"
            where = f" (thread {lock['holder_thread']})" if lock["holder_thread"] else ""
            waiting = f"; waiting: {', '.join(lock['waiting'])}" if lock["waiting"] else ""
            lines.append(f"{lock['lock']}: held by {holder}{where}{waiting}")
    free = [lock["lock"] for lock in report["locks"] if not lock["held"]]
    if free:
        lines.append(f"free: {', '.join(free)}")
    return lines


def _records(report):
    records = report["records"]
    if records is None:
        return []
    if records["problem"]:
        return [f"{records['file']}: {records['problem']}"]
    return [records["file"]] + records["lines"]
