"""The screen of zor-top, through a terminal that keeps what it shows."""

import fcntl
import os
import pty
import select
import struct
import termios
import threading
import time

import pyte
from support import DEADLINE, TOOL, TopCase


class Terminal:
    """zor-top on a terminal of its own."""

    def __init__(self, *arguments, rows=24, columns=120, kind="xterm-256color"):
        self._screen = pyte.Screen(columns, rows)
        self._stream = pyte.ByteStream(self._screen)
        self.pid, self._file = pty.fork()
        if self.pid == 0:
            os.environ["TERM"] = kind
            os.execv(TOOL, [TOOL, *map(str, arguments)])
        fcntl.ioctl(self._file, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def read(self, seconds=0.05):
        """Takes what the tool has written; false when it has ended."""
        ready, _, _ = select.select([self._file], [], [], seconds)
        if ready:
            try:
                data = os.read(self._file, 65536)
            except OSError:
                data = b""
            if not data:
                return False
            self._stream.feed(data)
        return True

    def comes_to(self, condition):
        """Waits until it holds, which it must go on to do: what the tool has written lately is
        read at once, and of several screens only the last one is seen. What it returns, or None."""
        end = time.monotonic() + DEADLINE
        while not (found := condition()):
            if time.monotonic() > end or not self.read():
                return None
        return found

    def shows(self, words):
        """Waits until the screen has the words; the line, or None if it never does."""
        return self.comes_to(lambda: next((line for line in self.lines() if words in line), None))

    def hides(self, words):
        return self.comes_to(lambda: all(words not in line for line in self.lines()))

    def lines(self):
        return [line.rstrip() for line in self._screen.display]

    def colour_of(self, words):
        for row, line in enumerate(self._screen.display):
            if words in line:
                return self._screen.buffer[row][line.index(words)].fg
        return None

    def type(self, keys):
        os.write(self._file, keys)

    def end(self):
        """The exit code, once the tool has ended."""
        while self.read():
            pass
        os.close(self._file)
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])


