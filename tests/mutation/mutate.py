#!/usr/bin/python3
"""Checks the unit tests: makes one small change to a source at a time and sees whether they notice.

Works on a copy of the tree below build/mutate. A mutant is compiled and linked into a library of its
own, which the test programs of the copy are run with.
"""

import argparse
import concurrent.futures
import fcntl
import json
import os
import random
import resource
import shlex
import signal
import subprocess
import sys
import time
from collections import Counter
from pathlib import Path

import points
import programs

ROOT = Path(__file__).resolve().parents[2]
WORK = ROOT / "build" / "mutate"
TREE = WORK / "tree"
BUILD = WORK / "build"
RESULTS = WORK / "results.jsonl"
BASELINE = WORK / "baseline.json"
EXPLAINED = ROOT / "tests" / "mutation" / "explained.txt"

LEAST_NOTICED = 95  # per cent
NOTICED = ("failed", "crashed", "hung")
MEMORY_LIMIT = 4 << 30


def say(text):
    print(text, file=sys.stderr, flush=True)


def die(text):
    raise SystemExit(f"mutate.sh: {text}")


# The copy.

def copy_tree():
    """Brings the copy up to date; what has not changed keeps its time, and so is not built again."""
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=ROOT,
                            check=True, capture_output=True).stdout.decode().split("\0")
    for name in filter(None, listed):
        source, copy = ROOT / name, TREE / name
        if not source.is_file():
            copy.unlink(missing_ok=True)
            continue
        content = source.read_bytes()
        if not copy.exists() or copy.read_bytes() != content:
            copy.parent.mkdir(parents=True, exist_ok=True)
            copy.write_bytes(content)


def build(targets):
    configure = ["cmake", "-G", "Ninja", "-S", TREE, "-B", BUILD, "-DCMAKE_CXX_COMPILER=g++",
                 "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_CXX_FLAGS=-w"]
    for command in (configure, ["cmake", "--build", BUILD, "--target", *targets]):
        if subprocess.run(command, stdout=sys.stderr).returncode != 0:
            die(f"the copy cannot be built (see above): {shlex.join(map(str, command))}")


class Library:
    """How the library is compiled and linked in the copy."""

    def __init__(self):
        database = json.loads((BUILD / "compile_commands.json").read_text())
        self.compilations = {}
        for entry in database:
            if Path(entry["file"]).parent == TREE / "src":
                name = str(Path(entry["file"]).relative_to(TREE))
                self.compilations[name] = shlex.split(entry["command"])
        commands = subprocess.run(["ninja", "-C", BUILD, "-t", "commands", "zor-core"], check=True,
                                  capture_output=True, text=True).stdout.splitlines()
        link = next(line for line in reversed(commands) if "-shared" in line and "zor-core" in line)
        link = link.split("&&")[1]
        self.link = shlex.split(link)

    def flags(self, name):
        return [word for word in self.compilations[name][1:]
                if word.startswith(("-I", "-D", "-std", "-isystem"))]

    def make(self, name, source, place):
        """Compiles source in the place of the file of that name; false if it does not compile."""
        place.mkdir(parents=True, exist_ok=True)
        path, obj = place / "mutant.cpp", place / "mutant.o"
        # Reports name the file as they do in any build.
        path.write_bytes(f'#line 1 "{name}"\n'.encode() + source)
        command = self.compilations[name]
        output = command[command.index("-o") + 1]
        command = [str(obj) if word == output else
                   str(path) if word == str(TREE / name) else word for word in command]
        command.insert(1, f"-I{TREE / 'src'}")
        if subprocess.run(command, cwd=BUILD, capture_output=True).returncode != 0:
            return False
        link = [str(obj) if word == output else word for word in self.link]
        at = link.index("-o") + 1
        link[at] = str(place / "libzor-core.so.1")
        return subprocess.run(link, cwd=BUILD, capture_output=True).returncode == 0


# Running tests.

running = set()  # process groups


def stop(*_):
    """Ends what has been started: each program leads a group of its own, which no signal reaches."""
    for group in list(running):
        try:
            os.killpg(group, signal.SIGKILL)
        except ProcessLookupError:
            pass
    os._exit(1)


