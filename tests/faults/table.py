#!/usr/bin/env python3
"""Compares the table of fault cases in README.md with the cases that really run, or rewrites it.

Runs the test programs, takes the cases of the tests that passed, and looks at the calls that the
library imports: each must have a case, or stand in exempt.txt with the reason why it has none.
"""

import argparse
import difflib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

FOLDER = pathlib.Path(__file__).resolve().parent
README = FOLDER / "README.md"
EXEMPT = FOLDER / "exempt.txt"
BEGIN = "<!-- written by table.py from the tests that ran -->"
END = "<!-- end of what table.py wrote -->"
HOW_TO_MEND = "run: cmake --build --preset dev --target fault-table"

# Functions of the C++ library and of the platform: what they can throw is what operator new throws,
# and the calls below them have cases of their own.
CPP_NAMES = re.compile(r"_Z(?!n[wa]).*|__cxa_.*|__gxx_.*|_Unwind_.*|__dynamic_cast|_ITM_.*|__once_.*|__gmon_start__")
OPERATOR_NEW = {"_Znwm": "operator new", "_Znam": "operator new[]",
                "_ZnwmRKSt9nothrow_t": "operator new (nothrow)"}


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("programs", nargs="+", help="the test programs")
    parser.add_argument("--library", required=True, help="the runtime's library")
    parser.add_argument("--nm", default="nm", help="the program of that name")
    parser.add_argument("--write", action="store_true", help="rewrite README.md")
    return parser.parse_args()


def cases_of(program):
    """The (call, place, outcome) of each test of a program; all of them must pass."""
    with tempfile.TemporaryDirectory() as directory:
        report = pathlib.Path(directory) / "report.json"
        done = subprocess.run([program, "--gtest_brief=1", f"--gtest_output=json:{report}"],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace", check=False)
        if done.returncode != 0:
            sys.exit(f"{program} ended with {done.returncode}; a table is made of tests that pass:\n"
                     f"{done.stdout}")
        suites = json.loads(report.read_text(encoding="utf-8"))["testsuites"]
    tests = [test for suite in suites for test in suite["testsuite"] if test["status"] == "RUN"]
    without = [test["name"] for test in tests if "call" not in test]
    if without:
        sys.exit(f"{program}: these tests declare no FaultCase: {', '.join(without)}")
    return [(test["call"], test["place"], test["outcome"]) for test in tests]


def exempt_calls():
    """What exempt.txt says: {call: reason}. A line without indentation is a reason, the indented
    lines behind it are its calls."""
    reasons = {}
    reason = ""
    for line in EXEMPT.read_text(encoding="utf-8").splitlines():
        if line.startswith(" "):
            reasons.update({call: reason for call in line.split()})
        elif line and not line.startswith("#"):
            reason = line
    return reasons


def imported_calls(nm, library):
    """What the library calls outside of itself, by the names that the cases use."""
    listing = subprocess.run([nm, "-D", "--undefined-only", library], stdout=subprocess.PIPE,
                             text=True, check=True).stdout
    symbols = {line.split()[-1].split("@")[0] for line in listing.splitlines()}
    return {OPERATOR_NEW.get(symbol, symbol) for symbol in symbols if not CPP_NAMES.fullmatch(symbol)}


def check_coverage(cases, imported, exempt):
    covered = {call for calls, _, _ in cases for call in calls.split(", ")}
    problems = [f"{call} is called by the runtime, but no case makes it fail and exempt.txt gives no "
                "reason" for call in sorted(imported - covered - exempt.keys())]
    problems += [f"{call} has cases and is in exempt.txt" for call in sorted(covered & exempt.keys())]
    problems += [f"{call} is in exempt.txt, but the runtime does not call it"
                 for call in sorted(exempt.keys() - imported)]
    if problems:
        sys.exit("\n".join(problems))


def render(cases, exempt):
    def row(*cells):
        return "| " + " | ".join(cell.replace("|", "\\|") for cell in cells) + " |"

    lines = [row("call", "place", "outcome"), "|---|---|---|"]
    lines += [row(", ".join(f"`{name}`" for name in call.split(", ")), place, outcome)
              for call, place, outcome in sorted(set(cases), key=lambda case: (case[0].lower(), case))]
    lines += ["", f"{len(set(cases))} cases.", "", row("call without a case", "reason"), "|---|---|"]
    for reason in dict.fromkeys(exempt.values()):
        calls = sorted(call for call, its in exempt.items() if its == reason)
        lines.append(row(", ".join(f"`{call}`" for call in calls), reason))
    return "\n".join(lines)


def main():
    options = arguments()
    os.environ["ZOR_DLOG"] = "none"
    cases = [case for program in options.programs for case in cases_of(program)]
    exempt = exempt_calls()
    check_coverage(cases, imported_calls(options.nm, options.library), exempt)

    text = README.read_text(encoding="utf-8")
    before, rest = text.split(BEGIN)
    _, after = rest.split(END)
    wanted = f"{before}{BEGIN}\n\n{render(cases, exempt)}\n\n{END}{after}"
    if options.write:
        README.write_text(wanted, encoding="utf-8")
    elif text != wanted:
        diff = difflib.unified_diff(text.splitlines(), wanted.splitlines(), "README.md",
                                    "what ran", lineterm="", n=0)
        sys.exit("\n".join(diff) + f"\nThe table is not what ran; {HOW_TO_MEND}")
    print(f"{len(set(cases))} fault cases")


if __name__ == "__main__":
    main()
