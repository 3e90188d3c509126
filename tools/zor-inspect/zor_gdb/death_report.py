"""How the process of a core has ended, from its notes and its memory. Pure functions."""

import os

from .names import short


def describe(target, snapshot, report):
    """The end of the process; None for a live one, and for a core that was taken of one."""
    if target.death is None:
        return None
    reason = snapshot.get("reason")
    by_thread = {thread["thread"]: thread for thread in report["threads"]}
    tasks = {task["thread"]: task for task in report["tasks"]}
    death = dict(target.death)
    death["reason"] = reason
    # Of the thread that the supervisor has ended the process for there is more to say than of the
    # supervisor's own.
    told = death["thread"]
    if reason and reason["kind"] == "watchdog" and reason["thread"] in by_thread:
        told = reason["thread"]
    if death["thread"] in tasks and tasks[death["thread"]]["hang"]:
        tasks[death["thread"]]["hang"]["running"] = None  # it did neither: it ended
    thread, task = by_thread.get(told), tasks.get(told)
    death["told_thread"] = told
    death["name"] = thread["name"] if thread else None
    death["task"] = task["name"] if task else None
    death["event"] = task["event"] if task else None
    death["stack"] = thread["stack"] if thread else []
    death["summary"] = _summary(death, reason)
    return death


def _summary(death, reason):
    kind = reason["kind"] if reason else None
    if kind == "assertion":
        expression = reason["expression"] or "an expression that memory no longer has"
        return f"died of a failed assertion: {expression}{_place(reason)} ({death['signal']})"
    if kind == "watchdog":
        who = f"thread '{reason['name']}' ({reason['thread']})"
        silent = f"{reason['silent_s']:.1f} s"
        return f"ended by the watchdog: no sign of life of {who} for {silent} ({death['signal']})"
    if kind == "terminate" and reason["type"]:
        what = f": {reason['what']}" if reason["what"] is not None else ""
        name = short(reason["type"])
        return f"died of an uncaught exception of type {name}{what} ({death['signal']})"
    if kind == "terminate":
        return f"died of std::terminate(), without an exception ({death['signal']})"
    return f"died of {death['signal']}{_fault(death)}"


def _place(reason):
    if not reason["file"]:
        return ""
    return f" at {os.path.basename(reason['file'])}:{reason['line']}"


def _fault(death):
    if death["address"] is not None:
        meaning = f": {death['meaning']}" if death["meaning"] else ""
        return f" at address {death['address']:#x}{meaning}"
    if death["meaning"]:
        return f": {death['meaning']}"
    if death["sender_pid"] and death["signal"] != "SIGABRT":
        return f", sent by process {death['sender_pid']}"
    return ""
