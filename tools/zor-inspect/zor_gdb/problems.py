"""What can go wrong, and the exit code that says so."""

OK = 0
USAGE = 1
NO_TARGET = 2
NO_PERMISSION = 3
NOT_ZOR_CORE = 4
NO_PROGRAM = 5
NO_GDB = 6
FAILED = 7

TABLE = """\
Exit codes:
  0  the report was printed
  1  bad options
  2  there is no such process or file
  3  the process may not be looked into
  4  it has no zor-core runtime, or one without debug information
  5  a core without its program, or with another one
  6  gdb is missing, or cannot run Python
  7  gdb failed, or took too long
"""


class Problem(Exception):
    """Ends the tool with a message and an exit code."""

    def __init__(self, code, text):
        super().__init__(text)
        self.code = code
