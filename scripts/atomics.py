#!/usr/bin/env python3
"""Holds the atomics of the shipped sources against their table in docs/architecture.md.

Every atomic has a row there, which names who writes and reads it, the orders that are used, why they
suffice, and the model (a suite of tests/models/memory) that shows it. This fails for an atomic without
a row, an access with an order that its row does not name, a row that nothing in the sources needs, and
a model that is not there or has no variant that fails.
"""

import argparse
import pathlib
import re
import sys

FOLDERS = ("src", "inc", "kit/inc", "platform")
TABLE = "docs/architecture.md"
HEADING = "### Atomics"
MODELS = "tests/models/memory"
IMPLIED = "seq_cst"

DECLARED = re.compile(r"std::atomic(?:<[^;={}()]*>|_\w+)\s*\n?\s*(?:\w+::)?(\w+)\s*[;={(\[]")
PARAMETER = re.compile(r"std::atomic<[^;{}()]*>\s*[&*]+\s*(\w+)")
ACCESS = re.compile(r"(\w+)\s*(?:\.|->)\s*"
                    r"(load|store|exchange|fetch_\w+|compare_exchange_\w+|wait|test_and_set)\s*\(")
BUILTIN = re.compile(r"__(?:atomic|sync)_\w+\s*\(\s*&?(?:\w+(?:\.|->))*(\w+)")
ORDER = re.compile(r"memory_order(?:_|::)(\w+)")
BUILTIN_ORDER = re.compile(r"__ATOMIC_(\w+)")
ALIAS = re.compile(r"constexpr\s+(?:auto|std::memory_order)\s+(\w+)\s*=\s*std::memory_order(?:_|::)(\w+)\s*;")
FENCE = re.compile(r"atomic_(?:thread|signal)_fence")
MODEL_NAME = re.compile(r"^TEST\((\w+)Test, \w+\)\n\{\n(.*?)^\}", re.MULTILINE | re.DOTALL)


