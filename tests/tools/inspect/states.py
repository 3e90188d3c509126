"""Tasks, their queues, timers and alarms."""

from support import CoreTarget, InspectCase, LiveTarget, task_named

CAPACITY = 256
NORMAL_CAPACITY = 240


class StateFacts:
    def test_ATaskWithoutEventsWaits(self):
        daemon, report, text = self.look_at("idle")
        task = task_named(report, "Idle")
        self.assertEqual((task["state"], task["depth"]), ("waiting", 0))
        self.assertEqual(task["thread"], daemon.tasks["Idle"])
        self.assertRegex(text, rf"\n  Idle +{daemon.tasks['Idle']} +0 +waiting\n")
        self.assertEqual(task_named(report, "Many")["state"], "waiting")
        self.assertRegex(text, rf"\n  Many +{daemon.tasks['Many']} +0\+0 +waiting\n")

    def test_ATaskWhoseThreadHasEndedIsNotRunning(self):
        _, report, text = self.look_at("ended")
        task = task_named(report, "Gone")
        self.assertEqual((task["state"], task["thread"]), ("not running", None))
        self.assertTrue(task["registered"])
        self.assertRegex(text, r"\n  Gone +- +0 +not running: its thread has ended\n")

    def test_ATaskThatHangsIsInTheHandlerOfItsEvent(self):
        daemon, report, text = self.look_at("hung")
        task = task_named(report, "Hung")
        self.assertEqual((task["state"], task["thread"]), ("in handler", daemon.tasks["Hung"]))
        event = task["event"]
        self.assertEqual((event["type"], event["type_name"]), (1, "EVENT_USER"))
        self.assertEqual((event["params"]["param1"], event["params"]["param2"]), (1, 22))
        self.assertTrue(event["receiver"]["is_task"])
        self.assertEqual(event["sender"]["thread"], daemon.pid)
        self.assertEqual(task["since"], {"at_least_s": None, "at_most_s": None})
        place = r"at InspectedDaemon\.cpp:\d+, sleeping.*, for Hung, "
        self.assertRegex(text, rf"in handler of event type 1 \(EVENT_USER\) since unknown {place}")
        self.assertEqual(task_named(report, "Idle")["state"], "waiting")

    def test_APausedTaskIsPausedAndKeepsItsEvents(self):
        daemon, report, text = self.look_at("paused")
        task = task_named(report, "Sleeper")
        self.assertEqual((task["state"], task["depth"]), ("paused", 1))
        self.assertEqual(task["thread"], daemon.tasks["Sleeper"])
        self.assertRegex(text, r"\n  Sleeper +\d+ +1 +paused\n")

    def test_AFullQueueIsShownInItsOrder(self):
        daemon, report, text = self.look_at("full")
        task = task_named(report, "Full")
        self.assertEqual((task["depth"], task["queues"][0]["capacity"]), (CAPACITY, CAPACITY))
        # Priority events overtake: the last one sent is the first.
        order = [event["params"]["param2"] for event in task["queues"][0]["events"]]
        priority = list(range(CAPACITY - 1, NORMAL_CAPACITY - 1, -1))
        self.assertEqual(order, priority + list(range(NORMAL_CAPACITY)))
        senders = {event["sender"]["thread"] for event in task["queues"][0]["events"]}
        self.assertEqual(senders, {daemon.pid})
        self.assertIn("  Full: 256 of 256\n    0: type 1 (EVENT_USER) for Full, ", text)
        self.assertIn("and 236 more (--events 256 shows all)\n", text)

    def test_EveryQueueOfATaskIsShown(self):
        _, report, text = self.look_at("multi-queue")
        task = task_named(report, "Many")
        self.assertTrue(task["multi_queue"])
        self.assertEqual([queue["depth"] for queue in task["queues"]], [0, 1, 2])
        orders = [[e["params"]["param1"] for e in q["events"]] for q in task["queues"]]
        self.assertEqual(orders, [[], [100], [200, 201]])
        event = task["queues"][2]["events"][1]
        self.assertEqual((event["application"], event["application_flag"]), ("browser", 3))
        self.assertEqual(event["params"]["param5"], 55)
        self.assertIsNone(event["params"]["param3"])
        self.assertIn("Many, queue 2: 2 of 256\n", text)
        self.assertIn('application "browser" 3, param1=201 param2=0 param5=55 param6=0\n', text)

    def test_TimersAreShownWithTaskStateAndTime(self):
        _, report, text = self.look_at("timers")
        timers = report["timers"]
        self.assertEqual([t["state"] for t in timers], ["reset", "paused", "expired"])
        self.assertEqual([t["interval_ms"] for t in timers], [500000, 500000, 20])
        self.assertEqual([t["count"] for t in timers], [3, None, 0])
        self.assertEqual({t["task"] for t in timers}, {"Clock"})
        self.assertIsNotNone(timers[0]["due_ns"])
        self.assertGreater(timers[1]["left_ms"], 0)
        self.assertLessEqual(timers[1]["left_ms"], 500000)
        self.assertEqual((timers[2]["due_ns"], timers[2]["left_ms"]), (None, None))
        if self.LIVE:
            self.assertGreater(timers[0]["due_in_ms"], 0)
            self.assertLessEqual(timers[0]["due_in_ms"], 500000)
            self.assertIn("due in ", text)
        else:
            self.assertIsNone(timers[0]["due_in_ms"])
            self.assertIn("s of the monotonic clock", text)
        self.assertIn("fired 0 of endless", text)

    def test_AlarmsAreShownWithIntervalCountAndState(self):
        _, report, text = self.look_at("alarms")
        alarms = sorted(report["alarms"], key=lambda alarm: alarm["thread"])
        facts = [(a["state"], a["interval_ms"], a["count"], a["task"]) for a in alarms]
        self.assertEqual(
            facts,
            [
                ("running", 500000, 7, "Clock"),
                ("idle", 500000, 0, "Clock"),
                ("stopped", 4000, None, "Clock"),
            ],
        )
        self.assertIn("TCStateAlarm", alarms[2]["class"])
        self.assertIn("stopped  every 4000 ms", text)

    def test_LocksThatNobodyHoldsAreFree(self):
        _, report, text = self.look_at("idle")
        self.assertEqual([lock["lock"] for lock in report["locks"] if lock["held"]], [])
        names = {lock["lock"] for lock in report["locks"]}
        self.assertLessEqual(
            {"registry", "queue of Idle", "table of synchronous calls", "timers"}, names
        )
        self.assertIn("  free: ", text)


class LiveState(LiveTarget, StateFacts, InspectCase):
    pass


class CoreState(CoreTarget, StateFacts, InspectCase):
    pass
