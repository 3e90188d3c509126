#include "LogSeam.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "dlog.h"

namespace zortest {
namespace {

/// Never destroyed: threads may log until the process is gone.
struct Log
{
    std::mutex mutex;
    std::vector<LogLine> lines;
};

Log& TheLog()
{
    static Log* const log = new Log;
    return *log;
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

} // namespace

void ClearLog()
{
    std::lock_guard<std::mutex> lock(TheLog().mutex);
    TheLog().lines.clear();
}

std::vector<LogLine> LogLines()
{
    std::lock_guard<std::mutex> lock(TheLog().mutex);
    return TheLog().lines;
}

std::vector<LogLine> LogLinesWith(const std::string& part)
{
    std::vector<LogLine> found;
    for (LogLine& line : LogLines()) {
        if (line.text.find(part) != std::string::npos) {
            found.push_back(std::move(line));
        }
    }
    return found;
}

std::size_t CountLogLines(const std::string& part)
{
    return LogLinesWith(part).size();
}

} // namespace zortest

extern "C" int __dlog_print(log_id_t id, int priority, const char* tag, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    zortest::LogLine line{
        id, priority, tag != nullptr ? tag : "", fmt, zortest::Format(fmt, args), tag != nullptr};
    va_end(args);

    const int size = static_cast<int>(line.text.size());
    std::lock_guard<std::mutex> lock(zortest::TheLog().mutex);
    zortest::TheLog().lines.push_back(std::move(line));
    return size;
}
