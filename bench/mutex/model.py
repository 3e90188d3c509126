#!/usr/bin/env python3
"""Measures how long the process-wide mutex is held, and models what that costs with more processors."""
import argparse
import collections
import datetime
import os
import pathlib
import statistics
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import queueing  # noqa: E402
import report  # noqa: E402

PROCESSORS = [1, 2, 4, 8, 16]
HANDLERS = [500, 2000, 10_000, 50_000]  # ns
PAIRS = 16  # so many tokens that no processor is ever without one

# As in the runtime (src/Semaphore.cpp, src/Queue.cpp); the tries are 350 to 900 ns apart.
PATIENCE = 600
TRIES = 6
WAKE = 5000  # ns until a thread that sleeps on the mutex runs again; about what a hand-off by futex takes

AGREEMENT = 0.03  # by which simulation and analysis may differ where the analysis is exact

# What a hop needs, in ns: how many sections; a section's time on one processor, and what is added to it when
# the processor before was another one; and what needs no mutex, on one processor and on several.
Costs = collections.namedtuple("Costs", "sections alone moved overhead overhead_of_several")

LEFT_OUT = (
    "Left out: convoys, in which threads that have slept on the mutex come out of step; a holder that loses its"
    " processor, for whom all others wait until it has one again; caches and processors that are further apart than"
    " these; and that tasks find nothing to do. Each of them lowers the rate. Who has the mutex often takes it again"
    " before the others have tried, because they stay away, and then no cache line moves: that raises it, most of all"
    " where one task streams to another."
)


class Figures:
    """Medians of what mutex_sections has printed."""

    def __init__(self):
        self.values = collections.defaultdict(list)
        self.runs = 0
        self.disturbed = 0

    def run(self, name, command, processors):
        """One run on so many processors; its figures get the name before theirs."""
        allowed = sorted(os.sched_getaffinity(0))[:processors]
        lines, foreign = report.run(["taskset", "-c", ",".join(map(str, allowed)), *command])
        self.runs += 1
        self.disturbed += foreign >= report.NOISE
        for line in lines:
            figure = line.pop("figure")
            for key, value in line.items():
                self.values[name, figure, key].append(value)

    def median(self, *key):
        return statistics.median(self.values[key])

    def spread(self, *key):
        return min(self.values[key]), max(self.values[key])


