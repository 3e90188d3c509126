"""The figures as Markdown and as CSV."""
import csv
import datetime
import os
import statistics
import subprocess

from figures import event_cost, left_out, ratio, ratio_text
from report import machine
from rows import GROUPS, OURS

NOTES_BEGIN = "<!-- what follows is written by hand and kept -->"
MARK = "†"  # of a figure that the ratio leaves out

INTRODUCTION = """\
# Benchmarks

The same workloads over this library and over other frameworks, one program each, alternating.
Medians; the ratio says how many times as good as the best peer this library is (1 is as good,
more is better). The column after it has the smallest and the largest of this library's runs. The
last two have the processor time of an event: this library's, and the least of the peers'.
`@1cpu`: the process is held to one processor. `@busy`: on each of two processors a foreign process
spins beside.
"""


def short(value):
    if value is None:
        return "-"
    if value == 0 or 0.01 <= abs(value) < 999.5:
        return f"{value:.3g}"
    if abs(value) >= 999500:
        return f"{value / 1e6:.3g}M"
    return f"{value / 1e3:.3g}k" if abs(value) >= 999.5 else f"{value:.1g}"


def table_row(results, row):
    """The cells of one row of a table."""
    out = left_out(results, row.workload, row.metric)
    cells = [f"`{row.name}`: {row.text}", results.unit(row)]
    for peer in results.peers():
        mark = f" {MARK}" if peer in out else ""
        cells.append(short(results.median(peer, row.workload, row.metric)) + mark)
    spread = results.spread(OURS, row.workload, row.metric)
    ours, least, peer = event_cost(results, row.workload)
    cells += [
        ratio_text(ratio(results, row)),
        " to ".join(dict.fromkeys(map(short, spread))) if spread else "-",
        short(ours),
        f"{short(least)} ({peer})" if peer else "-",
    ]
    return cells


def notes(results, rows):
    """Who is left out of a ratio, and why: a line for each reason."""
    found = {}
    for row in rows:
        for peer, reason in left_out(results, row.workload, row.metric).items():
            found.setdefault((row.name, reason), {})[peer] = None
    return [f"{MARK} `{name}`: not in the ratio, {why}: {', '.join(p)}." for (name, why), p in found.items()]


def table(results, group):
    """One group as a table with its notes; nothing if none of its rows was measured."""
    rows = [row for row in group if results.has(row)]
    if not rows:
        return ""
    head = ["workload", "unit", *results.peers(), "ratio", f"{OURS}'s runs"]
    head += [f"cpu us/event: {OURS}", "best peer"]
    lines = [head, ["---"] * len(head)] + [table_row(results, row) for row in rows]
    text = "\n".join("| " + " | ".join(cells) + " |" for cells in lines)
    return "\n\n".join([text, *notes(results, rows)])


def tables(results):
    """All groups, each with its heading."""
    made = [(title, table(results, group)) for title, group in GROUPS]
    return "\n\n".join(f"## {title}\n\n{text}" for title, text in made if text)


def versions():
    """The installed packages of the frameworks and the compiler."""
    packages = "g++ libace-dev libboost-dev libcaf-dev libglib2.0-dev libpoco-dev libuv1-dev qt6-base-dev"
    query = ["dpkg-query", "-W", "-f", "${Package} ${Version}\n", *packages.split()]
    found = subprocess.run(query, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    return ", ".join(found.stdout.splitlines())


def write_report(results, path, rounds, charts):
    """Writes the report, and keeps what stands by hand at its end. The first chart comes first."""
    kept = "\n"
    if path.exists() and NOTES_BEGIN in path.read_text():
        kept = path.read_text().split(NOTES_BEGIN, 1)[1]
    images = [f"![{chart.stem}]({os.path.relpath(chart, path.parent)})" for chart in charts]
    count = f"{rounds} round{'s' * (rounds > 1)}"
    text = [
        INTRODUCTION,
        f"{datetime.date.today()}: {machine()}; {count}, {results.noisy} runs shared the machine",
        f"with other work. {versions()}.",
        "",
        *images[:1],
        "",
        tables(results),
        "",
        "To repeat it: `scripts/bench.sh`. The workloads stand in `bench/compare/workloads.hpp`.",
        "",
        *images[1:],
        "",
    ]
    for key, why in sorted(results.skipped.items()):
        text.append(f"- no figure for {' '.join(key)}: {why}")
    path.write_text("\n".join(text).rstrip() + "\n\n" + NOTES_BEGIN + kept)


def write_csv(results, path):
    with open(path, "w", newline="") as file:
        writer = csv.writer(file, lineterminator="\n")
        writer.writerow(["peer", "workload", "metric", "unit", "median", "min", "max", "runs"])
        for (peer, workload, metric), values in sorted(results.values.items()):
            unit = results.units[workload, metric]
            figures = [statistics.median(values), min(values), max(values)]
            writer.writerow(
                [peer, workload, metric, unit, *(f"{v:.6g}" for v in figures), len(values)]
            )
