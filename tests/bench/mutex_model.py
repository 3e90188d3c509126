"""The queueing model of the process-wide mutex against what is known of such networks."""

from unittest import TestCase

import model
import queueing

NETWORKS = [(n, think) for n in (1, 2, 4, 16) for think in (0.5, 4.0, 20.0)]  # in times of a service


def erlang_b(servers, load):
    """The share of calls that find all servers taken."""
    blocked = 1.0
    for count in range(1, servers + 1):
        blocked = load * blocked / (count + load * blocked)
    return blocked


class Analysis(TestCase):
    def test_IsErlangsFormula(self):
        """Who thinks is a call in progress; all think at once as rarely as all servers are taken."""
        for processors, think in NETWORKS:
            with self.subTest(processors=processors, think=think):
                rate = queueing.mean_value_analysis(processors, think, 1.0).rate
                self.assertAlmostEqual(rate, 1 - erlang_b(processors, think), places=12)

    def test_LetsALoneProcessorNeverWait(self):
        result = queueing.mean_value_analysis(1, 7.0, 3.0)
        self.assertAlmostEqual(result.rate, 1 / 10)
        self.assertAlmostEqual(result.wait, 0)

    def test_SaturatesAtOneDemand(self):
        self.assertAlmostEqual(queueing.mean_value_analysis(500, 10.0, 2.0).rate, 0.5)

    def test_StaysBelowTheBound(self):
        for processors, think in NETWORKS:
            with self.subTest(processors=processors, think=think):
                rate = queueing.mean_value_analysis(processors, think, 1.0).rate
                self.assertLessEqual(rate, queueing.upper_bound(processors, think, 1.0) + 1e-12)


class Simulation(TestCase):
    def test_AgreesWithTheAnalysisWhereThatIsExact(self):
        for processors, think in NETWORKS:
            with self.subTest(processors=processors, think=think):
                exact = queueing.mean_value_analysis(processors, think, 1.0)
                drawn = queueing.simulate(processors, think, 1.0, rounds=20_000)
                self.assertAlmostEqual(drawn.rate / exact.rate, 1, delta=0.03)
                self.assertAlmostEqual(drawn.wait, exact.wait, delta=0.05 * max(1, exact.wait))

    def test_SaysTheSameForTheSameSeed(self):
        self.assertEqual(
            queueing.simulate(4, 3.0, 1.0, rounds=2000, seed=7), queueing.simulate(4, 3.0, 1.0, rounds=2000, seed=7)
        )

    def test_OfAServiceThatNeverVariesWaitsLess(self):
        for processors in (2, 4, 8):
            with self.subTest(processors=processors):
                fixed = queueing.simulate(processors, 4.0, 1.0, rounds=20_000, exponential=False)
                exact = queueing.mean_value_analysis(processors, 4.0, 1.0)
                self.assertLess(fixed.wait, exact.wait)
                self.assertLessEqual(fixed.rate, 1.01 * queueing.upper_bound(processors, 4.0, 1.0))

    def test_OfWaitersThatComeBackAtOnceIsTheSame(self):
        """Only the order in which they are served differs."""
        exact = queueing.mean_value_analysis(4, 4.0, 1.0)
        drawn = queueing.simulate_patience(4, 4.0, 1.0, patience=0.05, tries=10**9, wake=0, rounds=20_000)
        self.assertAlmostEqual(drawn.rate / exact.rate, 1, delta=0.04)

    def test_OfPatientWaitersLeavesTheMutexFreeAtTimes(self):
        exact = queueing.mean_value_analysis(8, 4.0, 1.0)
        drawn = queueing.simulate_patience(8, 4.0, 1.0, patience=6, tries=6, wake=50, rounds=20_000)
        self.assertLess(drawn.rate, 0.9 * exact.rate)


class MutexModel(TestCase):
    def figures(self, processors):
        figures = model.Figures()
        figures.values.update({
            ("", "lock_unlock", "ns"): [4.0],
            ("", "handover", "ns"): [100.0],
            (1, "recorded", "held_ns"): [30.0],
            (1, "recorded", "sections"): [3.0],
            ((1, 0), "hops", "rate"): [500_000.0],
            ((1, 0), "hops", "handler_ns"): [10.0],
        })
        if processors > 1:
            figures.values.update({
                (2, "recorded", "held_ns"): [50.0],
                (2, "recorded", "sections"): [3.0],
                ((2, 0), "hops", "rate"): [700_000.0],
                ((2, 0), "hops", "handler_ns"): [10.0],
            })
        return figures

    def test_GivesBackWhatIdleHandlersWereMeasuredToDo(self):
        cost = model.costs(self.figures(2))
        for processors, measured in ((1, 500_000), (2, 700_000)):
            self.assertAlmostEqual(model.predict(cost, processors, 10)[0] / measured, 1, places=9)
        self.assertAlmostEqual(model.predict(cost, 1, 10)[1], 0)

    def test_AddsTheHandlerToWhatOneProcessorNeeds(self):
        cost = model.costs(self.figures(1))
        self.assertAlmostEqual(1e9 / model.predict(cost, 1, 5010)[0], 2000 + 5000, places=6)

    def test_ChargesForACacheLineAsOftenAsAnotherProcessorCameBefore(self):
        cost = model.costs(self.figures(2))
        self.assertAlmostEqual(model.service(cost, 1), 32)
        self.assertAlmostEqual(model.service(cost, 2), 32 + (40 + 100) / 2)
        self.assertAlmostEqual(model.service(cost, 4), 32 + (40 + 100) * 3 / 4)

    def test_DoesWithoutASecondProcessor(self):
        cost = model.costs(self.figures(1))
        self.assertAlmostEqual(model.service(cost, 16), 32)

    def test_AgreesWithItsSimulation(self):
        self.assertLess(model.disagreement(model.costs(self.figures(2)), rounds=10_000), model.AGREEMENT)
