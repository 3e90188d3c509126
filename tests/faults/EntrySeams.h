#pragma once

#include <sys/types.h>

#include "Seam.h"

/// @file
/// The process entry of the library, and the calls that it makes the pid file with. A program that
/// this is linked into uses a pid file of its own, so it needs no lock against other tests.

namespace zortest {

/// Calls on the pid file alone; others go past them. Opening it opens the program's own.
extern Seam<int(const char*, int, mode_t)> openSeam;
extern Seam<ssize_t(int, const void*, size_t)> writeSeam;
extern Seam<int(int)> closeSeam;
extern Seam<int(const char*)> removeSeam;

/// The end of the process.
extern Seam<void(int)> exitSeam;

/// A pid file of the program's own, for as long as this lives. The processes of death tests have
/// that of the test that started them, which removes what they leave behind.
class OwnPidFile
{
 public:
    OwnPidFile();
    ~OwnPidFile();

    OwnPidFile(const OwnPidFile&) = delete;
    OwnPidFile& operator=(const OwnPidFile&) = delete;

    /// Allocates nothing.
    static const char* Path();
};

/// Runs the library's main(), which runs the Main() of all tests, with no pid file there. Needs an
/// OwnPidFile.
int RunEntry();

} // namespace zortest
