"""What the measurement of growth makes of made-up figures."""

import contextlib
import io
import pathlib
import stat
import tempfile
from unittest import TestCase, mock

import measure

SIZES = [10, 100, 1000]

# Prints figures as growth_steps does: every step costs as much at each size, but for what is told.
PROGRAM = """#!/bin/sh
line() {{ echo "{{\\"step\\": \\"$1\\", \\"size\\": $2, \\"wall_ns\\": $3, \\"cpu_ns\\": $3}}"; }}
what=$1
shift
case $what in
pairs) line pairs $1 1000 ;;
list) line memory_list $1 5 ;;
tree) line memory_tree $1 5 ;;
timers) for step in create fire destroy; do line timer_$step $1 200; done ;;
tasks)
    for size; do
        [ $size -le {most} ] || {{ line limit {most} 0; break; }}
        line task_create $size 20000
        line send $size {send}
        line task_destroy $size 30000
    done ;;
esac
"""


def costs(cost):
    return {size: cost(size) for size in SIZES}


class Growth(TestCase):
    def refused(self, theory, cost, price=0.0):
        return sorted(measure.too_fast(theory, costs(cost), costs(lambda size: price)))

    def test_OfAConstantStepMayStayWithinTheSlack(self):
        self.assertEqual(self.refused("constant", lambda size: 30 if size < 1000 else 89), [])

    def test_OfAConstantStepIsRefusedBeyondTheSlack(self):
        self.assertEqual(self.refused("constant", lambda size: 30 if size < 1000 else 91), [1000])

    def test_OfAConstantStepIsRefusedWhenItIsLinear(self):
        self.assertEqual(self.refused("constant", lambda size: 30 + size, price=100), [100, 1000])

    def test_OfALogarithmicStepMayPayForTheLevelsOfItsTree(self):
        deep = {10: 3.3, 100: 6.6, 1000: 10}
        self.assertEqual(self.refused("logarithmic", lambda size: 100 + 100 * deep[size], price=100), [])

    def test_OfALogarithmicStepIsRefusedWhenItIsLinear(self):
        self.assertEqual(self.refused("logarithmic", lambda size: 100 + size, price=1), [1000])

    def test_OfALinearStepMayPayForEachElement(self):
        self.assertEqual(self.refused("linear", lambda size: 100 + 5 * size, price=5), [])

    def test_OfALinearStepIsRefusedWhenItIsQuadratic(self):
        self.assertEqual(self.refused("linear", lambda size: 100 + size * size // 10, price=5), [1000])

    def test_IsHeldAgainstEverySmallerSize(self):
        fallen = {10: 100, 100: 20, 1000: 80}
        self.assertEqual(self.refused("constant", fallen.get), [1000])

    def test_OfPairsIsJudgedWhereTasksShareProcessors(self):
        pairs = measure.STEPS[0]
        self.assertEqual(list(measure.checked(pairs, {1: "a", 2: "b", 4: "c"}, 2)), [4])

    def test_OfEveryStepIsJudgedByItsClocks(self):
        series = {step.name: measure.Series() for step in measure.STEPS}
        series["memory_list"] = series["memory_tree"] = measure.Series()
        for step in measure.STEPS:
            for size in (1000, 100_000_000):
                for figures in (series[step.name].wall, series[step.name].cpu):
                    figures[size] = measure.Figure(size, size, size)
        messages, marks = measure.check(series, 2)
        wanted = {(step.name, clock, 100_000_000) for step in measure.STEPS for clock in step.clocks}
        self.assertGreater(len(wanted), len(measure.STEPS))
        self.assertEqual(marks, wanted)
        self.assertEqual(len(messages), len(wanted))


class Report(TestCase):
    def measured(self, send="33", most=5000):
        """Exit code, what was written, and the messages, of a run with a program that knows the figures."""
        with tempfile.TemporaryDirectory() as folder:
            program = pathlib.Path(folder, "growth_steps")
            program.write_text(PROGRAM.format(send=send, most=most))
            program.chmod(program.stat().st_mode | stat.S_IXUSR)
            document = pathlib.Path(folder, "document.md")
            document.write_text("# Document\n")
            command = ["measure.py", folder, "--repetitions", "5", "--report", str(document)]
            errors = io.StringIO()
            with contextlib.ExitStack() as stack:
                stack.enter_context(mock.patch("sys.argv", command))
                for name in ("PAIRS", "TIMERS"):  # fewer runs than all of them
                    stack.enter_context(mock.patch(f"measure.{name}", [1000, 2000]))
                stack.enter_context(contextlib.redirect_stderr(errors))
                stack.enter_context(contextlib.redirect_stdout(io.StringIO()))
                code = measure.main()
            return code, document.read_text(), errors.getvalue()

    def test_OfStepsThatKeepToTheirTheoryIsASuccess(self):
        code, text, errors = self.measured()
        self.assertEqual(code, 0)
        self.assertIn("<!-- growth: begin -->", text)
        self.assertIn("| a send to a busy task | 5,000 | 33 ns (33 ns to 33 ns) |", text)
        self.assertNotIn("**", text)
        self.assertNotIn("grows too fast", errors)

    def test_OfAStepThatGrowsTooFastFailsAndMarksIt(self):
        code, text, errors = self.measured(send="$size")
        self.assertEqual(code, 1)
        self.assertIn("**5 us (5 us to 5 us): faster than its theory**", text)
        self.assertIn(
            "grows too fast: a send to a busy task, 5000: 5 us on the wall, but its theory (constant) and a"
            " factor of 3 allow 30 ns",
            errors,
        )

    def test_NamesTheLimitOfTheSystemAndTakesTheMostThatWorks(self):
        with mock.patch("measure.limits", lambda: [(3100, "kernel.threads-max")]):
            code, text, errors = self.measured(most=3000)
        self.assertEqual(code, 0)
        for place in (text, errors):
            self.assertIn(
                "Only 3000 tasks could be created instead of 5000; the tightest limit is kernel.threads-max.", place
            )
        self.assertIn("| a task destroyed | 2,850 |", text)
        self.assertNotIn("| a task destroyed | 5,000 |", text)


class Limits(TestCase):
    def test_BeginWithTheTightest(self):
        counts = [count for count, _ in measure.limits()]
        self.assertEqual(counts, sorted(counts))
        self.assertGreaterEqual(len(counts), 3)
