"""A stripped application: what names the cause needs the library's debug information alone."""

import json
import os
import subprocess

from support import LIBRARIES, TROUBLED, InspectCase, task_named


class Stripped(InspectCase):
    def setUp(self):
        self.program = os.path.join(self.folder(), "daemon")
        subprocess.run(["strip", "--strip-all", "-o", self.program, TROUBLED], check=True)
        self.environment = {"LD_LIBRARY_PATH": LIBRARIES}

    def reports(self, mode):
        """What the tool says of the process, and then of its core."""
        daemon = self.start(mode, program=self.program, environment=self.environment)
        yield "process", json.loads(self.run_tool("--json", daemon.pid).out)
        core = self.core_of(daemon)
        daemon.stop()
        yield "core", json.loads(self.run_tool("--json", core).out)

    def test_CirclesThroughAnyLockAreDeadlocks(self):
        for target, report in self.reports("circles"):
            with self.subTest(target):
                self.assertEqual(
                    [" -> ".join(deadlock["chain"]) for deadlock in report["deadlocks"]],
                    [
                        "Scan -> Store -> Scan",
                        "Left -> Right -> Left",
                        "Reader -> Writer -> Reader",
                        "Filler -> Looker -> Filler",
                        "Joiner -> Joined -> Joiner",
                    ],
                )
                told = {t["name"]: t["summary"] for d in report["deadlocks"] for t in d["threads"]}
                send = "^synchronous send of type 101 to Store.*, behind 1 event$"
                self.assertRegex(told["Scan"], send)
                for name, wanted, holder in (
                    ("Store", "TCMutex", "Scan"),
                    ("Left", "mutex", "Right"),
                    ("Reader", "mutex", "Writer"),
                    ("Writer", "TCRWLock", "Reader"),
                    ("Looker", "rwlock", "Filler"),
                ):
                    self.assertRegex(told[name], rf"^wants {wanted} .*held by {holder}$")

    def test_AHandlerThatDoesNotReturnIsTold(self):
        for target, report in self.reports("hung"):
            with self.subTest(target):
                spinner, sleeper = (task_named(report, name) for name in ("Spinner", "Sleeper"))
                self.assertEqual((spinner["state"], sleeper["state"]), ("in handler", "in handler"))
                running = (spinner["hang"]["running"], sleeper["hang"]["running"])
                self.assertEqual(running, (True, False))
                self.assertGreaterEqual(spinner["hang"]["pings"]["waiting"], 2)

    def death(self, mode):
        """Why the daemon has died, as its core tells it."""
        environment = self.environment | {"ZOR_WATCHDOG": "abort"}
        daemon, core = self.core_of_death(mode, program=self.program, environment=environment)
        death = json.loads(self.run_tool("--json", core).out)["death"]
        self.assertEqual((death["task"], death["told_thread"]), ("Doomed", daemon.tasks["Doomed"]))
        self.assertEqual(death["event"]["type"], 100)
        return death["summary"]

    def test_ACrashIsTold(self):
        summary = "died of SIGSEGV at address 0x10: there is no memory"
        self.assertEqual(self.death("crash"), summary)

    def test_AFailedAssertionIsTold(self):
        summary = r"^died of a failed assertion: event != NULL at Task\.cpp:\d+ \(SIGABRT\)$"
        self.assertRegex(self.death("misuse"), summary)

    def test_AnUncaughtExceptionIsTold(self):
        summary = "died of an uncaught exception of type std::out_of_range: no tuner 7 (SIGABRT)"
        self.assertEqual(self.death("throw"), summary)

    def test_AnAbortOfTheWatchdogIsTold(self):
        summary = r"^ended by the watchdog: no sign of life of thread 'Doomed' "
        self.assertRegex(self.death("silence"), summary)
