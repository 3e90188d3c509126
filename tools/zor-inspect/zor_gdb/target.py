"""What is to be inspected, looked at before gdb is started: most mistakes are found here, and said
in better words than gdb has."""

import os

from .problems import NO_PERMISSION, NO_PROGRAM, NO_TARGET, NOT_ZOR_CORE, USAGE, Problem

LIBRARY = "libzor-core.so"
ELF_MAGIC = b"\x7fELF"
ELF_TYPE_OFFSET = 16
ELF_TYPE_CORE = 4
ELF_DATA_OFFSET = 5
ELF_LITTLE_ENDIAN = 1


class Target:
    """A process or a core."""

    def __init__(self, pid=None, core=None, program=None):
        self.pid = pid
        self.core = core
        self.program = program
        self.mapped = []
        self.remarks = []

    def describe(self):
        return {
            "kind": "process" if self.pid else "core",
            "pid": self.pid,
            "core": self.core,
            "program": self.program,
        }


def find_target(text, program):
    """The target that the arguments name; raises Problem."""
    if text.isdigit() and not os.path.exists(text):
        return _process(int(text), program)
    return _core(text, program)


# Processes


def _status(pid):
    fields = {}
    with open(f"/proc/{pid}/status", encoding="utf-8", errors="replace") as file:
        for line in file:
            name, _, value = line.partition(":")
            fields[name] = value.strip()
    return fields


def _process(pid, program):
    try:
        status = _status(pid)
    except FileNotFoundError:
        raise Problem(NO_TARGET, f"there is no process {pid}") from None
    except ProcessLookupError:
        raise Problem(NO_TARGET, f"process {pid} has just ended") from None
    if status.get("Tgid") != str(pid):
        text = f"{pid} is a thread of process {status.get('Tgid')}; name the process"
        raise Problem(NO_TARGET, text)
    if status.get("State", "").startswith(("Z", "X")):
        raise Problem(NO_TARGET, f"process {pid} has ended; only its parent has not noticed yet")
    target = Target(pid=pid, program=program)
    _look_at_mappings(target)
    tracer = status.get("TracerPid", "0")
    if tracer != "0":
        text = f"process {pid} is being traced by process {tracer} already (a debugger?)"
        raise Problem(NO_PERMISSION, text)
    return target


def _look_at_mappings(target):
    pid = target.pid
    try:
        with open(f"/proc/{pid}/maps", encoding="utf-8", errors="replace") as file:
            lines = file.read().splitlines()
        executable = os.readlink(f"/proc/{pid}/exe")
    except PermissionError:
        raise Problem(NO_PERMISSION, refused(pid)) from None
    except (FileNotFoundError, ProcessLookupError):
        raise Problem(NO_TARGET, f"process {pid} has just ended") from None
    fields = [line.split(maxsplit=5) for line in lines]
    code = [f[5] for f in fields if len(f) == 6 and "x" in f[1] and f[5].startswith("/")]
    target.mapped = list(dict.fromkeys(code))
    target.program = target.program or executable
    if not any(LIBRARY in os.path.basename(path) for path in target.mapped):
        text = f"process {pid} ({executable}) is no zor-core process: it has no {LIBRARY}"
        raise Problem(NOT_ZOR_CORE, text)
    for path in target.mapped:
        if path.endswith(" (deleted)"):
            target.remarks.append(
                f"{path}: replaced since the process was started; what follows may be wrong"
            )


def refused(pid):
    """Why the kernel may have refused to let one process look into another."""
    text = f"process {pid} may not be looked into: it takes its user, or root"
    try:
        with open("/proc/sys/kernel/yama/ptrace_scope", encoding="utf-8") as file:
            scope = file.read().strip()
    except OSError:
        scope = "0"
    if scope != "0":
        text += (
            f"; /proc/sys/kernel/yama/ptrace_scope is {scope}, which also refuses"
            " processes that are no descendants (root is asked for)"
        )
    return text + "; in a container it may take the capability SYS_PTRACE"


# Cores


def _core(path, program):
    try:
        with open(path, "rb") as file:
            header = file.read(ELF_TYPE_OFFSET + 2)
    except FileNotFoundError:
        raise Problem(NO_TARGET, f"there is no process or file '{path}'") from None
    except OSError as error:
        code = NO_PERMISSION if isinstance(error, PermissionError) else NO_TARGET
        raise Problem(code, f"{path} cannot be read: {error.strerror}") from None
    if not _is_core(header):
        raise Problem(USAGE, f"{path} is no core file")
    if program is None:
        text = f"{path} is a core, which takes its program too: zor-inspect {path} PROGRAM"
        raise Problem(NO_PROGRAM, text)
    if not os.path.isfile(program):
        raise Problem(NO_PROGRAM, f"there is no program '{program}'")
    return Target(core=os.path.abspath(path), program=os.path.abspath(program))


def _is_core(header):
    if len(header) < ELF_TYPE_OFFSET + 2 or not header.startswith(ELF_MAGIC):
        return False
    order = "little" if header[ELF_DATA_OFFSET] == ELF_LITTLE_ENDIAN else "big"
    kind = int.from_bytes(header[ELF_TYPE_OFFSET : ELF_TYPE_OFFSET + 2], order)
    return kind == ELF_TYPE_CORE
