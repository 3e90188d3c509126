"""What is to be inspected, looked at before gdb is started: most mistakes are found here, and said
in better words than gdb has."""

import os
import signal

from . import corefile
from .problems import NO_PERMISSION, NO_PROGRAM, NO_TARGET, NOT_ZOR_CORE, USAGE, Problem
from .unpack import unpacked

LIBRARY = "libzor-core.so"
DELETED = " (deleted)"


class Target:
    """A process or a core."""

    def __init__(self, pid=None, core=None, program=None):
        self.pid = pid
        self.core = core  # as it was named
        self.core_file = core  # unpacked
        self.program = program
        self.root = None  # where the files of the process are, if it sees others than this tool
        self.own_pid = pid  # as the process itself has it
        self.mapped = []
        self.remarks = []
        self.death = None  # of a core: what its notes say of the end of the process
        self.cpu_seconds = {}  # of a core: by thread

    def describe(self):
        return {
            "kind": "process" if self.pid else "core",
            "pid": self.pid,
            "core": self.core,
            "program": self.program,
        }


def find_target(text, program, sysroot, folder):
    """The target that the arguments name; raises Problem.

    folder: where a packed core is unpacked
    """
    if text.isdigit() and not os.path.exists(text):
        return _process(int(text), program)
    return _core(text, program, sysroot, folder)


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
    target.own_pid = int(status.get("NSpid", str(pid)).split()[-1])
    target.root = root_of(pid)
    _look_at_mappings(target)
    tracer = status.get("TracerPid", "0")
    if tracer != "0":
        text = f"process {pid} is being traced by process {tracer} already (a debugger?)"
        raise Problem(NO_PERMISSION, text)
    return target


def root_of(pid):
    """Where the files of a process are that has a root or mounts of its own; None if they are where
    everybody's are."""
    root = f"/proc/{pid}/root"
    try:
        same = os.path.samefile(f"/proc/{pid}/ns/mnt", "/proc/self/ns/mnt")
        return None if same and os.path.samefile(root, "/") else root
    except OSError:
        return None  # said better when its memory is asked for


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
    target.mapped = [(target.root or "") + path for path in dict.fromkeys(code)]
    target.program = target.program or (target.root or "") + executable
    if not any(LIBRARY in os.path.basename(path) for path in target.mapped):
        text = f"process {pid} ({executable}) is no zor-core process: it has no {LIBRARY}"
        raise Problem(NOT_ZOR_CORE, text)
    for path in target.mapped:
        if path.endswith(DELETED):
            target.remarks.append(
                f"{path}: replaced since the process was started; what follows may be wrong"
            )


def refused(pid):
    """Why the kernel may have refused to let one process look into another."""
    text = f"permission denied: process {pid} may not be looked into"
    if os.geteuid() != 0:
        text += "; run zor-inspect as its user, or as root"
    try:
        with open("/proc/sys/kernel/yama/ptrace_scope", encoding="utf-8") as file:
            scope = file.read().strip()
    except OSError:
        scope = "0"
    if scope != "0":
        text += (
            f"; /proc/sys/kernel/yama/ptrace_scope is {scope}: only root may look into processes"
            " that it has not started itself"
        )
    return text + "; in a container the capability SYS_PTRACE may be missing"


# Cores


def _core(path, program, sysroot, folder):
    try:
        file = unpacked(path, folder)
        with corefile.Core(file) as core:
            return _core_target(path, file, core, program, sysroot)
    except FileNotFoundError:
        raise Problem(NO_TARGET, f"there is no process or file '{path}'") from None
    except OSError as error:
        code = NO_PERMISSION if isinstance(error, PermissionError) else NO_TARGET
        raise Problem(code, f"{error.strerror}: {path} cannot be read") from None
    except corefile.Damaged:
        raise Problem(USAGE, f"{path} is no core file") from None


def _core_target(path, file, core, program, sysroot):
    target = Target(core=os.path.abspath(path))
    target.core_file = os.path.abspath(file)
    target.own_pid = core.pid
    target.cpu_seconds = core.cpu_seconds
    target.death = _death(core)
    own = core.program()
    target.program = os.path.abspath(program) if program else _program_here(path, own, sysroot)
    if not os.path.isfile(target.program):
        raise Problem(NO_PROGRAM, f"there is no program '{target.program}'")
    _compare_builds(target, core, own, sysroot or "")
    return target


def _program_here(path, own, sysroot):
    """The program of the core, where this machine has it."""
    take = f"name it: zor-inspect {path} PROGRAM"
    if own is None:
        raise Problem(NO_PROGRAM, f"{path} does not say which program it is of; {take}")
    here = (sysroot or "") + own
    if own.endswith(corefile.DELETED):
        name = own.removesuffix(corefile.DELETED)
        text = f"{name} had been replaced when {path} was made; {take}"
        raise Problem(NO_PROGRAM, text)
    if not os.path.isfile(here):
        raise Problem(NO_PROGRAM, f"{path} is of {own}, and there is no '{here}' here; {take}")
    return here


def _compare_builds(target, core, own, sysroot):
    """The files here must be those that the process had mapped: of others every fact is wrong."""
    for path, build in core.build_ids().items():
        here = target.program if path == own else sysroot + path
        build_here = corefile.build_id_of_file(here)
        if build_here is None or build_here == build:
            continue
        if path == own:
            text = f"{here} is not the program of {target.core}: that is {own}, build id {build}"
            raise Problem(NO_PROGRAM, text)
        remark = f"{here}: another build than the process had; what follows may be wrong"
        target.remarks.append(remark)


def _death(core):
    """The signal that ended the process; None if none did: the core was taken from a living one."""
    try:
        name = signal.Signals(core.signal).name
    except ValueError:
        return None
    if name not in DEADLY or not core.threads:
        return None
    death = {"number": core.signal, "signal": name, "thread": core.threads[0]}
    death |= {"meaning": None, "address": None, "sender_pid": None}
    details = core.signal_details()
    if details:
        code, address, sender = details
        if code in SENT:
            death["sender_pid"] = sender
        elif name in FAULTS:
            death["meaning"] = MEANINGS.get((name, code))
            death["address"] = None if code == BY_THE_KERNEL else address
    return death


# Signals that end a process with a core.
DEADLY = ("SIGQUIT", "SIGILL", "SIGTRAP", "SIGABRT", "SIGBUS", "SIGFPE", "SIGSEGV", "SIGXCPU",
          "SIGXFSZ", "SIGSYS")
FAULTS = ("SIGSEGV", "SIGBUS", "SIGILL", "SIGFPE")
SENT = (0, -1, -6)  # by kill, sigqueue, and within the process
BY_THE_KERNEL = 128
MEANINGS = {
    ("SIGSEGV", 1): "there is no memory",
    ("SIGSEGV", 2): "the memory may not be used so",
    ("SIGSEGV", BY_THE_KERNEL): "an address that there cannot be",
    ("SIGBUS", 1): "the address is not aligned",
    ("SIGBUS", 2): "there is nothing behind the memory, such as a file that was cut off",
    ("SIGFPE", 1): "a division of an integer by zero",
    ("SIGFPE", 2): "an overflow of an integer",
}
