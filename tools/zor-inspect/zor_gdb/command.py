"""The command line of zor-inspect."""

import argparse
import datetime
import json
import os
import signal
import sys
import tempfile

from . import analysis, death_report, problems, processes, records, session, text, typenames
from .target import find_target

SCHEMA_VERSION = 2

DESCRIPTION = """\
Shows what a zor-core daemon is doing, or was doing when it died: its tasks and queues, the
synchronous calls in progress and the deadlocks among them, timers, alarms, and who holds which
lock. The process does not help with that and need not be able to; it is stopped for a
fraction of a second while its memory is copied, and goes on; TMPDIR names where the copy goes.
"""

FOOTER = f"""\
{problems.TABLE}
Examples:
  zor-inspect $(cat /tmp/.zor-daemon.pid)
  zor-inspect --json 1234 | jq .deadlocks
  zor-inspect core.1234.zst
  zor-inspect --sysroot device/root core.1234 device/root/usr/bin/zor-tsmon
"""


class Parser(argparse.ArgumentParser):
    """Bad options have a code of their own."""

    def error(self, message):
        more = "Run 'zor-inspect --help' for more information."
        self.exit(problems.USAGE, f"zor-inspect: {message}\n{more}\n")


def _number(least):
    def parse(value):
        if not value.isdigit() or int(value) < least:
            raise argparse.ArgumentTypeError(f"'{value}' is no number from {least} on")
        return int(value)

    return parse


def _options(arguments, version):
    parser = Parser(
        prog="zor-inspect",
        description=DESCRIPTION,
        epilog=FOOTER,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    add = parser.add_argument
    add("target", metavar="PID|CORE", nargs="?",
        help="the process, or a core file, packed or not (default: the processes that there are are"
        " listed)")
    add("program", metavar="PROGRAM", nargs="?",
        help="the program of the core file (default: the core says where it was)")
    add("--json", action="store_true", help="print JSON instead of text")
    add("--stacks", action="store_true", help="print the stacks of all threads")
    add("--full-stacks", action="store_true",
        help="print every frame, those of the runtime and of the system too")
    add("--events", metavar="N", type=_number(0), default=20,
        help="events of a queue that the text shows (default: 20)")
    add("--records", metavar="N", type=_number(0), default=10,
        help="records to show of the recording that the process makes (default: 10)")
    add("--record-file", metavar="FILE",
        help="that recording (default: what ZOR_RECORD says in the process)")
    add("--types", metavar="FILE",
        help="names of event types, in lines such as '101 EV_ASK' (default: what the debug"
        " information has in the receivers' classes)")
    add("--sysroot", metavar="DIR", help="where the libraries of a core from another machine are")
    add("--gdb", metavar="GDB", default="gdb", help="the gdb to run (default: gdb)")
    add("--timeout", metavar="SECONDS", type=_number(1), default=120,
        help="how long gdb may take (default: 120)")
    add("--version", action="version", version=f"zor-inspect {version}")
    options = parser.parse_args(arguments)
    if options.target is None and options.json:
        parser.error("--json shows one process or core: name it")
    return options


def _report(target, snapshot, options, beside):
    typenames.apply(snapshot["model"], options.type_names, snapshot.get("type_names", {}))
    report = {
        "version": SCHEMA_VERSION,
        "time": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="milliseconds"),
        "target": target.describe(),
        "stopped_seconds": snapshot.get("stopped_seconds"),
    }
    report.update(
        analysis.analyse(snapshot["model"], snapshot["clocks"], _activity(target, snapshot))
    )
    report["death"] = death_report.describe(target, snapshot, report)
    report["remarks"] = target.remarks + report["remarks"]
    report["records"] = None
    if options.records:
        path = records.find_recording(target, snapshot.get("environment"), options.record_file)
        if path:
            tool = records.find_tool(beside)
            report["records"] = records.last_records(path, options.records, tool, options.types)
    return report


def _activity(target, snapshot):
    """What is known of the threads' processor time, by thread."""
    known = snapshot.get("activity", {})
    if any(target.cpu_seconds.values()):  # a core that a debugger has made has none
        known = {
            str(tid): {"state": None, "cpu_s": used, "share": None}
            for tid, used in target.cpu_seconds.items()
            if tid != target.own_pid  # that is the sum of all
        }
    return known


def _without_stacks(report):
    """Stacks are most of a report; those of a deadlock stay."""
    for thread in report["threads"]:
        del thread["stack"]


def _interrupt(_signal, _frame):
    raise KeyboardInterrupt


def run(arguments, beside, version):
    """The whole tool; returns its exit code.

    beside: the folder of the command, where zor-record is looked for first
    """
    options = _options(arguments, version)
    # A tool that is told to end must not leave a gdb behind that holds the process.
    signal.signal(signal.SIGTERM, _interrupt)
    try:
        options.type_names = typenames.read_file(options.types) if options.types else {}
        if options.target is None:
            return _list_processes()
        with tempfile.TemporaryDirectory(prefix="zor-inspect-") as folder:
            target = find_target(options.target, options.program, options.sysroot, folder)
            snapshot = session.take_snapshot(target, options, folder)
        report = _report(target, snapshot, options, beside)
    except problems.Problem as problem:
        print(f"zor-inspect: {problem}", file=sys.stderr)
        return problem.code
    except KeyboardInterrupt:
        print("zor-inspect: interrupted", file=sys.stderr)
        return problems.FAILED
    return _print(report, options)


def _list_processes():
    found, refused = processes.find()
    sys.stdout.write(processes.render(found, refused))
    return problems.OK if found else problems.NO_TARGET


def _print(report, options):
    try:
        if options.json:
            if not options.stacks:
                _without_stacks(report)
            json.dump(report, sys.stdout, indent=2)
            print()
        else:
            shown = (options.events, options.stacks, options.full_stacks)
            sys.stdout.write(text.render(report, *shown))
        sys.stdout.flush()
    except BrokenPipeError:  # `| head` has seen enough
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    return problems.OK
