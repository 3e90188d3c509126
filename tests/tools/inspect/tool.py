"""The tool itself: what it leaves behind, its forms of output, its errors."""

import json
import os
import shutil
import signal
import stat
import subprocess

import jsonschema
from support import DAEMON, DEADLINE, LIBRARIES, SCHEMA, TOOL, InspectCase
from support import eventually, kill_quietly, task_named, text

USAGE = 1
NO_TARGET = 2
NO_PERMISSION = 3
NOT_ZOR_CORE = 4
NO_PROGRAM = 5
NO_GDB = 6
FAILED = 7

MODES = ("deadlock3", "lock", "multi-queue", "timers", "alarms", "paused", "own-queue")


def load(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file)


class Output(InspectCase):
    def test_JsonIsAsItsSchemaSays(self):
        validator = jsonschema.Draft202012Validator(load(SCHEMA))
        for mode in MODES:
            with self.subTest(mode=mode):
                daemon = self.start(mode)
                report = json.loads(self.run_tool("--json", "--stacks", daemon.pid).out)
                validator.validate(report)
                self.assertEqual(report["target"]["pid"], daemon.pid)
                daemon.stop()

    def test_JsonOfACoreIsAsItsSchemaSays(self):
        core = self.core_of(self.start("deadlock2"))
        report = json.loads(self.run_tool("--json", core, DAEMON).out)
        jsonschema.Draft202012Validator(load(SCHEMA)).validate(report)
        self.assertEqual(report["target"]["kind"], "core")

    def test_TheTextSaysWhatTheJsonSays(self):
        # A core does not change between the two runs.
        for mode in ("deadlock2", "multi-queue", "timers", "alarms"):
            with self.subTest(mode=mode):
                daemon = self.start(mode)
                core = self.core_of(daemon)
                daemon.stop()
                report = json.loads(self.run_tool("--json", "--stacks", core, DAEMON).out)
                printed = self.run_tool("--stacks", core, DAEMON).out
                self.assertEqual(text.render(report, 20, True), printed)

    def test_AllStacksAreShownIfAskedFor(self):
        daemon = self.start("hung")
        self.assertNotIn("Stacks\n", self.run_tool(daemon.pid).out)
        text = self.run_tool("--stacks", daemon.pid).out
        self.assertIn("Stacks\n", text)
        for name, thread in daemon.tasks.items():
            self.assertRegex(text, rf"\n  {name}, thread {thread}\n    #0(-\d+)? +")
        self.assertRegex(text, r"#\d+ +main at InspectedDaemon\.cpp:\d+\n")
        self.assertNotIn("_Process at", text)
        full = self.run_tool("--stacks", "--full-stacks", daemon.pid).out
        for name, thread in daemon.tasks.items():
            self.assertIn(f"\n  {name}, thread {thread}\n    #0 ", full)
        self.assertRegex(full, r"#\d+ +_Process at Thread\.cpp:\d+\n")

    def test_AReportCanBeCutOff(self):
        daemon = self.start("deadlock2")
        piped = subprocess.run(
            ["sh", "-c", f"'{TOOL}' --stacks {daemon.pid} | head -n 1"],
            capture_output=True,
            text=True,
            check=True,
        )
        self.assertTrue(piped.stdout.startswith(f"process {daemon.pid} ("))
        self.assertEqual(piped.stderr, "")

    def test_HelpNamesOptionsAndExitCodes(self):
        text = self.run_tool("--help").out
        for word in ("--json", "--stacks", "--types", "--records", "Exit codes:", "Examples:"):
            self.assertIn(word, text)

    def test_TheLastRecordsAreShown(self):
        recording = os.path.join(self.folder(), "calls.zor")
        daemon = self.start("recorded", environment={"ZOR_RECORD": recording})
        report = json.loads(self.run_tool("--json", "--records", "4", daemon.pid).out)
        self.assertEqual(report["records"]["file"], recording)
        self.assertIsNone(report["records"]["problem"])
        self.assertEqual(len(report["records"]["lines"]), 4)
        self.assertIn("TCTask::Send", report["records"]["lines"][-1])
        text = self.run_tool("--records", "4", daemon.pid).out
        self.assertIn("Last records\n", text)
        self.assertIn(report["records"]["lines"][-1], text)
        self.assertNotIn("Last records\n", self.run_tool("--records", "0", daemon.pid).out)
        core = self.core_of(daemon)
        from_core = json.loads(self.run_tool("--json", "--records", "4", core, DAEMON).out)
        self.assertEqual(from_core["records"], report["records"])

    def test_ARecordingThatIsGoneIsNamed(self):
        daemon = self.start("idle")
        report = json.loads(self.run_tool("--json", "--record-file", "/nowhere", daemon.pid).out)
        self.assertIn("/nowhere", report["records"]["problem"])


