#!/usr/bin/env python3
"""Measures how cost grows with pairs, tasks and timers, and whether any of it grows faster than it may."""
import argparse
import collections
import datetime
import math
import os
import pathlib
import resource
import statistics
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
import report  # noqa: E402

HOPS = 200_000
PAIRS = [1, 2, 4, 8, 16, 32, 64, 128]
TASKS = [10, 100, 1000, 5000]
TIMERS = [100, 10_000, 1_000_000]

# How many times as much as its theory says a step may cost. It stands for what else has left the caches
# when a structure has become large: a constant number of accesses, which theory does not count.
SLACK = 3

# How many accesses to memory, each depending on the one before, a step of this theory makes beside its
# constant part.
ACCESSES = {
    "constant": lambda size: 0,
    "logarithmic": lambda size: math.log2(size),
    "linear": lambda size: size,
}

CLOCKS = {"wall": "on the wall", "cpu": "on a processor"}

# memory: whose price is paid for an access; clocks: by which of them growth is judged.
Step = collections.namedtuple("Step", "name text theory memory clocks", defaults=[tuple(CLOCKS)])

STEPS = [
    Step("pairs", "a hop", "constant", None),
    Step("task_create", "a task created", "constant", None),
    Step("send", "a send to a busy task", "constant", None),
    Step("task_destroy", "a task destroyed", "linear", "memory_list"),
    Step("timer_create", "a timer created", "logarithmic", "memory_tree"),
    # On the wall a firing shows how the scheduler's thread and the task meet.
    Step("timer_fire", "a timer fired", "logarithmic", "memory_tree", ("cpu",)),
    Step("timer_destroy", "a timer destroyed", "logarithmic", "memory_tree"),
]

Figure = collections.namedtuple("Figure", "median least most")


class Series:
    """What one step costs by size, in nanoseconds, on the wall and on a processor."""

    def __init__(self):
        self.wall = {}
        self.cpu = {}


def predictions(theory, costs, memory):
    """What each size but the first may cost at most by theory, before the slack.

    The smallest of what is predicted from any smaller size: its cost, and what theory says is to be paid
    for in addition, at the price that memory has in a structure of the new size.
    """
    result = {}
    for size in sorted(costs)[1:]:
        price = memory.get(size, 0.0)
        accesses = ACCESSES[theory]
        result[size] = min(
            costs[smaller] + (accesses(size) - accesses(smaller)) * price
            for smaller in costs
            if smaller < size
        )
    return result


def too_fast(theory, costs, memory):
    """The sizes at which a step costs more than theory and slack allow, with what they allow."""
    allowed = {size: SLACK * cost for size, cost in predictions(theory, costs, memory).items()}
    return {size: most for size, most in allowed.items() if costs[size] > most}


def medians(figures):
    return {size: figure.median for size, figure in figures.items()}


def checked(step, figures, processors):
    """The figures that theory speaks of.

    While there is a processor for each token no task sleeps for long; a hop costs as much as a hand-over
    between two processors then, and afterwards as much as a task that is parked and woken.
    """
    if step.name == "pairs":
        return {size: figure for size, figure in figures.items() if size > processors}
    return figures


def by_theory(step, series, clock):
    """What a step costs by theory at each size, beginning with what it was measured to cost at the smallest."""
    costs = medians(getattr(series[step.name], clock))
    memory = medians(series[step.memory].wall) if step.memory else {}
    return {min(costs): costs[min(costs)], **predictions(step.theory, costs, memory)}


def check(series, processors):
    """A message for each step and size that costs more than it may, and the marks for the table."""
    messages, marks = [], set()
    for step in STEPS:
        memory = medians(series[step.memory].wall) if step.memory else {}
        for clock in step.clocks:
            costs = medians(checked(step, getattr(series[step.name], clock), processors))
            for size, most in too_fast(step.theory, costs, memory).items():
                marks.add((step.name, clock, size))
                messages.append(
                    f"{step.text}, {size}: {report.duration(costs[size])} {CLOCKS[clock]}, but its theory"
                    f" ({step.theory}) and a factor of {SLACK} allow {report.duration(most)}"
                )
    return messages, marks


