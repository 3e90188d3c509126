"""Who waits for whom: the circles, and the waits that are none."""

from support import CoreTarget, InspectCase, LiveTarget, task_named


def functions(stack):
    return [frame["function"] for frame in stack]


class DeadlockFacts:
    def check_circle(self, report, text, daemon, names):
        """That there is one deadlock, over these tasks, with their threads' stacks."""
        chain = names + names[:1]
        self.assertEqual([deadlock["chain"] for deadlock in report["deadlocks"]], [chain])
        self.assertIn("deadlock: " + " -> ".join(chain) + "\n", text)
        threads = report["deadlocks"][0]["threads"]
        self.assertEqual([thread["name"] for thread in threads], names)
        self.assertEqual(
            [thread["thread"] for thread in threads], [daemon.tasks[name] for name in names]
        )
        for thread in threads:
            self.assertIn("TCSemaphore::State::TakeLocked", functions(thread["stack"]))
            self.assertIn("_Process", functions(thread["stack"]))
            self.assertIn(f"  {thread['name']}: {thread['summary']}\n", text)
            self.assertIn(f"\n  {thread['name']} (thread {thread['thread']})\n    #0-", text)
        full = self.render_full(report)
        self.assertEqual(full.count("TCSemaphore::State::TakeLocked at Semaphore.cpp:"), len(names))

    def check_calls(self, report, daemon, pairs):
        found = {
            (c["caller"], c["caller_thread"], c["receiver"], c["receiver_thread"])
            for c in report["calls"]
        }
        expected = {(a, daemon.tasks[a], b, daemon.tasks[b]) for a, b in pairs}
        self.assertEqual(found, expected)

    def test_TwoTasksThatCallEachOtherAreADeadlock(self):
        daemon, report, text = self.look_at("deadlock2")
        self.check_circle(report, text, daemon, ["A", "B"])
        self.check_calls(report, daemon, [("A", "B"), ("B", "A")])

    def test_ThreeTasksInACircleAreADeadlock(self):
        daemon, report, text = self.look_at("deadlock3")
        self.check_circle(report, text, daemon, ["A", "B", "C"])
        self.check_calls(report, daemon, [("A", "B"), ("B", "C"), ("C", "A")])

    def test_ACallWhoseEventIsQueuedIsPlaced(self):
        _, report, text = self.look_at("deadlock2")
        for call in report["calls"]:
            self.assertEqual((call["place"], call["queue"], call["position"]), ("queued", 0, 0))
            self.assertTrue(call["listed"])
        self.assertIn("event type 1 (EVENT_USER) is queued, position 0 of queue 0", text)

    def test_ACallToAFurtherQueueIsPartOfADeadlock(self):
        daemon, report, text = self.look_at("multi-deadlock")
        self.check_circle(report, text, daemon, ["A", "Many"])
        calls = {call["caller"]: call for call in report["calls"]}
        self.assertEqual((calls["A"]["queue"], calls["A"]["listed"]), (1, False))
        self.assertEqual((calls["Many"]["queue"], calls["Many"]["listed"]), (0, True))

    def test_ACallAndTheRegistrysLockAreADeadlock(self):
        daemon, report, text = self.look_at("lock")
        self.check_circle(report, text, daemon, ["A", "B"])
        lock = [lock for lock in report["locks"] if lock["lock"] == "registry"][0]
        self.assertEqual(lock["holder"], "A")
        self.assertEqual(lock["holder_thread"], daemon.tasks["A"])
        self.assertEqual(lock["waiting"], ["B"])
        self.assertIn(f"registry: held by A (thread {daemon.tasks['A']}); waiting: B\n", text)

    def test_ACallToWhomOneIsBeingDestroyedByIsADeadlock(self):
        daemon, report, text = self.look_at("destroy-deadlock")
        self.check_circle(report, text, daemon, ["A", "B"])
        self.assertFalse(task_named(report, "B")["registered"])
        self.assertIn("(being destroyed: not in the registry)", text)

    def test_ACallToATaskThatHangsIsNoDeadlock(self):
        daemon, report, text = self.look_at("call-to-hung")
        self.assertEqual(report["deadlocks"], [])
        self.assertIn("\nno deadlock through synchronous sends, TCMutex, ", text)
        self.check_calls(report, daemon, [("Caller", "Hung")])
        waits = [(w["name"], w["kind"], w["target"]) for w in report["waits"]]
        self.assertEqual(waits, [("Caller", "reply", "Hung")])

    def test_ACallWhoseEventIsBeingHandledIsPlaced(self):
        daemon, report, text = self.look_at("handled-call")
        self.check_calls(report, daemon, [("Caller", "Hung")])
        self.assertEqual(report["calls"][0]["place"], "handled")
        self.assertIn("event type 1 (EVENT_USER) is being handled\n", text)

    def test_ACallIntoAQueueOfNoTaskIsNamedAsSuch(self):
        daemon, report, text = self.look_at("own-queue")
        call = report["calls"][0]
        self.assertEqual(call["caller_thread"], daemon.tasks["Caller"])
        self.assertEqual((call["place"], call["receiver"]), ("lost", None))
        self.assertIn("its event is in no task's queue and in no handler\n", text)

    def test_AgesAreToldWhereTheClockStillRuns(self):
        _, report, text = self.look_at("deadlock2")
        for call in report["calls"]:
            self.assertGreater(call["start_tick_ms"], 0)
            if self.LIVE:
                self.assertGreaterEqual(call["age_s"], 0)
                self.assertLess(call["age_s"], 600)
            else:
                self.assertIsNone(call["age_s"])
                self.assertIn(f"since tick {call['start_tick_ms']} ms", text)

    def test_AHandlerIsAsOldAsTheCallsInItAndAroundItAllow(self):
        _, report, text = self.look_at("handled-call")
        age = report["calls"][0]["age_s"]
        caller = task_named(report, "Caller")["since"]
        self.assertEqual(caller, {"at_least_s": age, "at_most_s": None})
        hung = task_named(report, "Hung")["since"]
        self.assertEqual(hung, {"at_least_s": None, "at_most_s": age})
        self.assertIn("for at most" if self.LIVE else "since unknown", text)


class LiveDeadlock(LiveTarget, DeadlockFacts, InspectCase):
    pass


class CoreDeadlock(CoreTarget, DeadlockFacts, InspectCase):
    pass