class Installed(InspectCase):
    def test_TheInstalledToolIsComplete(self):
        tool = self.installed_tool()
        daemon = self.start("deadlock2")
        self.assertIn("deadlock: A -> B -> A\n", self.run_tool(daemon.pid, tool=tool).out)
        prefix = os.path.dirname(os.path.dirname(tool))
        schema = os.path.join(prefix, "share", "zor-core", "zor-inspect.schema.json")
        self.assertEqual(load(schema), load(SCHEMA))


class Process(InspectCase):
    def test_TheProcessGoesOn(self):
        daemon = self.start("idle")
        for _ in range(3):
            report = json.loads(self.run_tool("--json", daemon.pid).out)
            self.assertGreater(report["stopped_seconds"], 0)
            self.assertEqual(daemon.status("TracerPid"), "0")
            self.assertTrue(daemon.is_alive())

    def test_AStoppedProcessStaysStopped(self):
        daemon = self.start("idle")
        os.kill(daemon.pid, signal.SIGSTOP)
        self.assertTrue(eventually(lambda: daemon.status("State").startswith("T")))
        report = json.loads(self.run_tool("--json", daemon.pid).out)
        self.assertEqual(task_named(report, "Idle")["state"], "waiting")
        self.assertTrue(eventually(lambda: daemon.status("State") == "T (stopped)"))
        os.kill(daemon.pid, signal.SIGCONT)
        self.assertTrue(daemon.is_alive())

    def test_AProcessThatCannotBeCopiedIsReadWhileItStandsStill(self):
        daemon = self.start("deadlock2")
        copied = json.loads(self.run_tool("--json", daemon.pid).out)
        self.assertEqual(copied["remarks"], [])
        with open(f"/proc/{daemon.pid}/coredump_filter", "w", encoding="ascii") as file:
            file.write("0")
        read = json.loads(self.run_tool("--json", daemon.pid).out)
        why = "stopped while it was read, not copied: its coredump_filter leaves memory out"
        self.assertEqual(read["remarks"], [why])
        for facts in (copied, read):
            self.assertEqual(facts["deadlocks"][0]["chain"], ["A", "B", "A"])
        for part in ("threads", "tasks", "locks"):
            names = [[each.get("name") for each in facts[part]] for facts in (copied, read)]
            self.assertEqual(*names)

    def test_ACopyThatFailsIsDoneWithout(self):
        daemon = self.start("deadlock2")
        folder = self.folder()
        gdb = os.path.join(folder, "gdb")
        commands = os.path.join(folder, "full")
        with open(commands, "w", encoding="utf-8") as file:
            file.write("define generate-core-file\nsource /nowhere\nend\n")
        with open(gdb, "w", encoding="utf-8") as file:
            file.write(f'#!/bin/sh\nexec gdb -ix "{commands}" "$@"\n')
        os.chmod(gdb, stat.S_IRWXU)
        report = json.loads(self.run_tool("--json", "--gdb", gdb, daemon.pid).out)
        self.assertEqual(report["deadlocks"][0]["chain"], ["A", "B", "A"])
        why = "stopped while it was read, not copied: .*/nowhere: No such file or directory"
        self.assertRegex(report["remarks"][0], why)

    def test_ADeadlockIsFoundInUnderThreeSecondsOfWork(self):
        daemon = self.start("deadlock2")
        run = self.run_tool(daemon.pid)
        self.assertIn("deadlock: A -> B -> A\n", run.out)
        # Of the processor: how long it takes is also up to whatever else the machine does.
        self.assertLess(run.cpu, 3)

    def test_AProgramWithoutDebugInformationIsReadAllTheSame(self):
        program = os.path.join(self.folder(), "stripped-daemon")
        subprocess.run(["strip", "--strip-all", "-o", program, DAEMON], check=True)
        libraries = {"LD_LIBRARY_PATH": LIBRARIES}
        daemon = self.start("multi-deadlock", program=program, environment=libraries)
        report = json.loads(self.run_tool("--json", daemon.pid).out)
        self.assertEqual(report["deadlocks"][0]["chain"], ["A", "Many", "A"])
        self.assertTrue(task_named(report, "Many")["multi_queue"])
        self.assertIn("Worker<TCMultiQTask>", task_named(report, "Many")["class"])

    def test_AnInterruptedToolLetsGo(self):
        daemon = self.start("idle")
        attached = os.path.join(self.folder(), "attached")
        gdb = os.path.join(self.folder(), "gdb")
        hang = f"import time; open('{attached}', 'w').close(); time.sleep(600)"
        with open(gdb, "w", encoding="utf-8") as file:
            file.write(f'#!/bin/sh\nexec gdb -nx -batch -p {daemon.pid} -ex "python {hang}"\n')
        os.chmod(gdb, stat.S_IRWXU)
        with subprocess.Popen(
            [TOOL, "--gdb", gdb, str(daemon.pid)], stderr=subprocess.PIPE, text=True
        ) as tool:
            self.assertTrue(eventually(lambda: os.path.exists(attached)))
            self.assertNotEqual(daemon.status("TracerPid"), "0")
            tool.terminate()
            self.assertIn("interrupted", tool.communicate(timeout=DEADLINE)[1])
        self.assertEqual(tool.returncode, FAILED)
        self.assertTrue(eventually(lambda: daemon.status("TracerPid") == "0"))
        self.assertTrue(daemon.is_alive())

    def test_AGdbThatTakesTooLongIsEnded(self):
        daemon = self.start("idle")
        gdb = os.path.join(self.folder(), "gdb")
        with open(gdb, "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\nexec sleep 600\n")
        os.chmod(gdb, stat.S_IRWXU)
        message = self.fail_tool(FAILED, "--gdb", gdb, "--timeout", "1", daemon.pid)
        self.assertIn("within 1 seconds (see --timeout)", message)


