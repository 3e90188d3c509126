"""The figures as SVG: the ratios of all rows, and where rate and latency are bought by processor time.

The same figures give the same files, byte by byte.
"""
import math

import matplotlib

matplotlib.use("agg")  # lays text out; what is saved is SVG all the same
matplotlib.rcParams["svg.hashsalt"] = "zor"
from matplotlib import pyplot, text, ticker, transforms  # noqa: E402

from figures import ratio, ratio_text  # noqa: E402
from rows import BUSY, GROUPS, ONE_CPU, OURS  # noqa: E402

OUR_COLOUR, PEER_COLOUR, BETTER, WORSE = "tab:orange", "tab:gray", "tab:blue", "tab:orange"

# The panels of a chart of many tasks: workload, metric and unit of the ordinate, title.
PANELS = [
    ("W9_ring", "rate", "hops/s", "ring: hops around 100 actors"),
    ("W11_pairs_4", "rate", "hops/s", "pairs_4: hops in four pairs at once"),
    ("W12_pairs_16", "rate", "hops/s", "pairs_16: hops in 16 pairs at once"),
    ("W13_big_50", "rate", "messages/s", "big_50: 50 actors ping at random"),
    ("W14_mixed", "p50", "us", "mixed: a call, median (less is better)"),
    ("W14_mixed", "p99", "us", "mixed: a call, 99th percentile (less is better)"),
]


def save(figure, path):
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)
    return path


def ratio_chart(results, path):
    """One bar for each row that has a ratio, to the left or the right of 1; None without any."""
    groups = []
    for title, group in GROUPS:
        rows = [row for row in group if results.has(row)]
        bars = [(f"{row.name}: {row.text}", ratio(results, row)) for row in rows]
        bars = [bar for bar in bars if bar[1] is not None]
        if bars:
            groups.append((title, bars))
    if not groups:
        return None
    lines = sum(len(bars) + 2 for _, bars in groups)
    figure, axis = pyplot.subplots(figsize=(11, 0.21 * lines + 1))
    axis.set_xscale("log")
    y, ticks = 0, []
    for title, bars in groups:
        ticks.append((y, title, True))
        for name, times in bars:
            y += 1
            good = times >= 1
            axis.barh(y, times - 1, left=1, height=0.7, color=BETTER if good else WORSE)
            axis.annotate(
                ratio_text(times),
                (times, y),
                xytext=(3 if good else -3, 0),
                textcoords="offset points",
                ha="left" if good else "right",
                va="center",
                fontsize=7,
            )
            ticks.append((y, name, False))
        y += 2
    axis.set_yticks([at for at, _, _ in ticks], [name for _, name, _ in ticks], fontsize=7.5)
    for label, (_, _, heading) in zip(axis.get_yticklabels(), ticks):
        label.set_fontweight("bold" if heading else "normal")
    axis.tick_params(axis="y", length=0)
    axis.set_ylim(y - 1, -1)
    values = [times for _, bars in groups for _, times in bars]
    first, last = min(*values, 0.7) / 1.8, max(*values, 1.4) * 1.8  # with room for the numbers
    within = (1,) if last / first > 3e3 else (1, 2, 5)
    steps = [times * 10**power for power in range(-4, 5) for times in within]
    axis.set_xlim(first, last)
    axis.xaxis.set_major_locator(ticker.FixedLocator([step for step in steps if first < step < last]))
    axis.xaxis.set_major_formatter(ticker.FormatStrFormatter("%g"))
    axis.xaxis.set_minor_locator(ticker.NullLocator())
    axis.axvline(1, color="black", linewidth=0.8)
    axis.tick_params(axis="x", labelsize=8)
    axis.grid(axis="x", linewidth=0.3)
    axis.set_axisbelow(True)
    axis.set_xlabel(f"{OURS} against the best peer of the row: how many times as good", fontsize=8)
    figure.tight_layout()
    return save(figure, path)


def limits(axis, values, room):
    """Logarithmic limits around these values, with a factor of `room` on each side, and ticks."""
    centre = math.sqrt(min(values) * max(values))
    half = max(math.sqrt(max(values) / min(values)), 1.15) * room
    first, last = centre / half, centre * half
    wide = last / first > 50
    steps = [s * 10**p for p in range(-9, 12) for s in ((1,) if wide else (1, 1.5, 2, 3, 5, 7))]
    axis.set_major_locator(ticker.FixedLocator([s for s in steps if first <= s <= last]))
    axis.set_minor_locator(ticker.NullLocator())
    short = first >= 1000
    axis.set_major_formatter(ticker.EngFormatter(sep="") if short else ticker.FormatStrFormatter("%g"))
    return first, last


def offsets():
    """Where a label may stand beside its point, the nearest first: (x, y) in points."""
    for radius in (7, 12, 18, 25, 33, 42, 52, 64):
        for eighth in (0, 4, 1, 7, 3, 5, 2, 6):
            angle = math.pi / 4 * eighth
            yield radius * math.cos(angle), radius * math.sin(angle)


