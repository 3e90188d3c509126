"""The table of layouts that the library exports, and what can be read by it alone: that is there in a
stripped library, too. Runs inside gdb.
"""

import struct

import gdb

from . import memory

SYMBOL = "zor_core_layout"
MAGIC = b"zor-core-layout\0"
FORMAT = 1
HEAD_SIZE = 64
NAME_SIZE = 48
MOST = 4096  # a damaged table must not make the tool read for minutes
COMPLETE = 2  # state of the record of a failed assertion


class Missing(Exception):
    """There is no table, or not what is looked for in it."""


class Layout:
    """The table, read once."""

    def __init__(self):
        table = _address_of_table()
        data = memory.read(table, HEAD_SIZE)
        order = "<" if memory.byte_order() == "little" else ">"
        form, _ = struct.unpack_from(f"{order}II", data, 16)
        if data[:16] != MAGIC or form != FORMAT:
            raise Missing(f"{SYMBOL} is no table of this tool's format")
        self.version = _text(data[24:40])
        at = struct.unpack_from(f"{order}6I", data, 40)
        pointer = "Q" if memory.word_size() == 8 else "I"
        objects = _rows(table, at[0:3], f"{order}{NAME_SIZE}s{pointer}")
        entries = _rows(table, at[3:6], f"{order}{NAME_SIZE}s3I")
        self._objects = {_text(name): address for name, address in objects}
        self._entries = {_text(name): (offset, size) for name, offset, size, _ in entries}

    def object(self, name):
        """The address of an object of the process."""
        try:
            return self._objects[name]
        except KeyError:
            raise Missing(f"the table of layouts has no {name}") from None

    def read(self, begin, name):
        """The bytes of a member of the object at begin."""
        try:
            offset, size = self._entries[name]
        except KeyError:
            raise Missing(f"the table of layouts has no {name}") from None
        return memory.read(begin + offset, size)

    def number(self, begin, name, signed=False):
        data = self.read(begin, name)
        return memory.integer(data, 0, len(data), signed)

    def text(self, begin, name):
        return _text(self.read(begin, name))

    def failed_assertion(self):
        """The first assertion that failed, as the process has recorded it; None if none did."""
        record = self.object("zor_core_failed_assertion")
        if self.number(record, "zor::FailedAssertion.state") != COMPLETE:
            return None
        return {
            "thread": self.number(record, "zor::FailedAssertion.thread", signed=True),
            "name": self.text(record, "zor::FailedAssertion.threadName"),
            "expression": self.text(record, "zor::FailedAssertion.expression"),
            "file": self.text(record, "zor::FailedAssertion.file"),
            "line": self.number(record, "zor::FailedAssertion.line"),
        }


    def offset(self, name):
        try:
            return self._entries[name][0]
        except KeyError:
            raise Missing(f"the table of layouts has no {name}") from None

    def tasks(self):
        """The registered tasks, oldest first, as far as they can be read."""
        found = []
        head = self.object("TCTaskList::m_taskList")
        node = self.number(head, "std::list.next")
        while node != head and len(found) < memory.LONGEST_LIST:
            task = self.number(node, "std::list.value")
            try:
                found.append(self._task(task))
            except gdb.MemoryError:
                pass  # it may be gone, or be damaged
            node = self.number(node, "std::list.next")
        return found

    def _task(self, task):
        thread = self.number(task + self.offset("TCTask:TCThread"), "TCThread.m_kernelId", True)
        receiver = self.number(task, "TCTask.m_handledEvents.m_receiver")
        return {
            "name": self.text(task, "TCTask.m_taskName"),
            "thread": thread if thread > 0 else None,
            "queued": self.number(task + self.offset("TCTask:TCQueue"), "TCQueue.m_count"),
            "handled": self.number(task, "TCTask.m_handledEvents.m_count"),
            "in_hand": self.number(task, "TCTask.m_handledEvents.m_type") if receiver else None,
            "paused": bool(self.number(task, "TCTask.m_paused")),
        }


def what_it_tells():
    """What can be said of a process by the table alone."""
    told = {"assertion": failed_assertion(), "tasks": []}
    try:
        told["tasks"] = Layout().tasks()
    except (Missing, gdb.error, gdb.MemoryError):
        pass
    return told


def failed_assertion():
    """What Layout says, as far as there is a table that can be read; None if not."""
    try:
        return Layout().failed_assertion()
    except (Missing, gdb.error, gdb.MemoryError):
        return None


def _address_of_table():
    try:
        return int(gdb.parse_and_eval(f"(unsigned long)&{SYMBOL}"))
    except gdb.error:
        raise Missing(f"the library has no {SYMBOL}") from None


def _rows(table, where, form):
    begin, size, count = where
    row = struct.Struct(form)
    if size < row.size or count > MOST:
        raise Missing(f"{SYMBOL} is damaged")
    data = memory.read(table + begin, size * count)
    return [row.unpack_from(data, i * size) for i in range(count)]


def _text(data):
    return data.split(b"\0")[0].decode("utf-8", "replace")