class Errors(InspectCase):
    def test_AMissingProcessIsNamed(self):
        daemon = self.start("idle")
        daemon.stop()
        self.assertIn(f"no process {daemon.pid}", self.fail_tool(NO_TARGET, daemon.pid))

    def test_AThreadIsNoProcess(self):
        daemon = self.start("idle")
        message = self.fail_tool(NO_TARGET, daemon.tasks["Idle"])
        self.assertIn(f"a thread of process {daemon.pid}", message)

    def test_AMissingFileIsNamed(self):
        self.assertIn("'/nowhere/core'", self.fail_tool(NO_TARGET, "/nowhere/core", DAEMON))

    def test_ATracedProcessIsRefused(self):
        daemon = self.start("traced")
        self.addCleanup(kill_quietly, daemon.child)
        message = self.fail_tool(NO_PERMISSION, daemon.child)
        self.assertIn(f"traced by process {daemon.pid}", message)

    def test_SomebodyElsesProcessIsRefused(self):
        target, settings = 1, {}
        if os.geteuid() == 0:
            # Root may look into every process. It looks as nobody, whom the build folder may be
            # closed to.
            target = self.start("idle").pid
            settings = {"user": 65534, "group": 65534, "extra_groups": []}
            settings["tool"] = self.installed_tool()
        message = self.fail_tool(NO_PERMISSION, target, **settings)
        self.assertIn(f"process {target} may not be looked into", message)

    def test_AnotherProgramIsNoZorCoreProcess(self):
        other = subprocess.Popen(["sleep", "600"])
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)
        self.assertIn("no zor-core process", self.fail_tool(NOT_ZOR_CORE, other.pid))

    def test_ALibraryWithoutDebugInformationIsRefused(self):
        folder = self.folder()
        library = os.path.join(folder, "libzor-core.so.1")
        source = os.path.join(LIBRARIES, "libzor-core.so.1")
        subprocess.run(["strip", "--strip-debug", "-o", library, source], check=True)
        program = os.path.join(folder, "stripped-daemon")
        subprocess.run(["strip", "--strip-all", "-o", program, DAEMON], check=True)
        paths = {"LD_LIBRARY_PATH": f"{folder}:{LIBRARIES}"}
        daemon = self.start("idle", program=program, environment=paths)
        said = self.fail_tool(NOT_ZOR_CORE, daemon.pid)
        self.assertIn("debug", said)
        self.assertTrue(daemon.is_alive())
        # Its table tells of the tasks nevertheless.
        self.assertIn("What the library tells without it:", said)
        for name, thread in daemon.tasks.items():
            self.assertRegex(said, rf"(?m)^  {name} +{thread} +0 +\d+  idle$")

    def test_ACoreTakesItsOwnProgramOnly(self):
        core = self.core_of(self.start("idle"))
        self.fail_tool(NO_PROGRAM, core, "/nowhere/program")
        self.assertIn("not the program of", self.fail_tool(NO_PROGRAM, core, shutil.which("sleep")))

    def test_AFileThatIsNoCoreIsRefused(self):
        self.assertIn("no core file", self.fail_tool(USAGE, __file__, DAEMON))
        self.assertIn("no core file", self.fail_tool(USAGE, DAEMON, DAEMON))

    def test_AMissingGdbIsNamed(self):
        daemon = self.start("idle")
        message = self.fail_tool(NO_GDB, "--gdb", "/nowhere/gdb", daemon.pid)
        self.assertIn("install the package gdb", message)

    def test_AGdbWithoutPythonIsNamed(self):
        daemon = self.start("idle")
        gdb = os.path.join(self.folder(), "gdb")
        with open(gdb, "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\necho 'Python scripting is not supported in this copy of GDB.'\n")
        os.chmod(gdb, stat.S_IRWXU)
        self.assertIn("cannot run Python", self.fail_tool(NO_GDB, "--gdb", gdb, daemon.pid))

    def test_BadOptionsAreRefused(self):
        bad = (["--json"], ["--records", "-1", "1"], ["--unknown", "1"], ["--events", "x", "1"])
        for arguments in bad:
            with self.subTest(arguments=arguments):
                self.assertIn("--help", self.fail_tool(USAGE, *arguments))