def label_points(axis, points):
    """Writes each point's name beside it, where neither a point nor another name stands, with a line
    between that crosses none."""
    renderer = axis.figure.canvas.get_renderer()
    pixels = renderer.points_to_pixels(1)
    at = {name: axis.transData.transform((x, y)) for name, x, y in points}
    dots = {name: transforms.Bbox.from_bounds(px - 5, py - 5, 10, 10) for name, (px, py) in at.items()}
    inside, written, lines = axis.get_window_extent(renderer), [], []
    for name, x, y in sorted(points, key=lambda point: (point[0] != OURS, point)):
        others = [dot for other, dot in dots.items() if other != name] + written
        for dx, dy in offsets():
            label = axis.annotate(
                name,
                (x, y),
                xytext=(dx, dy),
                textcoords="offset points",
                ha="left" if dx > 1 else "right" if dx < -1 else "center",
                va="bottom" if dy > 1 else "top" if dy < -1 else "center",
                fontsize=8,
                fontweight="bold" if name == OURS else "normal",
                arrowprops={"arrowstyle": "-", "linewidth": 0.4} if math.hypot(dx, dy) > 10 else None,
            )
            label.update_positions(renderer)
            box = text.Text.get_window_extent(label, renderer).padded(1)  # of the name, without its line
            within = inside.x0 < box.x0 and box.x1 < inside.x1 and inside.y0 < box.y0 and box.y1 < inside.y1
            line = at[name] + [[dx * pixels * part / 8, dy * pixels * part / 8] for part in range(1, 9)]
            free = not any(box.overlaps(other) or other.count_contains(line) for other in others)
            free = free and not any(box.count_contains(other) for other in lines)
            if within and free and not box.overlaps(dots[name]):
                written.append(box)
                lines.append(line)
                break
            label.remove()
        else:
            axis.annotate(name, (x, y), fontsize=8)  # no room: better crowded than missing


def scatter(axis, points, title, xlabel, ylabel):
    """Named points (name, x, y) on two logarithmic axes."""
    axis.set_xscale("log")
    axis.set_yscale("log")
    axis.set_xlim(limits(axis.xaxis, [x for _, x, _ in points], 1.6))  # names stand to the sides
    axis.set_ylim(limits(axis.yaxis, [y for _, _, y in points], 1.3))
    for name, x, y in points:
        ours = name == OURS
        axis.plot(x, y, "o", markersize=6, color=OUR_COLOUR if ours else PEER_COLOUR, zorder=4 if ours else 3)
    axis.set_title(title, fontsize=9)
    axis.set_xlabel(xlabel, fontsize=8)
    axis.set_ylabel(ylabel, fontsize=8)
    axis.tick_params(labelsize=7)
    axis.grid(linewidth=0.3)
    axis.set_axisbelow(True)


def points_of(results, workload, x, y):
    """(peer, its median of metric x, that of y) for all that have both."""
    found = [(p, results.median(p, workload, x), results.median(p, workload, y)) for p in results.peers()]
    return [point for point in found if point[1] and point[2]]


def timers_chart(results, path):
    """What an early timer costs."""
    workload = "W7a_timers_steady"
    points = points_of(results, workload, "late_p50", "cpu")
    if not points:
        return None
    figure, axis = pyplot.subplots(figsize=(7, 5))
    title = "10,000 timers of 100 ms: processor time against lateness (less of both is better)"
    scatter(axis, points, title, "lateness, median, ms", "processor time, cpu-s/s")
    figure.tight_layout()
    figure.canvas.draw()
    label_points(axis, points)
    return save(figure, path)


def many_tasks_chart(results, path, variant, where):
    """What each framework does with many tasks, and what an event costs it: a panel for each workload."""
    panels = [(points_of(results, panel[0] + variant, "cpu_per_event", panel[1]), *panel) for panel in PANELS]
    panels = [panel for panel in panels if panel[0]]
    if not panels:
        return None
    columns = min(3, len(panels))
    lines = math.ceil(len(panels) / columns)
    figure, axes = pyplot.subplots(lines, columns, figsize=(4.6 * columns, 3.9 * lines), squeeze=False)
    for axis in axes.flat[len(panels) :]:
        axis.set_visible(False)
    for axis, (points, _, _, unit, title) in zip(axes.flat, panels):
        scatter(axis, points, title, "processor time of an event, us", unit)
    figure.suptitle(f"Many tasks{where}", fontsize=11)
    figure.tight_layout()
    figure.canvas.draw()
    for axis, (points, *_) in zip(axes.flat, panels):
        label_points(axis, points)
    return save(figure, path)


def write_charts(results, folder):
    """The files that were written, the ratios first."""
    folder.mkdir(parents=True, exist_ok=True)
    written = [
        ratio_chart(results, folder / "ratios.svg"),
        many_tasks_chart(results, folder / "many_tasks.svg", "", ""),
        many_tasks_chart(results, folder / "many_tasks_1cpu.svg", ONE_CPU, " on one processor"),
        many_tasks_chart(results, folder / "many_tasks_busy.svg", BUSY, " beside two busy processes"),
        timers_chart(results, folder / "timers.svg"),
    ]
    return [path for path in written if path]
