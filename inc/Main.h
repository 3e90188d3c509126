#pragma once

#include "ZorExport.h"

/// @file
/// The process entry. The library supplies `main()`; the application supplies Main().
///
/// `main()` writes the pid file "/tmp/.zor-daemon.pid" (and ends the process with status 0 if it
/// exists already), starts the runtime's services, calls Main(), stops the services and returns
/// Main()'s result as the exit status of the process. The pid file is left behind: whatever
/// supervises the daemon removes it before the next start.

/// How many arguments `main()` was given, its own name among them. Set before Main() runs.
ZOR_CORE_API extern int gArgc;

/// The arguments of `main()`, unchanged. Set before Main() runs; the strings stay the system's.
ZOR_CORE_API extern char** gArgv;

/// The application's entry, defined by the application. It runs on the process's first thread with
/// the services of the runtime up (if starting one of them throws, it and those behind it are left
/// out, and nobody is told), and must have destroyed its tasks, alarms and timers before it
/// returns. An exception that leaves it ends the process.
///
/// @return the exit status of the process
ZOR_CORE_API int Main();
