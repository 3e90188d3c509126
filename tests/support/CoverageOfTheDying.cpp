#include <csignal>

// Counters are written by exit handlers, and a process that an assertion aborts or that calls
// _exit() runs none. Linked into each object of a coverage build that counts: every one of them has
// counters and a dump function of its own.

extern "C" void __gcov_dump();
extern "C" [[noreturn]] void __real__exit(int status);

namespace {

struct sigaction gBefore; ///< leads to the object that was loaded before this one

/// abort() restores the default action and raises the signal again once this has returned.
void DumpCounters(int signal)
{
    __gcov_dump();
    if (gBefore.sa_handler != SIG_DFL && gBefore.sa_handler != SIG_IGN) {
        gBefore.sa_handler(signal);
    }
}

__attribute__((constructor)) void CatchAbort()
{
    struct sigaction action = {};
    action.sa_handler = DumpCounters;
    sigaction(SIGABRT, &action, &gBefore);
}

} // namespace

/// What _exit() is to the object that this is linked into with --wrap=_exit.
extern "C" [[noreturn]] __attribute__((visibility("hidden"))) void __wrap__exit(int status)
{
    DumpCounters(SIGABRT);
    __real__exit(status);
}
