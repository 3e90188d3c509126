#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Deadline.h"
#include "Real.h"

/// Files whose contents differ from run to run. Whether a thread sleeps is told as the simulation
/// has it; the others are read as they are, and named.
namespace zorsim {

namespace {

constexpr const char* TASKS = "/proc/self/task/";

bool StartsWith(const char* text, const char* begin)
{
    return strncmp(text, begin, strlen(begin)) == 0;
}

/// The thread whose /proc/self/task/.../stat it is; null if it is something else.
const Thread* ThreadOfStat(const char* path)
{
    if (!StartsWith(path, TASKS)) {
        return nullptr;
    }
    char* end = nullptr;
    const long tid = strtol(path + strlen(TASKS), &end, 10);
    for (std::uint32_t i = 0; strcmp(end, "/stat") == 0 && i < ThreadCount(); ++i) {
        const Thread* const thread = ThreadAt(i);
        if (thread->tid == tid &&
            (thread->state == ThreadState::RUNNABLE || thread->state == ThreadState::WAITING)) {
            return thread;
        }
    }
    return nullptr;
}

/// A file in memory that says of the thread what can be known of it, the rest being 0.
int OpenStat(const Thread& thread)
{
    const int file = memfd_create("stat", MFD_CLOEXEC);
    char text[256];
    const int size =
        snprintf(text, sizeof(text), "%d (%s) %c 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n", thread.tid,
                 thread.name, thread.state == ThreadState::RUNNABLE ? 'R' : 'S');
    if (file < 0 || ZOR_SIM_REAL(pwrite)(file, text, static_cast<std::size_t>(size), 0) != size) {
        return -1;
    }
    return file;
}

/// @return a file to be used in place of the one at the path; -1 if that is what it seems
int OpenInstead(const char* path, const void* caller)
{
    Thread* const self = Self();
    if (self == nullptr || path == nullptr || path[0] != '/') {
        return -1;
    }
    if (const Thread* const thread = ThreadOfStat(path)) {
        Step(self, Operation::READ, nullptr, caller);
        return OpenStat(*thread);
    }
    if (StartsWith(path, "/proc/") && !StartsWith(path, "/proc/self/fd/")) {
        Note("what /proc tells, which differs from run to run");
    } else if (strcmp(path, "/dev/random") == 0 || strcmp(path, "/dev/urandom") == 0) {
        Note("random devices, which differ from run to run");
    }
    return -1;
}

int OpenMode(int flags, va_list list)
{
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(list, int) : 0;
}

} // namespace

} // namespace zorsim

using namespace zorsim;

#define ZOR_SIM_OPEN(function)                                                     \
    ZOR_SIM_EXPORT int function(const char* path, int flags, ...)                  \
    {                                                                              \
        va_list list;                                                              \
        va_start(list, flags);                                                     \
        const int mode = OpenMode(flags, list);                                    \
        va_end(list);                                                              \
        const int instead = OpenInstead(path, ZOR_SIM_CALLER);                     \
        return instead >= 0 ? instead : ZOR_SIM_REAL(function)(path, flags, mode); \
    }
ZOR_SIM_OPEN(open)
ZOR_SIM_OPEN(open64)

#define ZOR_SIM_FOPEN(function)                                                           \
    ZOR_SIM_EXPORT FILE* function(const char* path, const char* mode)                     \
    {                                                                                     \
        const int instead = OpenInstead(path, ZOR_SIM_CALLER);                            \
        return instead >= 0 ? fdopen(instead, mode) : ZOR_SIM_REAL(function)(path, mode); \
    }
ZOR_SIM_FOPEN(fopen)
ZOR_SIM_FOPEN(fopen64)
