"""Circles among the waits, told in a line for each thread of them. Pure functions."""

import os

from .names import short


def find(waits, calls, view):
    """The circles, one for each set of threads that hang together. A thread that waits for several
    others waits for all of them, so each of its ways round is a deadlock."""
    targets = {}
    for wait in waits:
        if wait["target_thread"] is not None:
            targets.setdefault(wait["thread"], []).append(wait)
    order = {task["thread"]: i for i, task in enumerate(view.model["tasks"])}
    found, told = [], set()
    for start in sorted(targets, key=lambda thread: order.get(thread, len(order))):
        if start not in told:
            circle = _shortest_circle(start, targets)
            if circle:
                told.update(_all_in_circles_with(start, targets))
                found.append(_deadlock(circle, calls, view))
    return found


def _shortest_circle(start, targets):
    """The waits from the thread back to itself; None if no way leads there."""
    ways, seen = [[wait] for wait in targets.get(start, [])], set()
    while ways:
        way = ways.pop(0)
        thread = way[-1]["target_thread"]
        if thread == start:
            return way
        if thread not in seen:
            seen.add(thread)
            ways += [way + [wait] for wait in targets.get(thread, [])]
    return None


def _all_in_circles_with(start, targets):
    """The threads that the thread leads to and that lead back to it."""
    return {t for t in _reached(start, targets) if start in _reached(t, targets)} | {start}


def _reached(start, targets):
    reached, pending = set(), [start]
    while pending:
        for wait in targets.get(pending.pop(), []):
            thread = wait["target_thread"]
            if thread not in reached:
                reached.add(thread)
                pending.append(thread)
    return reached


def _deadlock(circle, calls, view):
    names = [wait["name"] for wait in circle]
    return {
        "chain": names + names[:1],
        "threads": [
            {
                "thread": wait["thread"],
                "name": wait["name"],
                "waits_for": wait["what"],
                "summary": _summary(wait, calls),
                "stack": view.threads[wait["thread"]]["stack"],
            }
            for wait in circle
        ],
    }


def place(frame):
    """Where in the source a frame is; empty if that is not known."""
    if frame is None:
        return ""
    if frame["file"]:
        return f" at {os.path.basename(frame['file'])}:{frame['line']}"
    return f" in {short(frame['function'])}"


def kind(call):
    """The type of a call's event with its name."""
    name = call["event_type_name"]
    return f"{call['event_type']} ({name})" if name else str(call["event_type"])


def _summary(wait, calls):
    where = place(wait["place"])
    if wait["kind"] == "lock":
        return f"wants {wait['what']}{where}, held by {wait['target']}"
    if wait["kind"] == "end":
        return f"waits for {wait['what']}{where}"
    call = next((c for c in calls if c["caller_thread"] == wait["thread"] and c["reply"]), None)
    if call is None:
        return f"waits for {wait['what']}{where}"
    parts = [f"synchronous send of type {kind(call)}{where} to {call['receiver']}"]
    if call["age_s"] is not None:
        parts.append(f"{call['age_s']:.1f} s")
    parts.append(_position(call))
    return ", ".join(parts)


def _position(call):
    if call["place"] == "handled":
        return "being handled"
    queue = f" in queue {call['queue']}" if call["queue"] else ""
    ahead = call["position"]
    if ahead == 0:
        return f"next to be handled{queue}"
    return f"behind {ahead} event{'s' if ahead > 1 else ''}{queue}"
