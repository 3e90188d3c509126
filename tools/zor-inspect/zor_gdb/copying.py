"""A copy of a process's registers and memory, taken while it is stopped: a core that gdb makes. Runs
inside gdb."""

import os

import gdb

# A process stands still while it is copied, half a millisecond and more for each million of bytes, and
# the copy takes room.
MOST_BYTES = 256 << 20
ROOM = 32 << 20  # beside the memory: the notes, and what is mapped meanwhile
ANONYMOUS = 3  # the bits of /proc/PID/coredump_filter for memory that comes from no file


def hindrance(pid, path):
    """Why the process had better not be copied to that path; None if nothing is in the way."""
    try:
        with open(f"/proc/{pid}/coredump_filter", encoding="ascii") as file:
            if int(file.read(), 16) & ANONYMOUS != ANONYMOUS:
                return "its coredump_filter leaves memory out"
        size = _writable(pid)
        folder = os.statvfs(os.path.dirname(path))
    except (OSError, ValueError) as error:
        return str(error)
    if size > MOST_BYTES:
        return f"it has {size >> 20} MB to copy, more than {MOST_BYTES >> 20}"
    if folder.f_bavail * folder.f_frsize < size + ROOM:
        return f"there is no room for {size >> 20} MB in {os.path.dirname(path)}"
    return None


def _writable(pid):
    """How much of its memory may have been written to, in bytes."""
    size = 0
    with open(f"/proc/{pid}/maps", encoding="utf-8", errors="replace") as file:
        for line in file:
            addresses, rights = line.split(maxsplit=2)[:2]
            if "w" in rights:
                start, end = (int(address, 16) for address in addresses.split("-"))
                size += end - start
    return size


def copy(path):
    """Copies the process, which is stopped.

    Returns why it could not be copied; None if it was.
    """
    try:
        gdb.execute("set use-coredump-filter on")
        said = gdb.execute(f"generate-core-file {path}", to_string=True)
    except gdb.error as error:
        return str(error)
    if "Saved corefile" not in said:
        return said.strip() or "gdb did not say why"
    return None
