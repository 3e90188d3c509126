"""Circles through every kind of lock, and what is said of waits that memory attributes to nobody.

One run of the tool shows all of them: each test makes all its claims about one report.
"""

import re

import documents
from support import TROUBLED, CoreTarget, InspectCase, LiveTarget, line_of

SOURCE = "TroubledDaemon.cpp"


def at(words):
    """Where the daemon's source has the words."""
    return f"{SOURCE}:{line_of(SOURCE, words)}"


class CircleFacts:
    PROGRAM = TROUBLED

    def test_ACircleThroughAnyLockIsADeadlock(self):
        daemon, report, text = self.look_at("circles")
        chains = [" -> ".join(deadlock["chain"]) for deadlock in report["deadlocks"]]
        self.assertEqual(
            chains,
            [
                "Scan -> Store -> Scan",
                "Left -> Right -> Left",
                "Reader -> Writer -> Reader",
                "Filler -> Looker -> Filler",
                "Joiner -> Joined -> Joiner",
            ],
        )
        told = {t["name"]: t["summary"] for d in report["deadlocks"] for t in d["threads"]}
        self.check_sends(told, text)
        with self.subTest("the application's locks are named with their holders"):
            for name, wanted, holder in (
                ("Store", "TCMutex g_tuner", "Scan"),
                ("Left", "mutex g_right", "Right"),
                ("Right", "mutex g_left", "Left"),
                ("Reader", "mutex g_index", "Writer"),
                ("Writer", "TCRWLock g_table", "Reader"),
                ("Filler", "mutex g_list", "Looker"),
                ("Looker", "rwlock g_cache", "Filler"),
            ):
                pattern = rf"^wants {wanted} at {SOURCE}:\d+, held by {holder}$"
                self.assertRegex(told[name], pattern)
                self.assertIn(f"  {name}: {told[name]}\n", text)
            lock = next(lock for lock in report["locks"] if lock["lock"] == "mutex g_right")
            self.assertEqual((lock["holder"], lock["waiting"]), ("Right", ["Left"]))
            self.assertEqual(lock["holder_thread"], daemon.tasks["Right"])
        with self.subTest("a thread that is joined is named"):
            place = at("}).join();")
            self.assertEqual(told["Joiner"], f"waits for the end of thread Joined at {place}")
        self.check_the_unknown(report, text)
        if self.LIVE:
            documents.check(self, "output", "circles", text)

    def check_sends(self, told, text):
        with self.subTest("a send is told with its type, its place and what is before it"):
            place = at("EV_ASK waits here")
            ago = r", \d+\.\d s" if self.LIVE else ""
            send = rf"synchronous send of type 101 \(EV_ASK\) at {re.escape(place)} to Store{ago}"
            self.assertRegex(told["Scan"], f"^{send}, behind 1 event$")
            self.assertRegex(told["Joined"], r"\) at .* to Joiner.*, next to be handled$")
        with self.subTest("three lines come first"):
            lines = text.splitlines()
            self.assertEqual(lines[2], "deadlock: Scan -> Store -> Scan")
            self.assertEqual(lines[3], f"  Scan: {told['Scan']}")
            self.assertEqual(lines[4], f"  Store: {told['Store']}")

    def check_the_unknown(self, report, text):
        with self.subTest("what memory attributes to nobody is said, and no circle"):
            unknown = {w["name"]: w for w in report["waits"] if w["target_thread"] is None}
            self.assertEqual(set(unknown), {"Hopeful", "Turner"})
            self.assertEqual((unknown["Hopeful"]["kind"], unknown["Hopeful"]["what"]),
                             ("unknown", "a future"))
            self.assertEqual(unknown["Turner"]["target"], "1 reader whom memory does not name")
            self.assertIn("no further deadlock through synchronous sends, ", text)
            self.assertIn("the waits of 2 threads\n", text)
            self.assertIn("\n  Hopeful (thread ", text)
            self.assertIn("waits for a future at ", text)
            self.assertIn(", held by 1 reader whom memory does not name\n", text)
        with self.subTest("stacks show the application's frames, and all if asked for"):
            self.assertRegex(text, r"#\d+ +\(anonymous namespace\)::AskStore at Trouble")
            self.assertRegex(text, r"#0-\d+ +\.\.\. TCTask::Send\n")
            self.assertNotIn("TCSemaphore::Take at", text)
            full = self.render_full(report)
            self.assertRegex(full, r"#\d+ +TCSemaphore::Take at Semaphore\.cpp:\d+\n")


class LiveCircle(LiveTarget, CircleFacts, InspectCase):
    pass


class CoreCircle(CoreTarget, CircleFacts, InspectCase):
    pass