def measure(program, repetitions, hops, processors):
    figures = Figures()
    for _ in range(repetitions):
        figures.run("", [program, "operations"], 1)
        if processors > 1:
            figures.run("", [program, "handover"], 2)
        for count in range(1, min(processors, 2) + 1):
            figures.run(count, [program, "recorded", PAIRS, hops, 0], count)
            figures.run(count, [program, "calls", hops // 4], count)
            for handler in [0, *HANDLERS]:
                # About as long for each handler as for none.
                fewer = max(PAIRS * 20, int(hops * count / (1 + handler / 1500)))
                figures.run((count, handler), [program, "hops", PAIRS, fewer, handler], count)
    return figures


def fitted_overhead(processors, demand, rate):
    """What a hop needs without the mutex if so many processors make hops at this rate."""
    least, most = 0.0, processors / rate
    for _ in range(60):
        middle = (least + most) / 2
        if queueing.mean_value_analysis(processors, middle, demand).rate > rate:
            least = middle
        else:
            most = middle
    return most


def lock_nsec(figures):
    """The part of lock and unlock that lies within the section: half of either."""
    return figures.median("", "lock_unlock", "ns") / 2


def sections_of(figures, what):
    """How many sections something has; a section's time on one processor, and what is added to it when the
    processor before was another one."""
    held = figures.median(1, what, "held_ns")
    sections, moved = figures.median(1, what, "sections"), 0.0
    if (2, what, "held_ns") in figures.values:
        # On two processors the one before was another one half of the time.
        colder = 2 * (figures.median(2, what, "held_ns") - held)
        moved = max(0.0, colder) + figures.median("", "handover", "ns")
        sections = max(sections, figures.median(2, what, "sections"))
    return sections, held + lock_nsec(figures), moved


def costs(figures):
    """What a hop needs, by what has been measured with handlers that do nothing."""
    cost = Costs(*sections_of(figures, "recorded"), 0.0, 0.0)
    overheads = {}
    for processors in (1, 2):
        if ((processors, 0), "hops", "rate") in figures.values:
            rate = figures.median((processors, 0), "hops", "rate") / 1e9
            fitted = fitted_overhead(processors, cost.sections * service(cost, processors), rate)
            overheads[processors] = max(0.0, fitted - figures.median((processors, 0), "hops", "handler_ns"))
    return cost._replace(overhead=overheads[1], overhead_of_several=overheads.get(2, overheads[1]))


def thinking(cost, processors, handler):
    """What an event needs of its processor and not of the mutex."""
    return handler + (cost.overhead if processors == 1 else cost.overhead_of_several)


def service(cost, processors):
    """A section's time when so many processors take the mutex in any order."""
    return cost.alone + cost.moved * (processors - 1) / processors


def predict(cost, processors, handler):
    """Events a second and the share of its time that a processor waits."""
    think = thinking(cost, processors, handler)
    result = queueing.mean_value_analysis(processors, think, cost.sections * service(cost, processors))
    return result.rate * 1e9, result.wait * result.rate / processors


def predict_patient(cost, processors, handler):
    think = thinking(cost, processors, handler) / cost.sections
    result = queueing.simulate_patience(
        processors, think, service(cost, processors), PATIENCE, TRIES, WAKE, rounds=30_000
    )
    return result.rate / cost.sections * 1e9


def disagreement(cost, rounds=40_000):
    """The largest relative difference between simulation and analysis over all rows of the model."""
    worst = 0.0
    for handler in HANDLERS:
        for processors in PROCESSORS:
            think, one = thinking(cost, processors, handler) / cost.sections, service(cost, processors)
            exact = queueing.mean_value_analysis(processors, think, one).rate
            drawn = queueing.simulate(processors, think, one, rounds=rounds).rate
            worst = max(worst, abs(drawn / exact - 1))
    return worst


def measured_table(figures, cost):
    def row(text, *key):
        held = figures.median(*key, "held_ns")
        least, most = figures.spread(*key, "held_ns")
        taken = figures.median(*key, "sections")
        left_out = max(figures.values[(*key, "long")])
        return f"| {text} | {held:.3g} ({least:.3g} to {most:.3g}) | {taken:.3g} | {left_out} |"

    lines = ["| what | held, ns | sections | left out |", "|---|---|---|---|"]
    for name in ("put", "get", "give", "take"):
        lines.append(row(f"a {name}, one thread", "", name))
    lines.append(row("a hop between tasks, one processor", 1, "recorded"))
    if (2, "recorded", "held_ns") in figures.values:
        lines.append(row("a hop between tasks, two processors", 2, "recorded"))
        lines.append(row("a synchronous send and its answer, two processors", 2, "call"))
    return lines


def model_table(cost):
    lines = [
        "| handler | " + " | ".join(f"{n} processor{'s' * (n > 1)}" for n in PROCESSORS) + " |",
        "|---|" + "---|" * len(PROCESSORS),
    ]
    for handler in HANDLERS:
        cells = []
        for processors in PROCESSORS:
            rate, waiting = predict(cost, processors, handler)
            think = thinking(cost, processors, handler)
            most = 1e9 * queueing.upper_bound(processors, think, cost.sections * service(cost, processors))
            patient = predict_patient(cost, processors, handler)
            cells.append(
                f"{report.number(rate)}, {waiting:.1%} waiting ({report.number(patient)}; {report.number(most)})"
            )
        lines.append(f"| {report.duration(handler)} | " + " | ".join(cells) + " |")
    return lines


def saturation_table(figures, cost):
    """The rate that no number of processors exceeds, for events that need the mutex so often and so long."""
    plain = statistics.mean(figures.median("", name, "held_ns") for name in ("put", "get"))
    lines = [
        "| an event is | sections | 2 processors | 4 | 8 | 16 |",
        "|---|---|---|---|---|---|",
    ]
    for text, needs in (
        ("put and taken by a task that is busy", (2.0, plain + lock_nsec(figures), cost.moved)),
        ("a hop to a task that may be parked", (cost.sections, cost.alone, cost.moved)),
        ("a synchronous send and its answer", sections_of(figures, "call")),
    ):
        own = Costs(*needs, 0.0, 0.0)
        rates = [report.number(1e9 / (own.sections * service(own, n))) for n in PROCESSORS if n > 1]
        lines.append(f"| {text} | {own.sections:.3g} | " + " | ".join(f"{rate}/s" for rate in rates) + " |")
    return lines


def validation_table(figures, cost):
    lines = ["| handler | processors | by the model | measured | model / measured |", "|---|---|---|---|---|"]
    for count in (1, 2):
        for handler in HANDLERS:
            if ((count, handler), "hops", "rate") not in figures.values:
                continue
            measured = figures.median((count, handler), "hops", "rate")
            least, most = figures.spread((count, handler), "hops", "rate")
            took = figures.median((count, handler), "hops", "handler_ns")
            modelled = predict(cost, count, took)[0]
            lines.append(
                f"| {report.duration(took)} | {count} | {report.number(modelled)} | {report.number(measured)}"
                f" ({report.number(least)} to {report.number(most)}) | {modelled / measured:.2f} |"
            )
    return lines


def section_text(figures, cost):
    clock = figures.median("", "clock", "ns")
    handover = figures.values.get(("", "handover", "ns"))
    moved = (
        f"{report.duration(statistics.median(handover))}, measured by two threads that alternate"
        if handover
        else "not to be measured with one processor and left out: all but the first column is too good"
    )
    lock = lock_nsec(figures)
    overhead = f"{report.duration(cost.overhead)} on one processor"
    if handover:
        overhead += (
            f" and {report.duration(cost.overhead_of_several)} on two (wake-ups from one to the other, and what waiting"
            " for the mutex takes longer than the model says), which is taken for more as well"
        )
    return report.paragraph(
        f"From each section {clock:.3g} ns were subtracted, which is what two looks at the clock find when"
        " nothing lies between them. Sections of more than 10 us are left out: their thread was interrupted. The"
        f" model adds half of what lock and unlock take when nobody else comes, {lock:.3g} ns, and when the"
        " processor before was another one what a section on two processors takes longer than on one, and a cache"
        f" line's way from one processor to the other ({moved}).",
        f"So a section takes {service(cost, 1):.3g} ns on one processor, {service(cost, 2):.3g} with two,"
        f" {service(cost, 16):.3g} with 16; a hop has {cost.sections:.3g} of them. Without the mutex and its"
        f" handler it needs {overhead}; this is such that the"
        " model gives the rates of handlers that do nothing.",
    )


def section(figures, cost, repetitions, differs):
    lowest = 1e9 / (cost.sections * service(cost, PROCESSORS[-1]))
    text = report.paragraph
    lines = [
        "## What the process-wide mutex costs",
        "",
        text(
            "One mutex guards the counts of all semaphores and, while their locks are free, all queues. **This is a"
            " model**, because this machine has not the processors to measure it; its input is measured."
            f" `scripts/bench.sh --mutex`, {datetime.date.today()}: {report.machine()}; medians of {repetitions}"
            " repetitions, with the smallest and the largest.",
            f"{figures.disturbed} of {figures.runs} runs shared the machine with other work.",
        ),
        "",
        "How long the mutex is held, and in how many sections for each operation:",
        "",
        *measured_table(figures, cost),
        "",
        section_text(figures, cost),
        "",
        text(
            f"**It saturates** at {report.number(lowest)} hops a second with 16 processors: whatever is added then"
            " waits. Rates that are not exceeded while processors take the mutex in any order:",
        ),
        "",
        *saturation_table(figures, cost),
        "",
        text(
            "Events a second, and the share of its time that a processor waits for the mutex, if every processor"
            " always has an event to handle. By mean-value analysis of a closed network: processors that compute, and"
            f" one server; a simulation of the same agrees within {differs:.1%}. In brackets a simulation with the"
            f" runtime's way of waiting (tries {PATIENCE} ns apart, after {TRIES} of them a sleep), and the bound that"
            " no distribution of the times exceeds:",
        ),
        "",
        *model_table(cost),
        "",
        text(
            f"Against this machine, {PAIRS} pairs of tasks whose handlers compute for so long on a processor. On one"
            " processor only the additions are tested, because nobody waits there:",
        ),
        "",
        *validation_table(figures, cost),
        "",
        text(LEFT_OUT),
    ]
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("bin", type=pathlib.Path, help="folder of the built programs")
    parser.add_argument("--repetitions", type=int, default=5, help="how often to measure (5)")
    parser.add_argument("--report", type=pathlib.Path, help="Markdown file whose section is replaced")
    parser.add_argument("--smoke", action="store_true", help="a few hops, once")
    arguments = parser.parse_args()
    if arguments.repetitions < 1:
        parser.error(f"--repetitions needs a number from 1 on, not {arguments.repetitions}")

    repetitions = 1 if arguments.smoke else arguments.repetitions
    processors = len(os.sched_getaffinity(0))
    hops = 2000 if arguments.smoke else 200_000
    figures = measure(arguments.bin / "mutex_sections", repetitions, hops, processors)
    cost = costs(figures)
    differs = disagreement(cost)
    if differs > AGREEMENT:
        sys.exit(f"simulation and analysis differ by {differs:.1%}, more than {AGREEMENT:.0%}: one of them is wrong")
    text = section(figures, cost, repetitions, differs)
    print(text)
    if arguments.report:
        report.write_section(arguments.report, "mutex", text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
