#include "RecordFaults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Takes calls over that the recording makes of the system, and lets the one fail that
// ZOR_TEST_FAULT names, with an error of its kind: "rename", "fallocate", "flock", "realpath",
// "realpath-memory"; or hangs in "fallocate-hang" until the program lets it go on.

std::atomic<bool> zortest::g_allocates{false};
std::atomic<bool> zortest::g_allocationGoesOn{false};

namespace {

bool Fails(const char* call)
{
    const char* const wanted = getenv("ZOR_TEST_FAULT");
    return wanted != nullptr && strcmp(wanted, call) == 0;
}

template <typename Function>
Function Real(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" int rename(const char* from, const char* to) noexcept
{
    if (Fails("rename")) {
        errno = EACCES;
        return -1;
    }
    return Real<int (*)(const char*, const char*)>("rename")(from, to);
}

extern "C" int posix_fallocate(int fd, off_t offset, off_t length)
{
    while (Fails("fallocate-hang") && !zortest::g_allocationGoesOn) {
        zortest::g_allocates = true;
        usleep(1000);
    }
    return Fails("fallocate")
               ? ENOSPC
               : Real<int (*)(int, off_t, off_t)>("posix_fallocate")(fd, offset, length);
}

extern "C" int flock(int fd, int operation) noexcept
{
    if (Fails("flock")) {
        errno = ENOLCK;
        return -1;
    }
    return Real<int (*)(int, int)>("flock")(fd, operation);
}

extern "C" char* realpath(const char* path, char* resolved) noexcept
{
    if (Fails("realpath") || Fails("realpath-memory")) {
        errno = Fails("realpath") ? ENOENT : ENOMEM;
        return nullptr;
    }
    return Real<char* (*)(const char*, char*)>("realpath")(path, resolved);
}
