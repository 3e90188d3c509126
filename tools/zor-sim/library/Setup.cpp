#include "Setup.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "Real.h"

namespace zorsim {

namespace {

/// Read from /proc, for the environment is not there yet when a preloaded library
/// begins.
const char* FromEnvironment(const char* name, char* buffer, std::size_t size)
{
    const int file = ZOR_SIM_REAL(open)("/proc/self/environ", O_RDONLY | O_CLOEXEC);
    std::size_t used = 0;
    for (ssize_t count; file >= 0 && used + 1 < size &&
                        (count = ZOR_SIM_REAL(read)(file, buffer + used, size - used - 1)) > 0;) {
        used += static_cast<std::size_t>(count);
    }
    ZOR_SIM_REAL(close)(file);
    buffer[used] = '\0';
    const std::size_t length = strlen(name);
    for (char* at = buffer; at < buffer + used; at += strlen(at) + 1) {
        if (strncmp(at, name, length) == 0 && at[length] == '=') {
            return at + length + 1;
        }
    }
    return nullptr;
}

} // namespace

Report* MapReport()
{
    static char s_buffer[256 * 1024];
    const char* const process = FromEnvironment(PROCESS_VARIABLE, s_buffer, sizeof(s_buffer));
    const bool isOurs =
        process != nullptr && (strcmp(process, ANY_PROCESS) == 0 || atoi(process) == getpid());
    const char* const path = FromEnvironment(REPORT_VARIABLE, s_buffer, sizeof(s_buffer));
    const int file = path != nullptr ? ZOR_SIM_REAL(open)(path, O_RDWR | O_CLOEXEC) : -1;
    if (file < 0) {
        return nullptr;
    }
    const off_t size = lseek(file, 0, SEEK_END);
    void* const map = mmap(nullptr, static_cast<std::size_t>(size), PROT_READ | PROT_WRITE,
                           isOurs ? MAP_SHARED : MAP_PRIVATE, file, 0);
    ZOR_SIM_REAL(close)(file);
    Report* const report = static_cast<Report*>(map);
    if (map == MAP_FAILED || static_cast<std::size_t>(size) < sizeof(Report) ||
        report->magic != REPORT_MAGIC || report->version != REPORT_VERSION) {
        return nullptr;
    }
    if (!isOurs) {
        report->settings.records = 0;
        report->settings.trap = 0;
        memset(&report->started, 0,
               sizeof(Report) - static_cast<std::size_t>(reinterpret_cast<char*>(&report->started) -
                                                         reinterpret_cast<char*>(report)));
    }
    return report;
}

} // namespace zorsim