def limit_resources():
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_LIMIT, MEMORY_LIMIT))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def run_program(program, library, limit):
    """Runs one test program with the library of that folder: passed, failed, crashed or hung."""
    name, _, left_out = program.partition(":")
    command = [str(BUILD / "bin" / name), "--gtest_fail_fast", "--gtest_brief=1"]
    if left_out:
        command.append(f"--gtest_filter={left_out}")
    environment = dict(os.environ, LD_LIBRARY_PATH=str(library), ZOR_DLOG="none")
    process = subprocess.Popen(command, cwd=BUILD, env=environment, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               start_new_session=True, preexec_fn=limit_resources)
    running.add(process.pid)
    try:
        output, _ = process.communicate(timeout=limit)
    except subprocess.TimeoutExpired:
        return "hung", ""
    finally:
        try:  # the program and what it has started, which nobody else belongs to
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()
        running.discard(process.pid)
    if process.returncode == 0:
        return "passed", ""
    text = output.decode(errors="replace")
    test = next((line for line in text.splitlines() if line.startswith("[  FAILED  ]")), "")
    return ("failed" if process.returncode > 0 else "crashed"), test[13:].split(",")[0].split(" ")[0]


def measure(library, names):
    """How long each program takes with the library as it is, made as those of mutants are; all have
    to pass."""
    place = WORK / "unchanged"
    if not library.make(names[0], (TREE / names[0]).read_bytes(), place):
        die(f"{names[0]} cannot be compiled as it is")
    baseline = json.loads(BASELINE.read_text()) if BASELINE.exists() else {}
    age = max(path.stat().st_mtime for path in (BUILD / "bin").iterdir())
    for program in sorted({p for name in names for p in programs.FOR[name]}):
        known = baseline.get(program)
        if known and known["at"] > age:
            continue
        start = time.monotonic()
        result, test = run_program(program, place, 300)
        if result != "passed":
            die(f"{program} {result} with the library as it is ({test}); mend that first")
        baseline[program] = {"seconds": time.monotonic() - start, "at": time.time()}
        BASELINE.write_text(json.dumps(baseline, indent=1))
    return {program: known["seconds"] for program, known in baseline.items()}


def try_mutant(mutant, source, library, seconds, worker):
    start = time.monotonic()
    result = {"id": mutant.id, "file": mutant.file, "line": mutant.line, "kind": mutant.kind,
              "function": mutant.function, "original": mutant.original, "mutated": mutant.mutated,
              "result": "survived", "by": ""}
    place = WORK / f"worker{worker}"
    if not library.make(mutant.file, mutant.apply(source), place):
        result["result"] = "broken"
    else:
        for program in sorted(programs.FOR[mutant.file], key=seconds.get):
            outcome, test = run_program(program, place, 5 + 8 * seconds[program])
            if outcome != "passed":
                result["result"] = outcome
                result["by"] = test or program
                break
    result["seconds"] = round(time.monotonic() - start, 1)
    return result


# Results.

def explanations():
    """The survivors that are known, by key: file and function, -old, +new, then the reason."""
    known = {}
    if not EXPLAINED.exists():
        return known
    for block in EXPLAINED.read_text().split("\n\n"):
        lines = [line for line in block.splitlines() if line and not line.startswith("#")]
        if not lines:
            continue
        if len(lines) < 4 or lines[1][:4] != "  - " or lines[2][:4] != "  + ":
            die(f"{EXPLAINED}: not a file and function, an old and a new line and a reason:\n{block}")
        file, function = (lines[0].split(" ", 1) + [""])[:2]
        known[(file, function, lines[1][4:], lines[2][4:])] = " ".join(" ".join(lines[3:]).split())
    return known


def read_results():
    if not RESULTS.exists():
        return {}
    results = {}
    for line in RESULTS.read_text().splitlines():
        try:
            result = json.loads(line)
        except json.JSONDecodeError:
            continue  # the run was stopped while it wrote this
        results[result["id"]] = result
    return results


def report(results):
    """Prints survivors and the table; returns whether enough was noticed of what can be."""
    survivors = [r for r in results if r["result"] == "survived"]
    for result in sorted(survivors, key=lambda r: (r["file"], r["line"])):
        print(f"\n{result['file']}:{result['line']} {result['function']} [{result['id']}]"
              f"\n  - {result['original']}\n  + {result['mutated']}")
        if result["explained"]:
            print(f"  explained: {result['explained']}")
    print(f"\n{'file':28} {'mutants':>7} {'noticed':>7} {'hung':>5} {'survived':>8} {'explained':>9}"
          f" {'broken':>6} {'noticed %':>9}")
    total = Counter()
    for file in sorted({r["file"] for r in results}) + ["all"]:
        count = total
        if file != "all":
            count = Counter()
            for result in (r for r in results if r["file"] == file):
                if result["result"] == "broken":
                    count["broken"] += 1
                    continue
                count["mutants"] += 1
                count["noticed"] += result["result"] in NOTICED
                count["hung"] += result["result"] == "hung"
                survived = result["result"] == "survived"
                count["survived"] += survived
                count["explained"] += survived and bool(result["explained"])
            total += count
        share = 100 * count["noticed"] / max(1, count["mutants"] - count["explained"])
        print(f"{file:28} {count['mutants']:7} {count['noticed']:7} {count['hung']:5}"
              f" {count['survived']:8} {count['explained']:9} {count['broken']:6} {share:9.1f}")
    noticed = (total["noticed"] * 100 >=
               LEAST_NOTICED * (total["mutants"] - total["explained"]))
    if not noticed:
        say(f"mutate.sh: less than {LEAST_NOTICED} % of the unexplained were noticed; write a test for each survivor "
            f"that is no equal of the original, and explain the others in {EXPLAINED.name}")
    return noticed


