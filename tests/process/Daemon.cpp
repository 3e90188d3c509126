#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "Debug.h"
#include "Main.h"

// A daemon like any other: it supplies Main() and nothing else. What it does is told by its first
// argument, and it reports in lines on standard output, unbuffered.

namespace {

void ReportExitHandler()
{
    dprintf(STDOUT_FILENO, "exit handler\n");
}

/// Shows by its destructor and by an exit handler whether the process ends in an orderly way.
struct TSExitReporter
{
    TSExitReporter() { atexit(&ReportExitHandler); }
    ~TSExitReporter() { dprintf(STDOUT_FILENO, "static destructor\n"); }
};

const TSExitReporter gReporter;

/// Waits until the test closes its end of standard input.
void WaitForEndOfInput()
{
    char ignored;
    while (read(STDIN_FILENO, &ignored, 1) > 0) {
    }
}

} // namespace

int Main()
{
    dprintf(STDOUT_FILENO, "Main %s\n", gettid() == getpid() ? "on the first thread" : "elsewhere");
    for (int i = 0; i < gArgc; ++i) {
        dprintf(STDOUT_FILENO, "argument %s\n", gArgv[i]);
    }
    dprintf(STDOUT_FILENO, "arguments end %s\n", gArgv[gArgc] == nullptr ? "in null" : "open");

    const char* what = gArgc > 1 ? gArgv[1] : "0";
    if (strcmp(what, "throw") == 0) {
        throw std::runtime_error("out of Main");
    }
    if (strcmp(what, "assert") == 0) {
        TCASSERT_MSG(gArgc == 0, "there are %d arguments\n", gArgc);
        return 3;
    }
    if (strcmp(what, "wait") == 0) {
        WaitForEndOfInput();
        return 0;
    }
    return atoi(what);
}
