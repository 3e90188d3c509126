"""What the tests of zor-top share: daemons that know their own numbers, and the tool."""

import json
import os
import subprocess
import tempfile
import time
import unittest

import jsonschema

TOOL = os.environ["ZOR_TOP"]
DAEMON = os.environ["ZOR_COUNTING_DAEMON"]
STORM = os.environ["ZOR_STORM"]
LIBRARIES = os.environ["ZOR_LIBRARIES"]
DEADLINE = 120  # seconds; only a defect makes anything take that long

USAGE, NO_TARGET, NO_PERMISSION, NOT_ZOR_CORE, FAILED = 1, 2, 3, 4, 7

with open(os.environ["ZOR_TOP_SCHEMA"], encoding="utf-8") as schema_file:
    SCHEMA = jsonschema.Draft202012Validator(json.load(schema_file))


def eventually(condition):
    """Waits until the condition holds; false if it does not."""
    end = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


class Daemon:
    """The daemon in one of its modes, from its "ready" to stop()."""

    def __init__(self, mode, program=DAEMON, environment=None):
        self._process = subprocess.Popen(
            [program, mode],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            env=dict(os.environ, ZOR_DLOG="none", **(environment or {})),
            text=True,
        )
        self.pid = self._process.pid
        self.threads = {}  # kernel ids, by the task's name
        self.said = {}
        for line in self._process.stdout:
            words = line.split()
            if words[0] == "ready":
                return
            if words[0] == "task":
                self.threads[words[1]] = int(words[2])
            else:
                self.said[words[0]] = int(words[1])
        self.stop()
        raise AssertionError(f"the daemon has not come to the mode {mode}")

    def say(self, number):
        """Has the daemon do that, and waits until it has."""
        self._process.stdin.write(f"{number}\n")
        self._process.stdin.flush()
        if self._process.stdout.readline() != "done\n":
            raise AssertionError("the daemon has not done it")

    def stop(self):
        self._process.kill()
        self._process.wait()
        self._process.stdin.close()
        self._process.stdout.close()


class TopCase(unittest.TestCase):
    """A test with daemons. Whatever happens, they are ended."""

    maxDiff = None

    def start(self, mode, **settings):
        daemon = Daemon(mode, **settings)
        self.addCleanup(daemon.stop)
        return daemon

    def folder(self, prefix="zor-top test "):
        folder = tempfile.TemporaryDirectory(prefix=prefix)
        self.addCleanup(folder.cleanup)
        return folder.name

    def run_tool(self, *arguments, **settings):
        return subprocess.run(
            [TOOL, *map(str, arguments)],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=DEADLINE,
            check=False,
            **settings,
        )

    def reports(self, pid, *arguments, number=1, interval=50):
        """What the tool prints of a process, as JSON that the schema describes."""
        batch = ("--json", "--batch", number, "--interval", interval)
        run = self.run_tool(*batch, *arguments, pid)
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        found = [json.loads(line) for line in run.stdout.splitlines()]
        self.assertEqual(len(found), number)
        for report in found:
            SCHEMA.validate(report)
        return found

    def report(self, pid, *arguments, **settings):
        return self.reports(pid, *arguments, **settings)[-1]

    def fail_tool(self, code, *arguments, **settings):
        run = self.run_tool(*arguments, **settings)
        self.assertEqual(run.returncode, code, f"{run.stdout}{run.stderr}")
        self.assertTrue(run.stderr.startswith("zor-top: "), run.stderr)
        return run.stderr


def task_named(report, name):
    found = [task for task in report["tasks"] if task["name"] == name]
    if len(found) != 1:
        raise AssertionError(f"{len(found)} tasks are called {name}")
    return found[0]


def notices_of(report, kind):
    return [notice["text"] for notice in report["notices"] if notice["kind"] == kind]
