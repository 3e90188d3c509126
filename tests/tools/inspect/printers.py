"""The pretty-printers, in a gdb that loads them by itself."""

import subprocess

from support import DEADLINE, LIBRARIES, InspectCase

FIRST_TASK = "((void**)TCTaskList::m_taskList._M_impl._M_node._M_next)[2]"


class Printers(InspectCase):
    def ask(self, mode, *commands):
        """What gdb says to the commands, in the daemon in that mode."""
        daemon = self.start(mode)
        arguments = ["gdb", "-nx", "-batch", "-iex", "set debuginfod enabled off"]
        arguments += ["-iex", f"add-auto-load-safe-path {LIBRARIES}", "-p", str(daemon.pid)]
        for command in ["set language c++", "set print address off", *commands]:
            arguments += ["-ex", command]
        asked = subprocess.run(
            arguments,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=DEADLINE,
            check=False,
        )
        self.assertEqual(asked.returncode, 0, asked.stdout + asked.stderr)
        self.assertNotIn("Python Exception", asked.stdout + asked.stderr)
        return daemon, asked.stdout

    def test_TheLibraryBringsItsPrinters(self):
        _, said = self.ask("idle", "info pretty-printer .* zor-core")
        for name in ("TSEvent", "TCQueue", "TCTask", "TCSemaphore", "TCMutex"):
            self.assertIn(f"    {name}\n", said)
        self.assertIn("    TCTimersScheduler\n", said)

    def test_ATaskIsPrinted(self):
        daemon, said = self.ask("paused", f"print *(TCTask*){FIRST_TASK}")
        self.assertIn('= task "Sleeper", paused = {', said)
        self.assertIn(f"LWP = {daemon.tasks['Sleeper']}", said)
        self.assertIn("queue = queue with 1 of 256 events, lock free", said)

    def test_AMultiQueueTaskIsPrinted(self):
        _, said = self.ask("multi-queue", f"print *(TCMultiQTask*){FIRST_TASK}")
        self.assertIn('= task "Many", running = {', said)

    def test_AQueueIsPrintedWithItsEvents(self):
        queue = f"((TCMultiQTask*){FIRST_TASK})->m_pQueueArray[2]"
        _, said = self.ask("multi-queue", f"print *{queue}")
        self.assertIn("= queue with 2 of 256 events, lock free = {[0] = event type 1 = {", said)
        self.assertIn("param1 = 201", said)
        self.assertIn('appName = "browser"', said)
        self.assertNotIn("param3", said)

    def test_AMutexIsPrintedWithItsHolder(self):
        daemon, said = self.ask("lock", "print TCTaskList::m_mutex")
        self.assertRegex(
            said, rf"= mutex, held by thread \d+ \(LWP {daemon.tasks['A']}\), depth 1\n"
        )

    def test_ASemaphoreIsPrintedWithItsUnits(self):
        event_count = f"((TCTask*){FIRST_TASK})->m_eventCount"
        _, said = self.ask("full", f"print {event_count}")
        self.assertIn("= semaphore with 256 units\n", said)

    def test_TheSchedulerIsPrintedWithItsTimers(self):
        _, said = self.ask("timers", "print TCTimer::m_scheduler")
        self.assertIn("= scheduler with 3 timers = {", said)
        self.assertIn("[1] = TIMER_PAUSED, every 500000 ms, fired 0", said)
