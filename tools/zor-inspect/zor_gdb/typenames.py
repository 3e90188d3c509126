"""Gives event types their names: from a file, or from what gdb has found. Pure functions."""

from .problems import USAGE, Problem


def read_file(path):
    """The names in a file of lines such as `101 EV_ASK`; what follows a # is a remark."""
    names = {}
    try:
        with open(path, encoding="utf-8") as file:
            lines = file.read().splitlines()
    except (OSError, UnicodeDecodeError) as error:
        reason = getattr(error, "strerror", None) or "it is no text"
        raise Problem(USAGE, f"{reason}: the names of event types in '{path}'") from None
    for number, line in enumerate(lines, 1):
        words = line.partition("#")[0].split()
        if not words:
            continue
        try:
            value, name = words
            names[int(value, 0)] = name
        except ValueError:
            text = f"'{path}', line {number}: not a number and a name, as in '101 EV_ASK'"
            raise Problem(USAGE, text) from None
    return names


def events_of(model):
    """All events of a snapshot."""
    for task in model["tasks"]:
        if task["event"]:
            yield task["event"]
        for queue in task["queues"]:
            yield from queue["events"]


def classes_without_names(model):
    """The classes whose events have types that the runtime does not name."""
    events = [event for event in events_of(model) if not event["type_name"]]
    return sorted({e["receiver"]["class"] for e in events if e["receiver"]["class"]})


def apply(model, from_file, from_classes):
    """Names the types that the runtime has no names for."""
    for event in events_of(model):
        if event["type_name"]:
            continue
        names = from_classes.get(event["receiver"]["class"], {})
        # JSON has made text of the numbers.
        event["type_name"] = from_file.get(event["type"]) or names.get(str(event["type"]))
