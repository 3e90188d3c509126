"""What docs/debugging.md shows is what the tools say: its blocks that are marked as the output, or
the log, of a daemon's mode."""

import os
import re

PATH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../../docs/debugging.md")
BLOCK = re.compile(r"<!-- (output|log) of (\w+) -->\n```\n(.*?)```\n", re.DOTALL)


def check(case, kind, mode, said):
    """That each line of each such block is, but for numbers and folders, one of those said."""
    with open(PATH, encoding="utf-8") as file:
        found = BLOCK.findall(file.read())
    blocks = [body for what, of, body in found if (what, of) == (kind, mode)]
    case.assertNotEqual(blocks, [], f"debugging.md has no {kind} of {mode}")
    known = {_general(line) for line in said.splitlines()}
    for line in "".join(blocks).splitlines():
        case.assertIn(_general(line), known, f"debugging.md shows as {kind} of {mode}: {line}")


def _general(line):
    """The line without what differs from run to run."""
    line = re.sub(r"^.*? (?=[VDIWEF] ZOR_WATCHDOG)", "", line)  # the time
    line = re.sub(r"/\S*/(?=\S)", "", line)
    line = re.sub(r"zor-troubled-da\w*|thread \d+(?=, param)", "SENDER", line)
    return re.sub(r" +", " ", re.sub(r"0x[0-9a-f]+|\d+(\.\d+)?", "N", line)).rstrip()
