"""What the tables show: rows in groups, and which peers a row's ratio leaves out."""
import typing

OURS = "zor"
ONE_CPU, BUSY = "@1cpu", "@busy"  # of a workload: held to one processor; two busy processes beside


class Row(typing.NamedTuple):
    workload: str
    metric: str
    text: str  # what is measured
    more: bool  # whether more is better

    @property
    def name(self):
        """The workload as readers know it, without the number that sorts it."""
        return self.workload.split("_", 1)[1]


def rate(workload, text):
    return Row(workload, "rate", text, True)


MORE, LESS = True, False

GROUPS = [
    (
        "One or two producers",
        [
            rate("W1_stream_1p", "events from one producer, at most 200 in flight"),
            rate("W2_stream_2p", "the same from two producers"),
            rate("W3_burst", "200 posts, then a wait until all are handled; 3 runs a round"),
            Row("W10_post_cost", "per_post", "a post to a busy actor, its producer's cost", LESS),
            Row("W1_stream_1p", "cpu", "processor time of the first row", LESS),
        ],
    ),
    (
        "Calls and hops",
        [
            Row("W4_sync_roundtrip", "mean", "a blocking call, mean", LESS),
            Row("W4_sync_roundtrip", "p50", "median", LESS),
            Row("W4_sync_roundtrip", "p99", "99th percentile", LESS),
            Row("W4_sync_roundtrip@1cpu", "p50", "median on one processor", LESS),
            Row("W5_wake_latency", "p50", "a post to an actor idle for 200 us, median", LESS),
            Row("W5_wake_latency", "p99", "99th percentile", LESS),
            Row("W5_wake_latency", "cpu_per_event", "processor time, the sleep included", LESS),
            rate("W6_pingpong", "hops between two actors"),
            rate("W6_pingpong@1cpu", "on one processor"),
        ],
    ),
    (
        "Many tasks",
        [
            rate("W9_ring", "hops around 100 actors"),
            rate("W9_ring@1cpu", "on one processor"),
            rate("W11_pairs_4", "hops in four pairs at once"),
            rate("W11_pairs_4@1cpu", "on one processor"),
            rate("W12_pairs_16", "hops in 16 pairs at once"),
            rate("W12_pairs_16@1cpu", "on one processor"),
            rate("W13_big_50", "50 actors ping each other at random"),
            rate("W13_big_50@1cpu", "on one processor"),
            Row("W14_mixed", "p50", "40 actors, a day's mixture: calls, median", LESS),
            Row("W14_mixed", "p99", "calls, 99th percentile", LESS),
            Row("W14_mixed", "cpu_per_event", "processor time of an event", LESS),
            rate("W14_mixed", "events of all kinds (they are paced)"),
            Row("W14_mixed", "streamed", "of the streams' events", MORE),
            Row("W14_mixed@1cpu", "p50", "calls on one processor, median", LESS),
            Row("W14_mixed@1cpu", "p99", "99th percentile", LESS),
            Row("W14_mixed@1cpu", "cpu_per_event", "processor time of an event", LESS),
            Row("W14_mixed@1cpu", "streamed", "of the streams' events", MORE),
        ],
    ),
    (
        "With busy neighbours",
        [
            Row("W4_sync_roundtrip@busy", "p50", "a blocking call, median", LESS),
            Row("W4_sync_roundtrip@busy", "p99", "99th percentile", LESS),
            rate("W6_pingpong@busy", "hops between two actors"),
            rate("W9_ring@busy", "hops around 100 actors"),
            rate("W11_pairs_4@busy", "hops in four pairs at once"),
            rate("W12_pairs_16@busy", "hops in 16 pairs at once"),
            rate("W13_big_50@busy", "50 actors ping each other at random"),
            Row("W14_mixed@busy", "p50", "a day's mixture: calls, median", LESS),
            Row("W14_mixed@busy", "p99", "calls, 99th percentile", LESS),
            Row("W14_mixed@busy", "cpu_per_event", "processor time of an event", LESS),
            Row("W14_mixed@busy", "streamed", "of the streams' events", MORE),
        ],
    ),
    (
        "Timers",
        [
            Row(
                "W7a_timers_steady",
                "cpu",
                "10,000 timers of 100 ms, processor time (ratio: to peers that fire within 100 us)",
                LESS,
            ),
            Row("W7a_timers_steady", "fired", "of the expected firings", MORE),
            Row("W7a_timers_steady", "late_p50", "lateness, median", LESS),
            Row("W7a_timers_steady", "late_p99", "99th percentile", LESS),
            Row("W7b_timers_churn", "create", "timers created", MORE),
            Row("W7b_timers_churn", "cancel_in_order", "cancelled in order", MORE),
            Row("W7b_timers_churn", "cancel_shuffled", "cancelled in random order", MORE),
        ],
    ),
    (
        "Tasks",
        [
            Row("W8_actors_200", "create", "200 actors created; 11 runs a round", LESS),
            Row("W8_actors_200", "stop", "stopped", LESS),
            Row("W8_actors_200", "rss_per_actor", "resident memory of each", LESS),
        ],
    ),
]

# What a peer does not do though the row is about it: peer -> why, for each workload and metric.
# poco: TimerTask::cancel() is one store. The queue's reference to the task stays, and the task is
# destroyed only when its time has come.
MARKS = {"poco": "cancelling sets a flag, the entry stays in the queue until its time has come"}
APART = {
    ("W7b_timers_churn", "cancel_in_order"): MARKS,
    ("W7b_timers_churn", "cancel_shuffled"): MARKS,
}

# Cheap is no merit of what is late: (metric, at most this, in words), of the same workload.
IN_TIME = ("late_p50", 0.1, "median lateness is more than 0.1 ms")
LIMITS = {
    ("W7a_timers_steady", "cpu"): IN_TIME,
    ("W7a_timers_steady", "cpu_per_event"): IN_TIME,
}


def rows():
    return [row for _, group in GROUPS for row in group]
