"""Names for event types, from the enumerations in the receivers' classes. Runs inside gdb.

Looking a class up may make gdb read much of the debug information: this is done when the process
runs again, with the symbols that were read before it was stopped.
"""

import re

import gdb

RUNTIME = re.compile(r"^(TC(Task|MultiQTask|Handler|Thread|Queue|Alarm|StateAlarm)$|zor::)")
ENUMERATION = re.compile(r"\benum (?:class )?([^{;]*)\{([^}]*)\}")
TELLING = re.compile(r"ev|type|msg|message|request|command|job", re.IGNORECASE)
MOST_NAMES = 4096


def of_classes(classes):
    """For each of the classes the names of its event types, as {type: name}."""
    gdb.execute("set print type nested-type-limit 1", to_string=True)
    found = {}
    for inferior in gdb.inferiors():
        missing = [name for name in classes if name not in found]
        if not missing:
            break
        try:
            if inferior != gdb.selected_inferior():
                gdb.execute(f"inferior {inferior.num}", to_string=True)
            gdb.execute("set language c++", to_string=True)
        except gdb.error:
            continue
        for name in missing:
            names = _of_class(name)
            if names is not None:
                found[name] = names
    return found


def _of_class(name):
    """None if the class is in no debug information here."""
    try:
        type_ = gdb.lookup_type(name).strip_typedefs()
        bodies = [_body(each) for each in _own_classes(type_)]
    except gdb.error:
        return None
    values = {}
    for body in bodies:
        for head, text in ENUMERATION.findall(body):
            enumeration = head.rpartition(" : ")[0] or head
            for value, label in _values(text):
                values.setdefault(value, []).append((enumeration, label))
    names = {value: _chosen(labels) for value, labels in list(values.items())[:MOST_NAMES]}
    return {value: label for value, label in names.items() if label}


def _body(type_):
    """What gdb says of a class; not by its name, which no expression may have."""
    gdb.set_convenience_variable("zor_class", gdb.Value(0).cast(type_.pointer()))
    return gdb.execute("ptype/mt $zor_class", to_string=True)


def _own_classes(type_):
    """The class and its bases, but for the runtime's."""
    if RUNTIME.match(type_.name or ""):
        return []
    found = [type_]
    for field in type_.fields():
        if field.is_base_class:
            found += _own_classes(field.type.strip_typedefs())
    return found


def _values(text):
    """The (value, name) pairs of an enumeration's text."""
    value = -1
    for part in text.split(","):
        name, _, number = part.partition("=")
        try:
            value = int(number, 0) if number.strip() else value + 1
        except ValueError:
            return
        yield value, name.strip().rpartition("::")[2]


def _chosen(labels):
    """Of several enumerations that have the value the one that is named like one of events; none if
    that does not decide it."""
    own = [(enumeration.rpartition("::")[2], label) for enumeration, label in labels]
    names = {label for enumeration, label in own if TELLING.search(enumeration)}
    names = names or {label for _, label in labels}
    return names.pop() if len(names) == 1 else None