def without_comments(text):
    """The text with as many lines, and blanks for comments and literals."""
    blank = lambda found: re.sub(r"[^\n]", " ", found.group(0))
    return re.sub(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"', blank, text, flags=re.DOTALL)


def call_at(text, opening):
    """What stands in the brackets that open at @p opening."""
    depth = 0
    for at in range(opening, len(text)):
        depth += {"(": 1, ")": -1}.get(text[at], 0)
        if depth == 0:
            return text[opening + 1:at]
    return text[opening + 1:]


def stem(file):
    """The name of the component that a file is of."""
    return pathlib.PurePath(file).stem


class Sources:
    """The atomics that are declared, and the orders of each access to one."""

    def __init__(self, root):
        self.declared = {}  # (file, name) -> line
        self.parameters = set()  # (file, name): what is one elsewhere goes by this name
        self.accesses = []  # (file, line, name, order)
        self.operations = {}  # (component, name) -> load, store and so on
        self.problems = []
        for folder in FOLDERS:
            for path in sorted((root / folder).rglob("*")):
                if path.suffix in (".h", ".cpp"):
                    self.read(path.relative_to(root).as_posix(), path.read_text(encoding="utf-8"))

    def read(self, file, source):
        text = without_comments(source)
        line_of = lambda at: text.count("\n", 0, at) + 1
        aliases = dict((found.group(1), found.group(2)) for found in ALIAS.finditer(text))
        orders = "|".join([r"memory_order(?:_|::)\w+", r"__ATOMIC_[A-Z_]+", *map(re.escape, aliases)])
        known = set()  # where an order stands that belongs to an access or an alias
        for found in ALIAS.finditer(text):
            known.update(range(found.start(), found.end()))
        for found in PARAMETER.finditer(text):
            self.parameters.add((file, found.group(1)))
        for found in DECLARED.finditer(text):
            if "::" not in found.group(0).split(">")[-1]:  # or it is a class's, which has declared it
                self.declared[(file, found.group(1))] = line_of(found.start())
        for pattern in (ACCESS, BUILTIN):
            for found in pattern.finditer(text):
                opening = text.index("(", found.start())
                if pattern is ACCESS:
                    self.operations.setdefault((stem(file), found.group(1)), set()).add(found.group(2))
                inside = call_at(text, opening)
                for order in re.finditer(rf"\b(?:{orders})\b", inside):
                    word = order.group(0)
                    name = aliases.get(word) or re.sub(r"^memory_order(?:_|::)|^__ATOMIC_", "", word).lower()
                    self.accesses.append((file, line_of(found.start()), found.group(1), name))
                    known.add(opening + 1 + order.start())
                if pattern is BUILTIN:
                    self.declared.setdefault((file, found.group(1)), line_of(found.start()))
        for found in re.finditer(rf"\b(?:{orders})\b", text):
            if found.start() not in known:
                self.problems.append(f"{file}:{line_of(found.start())}: {found.group(0)} belongs to no access "
                                     "that can be read here: write it as OBJECT.load(...) and the like")
        for found in FENCE.finditer(text):
            self.problems.append(f"{file}:{line_of(found.start())}: a fence has no object that a row could name; "
                                 "give the access an order")


class Row:
    def __init__(self, cells):
        names = re.findall(r"`([^`]+)`", cells[0])
        self.file, self.names = names[0], names[1:]
        self.orders = set(re.findall(r"`(\w+)`", cells[3]))
        self.model = re.findall(r"`(\w+)`", cells[5])
        self.text = cells
        self.used = set()


def rows_of(root):
    text = (root / TABLE).read_text(encoding="utf-8")
    if HEADING not in text:
        sys.exit(f"{TABLE} has no '{HEADING}'")
    rows = []
    for line in text[text.index(HEADING):].splitlines()[1:]:
        if line.startswith("#"):
            break
        if line.startswith("| `"):
            cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
            if len(cells) != 6:
                sys.exit(f"{TABLE}: a row of the atomics has {len(cells)} cells instead of 6: {line}")
            rows.append(Row(cells))
    return rows


def models_of(root):
    """Suite -> whether it has a variant that holds and one that fails."""
    models = {}
    for path in (root / MODELS).glob("*.cpp"):
        for suite, body in MODEL_NAME.findall(path.read_text(encoding="utf-8")):
            holds, fails = models.get(suite, (False, False))
            models[suite] = (holds or "ExpectHolds<" in body, fails or "ExpectFails<" in body)
    return models


def row_for(rows, file, name):
    """The rows that an access in @p file to @p name may belong to: those of its own component first."""
    named = [row for row in rows if name in row.names]
    for near in (lambda row: row.file == file, lambda row: stem(row.file) == stem(file)):
        close = [row for row in named if near(row)]
        if close:
            return close
    return named


def unused(row, sources):
    """Whether nobody writes, or nobody reads, as the row says and the component's sources show."""
    operations = set().union(*(sources.operations.get((stem(row.file), name), set()) for name in row.names))
    return (row.text[1].startswith("nobody") and operations == {"load"} or
            row.text[2].startswith("nobody") and operations == {"store"})


def problems_of(root):
    sources = Sources(root)
    rows = rows_of(root)
    problems = list(sources.problems)
    for (file, name), line in sources.declared.items():
        if not any(row.file == file and name in row.names for row in rows):
            problems.append(f"{file}:{line}: the atomic {name} has no row in the table of {TABLE}")
    for file, line, name, order in sources.accesses:
        candidates = row_for(rows, file, name)
        fitting = [row for row in candidates if order in row.orders]
        if not candidates:
            problems.append(f"{file}:{line}: an access to {name} ({order}) has no row in the table of {TABLE}")
        elif not fitting:
            problems.append(f"{file}:{line}: the row of {name} in {TABLE} does not name {order}: say why it "
                            "suffices, and let a model show it")
        for row in fitting:
            row.used.add(order)
    models = models_of(root)
    for row in rows:
        where = f"{TABLE}: the row of {row.file}, {', '.join(row.names)}"
        for name in row.names:
            if (row.file, name) not in sources.declared.keys() | sources.parameters:
                problems.append(f"{where}: there is no such atomic {name}")
        for order in row.orders - row.used - {IMPLIED}:
            problems.append(f"{where}: nothing is accessed with {order}")
        for model in row.model:
            if models.get(model) != (True, True):
                problems.append(f"{where}: {MODELS} has no model {model} that holds and fails without its guard")
        if not row.model and not unused(row, sources):
            problems.append(f"{where}: no model is named")
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--root", type=pathlib.Path, default=pathlib.Path(__file__).resolve().parent.parent,
                        help="the source tree")
    problems = problems_of(parser.parse_args().root)
    print(*problems, sep="\n", end="\n" if problems else "")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
