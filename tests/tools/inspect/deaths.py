"""Why a process has died: said first, from its core alone."""

import json
import os
import subprocess

import documents
import jsonschema
from support import EVENTS_SHOWN, LIBRARIES, SCHEMA, TROUBLED, InspectCase, line_of, text
from zor_gdb.problems import NO_PROGRAM

SOURCE = "TroubledDaemon.cpp"


class Death(InspectCase):
    def look_at_death(self, mode, **settings):
        """What the tool says of the core, which is all that it is told: the daemon, what the
        report has about the death, and the lines of the text."""
        daemon, core = self.core_of_death(mode, **settings)
        report = json.loads(self.run_tool("--json", core).out)
        with open(SCHEMA, encoding="utf-8") as file:
            jsonschema.Draft202012Validator(json.load(file)).validate(report)
        self.assertEqual(report["target"]["program"], TROUBLED)
        death = report["death"]
        self.assertEqual((death["task"], death["told_thread"]), ("Doomed", daemon.tasks["Doomed"]))
        self.assertEqual(death["event"]["type_name"], "EV_RUN")
        shown = text.render(report, EVENTS_SHOWN, False)
        documents.check(self, "output", mode, shown)
        shown = shown.splitlines()
        self.assertEqual(shown[2], death["summary"])
        who = f"  Doomed (thread {daemon.tasks['Doomed']}), task Doomed, in handler"
        self.assertIn(who, shown[3])
        return daemon, death, shown

    def check_place(self, shown, words):
        """That the first frame of the application is where the source has the words."""
        frames = [line for line in shown[4:] if f" at {SOURCE}:" in line]
        self.assertRegex(frames[0], rf"^    #\d+ .* at {SOURCE}:{line_of(SOURCE, words)}$")

    def test_ACrashIsToldWithItsAddressThreadAndEvent(self):
        daemon, death, shown = self.look_at_death("crash")
        self.assertEqual((death["signal"], death["number"]), ("SIGSEGV", 11))
        self.assertEqual((death["address"], death["reason"]), (0x10, None))
        self.assertEqual(death["thread"], daemon.tasks["Doomed"])
        self.assertEqual(death["summary"], "died of SIGSEGV at address 0x10: there is no memory")
        self.check_place(shown, "crashes here")

    def test_AFailedAssertionIsToldWithItsExpression(self):
        _, death, shown = self.look_at_death("misuse")
        self.assertEqual(death["signal"], "SIGABRT")
        reason = death["reason"]
        self.assertEqual((reason["kind"], reason["expression"]), ("assertion", "event != NULL"))
        self.assertTrue(reason["file"].endswith("src/Task.cpp"), reason["file"])
        self.assertEqual(
            death["summary"],
            f"died of a failed assertion: event != NULL at Task.cpp:{reason['line']} (SIGABRT)",
        )
        self.check_place(shown, "// misuse")

    def test_AFailedAssertionIsToldOfAStrippedLibraryToo(self):
        folder = self.folder()
        library = os.path.join(folder, "libzor-core.so.1")
        source = os.path.join(LIBRARIES, "libzor-core.so.1")
        subprocess.run(["strip", "--strip-all", "-o", library, source], check=True)
        paths = {"LD_LIBRARY_PATH": f"{folder}:{LIBRARIES}"}
        daemon, core = self.core_of_death("misuse", environment=paths)
        said = self.fail_tool(NO_PROGRAM, core)
        self.assertRegex(said, rf"\n  Doomed +{daemon.tasks['Doomed']} +0 +\d+  handling 100\n")
        self.assertRegex(
            said,
            r"an assertion has failed: event != NULL at Task\.cpp:\d+, in Doomed "
            rf"\(thread {daemon.tasks['Doomed']}\); more cannot be said: .*debug information",
        )

    def test_AnUncaughtExceptionIsToldWithTypeAndText(self):
        _, death, shown = self.look_at_death("throw")
        self.assertEqual(
            death["reason"],
            {"kind": "terminate", "type": "std::out_of_range", "what": "no tuner 7"},
        )
        self.assertEqual(
            death["summary"],
            "died of an uncaught exception of type std::out_of_range: no tuner 7 (SIGABRT)",
        )
        self.check_place(shown, "throws here")

    def test_AnAbortOfTheWatchdogNamesTheLateThread(self):
        log = os.path.join(self.folder(), "log")
        settings = {"ZOR_WATCHDOG": "abort", "ZOR_DLOG": f"file:{log}"}
        daemon, death, shown = self.look_at_death("silence", environment=settings)
        reason = death["reason"]
        late = ("watchdog", "Doomed", daemon.tasks["Doomed"])
        self.assertEqual((reason["kind"], reason["name"], reason["thread"]), late)
        self.assertNotEqual(death["thread"], daemon.tasks["Doomed"])
        self.assertGreaterEqual(reason["silent_s"], 1)
        self.assertRegex(
            death["summary"],
            r"^ended by the watchdog: no sign of life of thread 'Doomed' "
            rf"\({late[2]}\) for [\d.]+ s",
        )
        self.check_place(shown, "sleeps here")
        with open(log, encoding="utf-8") as file:
            # Whether it leaves one is up to the limits that the tests run with.
            logged = file.read().replace("aborting without a core", "aborting\n")
        documents.check(self, "log", "silence", logged)
