"""What the comparison with other frameworks makes of its figures: ratios, who is left out of them, spreads,
processor time."""
import contextlib
import os
import pathlib
import tempfile
from unittest import TestCase, mock

import figures
import rounds
import rows
import tables

STREAM = rows.Row("W1_stream_1p", "rate", "events", True)
CALL = rows.Row("W4_sync_roundtrip", "p50", "a call", False)
CANCEL = rows.Row("W7b_timers_churn", "cancel_in_order", "cancelled", True)
STEADY = rows.Row("W7a_timers_steady", "cpu", "timers", False)


def results(*measured):
    """Of (peer, row or (workload, metric), figures of all rounds)."""
    made = figures.Results()
    for peer, what, values in measured:
        for value in values:
            line = {"peer": peer, "workload": what[0], "metric": what[1], "value": value, "unit": "u"}
            made.add(line)
    return made


def cost(workload):
    return workload, "cpu_per_event"


class Ratio(TestCase):
    def test_DividesByTheLargestMedianWhereMoreIsBetter(self):
        made = results(("zor", STREAM, [5, 6, 100]), ("a", STREAM, [8, 8, 1]), ("b", STREAM, [2, 3, 4]))
        self.assertEqual(figures.ratio(made, STREAM), 6 / 8)

    def test_DividesTheSmallestMedianWhereLessIsBetter(self):
        made = results(("zor", CALL, [2]), ("a", CALL, [8]), ("b", CALL, [3]))
        self.assertEqual(figures.ratio(made, CALL), 3 / 2)

    def test_HasNoneWithoutAFigureOnEitherSide(self):
        self.assertIsNone(figures.ratio(results(("a", CALL, [8])), CALL))
        self.assertIsNone(figures.ratio(results(("zor", CALL, [8])), CALL))

    def test_TakesWhatTheMachineItselfAllowsForNoPeer(self):
        self.assertIsNone(figures.ratio(results(("zor", CALL, [8]), ("raw", CALL, [1])), CALL))

    def test_KeepsVariantsApart(self):
        made = results(("zor", STREAM, [4]), ("a", STREAM, [8]))
        line = {"peer": "a", "workload": STREAM.workload, "metric": "rate", "value": 99, "unit": "u"}
        made.add(line, "@busy")
        self.assertEqual(figures.ratio(made, STREAM), 0.5)
        self.assertIsNone(figures.ratio(made, STREAM._replace(workload="W1_stream_1p@busy")))


class LeftOut(TestCase):
    def test_IsWhoOnlyMarksACancelledTimer(self):
        made = results(("zor", CANCEL, [4]), ("poco", CANCEL, [100]), ("qt", CANCEL, [8]))
        self.assertEqual(figures.ratio(made, CANCEL), 4 / 8)
        self.assertEqual(list(figures.left_out(made, *CANCEL[:2])), ["poco"])

    def test_IsNobodyInOtherRowsOfTheSameWorkload(self):
        create = CANCEL._replace(metric="create")
        made = results(("zor", create, [4]), ("poco", create, [16]), ("qt", create, [8]))
        self.assertEqual(figures.ratio(made, create), 4 / 16)

    def late(self, ours):
        lateness = (STEADY.workload, "late_p50")
        cpu = cost(STEADY.workload)
        return results(
            *(("zor", STEADY, [4]), ("in_time", STEADY, [6])),
            *(("late", STEADY, [1]), ("mute", STEADY, [1])),
            *(("zor", lateness, [ours]), ("in_time", lateness, [0.1]), ("late", lateness, [0.101])),
            *(("zor", cpu, [40]), ("in_time", cpu, [60]), ("late", cpu, [10])),
        )

    def test_IsWhoFiresLateOrDoesNotSay(self):
        made = self.late(ours=0.05)
        self.assertEqual(figures.ratio(made, STEADY), 6 / 4)
        self.assertEqual(sorted(figures.left_out(made, *STEADY[:2])), ["late", "mute"])

    def test_MayBeThisLibrary(self):
        self.assertIsNone(figures.ratio(self.late(ours=0.2), STEADY))

    def test_IsNotTheCheapestEventEither(self):
        self.assertEqual(figures.event_cost(self.late(ours=0.05), STEADY.workload), (40, 60, "in_time"))


class EventCost(TestCase):
    def test_IsTheLeastOfThePeersMediansByName(self):
        cpu = cost(STREAM.workload)
        made = results(("zor", cpu, [2, 3, 9]), ("a", cpu, [7]), ("b", cpu, [4, 5, 6]))
        self.assertEqual(figures.event_cost(made, STREAM.workload), (3, 5, "b"))

    def test_IsEmptyWhereNobodyMeasuresIt(self):
        self.assertEqual(figures.event_cost(results(("zor", STREAM, [1])), STREAM.workload), (None,) * 3)


