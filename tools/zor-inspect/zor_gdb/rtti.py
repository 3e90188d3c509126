"""The class of an object, from its virtual table: true also where the application's program comes
without debug information. Runs inside gdb; follows the Itanium C++ ABI.
"""

import functools

import gdb

from . import memory

SINGLE_BASE = "__si_class_type_info"
SEVERAL_BASES = "__vmi_class_type_info"


@functools.lru_cache(maxsize=None)
def symbol_at(address):
    text = gdb.execute(f"info symbol {address:#x}", to_string=True)
    return "" if text.startswith("No symbol") else text.split(" in section ")[0].strip()


@functools.lru_cache(maxsize=None)
def mangled(type_info):
    return memory.c_string_at(memory.pointer_at(type_info + memory.pointer_size())).lstrip("*")


@functools.lru_cache(maxsize=None)
def _bases(type_info):
    """The type informations of the direct bases."""
    size = memory.pointer_size()
    kind = symbol_at(memory.pointer_at(type_info))
    if SINGLE_BASE in kind:
        return [memory.pointer_at(type_info + 2 * size)]
    if SEVERAL_BASES in kind:
        count = memory.integer(memory.read(type_info + 2 * size + 4, 4), 0, 4)
        table = type_info + 2 * size + 8
        return [memory.pointer_at(table + i * 2 * size) for i in range(min(count, 64))]
    return []


@functools.lru_cache(maxsize=None)
def _ancestors(type_info):
    names = {mangled(type_info)}
    for base in _bases(type_info):
        names |= _ancestors(base)
    return names


def only_ancestors(type_info):
    """The mangled names of the type and of its bases, as far as each has one base only: all of them
    begin at the same address."""
    names = {mangled(type_info)}
    while symbol_at(memory.pointer_at(type_info)).find(SINGLE_BASE) >= 0:
        type_info = _bases(type_info)[0]
        names.add(mangled(type_info))
    return names


def name_of(type_info):
    """The type that a type information describes."""
    return _demangled(mangled(type_info))


@functools.lru_cache(maxsize=None)
def _demangled(name):
    try:
        # gdb may add a line about the language of the frame.
        text = gdb.execute(f"demangle -l c++ -- _ZTS{name}", to_string=True).splitlines()[0]
    except (gdb.error, IndexError):
        return name
    return text.removeprefix("typeinfo name for ")


def _type_info(address):
    return memory.pointer_at(memory.pointer_at(address) - memory.pointer_size())


def class_name(address):
    """The class of the whole object that the object at the address is part of; None if it cannot
    be told."""
    try:
        return _demangled(mangled(_type_info(address)))
    except (gdb.error, gdb.MemoryError):
        return None


def is_a(address, name):
    """Whether the whole object derives from the class of that name, which is in no namespace."""
    try:
        return f"{len(name)}{name}" in _ancestors(_type_info(address))
    except (gdb.error, gdb.MemoryError):
        return False
