#include <dlfcn.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "ZorApiLite.h"
#include "dlog.h"

// Takes over the platform log and the kernel's profiling marks and reports what the process entry
// writes there on standard output, one line for each: line ends are shown as "\n", tabs as "\t".
// Pauses are cut short, so that the services' threads end as soon as they are asked to.

namespace {

constexpr int PROFILING_OPTION = 666;
constexpr useconds_t SHORT_PAUSE_USEC = 1000;

void Report(const char* head, const char* text)
{
    char line[1024];
    size_t size = snprintf(line, sizeof(line), "%s", head);
    for (; *text != '\0' && size + 4 < sizeof(line); ++text) {
        if (*text == '\n' || *text == '\t') {
            line[size++] = '\\';
            line[size++] = *text == '\n' ? 'n' : 't';
        } else {
            line[size++] = *text;
        }
    }
    line[size] = '\0';
    dprintf(STDOUT_FILENO, "%s|\n", line);
}

} // namespace

extern "C" int __dlog_print(log_id_t id, int priority, const char* tag, const char* fmt, ...)
{
    char text[512];
    va_list args;
    va_start(args, fmt);
    const int size = vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    char head[64];
    snprintf(head, sizeof(head), "log %d %d %s|", id, priority, tag);
    Report(head, text);
    return size;
}

extern "C" int prctl(int option, ...) noexcept
{
    va_list args;
    va_start(args, option);
    unsigned long values[4];
    for (unsigned long& value : values) {
        value = va_arg(args, unsigned long);
    }
    va_end(args);
    if (option == PROFILING_OPTION) {
        char head[64];
        snprintf(head, sizeof(head), "mark %d %lu|", option, values[1]);
        Report(head, reinterpret_cast<const char*>(values[0]));
        return 0;
    }
    using Prctl = int(int, ...);
    static Prctl* const real = reinterpret_cast<Prctl*>(dlsym(RTLD_NEXT, "prctl"));
    return real(option, values[0], values[1], values[2], values[3]);
}

void ZorApiLite::LiteUtility::SleepMs(unsigned long)
{
    usleep(SHORT_PAUSE_USEC);
}
