"""What is inspected is found: cores as systems keep them, processes with files of their own."""

import gzip
import json
import os
import shutil
import subprocess

from support import DAEMON, LIBRARIES, InspectCase

NO_PROGRAM = 5
FAILED = 7


class Cores(InspectCase):
    def test_APackedCoreNeedsNothingBesideIt(self):
        """Neither its program nor its recording is named, and it is packed in any usual way."""
        folder = self.folder()
        recording = os.path.join(folder, "calls.%p")
        daemon = self.start("recorded", environment={"ZOR_RECORD": recording})
        core = self.core_of(daemon)
        daemon.stop()
        packed = core + ".gz"
        with open(core, "rb") as plain, gzip.open(packed, "wb", compresslevel=1) as file:
            shutil.copyfileobj(plain, file)
        subprocess.run(["zstd", "-q", "-1", core, "-o", core + ".zst"], check=True)
        subprocess.run(["lz4", "-q", "-1", core, core + ".lz4"], check=True)
        expected = json.loads(self.run_tool("--json", core, DAEMON).out)
        self.assertEqual(expected["records"]["file"], recording.replace("%p", str(daemon.pid)))
        self.assertIsNone(expected["records"]["problem"])
        self.assertIsNone(expected["death"])
        for path in (packed, core + ".zst", core + ".lz4"):
            with self.subTest(path=path):
                report = json.loads(self.run_tool("--json", path).out)
                self.assertEqual(report["target"]["core"], path)
                for part in ("tasks", "locks", "records"):
                    self.assertEqual(report[part], expected[part])
        with self.subTest("a packed core that was cut off is refused"):
            with open(packed, "r+b") as file:
                file.truncate(os.path.getsize(packed) // 2)
            self.assertIn(f"{packed} is damaged", self.fail_tool(FAILED, packed))
        with self.subTest("a core of a program that is not here asks for it"):
            moved = self.fail_tool(NO_PROGRAM, "--sysroot", "/nowhere", core)
            self.assertIn(f"there is no '/nowhere{os.path.realpath(DAEMON)}' here", moved)
            self.assertIn(f"zor-inspect {core} PROGRAM", moved)


class Processes(InspectCase):
    def test_ProcessesThatRunTheLibraryAreListed(self):
        daemon = self.start("idle")
        listed = self.run_tool().out
        self.assertRegex(listed, r"^ +PID +RUNS FOR +THREADS +COMMAND\n")
        threads = len(os.listdir(f"/proc/{daemon.pid}/task"))
        self.assertRegex(listed, rf"\n +{daemon.pid} +\d+ s +{threads} +{DAEMON} idle\n")
        self.assertNotIn(f"\n{os.getpid():>7} ", listed)

    def test_AProcessWithFilesOfItsOwnIsRead(self):
        """Its program, its library and its recording lie in a /tmp that nobody else sees."""
        unshare = ["unshare", "--mount"] if os.geteuid() == 0 else ["unshare", "--mount", "-Ur"]
        folder = self.folder()
        os.mkdir(os.path.join(folder, "own"))
        shutil.copy(DAEMON, os.path.join(folder, "own", "daemon"))
        for name in os.listdir(LIBRARIES):
            if name.startswith("libz") and ".so" in name and not name.endswith(".py"):
                shutil.copy(os.path.join(LIBRARIES, name), os.path.join(folder, "own"))
        seen = os.path.join(folder, "seen")
        os.mkdir(seen)
        script = os.path.join(folder, "run")
        with open(script, "w", encoding="utf-8") as file:
            file.write(f'#!/bin/sh\nexec {" ".join(unshare)} sh -c \'mount --bind "$1/own" "$1/seen"'
                       ' && exec "$1/seen/daemon" "$2"\' sh "${0%/*}" "$1"\n')
        os.chmod(script, 0o755)
        if subprocess.run([*unshare, "true"], check=False).returncode != 0:
            self.skipTest("the system gives nobody mounts of his own")
        environment = {"LD_LIBRARY_PATH": seen, "ZOR_RECORD": os.path.join(seen, "calls")}
        daemon = self.start("recorded", program=script, environment=environment)
        self.assertFalse(os.path.exists(os.path.join(seen, "daemon")))
        report = json.loads(self.run_tool("--json", daemon.pid).out)
        self.assertEqual([task["name"] for task in report["tasks"]], ["Noted"])
        self.assertEqual(report["target"]["program"], f"/proc/{daemon.pid}/root{seen}/daemon")
        self.assertIsNone(report["records"]["problem"])
        self.assertIn("TCTask::Send", report["records"]["lines"][-1])
