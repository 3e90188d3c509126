"""A handler that does not return: where it is, whether it gets on, and since when."""

import re

import documents
from support import TROUBLED, CoreTarget, InspectCase, LiveTarget, line_of, task_named

SOURCE = "TroubledDaemon.cpp"


class HangFacts:
    PROGRAM = TROUBLED

    def test_AHandlerThatDoesNotReturnIsToldWithItsPlaceAndWhatItDoes(self):
        _, report, text = self.look_at("hung")
        spinner, sleeper = (task_named(report, name) for name in ("Spinner", "Sleeper"))
        with self.subTest("the place is the application's, not the library's"):
            self.assertIn("SpinForEver", spinner["hang"]["place"]["function"])
            self.assertIn("WaitForEver", sleeper["hang"]["place"]["function"])
            self.assertEqual(sleeper["hang"]["place"]["line"], line_of(SOURCE, "sleeps here"))
            handler = rf"in handler .* at {SOURCE}:\d+"
            self.assertRegex(text, rf"\n  Spinner +\d+ +\d+ +{handler}, running")
            self.assertRegex(text, rf"\n  Sleeper +\d+ +0 +{handler}, sleeping")
        with self.subTest("what runs is told from what sleeps"):
            self.assertEqual(spinner["hang"]["running"], True)
            self.assertEqual(sleeper["hang"]["running"], False)
        with self.subTest("pings that wait tell for how long"):
            pings = spinner["hang"]["pings"]
            self.assertGreaterEqual(pings["waiting"], 2)
            self.assertEqual(pings["oldest_at_least_s"], 2 * (pings["waiting"] - 1))
            self.assertIn(f"{pings['waiting']} pings wait, the oldest for at least ", text)
            self.assertEqual(sleeper["hang"]["pings"], {"waiting": 0, "oldest_at_least_s": None})
        if self.LIVE:
            self.check_times(spinner, sleeper, text)
            documents.check(self, "output", "hung", re.sub(r", for Spinner, .*", "", text))
        else:
            self.assertIsNone(spinner["since"]["at_most_s"])

    def check_times(self, spinner, sleeper, text):
        with self.subTest("the supervisor's last sign of life bounds the time"):
            sign = spinner["hang"]["last_sign_s"]
            self.assertGreater(sign, spinner["hang"]["pings"]["oldest_at_least_s"])
            self.assertEqual(spinner["since"]["at_most_s"], sign)
            self.assertIn(f"for at most {sign:.1f} s", text)
            self.assertIn(f"last sign of life {sign:.1f} s ago", text)
            self.assertIsNone(sleeper["hang"]["last_sign_s"])
        with self.subTest("processor time is told"):
            self.assertGreater(spinner["hang"]["cpu_s"], 0)
            self.assertGreater(spinner["hang"]["cpu_share"], 0)
            self.assertGreater(spinner["hang"]["cpu_s"], sleeper["hang"]["cpu_s"])


class LiveHang(LiveTarget, HangFacts, InspectCase):
    pass


class CoreHang(CoreTarget, HangFacts, InspectCase):
    pass