# The run.

def options():
    parser = argparse.ArgumentParser(
        prog="scripts/mutate.sh", description=__doc__,
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--file", action="append", metavar="SOURCE", choices=sorted(programs.FOR),
                        help="only this source, such as src/Queue.cpp; may be repeated")
    parser.add_argument("--line", type=int, help="only what begins on this line")
    parser.add_argument("--only", metavar="ID", help="only this mutant")
    parser.add_argument("--sample", type=int, metavar="N", help="N mutants of each source")
    parser.add_argument("--seed", type=int, default=1, help="of the sample (1)")
    parser.add_argument("--jobs", type=int, default=1, help="mutants at once (1)")
    parser.add_argument("--seconds", type=int, help="start no mutant after this time")
    parser.add_argument("--list", action="store_true", help="print the mutants and try none")
    parser.add_argument("--resume", action="store_true",
                        help="keep the results of earlier runs and leave those mutants out")
    parser.add_argument("--retry", action="store_true",
                        help="as --resume, and try those again that have survived")
    parser.add_argument("--report", action="store_true", help="print the results so far and try none")
    return parser.parse_args()


def chosen(mutants, args):
    if args.line:
        mutants = [m for m in mutants if m.line == args.line]
    if args.only:
        mutants = [m for m in mutants if m.id == args.only]
    if args.sample and args.sample < len(mutants):
        mutants = random.Random(args.seed).sample(mutants, args.sample)
    return mutants


def run_all(mutants, library, seconds, args):
    begin = time.monotonic()
    free = list(range(args.jobs))

    def one(number, mutant):
        if args.seconds and time.monotonic() - begin > args.seconds:
            return
        worker = free.pop()
        result = try_mutant(mutant, (TREE / mutant.file).read_bytes(), library, seconds, worker)
        free.append(worker)
        with open(RESULTS, "a", encoding="utf-8") as file:
            file.write(json.dumps(result) + "\n")
        say(f"{number}/{len(mutants)} {mutant.file}:{mutant.line} {mutant.kind} {mutant.id}: "
            f"{result['result']} {result['by']} ({result['seconds']} s)")

    with concurrent.futures.ThreadPoolExecutor(args.jobs) as pool:
        for future in [pool.submit(one, n, m) for n, m in enumerate(mutants, 1)]:
            future.result()


def main():
    args = options()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, stop)
    files = args.file or sorted(programs.FOR)
    WORK.mkdir(parents=True, exist_ok=True)
    with open(WORK / "lock", "w", encoding="utf-8") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            die("another run is at work in build/mutate")
        copy_tree()
        targets = sorted({p.partition(":")[0] for name in files for p in programs.FOR[name]})
        build(["zor-core"] if args.list or args.report else targets)
        library = Library()
        found = [m for name in files
                 for m in points.find(str(TREE / name), name, library.flags(name))]
        mutants = [m for name in files for m in chosen([m for m in found if m.file == name], args)]
        if args.list:
            for m in mutants:
                print(f"{m.id} {m.file}:{m.line} {m.kind} {m.function}\n  - {m.original}\n"
                      f"  + {m.mutated}")
            return 0
        if not mutants:
            die("there is no such mutant; scripts/mutate.sh --list shows all")
        wanted = {m.id: m for m in mutants}
        if not args.report:
            if not args.resume and not args.retry:
                RESULTS.unlink(missing_ok=True)
            done = read_results()
            if args.retry:
                done = {i: r for i, r in done.items() if r["result"] != "survived"}
            rest = [m for m in mutants if m.id not in done]
            run_all(rest, library, measure(library, files), args)
        results, known = read_results(), explanations()
        for mutant_id in wanted.keys() & results.keys():
            results[mutant_id]["line"] = wanted[mutant_id].line
            results[mutant_id]["explained"] = known.get(wanted[mutant_id].key(), "")
        return 0 if report([r for i, r in results.items() if i in wanted]) else 1


if __name__ == "__main__":
    sys.exit(main())
