"""What event types are called: what a file says, else what the receiver's class has."""

import json
import os

from support import TROUBLED, InspectCase, task_named

USAGE = 1


class TypeNames(InspectCase):
    def test_NamesOfAFileComeBeforeThoseOfTheClass(self):
        daemon = self.start("hung", program=TROUBLED)
        names = os.path.join(self.folder(), "names")
        with open(names, "w", encoding="utf-8") as file:
            file.write("# what the remote control sends\n\n0x64 EV_KEY  # pressed\n3 EV_OTHER\n")
        report = json.loads(self.run_tool("--json", "--types", names, daemon.pid).out)
        self.assertEqual(task_named(report, "Sleeper")["event"]["type_name"], "EV_KEY")
        with self.subTest("the runtime's own names stay"):
            pings = task_named(report, "Spinner")["queues"][0]["events"]
            self.assertEqual({ping["type_name"] for ping in pings}, {"EVENT_PING"})
        with self.subTest("a file that is no such is refused"):
            with open(names, "a", encoding="utf-8") as file:
                file.write("one EV_ONE\n")
            message = self.fail_tool(USAGE, "--types", names, daemon.pid)
            self.assertIn("line 5: not a number and a name", message)
            message = self.fail_tool(USAGE, "--types", "/nowhere", daemon.pid)
            self.assertIn("No such file or directory", message)
