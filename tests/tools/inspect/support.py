"""What the tests of zor-inspect share: the daemon that is inspected, its cores, and the tool."""

import json
import os
import resource
import signal
import subprocess
import sys
import tempfile
import time
import unittest

TOOL = os.environ["ZOR_INSPECT"]
DAEMON = os.environ["ZOR_INSPECTED_DAEMON"]
TROUBLED = os.environ["ZOR_TROUBLED_DAEMON"]
LIBRARIES = os.environ["ZOR_LIBRARIES"]
BUILD = os.environ["ZOR_BUILD"]
SCHEMA = os.environ["ZOR_INSPECT_SCHEMA"]
DEADLINE = 120  # seconds; only a defect makes anything take that long

sys.path.append(os.path.join(os.path.dirname(SCHEMA), "python"))
from zor_gdb import text  # noqa: E402

EVENTS_SHOWN = 20


def eventually(condition):
    """Waits until the condition holds; false if it does not."""
    end = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


def line_of(source, words):
    """The only line of a daemon's source that has the words."""
    path = os.path.join(os.path.dirname(os.path.abspath(__file__)), source)
    with open(path, encoding="utf-8") as file:
        found = [number for number, line in enumerate(file, 1) if words in line]
    if len(found) != 1:
        raise AssertionError(f"{len(found)} lines of {source} have '{words}'")
    return found[0]


class Daemon:
    """The inspected daemon in one of its modes, from its "ready" to stop()."""

    def __init__(self, mode, program=DAEMON, environment=None):
        self.program = program
        settings = {"ZOR_DLOG": "none", "MALLOC_ARENA_MAX": "1"} | (environment or {})
        self._process = subprocess.Popen(
            [program, mode],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            env=dict(os.environ, **settings),
            text=True,
        )
        self.pid = self._process.pid
        self.tasks = {}  # kernel id of the thread, by name
        self.child = None
        for line in self._process.stdout:
            words = line.split()
            if words[0] == "task":
                self.tasks[words[1]] = int(words[2])
            elif words[0] == "child":
                self.child = int(words[1])
            elif words[0] == "ready":
                return
        self.stop()
        raise AssertionError(f"the daemon has not come to the mode {mode}")

    def say(self, line):
        self._process.stdin.write(line + "\n")
        self._process.stdin.flush()

    def is_alive(self):
        """Whether the daemon still handles events."""
        self.say("")
        return self._process.stdout.readline() == "alive\n"

    def status(self, field):
        with open(f"/proc/{self.pid}/status", encoding="utf-8") as file:
            for line in file:
                if line.startswith(field + ":"):
                    return line.split(":", 1)[1].strip()
        raise KeyError(field)

    def stop(self):
        self._process.kill()
        self._process.wait()
        self._process.stdin.close()
        self._process.stdout.close()


class Run:
    """What one run of the tool came to."""

    def __init__(self, *arguments, tool=TOOL, **settings):
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        done = subprocess.run(
            [tool, *map(str, arguments)],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=DEADLINE,
            check=False,
            **settings,
        )
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        self.code = done.returncode
        self.out = done.stdout
        self.err = done.stderr
        self.cpu = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


class InspectCase(unittest.TestCase):
    """A test with a daemon. Whatever happens, the daemon is ended."""

    maxDiff = None

    def start(self, mode, **settings):
        daemon = Daemon(mode, **settings)
        self.addCleanup(daemon.stop)
        return daemon

    def folder(self):
        folder = tempfile.TemporaryDirectory(prefix="zor-inspect test ")
        self.addCleanup(folder.cleanup)
        return folder.name

    def installed_tool(self):
        """The tool, installed into a folder of the test's."""
        prefix = self.folder()
        os.chmod(prefix, 0o755)
        install = ["cmake", "--install", BUILD, "--component", "tools", "--prefix", prefix]
        subprocess.run(install, check=True, stdout=subprocess.DEVNULL)
        return os.path.join(prefix, "bin", "zor-inspect")

    def core_of(self, daemon):
        """A core of the daemon, made by gdb: the system may keep none, or send them elsewhere."""
        core = os.path.join(self.folder(), "core")
        made = subprocess.run(
            ["gdb", "-nx", "-batch", "-iex", "set debuginfod enabled off",
             "-p", str(daemon.pid), "-ex", f"generate-core-file {core}"],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=DEADLINE,
            check=False,
        )
        self.assertTrue(os.path.exists(core), f"gdb makes no core:\n{made.stdout}{made.stderr}")
        return core

    def core_of_death(self, mode, **settings):
        """A troubled daemon that has died, and its core, made by gdb at the signal."""
        daemon = self.start(mode, **{"program": TROUBLED} | settings)
        core = os.path.join(self.folder(), "core")
        command = ["gdb", "-nx", "-batch", "-iex", "set debuginfod enabled off"]
        command += ["-p", str(daemon.pid), "-ex", "handle SIG34 SIG64 nostop noprint"]
        command += ["-ex", "continue", "-ex", f"generate-core-file {core}", "-ex", "kill"]
        with subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True,
        ) as gdb:
            # The thread that reads the word to die is the first one that gdb stops.
            self.assertTrue(eventually(lambda: daemon.status("TracerPid") != "0"))
            daemon.say("die")
            said = gdb.communicate(timeout=DEADLINE)[0]
        self.assertTrue(os.path.exists(core), f"gdb makes no core:\n{said}")
        return daemon, core

    def run_tool(self, *arguments, **settings):
        run = Run(*arguments, **settings)
        self.assertEqual(run.code, 0, f"zor-inspect fails:\n{run.out}{run.err}")
        self.assertEqual(run.err, "")
        return run

    def fail_tool(self, code, *arguments, **settings):
        """Runs the tool, which must fail with that code and without a report; returns its words."""
        run = Run(*arguments, **settings)
        self.assertEqual(run.code, code, f"{run.out}{run.err}")
        self.assertEqual(run.out, "")
        self.assertTrue(run.err.startswith("zor-inspect: "), run.err)
        return run.err


def task_named(report, name):
    found = [task for task in report["tasks"] if task["name"] == name]
    if len(found) != 1:
        raise AssertionError(f"{len(found)} tasks are called {name}")
    return found[0]


class Facts:
    """What there is to know of a daemon in a mode; PROGRAM is one that is not the usual."""

    @staticmethod
    def render_full(report):
        return text.render(report, EVENTS_SHOWN, False, True)


class LiveTarget(Facts):
    """The facts hold for a running process."""

    LIVE = True

    def look_at(self, mode):
        """The daemon, and the report about it as JSON and as text."""
        daemon = self.start(mode, program=getattr(self, "PROGRAM", DAEMON))
        report = json.loads(self.run_tool("--json", daemon.pid).out)
        return daemon, report, text.render(report, EVENTS_SHOWN, False)


class CoreTarget(Facts):
    """The same facts hold for a core, when the process is gone."""

    LIVE = False

    def look_at(self, mode):
        daemon = self.start(mode, program=getattr(self, "PROGRAM", DAEMON))
        core = self.core_of(daemon)
        daemon.stop()
        report = json.loads(self.run_tool("--json", core, daemon.program).out)
        return daemon, report, text.render(report, EVENTS_SHOWN, False)


def kill_quietly(pid):
    try:
        os.kill(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
