"""What the scripts of the benchmarks share: sections of a document, and runs that know who else ran."""
import json
import os
import platform
import re
import resource
import subprocess
import textwrap
import time

NOISE = 0.15  # share of one processor that went to others, from which on a run counts as disturbed


def replace_section(text, name, body):
    """The document with what stands between the marks of a section replaced by the body.

    A document that has no such section yet gets it at its end, which is below the line from which on the
    comparison keeps what it finds.
    """
    begin, end = f"<!-- {name}: begin -->", f"<!-- {name}: end -->"
    section = f"{begin}\n\n{body.strip()}\n\n{end}"
    counts = text.count(begin), text.count(end)
    if counts == (0, 0):
        return f"{text.rstrip()}\n\n{section}\n"
    if counts != (1, 1) or text.index(end) < text.index(begin):
        raise ValueError(f"the marks '{begin}' and '{end}' must each stand there once, in this order")
    before, after = text.split(begin)[0], text.split(end)[1]
    return before + section + after


def write_section(path, name, body):
    path.write_text(replace_section(path.read_text(), name, body))


def paragraph(*sentences):
    return textwrap.fill(" ".join(sentences), 110, break_long_words=False, break_on_hyphens=False)


def machine():
    model = "unknown processor"
    with open("/proc/cpuinfo") as file:
        found = re.search(r"^model name\s*:\s*(.*)$", file.read(), re.MULTILINE)
    if found:
        model = found.group(1)
    return f"{model}, {os.cpu_count()} cores, Linux {platform.release().split('-')[0]}"


def number(value):
    """A figure with three digits that count."""
    if value == 0 or 0.01 <= abs(value) < 1000:
        return f"{value:.3g}"
    if abs(value) >= 1e6:
        return f"{value / 1e6:.3g} M"
    return f"{value / 1e3:.3g} k" if abs(value) >= 1e3 else f"{value:.1g}"


def duration(nsec):
    """Nanoseconds in the unit in which they are read most easily."""
    for unit, size in (("ms", 1e6), ("us", 1e3)):
        if nsec >= size:
            return f"{nsec / size:.3g} {unit}"
    return f"{nsec:.3g} ns"


def busy():
    """Seconds of processor time that the machine has used or had stolen."""
    with open("/proc/stat") as file:
        fields = [int(x) for x in file.readline().split()[1:9]]
    return sum(fields[i] for i in (0, 1, 2, 5, 6, 7)) / os.sysconf("SC_CLK_TCK")


def children():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def run(command):
    """The figures that a program prints, and the share of one processor that went to others meanwhile."""
    used, own, began = busy(), children(), time.monotonic()
    done = subprocess.run(
        [str(part) for part in command],
        env={**os.environ, "ZOR_DLOG": "none"},
        stdout=subprocess.PIPE,
        text=True,
        check=True,
        timeout=300,
    )
    foreign = (busy() - used - (children() - own)) / (time.monotonic() - began)
    return [json.loads(line) for line in done.stdout.splitlines()], foreign
