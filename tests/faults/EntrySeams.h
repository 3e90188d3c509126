#pragma once

#include <sys/types.h>

#include <string>

#include "Seam.h"

/// @file
/// The process entry of the library, and the calls that it makes the pid file with. A program that
/// this is linked into has a pid file of its own, so it needs no lock against other tests.

namespace zortest {

/// Calls on the pid file alone; others go past them. Opening it opens the program's own.
extern Seam<int(const char*, int, mode_t)> openSeam;
extern Seam<ssize_t(int, const void*, size_t)> writeSeam;
extern Seam<int(int)> closeSeam;
extern Seam<int(const char*)> removeSeam;

/// The end of the process.
extern Seam<void(int)> exitSeam;

/// The program's own pid file.
const std::string& PidFile();

/// Runs the library's main(), which runs the Main() of all tests.
int RunEntry();

} // namespace zortest
