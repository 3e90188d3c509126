#include <pthread.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <utility>

#include "dlog.h"
#include "zor/testing/PlatformLog.h"

namespace zor::testing {
namespace {

constexpr std::size_t MOST_LINES = 100000;

/// Never destroyed: threads may log until the process is gone.
struct Log
{
    std::mutex mutex;
    std::deque<PlatformLog::Line> lines;
};

Log& TheLog()
{
    static Log* const log = new Log;
    return *log;
}

bool ShowsAll()
{
    static const bool shows = [] {
        const char* value = getenv("ZOR_TESTING_LOG");
        return value != nullptr && strcmp(value, "1") == 0;
    }();
    return shows;
}

std::string Format(const char* fmt, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int size = vsnprintf(nullptr, 0, fmt, again);
    va_end(again);
    if (size < 0) {
        return std::string("unprintable: ") + fmt;
    }
    std::string text(static_cast<std::size_t>(size) + 1, '\0');
    vsnprintf(text.data(), text.size(), fmt, args);
    text.pop_back(); // the terminating NUL
    return text;
}

std::string NameOfThisThread()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

} // namespace

void PlatformLog::Clear()
{
    std::lock_guard<std::mutex> lock(TheLog().mutex);
    TheLog().lines.clear();
}

std::vector<PlatformLog::Line> PlatformLog::Lines()
{
    return LinesWith("");
}

std::vector<PlatformLog::Line> PlatformLog::LinesWith(const std::string& part)
{
    std::vector<Line> found;
    std::lock_guard<std::mutex> lock(TheLog().mutex);
    for (const Line& line : TheLog().lines) {
        if (line.text.find(part) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

std::size_t PlatformLog::Count(const std::string& part)
{
    return LinesWith(part).size();
}

} // namespace zor::testing

extern "C" __attribute__((visibility("default"))) int __dlog_print(log_id_t id, int priority,
                                                                   const char* tag, const char* fmt,
                                                                   ...)
{
    using namespace zor::testing;
    va_list args;
    va_start(args, fmt);
    PlatformLog::Line line{id,
                           priority,
                           tag != nullptr ? tag : "",
                           fmt,
                           Format(fmt, args),
                           tag != nullptr,
                           NameOfThisThread()};
    va_end(args);

    if (ShowsAll()) {
        fprintf(stderr, "%d %s(%s): %s\n", priority, line.tag.c_str(), line.threadName.c_str(),
                line.text.c_str());
    }
    const int size = static_cast<int>(line.text.size());
    std::lock_guard<std::mutex> lock(TheLog().mutex);
    TheLog().lines.push_back(std::move(line));
    if (TheLog().lines.size() > MOST_LINES) {
        TheLog().lines.pop_front();
    }
    return size;
}
