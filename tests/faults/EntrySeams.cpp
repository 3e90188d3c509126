#include "EntrySeams.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Main.h"

namespace zortest {

Seam<int(const char*, int, mode_t)> openSeam("open");
Seam<ssize_t(int, const void*, size_t)> writeSeam("write");
Seam<int(int)> closeSeam("close");
Seam<int(const char*)> removeSeam("remove");
Seam<void(int)> exitSeam("_exit");

namespace {

constexpr char PID_FILE[] = "/tmp/.zor-daemon.pid";
constexpr char PATH_VARIABLE[] = "ZOR_TEST_OWN_PID_FILE";
constexpr int NONE = -1;

/// The file descriptor of the pid file while it is open.
std::atomic<int> gPidFile{NONE};

bool IsPidFile(const char* path)
{
    return strcmp(path, PID_FILE) == 0;
}

} // namespace

OwnPidFile::OwnPidFile()
{
    const std::string path = ::testing::TempDir() + "zor-faults-" + std::to_string(getpid());
    setenv(PATH_VARIABLE, path.c_str(), 0);
}

OwnPidFile::~OwnPidFile()
{
    unlink(Path());
    unsetenv(PATH_VARIABLE);
}

const char* OwnPidFile::Path()
{
    return getenv(PATH_VARIABLE);
}

int RunEntry()
{
    void* const library = dlopen("libzor-core.so.1", RTLD_NOW | RTLD_NOLOAD);
    auto* const entry = reinterpret_cast<int (*)(int, char**)>(dlsym(library, "main"));
    if (entry == nullptr) {
        fprintf(stderr, "the library has no main(): %s\n", dlerror());
        abort();
    }
    unlink(OwnPidFile::Path());
    gArgc = 0; // and so the program is linked with the library
    char name[] = "daemon";
    char* arguments[] = {name, nullptr};
    return entry(1, arguments);
}

} // namespace zortest

extern "C" {

int open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    using namespace zortest;
    if (!IsPidFile(path)) {
        return openSeam.Real(path, flags, mode);
    }
    gPidFile = openSeam(OwnPidFile::Path(), flags, mode);
    return gPidFile;
}

ssize_t write(int file, const void* data, size_t size)
{
    using namespace zortest;
    return file != NONE && file == gPidFile ? writeSeam(file, data, size)
                                            : writeSeam.Real(file, data, size);
}

int close(int file)
{
    using namespace zortest;
    if (file == NONE || file != gPidFile) {
        return closeSeam.Real(file);
    }
    gPidFile = NONE;
    return closeSeam(file);
}

int remove(const char* path) noexcept
{
    using namespace zortest;
    return IsPidFile(path) ? removeSeam(OwnPidFile::Path()) : removeSeam.Real(path);
}

void _exit(int status)
{
    zortest::exitSeam(status);
    abort();
}
}
