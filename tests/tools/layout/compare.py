"""Compares the library's table of layouts with what the compiler says in its debug information. Runs
inside gdb, on the file: gdb -batch -nx -ex "python ..." libzor-core.so.
"""

import re
import struct
import sys

import gdb

HEAD = struct.Struct("=16sII16sIIIIII")
OBJECT = struct.Struct("=48sQ")
ENTRY = struct.Struct("=48sIII")
CLASS, BASE, UNSIGNED, SIGNED, BOOL, POINTER, TEXT, RECORD = range(8)

# What is named after the standard library's public classes, in the words of its insides.
NODE = "std::_List_node<TCTask const*>"
LIST_HEADER = "std::__detail::_List_node_header"
TREE_NODE = "std::_Rb_tree_node<TCTimersScheduler::TimerWakeupData>"
STANDARD = {
    "std::list.next": (NODE, "_M_next", POINTER),
    "std::list.size": (LIST_HEADER, "_M_size", UNSIGNED),
    "std::list.value": (NODE, "_M_storage", POINTER),
    "std::set.left": (TREE_NODE, "_M_left", POINTER),
    "std::set.right": (TREE_NODE, "_M_right", POINTER),
    "std::set.parent": (TREE_NODE, "_M_parent", POINTER),
    "std::set.value": (TREE_NODE, "_M_storage", RECORD),
}
WITHIN_MEMBERS = {  # in the type of such a member of ours
    "std::vector.begin": ("TCTimersScheduler", "m_scheduledTimers._M_impl._M_start", POINTER),
    "std::vector.end": ("TCTimersScheduler", "m_scheduledTimers._M_impl._M_finish", POINTER),
    "std::set.leftmost": ("TCTimersScheduler", "m_wakeups._M_t._M_impl._M_header._M_left", POINTER),
    "std::set.header": ("TCTimersScheduler", "m_wakeups._M_t._M_impl._M_header", RECORD),
    "std::set.size": ("TCTimersScheduler", "m_wakeups._M_t._M_impl._M_node_count", UNSIGNED),
}


def type_named(name):
    return gdb.lookup_type(name).strip_typedefs()


def find(type_, name):
    """Offset and type of a member of a class or of one of its bases."""
    for field in type_.fields():
        if field.name == name and hasattr(field, "bitpos"):
            return field.bitpos // 8, field.type.strip_typedefs()
    for field in type_.fields():
        if field.is_base_class:
            try:
                offset, found = find(field.type.strip_typedefs(), name)
                return field.bitpos // 8 + offset, found
            except KeyError:
                pass
    raise KeyError(f"{type_} has no {name}")


def follow(type_, path):
    offset = 0
    for name in path.split("."):
        step, type_ = find(type_, name)
        offset += step
    return offset, type_


def value_type(type_):
    """What is in an atomic, a duration or a point in time."""
    while re.match(r"std::(__)?(atomic|chrono::(duration|time_point))", str(type_.unqualified())):
        fields = [f for f in type_.fields() if hasattr(f, "bitpos")]
        type_ = fields[-1].type.strip_typedefs()
    return type_


def kind_of(type_):
    type_ = value_type(type_)
    if type_.code == gdb.TYPE_CODE_PTR:
        return POINTER
    if type_.code == gdb.TYPE_CODE_BOOL:
        return BOOL
    if type_.code == gdb.TYPE_CODE_ENUM:
        return UNSIGNED
    if type_.code == gdb.TYPE_CODE_ARRAY:
        return TEXT if str(type_.target().strip_typedefs()) == "char" else RECORD
    if type_.code == gdb.TYPE_CODE_INT:
        return UNSIGNED if "unsigned" in str(type_) else SIGNED
    return RECORD


def compiled(name):
    """Offset, size and kind of what has that name."""
    if name in STANDARD:
        owner, path, kind = STANDARD[name]
        offset, type_ = follow(type_named(owner), path)
        return offset, type_.sizeof, kind
    if name in WITHIN_MEMBERS:
        owner, path, kind = WITHIN_MEMBERS[name]
        offset, type_ = follow(type_named(owner), path)
        return offset - find(type_named(owner), path.split(".")[0])[0], type_.sizeof, kind
    base = re.fullmatch(r"(\w+):(\w+)", name)
    if base:
        return base_of(type_named(base[1]), base[2]) + (BASE,)
    owner, _, path = name.partition(".")
    if not path:
        return 0, type_named(owner).sizeof, CLASS
    offset, type_ = follow(type_named(owner), path)
    return offset, type_.sizeof, kind_of(type_)


def base_of(type_, name):
    for field in type_.fields():
        if field.is_base_class and field.name == name:
            return field.bitpos // 8, field.type.sizeof
    raise KeyError(f"{type_} has no base {name}")


def reader():
    """Reads the file at addresses, as it is loaded. Not by gdb, for which the room of thread-local
    variables may lie over what is there."""
    with open(gdb.current_progspace().filename, "rb") as file:
        data = file.read()
    begin, size, count = struct.unpack_from("=Q", data, 32) + struct.unpack_from("=HH", data, 54)
    parts = []
    for i in range(count):
        kind, _, offset, address, _, length = struct.unpack_from("=IIQQQQ", data, begin + i * size)
        if kind == 1:  # is loaded
            parts.append((address, offset, length))

    def read(at, wanted):
        for address, offset, length in parts:
            if address <= at and at + wanted <= address + length:
                return data[offset + at - address :][:wanted]
        raise KeyError(f"{at:#x} is not in the file")

    return read


def text(data):
    return data.split(b"\0")[0].decode()


def main():
    table = int(gdb.parse_and_eval("(unsigned long)&zor_core_layout"))
    read = reader()
    head = HEAD.unpack(read(table, HEAD.size))
    magic, form, size, _, objects_at, object_size, object_count, at, step, count = head
    problems = []
    if text(magic) != "zor-core-layout" or form != 1 or not count or not object_count:
        problems.append(f"this is no table: {head}")
    if size != int(gdb.parse_and_eval("sizeof(zor_core_layout)")):
        problems.append(f"the table has {size} bytes by its own account")
    names = []
    for i in range(object_count):
        names.append(text(OBJECT.unpack(read(table + objects_at + i * object_size, OBJECT.size))[0]))
    for i in range(count):
        raw, *stated = ENTRY.unpack(read(table + at + i * step, ENTRY.size))
        name = text(raw)
        names.append(name)
        try:
            actual = compiled(name)
        except (gdb.error, KeyError) as error:
            problems.append(f"{name}: {error}")
            continue
        if tuple(stated) != actual:
            problems.append(f"{name}: offset, size and kind are {actual}, not {tuple(stated)}")
    problems += [f"{name} is there twice" for name in set(names) if names.count(name) > 1]
    for problem in problems:
        print(problem)
    print(f"{count} entries, {len(problems)} problems")
    sys.stdout.flush()
    gdb.execute(f"quit {1 if problems else 0}")


main()