def first_line(path):
    try:
        return pathlib.Path(path).read_text().split()[0]
    except (OSError, IndexError):
        return ""


def control_groups():
    """The files with the greatest number of threads that this process' groups may have."""
    for line in pathlib.Path("/proc/self/cgroup").read_text().splitlines():
        _, controllers, path = line.split(":", 2)
        root = pathlib.Path("/sys/fs/cgroup", controllers if controllers == "pids" else "")
        if controllers in ("pids", ""):
            place = root / path.lstrip("/")
            while True:
                yield place / "pids.max"
                if place == root:
                    break
                place = place.parent


def limits():
    """What bounds the number of tasks, the tightest first: how many, and the name of the limit."""
    found = [
        (int(first_line("/proc/sys/kernel/threads-max") or 10**9), "kernel.threads-max"),
        (int(first_line("/proc/sys/kernel/pid_max") or 10**9), "kernel.pid_max"),
        (int(first_line("/proc/sys/vm/max_map_count") or 10**9) // 2, "vm.max_map_count (a stack and its guard)"),
    ]
    found += [
        (int(first_line(file)), f"the control group ({file})")
        for file in control_groups()
        if first_line(file).isdigit()
    ]
    for which, each, name in (
        (resource.RLIMIT_NPROC, 1, "the user's processes (ulimit -u)"),
        (resource.RLIMIT_AS, 1 << 20, "the address space (ulimit -v)"),
    ):
        soft = resource.getrlimit(which)[0]
        if soft != resource.RLIM_INFINITY:
            found.append((soft // each, name))
    return sorted(found)


class Measurement:
    def __init__(self, program, small):
        self.program = program
        self.raw = collections.defaultdict(lambda: collections.defaultdict(list))
        self.runs = 0
        self.disturbed = 0
        self.pairs = [1, 4] if small else PAIRS
        self.tasks = [10, 50] if small else TASKS
        self.timers = [100, 1000] if small else TIMERS
        self.hops = 2000 if small else HOPS
        self.notes = []

    def run(self, *arguments):
        lines, foreign = report.run([self.program, *arguments])
        self.runs += 1
        self.disturbed += foreign >= report.NOISE
        return lines

    def add(self, lines):
        for line in lines:
            self.raw[line["step"]][line["size"]].append((line["wall_ns"], line["cpu_ns"]))

    def find_most_tasks(self):
        """If the system does not allow so many tasks, takes the most that it allows."""
        limit = [line["size"] for line in self.run("tasks", self.tasks[-1]) if line["step"] == "limit"]
        if not limit:
            return
        most = limit[0] * 95 // 100  # what else runs may come and go
        which = next((name for count, name in limits() if count < self.tasks[-1] * 2), "none that is known here")
        self.notes.append(
            f"Only {limit[0]} tasks could be created instead of {self.tasks[-1]}; the tightest limit is {which}."
            f" {most} stand in for them."
        )
        print(self.notes[-1], file=sys.stderr)
        self.tasks = [size for size in self.tasks if size < most] + [most]

    def repeat(self):
        for size in self.pairs:
            self.add(self.run("pairs", size, self.hops))
        self.add(self.run("tasks", *self.tasks))
        for size in self.tasks:
            self.add(self.run("list", size))
        for size in self.timers:
            self.add(self.run("timers", size))
            self.add(self.run("tree", size))

    def series(self):
        result = collections.defaultdict(Series)
        for step, sizes in self.raw.items():
            for size, figures in sorted(sizes.items()):
                for values, into in zip(zip(*figures), (result[step].wall, result[step].cpu)):
                    into[size] = Figure(statistics.median(values), min(values), max(values))
        return result


def cell(figure, marked):
    text = f"{report.duration(figure.median)} ({report.duration(figure.least)} to {report.duration(figure.most)})"
    return f"**{text}: faster than its theory**" if marked else text


def pairs_table(series, marks, processors):
    lines = [
        "| pairs | events a second | processor time of an event | theory |",
        "|---|---|---|---|",
    ]
    figures = series["pairs"]
    for size, wall in figures.wall.items():
        rate = [report.number(1e9 / value) for value in (wall.median, wall.most, wall.least)]
        text = f"{rate[0]} ({rate[1]} to {rate[2]})"
        if ("pairs", "wall", size) in marks:
            text = f"**{text}: fewer than by its theory**"
        theory = "constant" if size > processors else "a processor for each token"
        cpu = cell(figures.cpu[size], ("pairs", "cpu", size) in marks)
        lines.append(f"| {size} | {text} | {cpu} | {theory} |")
    return lines


def steps_table(series, marks, heading, names, clock):
    lines = [
        f"| step | {heading} | on the wall | on a processor | theory | by theory, {CLOCKS[clock]} |",
        "|---|---|---|---|---|---|",
    ]
    for step in STEPS:
        if step.name not in names:
            continue
        figures = series[step.name]
        expected = by_theory(step, series, clock)
        for size in figures.wall:
            wall = cell(figures.wall[size], (step.name, "wall", size) in marks)
            cpu = cell(figures.cpu[size], (step.name, "cpu", size) in marks)
            theory = report.duration(expected[size]) if size > min(expected) else "-"
            lines.append(f"| {step.text} | {size:,} | {wall} | {cpu} | {step.theory} | {theory} |")
    return lines


def theory_text(series):
    prices = [
        f"{report.duration(figure.median)} at {size:,}"
        for name in ("memory_list", "memory_tree")
        for size, figure in series[name].wall.items()
    ]
    split = len(series["memory_list"].wall)
    return report.paragraph(
        "What theory says is read from the code. A put or a get is a critical section that does not depend on"
        " how many tasks there are, and a send goes straight to the receiver's queue. A new task is put at the"
        " end of the registry, which is a list; one that is destroyed is searched for in it from the front, so"
        " the newest comes last. The schedule is an ordered tree, and free timers' ids are a heap. By theory a"
        " step costs what it costs at a smaller size, plus one access to memory for each task or for each level"
        " of the tree, at the price that such an access has on this machine in a structure so large:"
        f" {', '.join(prices[:split])} tasks (a list's nodes, out of the caches);"
        f" {', '.join(prices[split:])} timers (a tree's nodes, in any order). A step that costs more than {SLACK}"
        " times that is marked, and the script fails. Up to as many pairs as there are processors each token has"
        " a processor of its own; theory speaks of more.",
    )


def section(measurement, series, marks, messages, processors, chart):
    repetitions = len(measurement.raw["send"][TASKS[0]])
    text = report.paragraph
    lines = [
        "## How cost grows",
        "",
        text(
            f"`scripts/bench.sh --growth`, {datetime.date.today()}: {report.machine()}; medians of {repetitions}"
            " repetitions, each in a process of its own, with the smallest and the largest.",
            f"{measurement.disturbed} of {measurement.runs} runs shared the machine with other work.",
            *measurement.notes,
        ),
        "",
        f"Pairs of tasks, each with a token that goes back and forth, {measurement.hops:,} hops together:",
        "",
        *pairs_table(series, marks, processors),
        "",
        text(
            "Tasks with stacks of 1 MiB, while there are so many, the one measured included. Created: `Create()`,"
            " without the start of the thread. Destroyed: from the send of the exit event to the end of `Destroy()`,"
            " the newest first. Sent to: an event to a task that is held in its handler.",
        ),
        "",
        *steps_table(series, marks, "tasks", ("task_create", "task_destroy", "send"), "wall"),
        "",
        text(
            "A timer with so many beside it that are due in an hour; it is created and destroyed somewhere among"
            " them. Fired: the wall shows when a task handles one of a hundred that are due together, the processor"
            " what the scheduler's thread needs for it, and only that is judged.",
        ),
        "",
        *steps_table(series, marks, "timers", ("timer_create", "timer_fire", "timer_destroy"), "cpu"),
        "",
        *([f"![How cost grows]({chart})", ""] if chart else []),
        theory_text(series),
    ]
    if messages:
        lines += ["", "Faster than theory allows:", "", *(f"- {message}" for message in messages)]
    return "\n".join(lines)


def plot(axis, series, names, clock, scale):
    for name, label in names:
        figures = getattr(series[name], clock)
        middle = [scale(figure.median) for figure in figures.values()]
        ends = [sorted((scale(figure.least), scale(figure.most))) for figure in figures.values()]
        errors = [
            [value - end[0] for value, end in zip(middle, ends)],
            [end[1] - value for value, end in zip(middle, ends)],
        ]
        bars = axis.errorbar(list(figures), middle, yerr=errors, marker="o", markersize=3, capsize=2, label=label)
        step = next(step for step in STEPS if step.name == name)
        if name != "pairs":
            theory = by_theory(step, series, clock)
            values = [scale(value) for value in theory.values()]
            axis.plot(list(theory), values, linestyle=":", linewidth=1, color=bars[0].get_color())
    axis.set_xscale("log")
    sizes = list(getattr(series[names[0][0]], clock))
    axis.set_xticks(sizes, [f"{size:,}" for size in sizes])
    axis.set_xticks([], minor=True)


def write_chart(series, path):
    import matplotlib  # only here: the figures do not need it

    matplotlib.use("svg")
    matplotlib.rcParams["svg.hashsalt"] = "zor"
    from matplotlib import pyplot

    tasks = [("task_create", "created"), ("task_destroy", "destroyed"), ("send", "sent to")]
    timers = [("timer_create", "created"), ("timer_fire", "fired"), ("timer_destroy", "destroyed")]
    microseconds = lambda nsec: nsec / 1e3
    figure, axes = pyplot.subplots(1, 4, figsize=(16, 3.5))
    plot(axes[0], series, [("pairs", "hops")], "wall", lambda nsec: 1e3 / nsec)
    plot(axes[1], series, [("pairs", "a hop")], "cpu", microseconds)
    plot(axes[2], series, tasks, "wall", microseconds)
    plot(axes[3], series, timers, "cpu", microseconds)
    titles = [
        ("active pairs", "million events/s, more is better"),
        ("active pairs", "processor time an event, us"),
        ("tasks; dotted: by theory", "on the wall, us"),
        ("timers beside it; dotted: by theory", "processor time, us"),
    ]
    for axis, (xlabel, ylabel) in zip(axes, titles):
        axis.set_xlabel(xlabel, fontsize=8)
        axis.set_ylabel(ylabel, fontsize=8)
        axis.tick_params(labelsize=7)
        axis.grid(True, linewidth=0.3)
    for axis in axes[:2]:
        axis.set_ylim(bottom=0)
    for axis in axes[2:]:
        axis.set_yscale("log")
        axis.legend(fontsize=7)
    axes[3].set_ylim(bottom=0.1)
    figure.tight_layout()
    path.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("bin", type=pathlib.Path, help="folder of the built programs")
    parser.add_argument("--repetitions", type=int, default=7, help="how often to measure each size (7)")
    parser.add_argument("--report", type=pathlib.Path, help="Markdown file whose section is replaced")
    parser.add_argument("--chart", type=pathlib.Path, help="SVG file to write")
    parser.add_argument("--smoke", action="store_true", help="small numbers, once; growth is not judged")
    arguments = parser.parse_args()
    if arguments.repetitions < 5:
        parser.error(f"--repetitions needs a number from 5 on, not {arguments.repetitions}")

    measurement = Measurement(arguments.bin / "growth_steps", arguments.smoke)
    measurement.find_most_tasks()
    for repetition in range(1 if arguments.smoke else arguments.repetitions):
        measurement.repeat()
        print(f"repetition {repetition + 1}", file=sys.stderr, flush=True)
    series = measurement.series()
    processors = len(os.sched_getaffinity(0))
    messages, marks = ([], set()) if arguments.smoke else check(series, processors)
    chart = ""
    if arguments.chart:
        write_chart(series, arguments.chart)
        chart = os.path.relpath(arguments.chart, arguments.report.parent) if arguments.report else ""
    text = section(measurement, series, marks, messages, processors, chart)
    print(text)
    if arguments.report:
        report.write_section(arguments.report, "growth", text)
    for message in messages:
        print(f"grows too fast: {message}", file=sys.stderr)
    return 1 if messages else 0


if __name__ == "__main__":
    sys.exit(main())