class Screen(TopCase):
    def show(self, daemon, *arguments, interval=100, **settings):
        return Terminal("--interval", interval, *arguments, daemon.pid, **settings)

    def test_TheTableIsShownAndQEndsIt(self):
        daemon = self.start("count")
        terminal = self.show(daemon)
        self.assertIsNotNone(terminal.shows("Counter"))
        self.assertIn(f"process {daemon.pid}, library 1.0.0   h: help", terminal.lines()[0])
        self.assertIn("THREAD CPU% BUSY% QUEUED PEAK EVENTS/S REFUSED STATE", terminal.lines()[1])
        terminal.type(b"q")
        self.assertEqual(terminal.end(), 0)

    def test_WhatChangesIsShown(self):
        daemon = self.start("count")
        terminal = self.show(daemon)
        self.assertIsNotNone(terminal.shows("Counter"))
        is_over = threading.Event()

        def keep_busy():
            while not is_over.is_set():
                daemon.say(100)

        busy = threading.Thread(target=keep_busy)
        busy.start()
        rates = set()

        def has_changed_twice():
            rows = [line.split() for line in terminal.lines() if "Counter" in line]
            rates.update(row[6] for row in rows if row[7:])
            return len(rates) >= 3

        try:
            self.assertTrue(terminal.comes_to(has_changed_twice), rates)
        finally:
            is_over.set()
            busy.join()
        terminal.type(b"q")
        self.assertEqual(terminal.end(), 0)

    def test_FrozenStaysAsItIs(self):
        daemon = self.start("fill")
        terminal = self.show(daemon, interval=400)
        notice = "Filled refused 7 events since the last look"

        def refused():
            # TASK THREAD CPU% BUSY% QUEUED PEAK EVENTS/S REFUSED STATE
            rows = [line.split() for line in terminal.lines()]
            return next((int(row[7]) for row in rows if row[:1] == ["Filled"] and row[8:]), None)

        def freeze_and_go_on():
            """Whether the notice was seen, which is there for one interval."""
            before = refused()
            terminal.type(b"f")
            self.assertIsNotNone(terminal.shows("frozen"))
            daemon.say(7)
            end = time.monotonic() + 0.5
            while time.monotonic() < end:
                terminal.read()
            self.assertEqual(refused(), before)
            self.assertFalse(any("refused" in line for line in terminal.lines()))
            terminal.type(b"f")
            self.assertTrue(terminal.comes_to(lambda: refused() == before + 7))
            return any(notice in line for line in terminal.lines())

        self.assertEqual(terminal.comes_to(refused), 1)  # the first that found the queue full
        end = time.monotonic() + DEADLINE
        while not freeze_and_go_on():
            self.assertLess(time.monotonic(), end)
        terminal.type(b"q")
        self.assertEqual(terminal.end(), 0)

    def test_HelpNamesTheKeys(self):
        daemon = self.start("count")
        terminal = self.show(daemon)
        self.assertIsNotNone(terminal.shows("Counter"))
        terminal.type(b"h")
        self.assertIsNotNone(terminal.shows("filter by a part of the name"))
        self.assertTrue(terminal.hides("Counter"))
        terminal.type(b"?")
        self.assertIsNotNone(terminal.shows("Counter"))
        terminal.type(b"q")
        self.assertEqual(terminal.end(), 0)

    def test_AFilterIsTypedAndCleared(self):
        daemon = self.start("many")
        terminal = self.show(daemon)
        self.assertIsNotNone(terminal.shows("Worker0"))
        terminal.type(b"/worker1777\x7f")
        self.assertIsNotNone(terminal.shows("filter: worker177_"))
        terminal.type(b"\n")
        self.assertTrue(terminal.hides("Worker0"))
        self.assertIsNotNone(terminal.shows("Worker177"))
        terminal.type(b"/\x1b")
        self.assertIsNotNone(terminal.shows("Worker0"))
        terminal.type(b"q")
        self.assertEqual(terminal.end(), 0)

    def test_ColumnsAreSortedByKeys(self):
        daemon = self.start("many")
        terminal = self.show(daemon)
        self.assertIsNotNone(terminal.shows("Worker0 "))
        terminal.type(b">")
        self.assertIsNotNone(terminal.shows("TASKv"))
        terminal.type(b">")
        self.assertIsNotNone(terminal.shows("THREADv"))
        first = max(daemon.threads, key=daemon.threads.get) + " "
        self.assertIsNotNone(terminal.shows(first))
        terminal.type(b"r")
        self.assertIsNotNone(terminal.shows("THREAD^"))
        self.assertTrue(terminal.hides(first))
        terminal.type(b"o")
        self.assertTrue(terminal.hides("THREAD^"))
        terminal.type(b"q")
        self.assertEqual(terminal.end(), 0)

    def test_ALongListIsScrolled(self):
        daemon = self.start("many")
        terminal = self.show(daemon)
        self.assertIsNotNone(terminal.shows("Worker0 "))
        for _ in range(20):
            terminal.type(b"\x1b[6~")
        self.assertIsNotNone(terminal.shows("registry: free"))
        self.assertIn("process", terminal.lines()[0])
        for _ in range(20):
            terminal.type(b"\x1b[5~")
        self.assertIsNotNone(terminal.shows("Worker0 "))
        terminal.type(b"q")
        self.assertEqual(terminal.end(), 0)

    def test_ADeadlockIsRed(self):
        daemon = self.start("circle")
        terminal = self.show(daemon)
        self.assertIsNotNone(terminal.shows("! deadlock: "))
        self.assertEqual(terminal.colour_of("! deadlock: "), "red")
        self.assertIsNotNone(terminal.shows("held by First"))
        terminal.type(b"q")
        self.assertEqual(terminal.end(), 0)

    def test_ATerminalWithoutColoursWillDo(self):
        daemon = self.start("circle")
        terminal = self.show(daemon, kind="vt100")
        self.assertIsNotNone(terminal.shows("! deadlock: "))
        terminal.type(b"q")
        self.assertEqual(terminal.end(), 0)

    def test_ADaemonThatEndsGivesTheTerminalBack(self):
        daemon = self.start("count")
        terminal = self.show(daemon)
        self.assertIsNotNone(terminal.shows("Counter"))
        daemon.stop()
        self.assertIsNotNone(terminal.shows("has ended"))
        self.assertEqual(terminal.end(), 2)

    def test_AnUnknownTerminalIsTold(self):
        daemon = self.start("count")
        terminal = self.show(daemon, kind="nobody-has-this")
        self.assertIsNotNone(terminal.shows("the terminal 'nobody-has-this' is not known"))
        self.assertEqual(terminal.end(), 7)