class Table(TestCase):
    def test_NamesWorkloadsAsCodeForAVariantReadsLikeACommandOfTheDocumentation(self):
        busy = STREAM._replace(workload="W1_stream_1p@busy")
        made = results(("zor", busy, [4]))
        self.assertIn("\n| `stream_1p@busy`: events | u | ", tables.table(made, [busy]))

    def test_HasRatioSpreadAndProcessorTimeInEachRow(self):
        cpu = cost(STREAM.workload)
        made = results(
            *(("zor", STREAM, [3e6, 1e6, 2e6]), ("a", STREAM, [4e6]), ("b", STREAM, [1e3])),
            *(("zor", cpu, [0.25]), ("a", cpu, [0.5]), ("b", cpu, [0.75])),
        )
        line = tables.table(made, [STREAM]).splitlines()[2]
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        self.assertEqual(cells[1:], ["u", "2M", "4M", "1k", "0.50", "1M to 3M", "0.25", "0.5 (a)"])

    def test_MarksAndExplainsWhoIsLeftOut(self):
        made = results(("zor", CANCEL, [4]), ("poco", CANCEL, [100]), ("qt", CANCEL, [8]))
        text = tables.table(made, [CANCEL])
        self.assertIn("| 100 † |", text)
        self.assertIn("| 8 |", text)
        self.assertRegex(text, r"\n† `timers_churn`: .*flag.*: poco\.")

    def test_IsLeftOutWhenNothingOfItsGroupWasMeasured(self):
        text = tables.tables(results(("zor", STREAM, [4])))
        self.assertIn(f"## {rows.GROUPS[0][0]}", text)
        self.assertEqual(text.count("## "), 1)

    def test_WritesNumbersWithThreeDigits(self):
        for value, text in [(None, "-"), (0, "0"), (0.001, "0.001"), (999.4, "999")]:
            self.assertEqual(tables.short(value), text)
        for value, text in [(999.7, "1k"), (12345, "12.3k"), (999.7e3, "1M")]:
            self.assertEqual(tables.short(value), text)

    def test_KnowsEachFigureThatIsLeftOut(self):
        known = {(row.workload, row.metric) for row in rows.rows()}
        self.assertLessEqual(set(rows.APART), known)
        self.assertLessEqual({key for key in rows.LIMITS if key[1] != "cpu_per_event"}, known)


class Report(TestCase):
    def test_KeepsWhatWasWrittenByHand(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "benchmarks.md"
            path.write_text(f"old figures\n{tables.NOTES_BEGIN}\n\nby hand\n")
            charts = [pathlib.Path(folder) / "charts" / name for name in ("first.svg", "second.svg")]
            tables.write_report(results(("zor", STREAM, [4])), path, 1, charts)
            text = path.read_text()
        self.assertTrue(text.endswith(f"{tables.NOTES_BEGIN}\n\nby hand\n"))
        self.assertNotIn("old figures", text)
        self.assertLess(text.index("![first](charts/first.svg)"), text.index("| workload |"))
        self.assertGreater(text.index("![second](charts/second.svg)"), text.index("| workload |"))


def seconds(*values):
    return mock.Mock(side_effect=values)


class Neighbours(TestCase):
    def test_AreNotTakenForNoise(self):
        beside = contextlib.nullcontext([mock.sentinel.spinner])
        with mock.patch.multiple(
            rounds,
            wait_for_quiet=lambda: None,
            spinners=lambda _: beside,
            busy=seconds(100, 106),  # 6 s in 2 s: 4 of the neighbours, 1.5 of the program, 0.5 of others
            used_by=seconds(10, 14),
            children=seconds(5, 6.5),
        ), mock.patch("rounds.time.time", seconds(0, 2)):
            lines, foreign = rounds.run(["echo", '{"value": 1}'], {}, (0, 1))
        self.assertEqual(lines, [{"value": 1}])
        self.assertEqual(foreign, 0.25)

    def test_SpinAndAreGoneWhateverHappened(self):
        with self.assertRaises(KeyboardInterrupt):
            with rounds.spinners(sorted(os.sched_getaffinity(0))[:1]) as started:
                self.assertGreater(rounds.used_by(started), 0)
                raise KeyboardInterrupt
        self.assertEqual([process.returncode for process in started], [-9])
