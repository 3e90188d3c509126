"""The figures of all runs, and what is made of them: medians, spreads, ratios, processor time an event."""
import collections
import statistics

from rows import APART, LIMITS, OURS


class Results:
    def __init__(self):
        self.values = collections.defaultdict(list)  # (peer, workload, metric) -> figures
        self.units = {}  # (workload, metric) -> unit
        self.skipped = {}  # (peer, workload, metric) -> why there is no figure
        self.noisy = 0
        self.seconds = 0.0

    def add(self, line, variant=""):
        workload = line["workload"] + variant
        key = line["peer"], workload, line["metric"]
        if line["value"] is None:
            self.skipped[key] = line["unit"]
        else:
            self.values[key].append(line["value"])
            self.units[workload, line["metric"]] = line["unit"]

    def peers(self):
        """All that were measured, this library first; what the machine itself allows is no peer."""
        found = {peer for peer, _, _ in self.values} - {"raw"}
        return sorted(found, key=lambda peer: (peer != OURS, peer))

    def has(self, row):
        return (row.workload, row.metric) in self.units

    def unit(self, row):
        return self.units[row.workload, row.metric]

    def median(self, peer, workload, metric):
        values = self.values.get((peer, workload, metric))
        return statistics.median(values) if values else None

    def spread(self, peer, workload, metric):
        """The smallest and the largest figure of all rounds; None without one."""
        values = self.values.get((peer, workload, metric))
        return (min(values), max(values)) if values else None


def left_out(results, workload, metric):
    """Those that a ratio is not computed against, and why: peer -> reason. This library may be one."""
    found = {}
    for peer in results.peers():
        if results.median(peer, workload, metric) is None:
            continue
        reason = APART.get((workload, metric), {}).get(peer)
        if (workload, metric) in LIMITS:
            measure, limit, words = LIMITS[workload, metric]
            value = results.median(peer, workload, measure)
            if value is None or value > limit:
                reason = words
        if reason:
            found[peer] = reason
    return found


def compared(results, workload, metric):
    """The medians of the peers that the ratio is computed against: peer -> median."""
    out = left_out(results, workload, metric)
    medians = {
        peer: results.median(peer, workload, metric)
        for peer in results.peers()
        if peer != OURS and peer not in out
    }
    return {peer: median for peer, median in medians.items() if median is not None}


def ratio(results, row):
    """How many times as good as the best peer; None where either has no figure that counts."""
    ours = results.median(OURS, row.workload, row.metric)
    others = compared(results, row.workload, row.metric).values()
    if ours is None or not others or OURS in left_out(results, row.workload, row.metric):
        return None
    best = max(others) if row.more else min(others)
    if ours == 0 or best == 0:
        return 1.0 if ours == best else None
    return ours / best if row.more else best / ours


def ratio_text(times):
    return "-" if times is None else format(times, ".2f" if times >= 0.1 else ".2g")


def event_cost(results, workload):
    """Processor time of an event in us: this library's, the least of the peers', and that peer's name."""
    ours = results.median(OURS, workload, "cpu_per_event")
    others = compared(results, workload, "cpu_per_event")
    best = min(others, key=lambda peer: (others[peer], peer), default=None)
    return ours, others.get(best), best
