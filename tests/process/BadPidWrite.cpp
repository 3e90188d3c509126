#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Takes over write() for the pid file: "short" in ZOR_TEST_PID_WRITE writes one character less,
// "fail" fails as on a full disk.

namespace {

bool IsPidFile(int file)
{
    char link[64];
    char path[64];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", file);
    const ssize_t length = readlink(link, path, sizeof(path) - 1);
    if (length < 0) {
        return false;
    }
    path[length] = '\0';
    return strcmp(path, "/tmp/.zor-daemon.pid") == 0;
}

} // namespace

extern "C" ssize_t write(int file, const void* data, size_t size)
{
    const char* how = getenv("ZOR_TEST_PID_WRITE");
    if (how == nullptr || !IsPidFile(file)) {
        return syscall(SYS_write, file, data, size);
    }
    if (strcmp(how, "fail") == 0) {
        errno = ENOSPC;
        return -1;
    }
    errno = 0;
    return syscall(SYS_write, file, data, size - 1);
}
