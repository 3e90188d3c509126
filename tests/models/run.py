#!/usr/bin/env python3
"""Checks one model with SPIN, as it stands or with one of its guards taken away.

The exit code is 0 if the verdict is the expected one: no error and a complete search with all
guards, an error without one of them.
"""

import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

SEARCH_DEPTH = 1000000
MEMORY_MIB = 900

# Every interleaving is searched, without partial-order reduction: the models ask for `timeout`,
# which depends on all processes.
COMPILE = ["-O2", "-w", "-DSAFETY", "-DNOREDUCE", "-DCOLLAPSE", f"-DMEMLIM={MEMORY_MIB}"]


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("model", type=pathlib.Path, help="the .pml file")
    parser.add_argument("--without", metavar="GUARD", help="take this guard away: expect an error")
    parser.add_argument("--spin", default="spin", help="the program of that name")
    parser.add_argument("--cc", default="gcc", help="the compiler of the verifier")
    parser.add_argument("--keep", type=pathlib.Path, help="work here, and leave verifier and trail")
    return parser.parse_args()


def run(command, where):
    done = subprocess.run(command, cwd=where, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def search(args, where):
    """Builds the verifier and runs it; what it printed."""
    text = args.model.read_text(encoding="utf-8")
    defines = []
    if args.without:
        if f"WITHOUT_{args.without}" not in text:
            sys.exit(f"{args.model} has no guard {args.without}")
        defines = [f"-DWITHOUT_{args.without}"]
    shutil.copy(args.model, where / "model.pml")
    run([args.spin, *defines, "-a", "model.pml"], where)
    run([args.cc, *COMPILE, "-o", "pan", "pan.c"], where)
    return run(["./pan", f"-m{SEARCH_DEPTH}"], where)


def verdict(output, without):
    """What is wrong with the verdict; empty if it is the expected one."""
    found = re.search(r"errors: (\d+)", output)
    if found is None:
        return "the verifier came to no verdict"
    errors = int(found.group(1))
    if without:
        return "" if errors > 0 else "no error is found without the guard"
    if errors > 0:
        return "an error is found"
    for sign in ("max search depth too small", "Search not completed", "out of memory"):
        if sign in output:
            return f"the search is not complete: {sign}"
    return ""


def main():
    args = arguments()
    with tempfile.TemporaryDirectory() as scratch:
        where = pathlib.Path(scratch)
        if args.keep:
            where = args.keep
            where.mkdir(parents=True, exist_ok=True)
        output = search(args, where)
    print(output)
    wrong = verdict(output, args.without)
    if wrong:
        sys.exit(f"{args.model.name}: {wrong}")


if __name__ == "__main__":
    main()
