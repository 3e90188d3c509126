"""Access to the memory and the types of the process. Runs inside gdb."""

import functools

import gdb

# A damaged pointer must not make the tool read for minutes.
LONGEST_STRING = 4096
LONGEST_LIST = 4096


@functools.lru_cache(maxsize=None)
def type_named(name):
    """The type of that name; gdb.error if the debug information is missing."""
    return gdb.lookup_type(name).strip_typedefs()


@functools.lru_cache(maxsize=None)
def byte_order():
    return "big" if "big endian" in gdb.execute("show endian", to_string=True) else "little"


@functools.lru_cache(maxsize=None)
def pointer_size():
    return type_named("TCThread").pointer().sizeof


@functools.lru_cache(maxsize=None)
def word_size():
    """Of a pointer, where there is no debug information to ask."""
    return gdb.lookup_type("long").sizeof


def read(address, size):
    if not 0 <= address < 1 << 8 * word_size():
        raise gdb.MemoryError(f"there is no memory at {address:#x}")  # a null table's entry
    return bytes(gdb.selected_inferior().read_memory(address, size))


def integer(data, offset, size, signed=False):
    return int.from_bytes(data[offset : offset + size], byte_order(), signed=signed)


def pointer_at(address):
    size = pointer_size()
    return integer(read(address, size), 0, size)


def c_string_at(address):
    data = bytearray()
    while len(data) < LONGEST_STRING:
        chunk = read_up_to(address + len(data), 64)
        end = chunk.find(b"\0")
        if end >= 0:
            data += chunk[:end]
            break
        data += chunk
    return data.decode("utf-8", "replace")


def read_up_to(address, size):
    """At most size bytes: what follows may belong to nobody."""
    try:
        return read(address, size)
    except gdb.MemoryError:
        return read(address, 1)


def object_at(address, type_name):
    return gdb.Value(address).cast(type_named(type_name).pointer()).dereference()


def address_of(value):
    return int(value.address)


def plain(value):
    """The integer in a std::atomic."""
    while value.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
        fields = [field for field in value.type.strip_typedefs().fields() if not static(field)]
        value = value[fields[-1]]
    return int(value)


def static(field):
    return not hasattr(field, "bitpos")


def char_array(value):
    """The text in a fixed array that ends at its first NUL."""
    data = read(address_of(value), value.type.sizeof)
    return data.split(b"\0")[0].decode("utf-8", "replace")


def reference(value):
    """What a reference stands for; anything else is itself."""
    is_reference = value.type.strip_typedefs().code == gdb.TYPE_CODE_REF
    return value.referenced_value() if is_reference else value


def variable(name):
    return reference(gdb.parse_and_eval(name))


@functools.lru_cache(maxsize=None)
def offset(type_name, *path):
    """Where a field is in its type; each name of the path is a field of the one before."""
    current = type_named(type_name)
    total = 0
    for name in path:
        field_offset, current = _find(current, name)
        total += field_offset
    return total


def _find(type_, name):
    for field in type_.fields():
        if field.name == name and not static(field):
            return field.bitpos // 8, field.type.strip_typedefs()
    for field in type_.fields():
        if field.is_base_class:
            try:
                inner, found = _find(field.type.strip_typedefs(), name)
                return field.bitpos // 8 + inner, found
            except KeyError:
                pass
    raise KeyError(name)


# Types of the standard library, by the layout that its ABI fixes: not every compiler describes
# them.


def std_string(address):
    """The text of a std::string; None if it cannot be read."""
    try:
        length = pointer_at(address + pointer_size())
        if length > LONGEST_STRING:
            return None
        text = read(pointer_at(address), length) if length else b""
    except gdb.MemoryError:
        return None
    return text.decode("utf-8", "replace")


def std_list(value):
    """The pointers in a std::list of pointers."""
    head = address_of(value)
    items = []
    node = pointer_at(head)
    while node != head and len(items) < LONGEST_LIST:
        items.append(pointer_at(node + 2 * pointer_size()))
        node = pointer_at(node)
    return items


def std_tree(value):
    """The addresses of the values in a std::set or std::map, in order."""
    size = pointer_size()
    header = address_of(value) + size  # behind the comparison object
    found = []

    def walk(root):
        pending = []
        node = root
        while (node or pending) and len(found) < LONGEST_LIST:
            while node:
                pending.append(node)
                node = pointer_at(node + 2 * size)
            node = pending.pop()
            found.append(node + 4 * size)
            node = pointer_at(node + 3 * size)

    walk(pointer_at(header + size))
    return found


def std_vector(value, type_name):
    """The elements of a std::vector."""
    size = type_named(type_name).sizeof
    begin = pointer_at(address_of(value))
    end = min(pointer_at(address_of(value) + pointer_size()), begin + LONGEST_LIST * size)
    return [object_at(address, type_name) for address in range(begin, end, size)]
