"""Stacks: which of their frames are the application's, and how they are shown. Pure functions over
the plain data that `threads` has read.
"""

import os
import re

# Libraries that come with the system or with the runtime, by the beginnings of their files' names.
LIBRARIES = (
    "libzor-", "libqv-win-util", "libc.", "libc-", "libstdc++", "libc++", "libgcc_s", "libpthread",
    "libm.", "libm-", "librt.", "libdl.", "ld-linux", "ld-2", "ld-musl", "libsystemd", "libasan",
    "libtsan", "libubsan", "linux-vdso", "linux-gate",
)
# Code of the runtime and of the standard library that the compiler has put into the application.
INLINED = re.compile(
    r"^(std|__gnu_cxx|zor|ht)::|^__gthread|^(IZORLogger|ITimer|TC[A-Z]\w*|TS[A-Z]\w*|ZOR\w*)\b"
)
HEADERS = re.compile(
    r"/(inc|zor-core)/(Alarm|Debug|DebugMenuUtility|Event|EventNotifyThread|Handler|Main|MultiQTask"
    r"|KeyCombinationLoggerRegistration|Queue|RWLock|ReleasedData|StateAlarm|Sync|TVInfoBox|Task"
    r"|TaskList|Thread|ThreadUtil|Timer|TimersScheduler|TrapPoint|WatchdogNotifier"
    r"|ZorFunctionIndices|ZorServiceDebug|ZorServiceDebugOverlay|TCDebugPrint|ZorApiLite|dlog|ht"
    r"|ht_trap|KeyCombination|brisk_deadlock)\.h$|/zor/\w+\.h$"
)
SYSTEM_HEADERS = re.compile(
    r"/include/([^/]+/)?c\+\+/|^/usr/include/([^/]+-linux-[^/]+/)?(bits/|sys/)?[^/]+\.h$"
)
# Where a thread begins, and what the kernel puts on a stack: nobody's.
ENDS = re.compile(r"^(_start|<signal handler called>|\?\?)$")


def is_application(frame):
    """Whether the frame is neither the runtime's nor the system's."""
    if os.path.basename(frame.get("module") or "").startswith(LIBRARIES):
        return False
    if ENDS.match(frame["function"]):
        return False
    if frame["file"]:
        if SYSTEM_HEADERS.search(frame["file"]):
            return False
        return not (HEADERS.search(frame["file"]) and INLINED.match(frame["function"]))
    return not INLINED.match(frame["function"])


def application_frame(stack):
    """The innermost frame of the application; None if there is none."""
    for frame in stack:
        if is_application(frame):
            return frame
    return None


def folded(stack):
    """The stack as (first level, last level, frame): other frames than the application's are one
    entry, whose frame is the one at its border to the application: what that has called, or what
    has called it."""
    entries = []
    for level, frame in enumerate(stack):
        if is_application(frame):
            entries.append((level, level, frame))
        elif entries and not is_application(entries[-1][2]):
            # Above the application's frames the last one stands for all, below them the first.
            first, _, border = entries[-1]
            below = _is_last(stack, level)
            entries[-1] = (first, level, border if below and first > 0 else frame)
        else:
            entries.append((level, level, frame))
    return entries


def _is_last(stack, level):
    return application_frame(stack[level:]) is None
