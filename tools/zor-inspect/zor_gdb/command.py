"""The command line of zor-inspect."""

import argparse
import datetime
import json
import os
import signal
import sys

from . import analysis, problems, records, session, text
from .target import find_target

SCHEMA_VERSION = 1

DESCRIPTION = """\
Shows what a zor-core daemon is doing, or was doing when it died: its tasks and queues, the
synchronous calls in progress and the deadlocks among them, timers, alarms, and who holds which
lock. The process does not help with that and need not be able to; it is stopped while its memory is
read, for a fraction of a second, and goes on.
"""

FOOTER = f"""\
{problems.TABLE}
Examples:
  zor-inspect $(cat /tmp/.zor-daemon.pid)
  zor-inspect --json 1234 | jq .deadlocks
  zor-inspect core.1234 /usr/bin/zor-tsmon
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
    add("target", metavar="PID|CORE", help="the process, or a core file")
    add("program", metavar="PROGRAM", nargs="?", help="the program of the core file")
    add("--json", action="store_true", help="print JSON instead of text")
    add("--stacks", action="store_true", help="print the stacks of all threads")
    add("--events", metavar="N", type=_number(0), default=20,
        help="events of a queue that the text shows (default: 20)")
    add("--records", metavar="N", type=_number(0), default=10,
        help="records to show of the recording that the process makes (default: 10)")
    add("--record-file", metavar="FILE",
        help="that recording (default: what ZOR_RECORD says in the process)")
    add("--sysroot", metavar="DIR", help="where the libraries of a core from another machine are")
    add("--gdb", metavar="GDB", default="gdb", help="the gdb to run (default: gdb)")
    add("--timeout", metavar="SECONDS", type=_number(1), default=120,
        help="how long gdb may take (default: 120)")
    add("--version", action="version", version=f"zor-inspect {version}")
    return parser.parse_args(arguments)


def _report(target, snapshot, options, beside):
    report = {
        "version": SCHEMA_VERSION,
        "time": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="milliseconds"),
        "target": target.describe(),
        "stopped_seconds": snapshot.get("stopped_seconds"),
    }
    report.update(analysis.analyse(snapshot["model"], snapshot["clocks"]))
    report["remarks"] = target.remarks + report["remarks"]
    report["records"] = None
    if options.records:
        path = records.find_recording(target, snapshot.get("environment"), options.record_file)
        if path:
            tool = records.find_tool(beside)
            report["records"] = records.last_records(path, options.records, tool)
    return report


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
        target = find_target(options.target, options.program)
        report = _report(target, session.take_snapshot(target, options), options, beside)
    except problems.Problem as problem:
        print(f"zor-inspect: {problem}", file=sys.stderr)
        return problem.code
    except KeyboardInterrupt:
        print("zor-inspect: interrupted", file=sys.stderr)
        return problems.FAILED
    return _print(report, options)


def _print(report, options):
    try:
        if options.json:
            if not options.stacks:
                _without_stacks(report)
            json.dump(report, sys.stdout, indent=2)
            print()
        else:
            sys.stdout.write(text.render(report, options.events, options.stacks))
        sys.stdout.flush()
    except BrokenPipeError:  # `| head` has seen enough
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    return problems.OK
