"""When the host platform's supervisor last heard of the threads it watches. Runs inside gdb."""

import gdb

from . import memory

INSTANCE = "_ZZN7zorhost12TCSupervisor8InstanceEvE8instance"


def signs_of_life():
    """The last sign of life of each watched thread, on the monotonic clock in nanoseconds, by the
    thread's kernel id; empty where the platform is another."""
    try:
        address = int(gdb.parse_and_eval(f"(unsigned long) &{INSTANCE}"))
        pointer = memory.object_at(address, "zorhost::TCSupervisor")["m_first"]
    except gdb.error:
        return {}
    found = {}
    while int(pointer) and len(found) < memory.LONGEST_LIST:
        watched = pointer.dereference()
        found[int(watched["tid"])] = memory.plain(watched["notifiedNsec"])
        pointer = watched["next"]
    return found
