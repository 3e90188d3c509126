#include "Debug.h"

#include <execinfo.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "FailedAssertion.h"
#include "TCDebugPrint.h"
#include "ZorApiLite.h"
#include "dlog.h"

std::function<void(const char* file, unsigned long line)> test::TSCustomAssert::callback;

/// Numbers the lines of TCDebug::Print. Relaxed, because the number orders nothing; numbers that
/// repeat or are left out would be accepted too.
std::atomic<unsigned long> lineCount{0};

zor::FailedAssertion zor_core_failed_assertion = {};

namespace {

constexpr char CONSOLE_PATH[] = "/dev/console";
constexpr unsigned long CONSOLE_DRAIN_MSEC = 100;
constexpr int MAX_FRAMES = 100;
constexpr size_t THREAD_NAME_SIZE = 16; // of the kernel's
constexpr size_t PRINT_BUFFER_SIZE = 8192;
constexpr size_t PROFILING_BUFFER_SIZE = 128;

constexpr char PRINT_TAG[] = "ZOR";
constexpr char PRINT_MODULE[] = "ZOR_CORE";

using zor::FailedAssertion;

template <size_t SIZE>
void CopyText(char (&to)[SIZE], const char* from)
{
    strncpy(to, from == nullptr ? "(null)" : from, SIZE - 1);
}

/// Tells whoever looks at the process, and the platform log, what has failed: a console there may
/// not be. The record comes first, since the log may be stuck. Threads that fail at the same time
/// all tell the log; the record is the first one's.
void Tell(const char* expr, const char* file, unsigned long line)
{
    const auto threadId = static_cast<std::int32_t>(syscall(SYS_gettid));
    char threadName[THREAD_NAME_SIZE] = "";
    prctl(PR_GET_NAME, threadName);

    FailedAssertion& record = zor_core_failed_assertion;
    std::uint32_t expected = FailedAssertion::NONE;
    if (record.state.compare_exchange_strong(expected, FailedAssertion::WRITING,
                                             std::memory_order_relaxed)) {
        record.thread = threadId;
        record.line = line;
        CopyText(record.threadName, threadName);
        CopyText(record.file, file);
        CopyText(record.expression, expr);
        record.state.store(FailedAssertion::COMPLETE, std::memory_order_release);
    }

    __dlog_print(LOG_ID_MAIN, DLOG_FATAL, PRINT_TAG,
                 "%s: %s(%d) > Assertion failed: %s (%lu) - %s, thread %d (%s)", PRINT_MODULE,
                 "_TCAssert", __LINE__, file, line, expr, threadId, threadName);
}

void PrintFrames(FILE* stream, void* const* frames, int count)
{
    char** symbols = backtrace_symbols(frames, count);
    if (symbols == nullptr) {
        return;
    }
    fprintf(stream, "Callstack:\n");
    for (int i = 1; i < count; ++i) { // frame 0 is the function that took the back trace
        fprintf(stream, "%s\n", symbols[i]);
    }
    free(symbols);
}

} // namespace

void _TCAssert(const char* expr, const char* file, unsigned long line)
{
    if (test::TSCustomAssert::callback) {
        test::TSCustomAssert::callback(file, line);
        return;
    }

    FILE* console = fopen(CONSOLE_PATH, "w");
    PrintCallstack(console, expr, file, line);
    if (console != nullptr) {
        fclose(console);
    }
    Tell(expr, file, line);
    ZorApiLite::LiteUtility::SleepMs(CONSOLE_DRAIN_MSEC);
    if (ZorApiLite::LiteUtility::IsRelease()) {
        return;
    }
    abort();
}

void _TCAssert(const char* expr, const char* file, unsigned long line, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    vfprintf(stderr, fmt, args);
    va_end(args);
    _TCAssert(expr, file, line);
}

// Kept out of line, so that the frame that the call stack leaves out is always this function's own.
__attribute__((noinline)) void PrintCallstack(FILE* stream, const char* expr, const char* file,
                                              unsigned long line)
{
    const TSAppData& appData = TCDebugPrintZOR::GetInstance()->GetAppData();
    const long threadId = syscall(SYS_gettid);
    char threadName[THREAD_NAME_SIZE] = "";
    prctl(PR_GET_NAME, threadName);

    if (stream == nullptr) {
        return;
    }
    if (!appData.name.empty()) {
        fprintf(stream, "AppName: %s \n", appData.name.c_str());
    }
    fprintf(stream, "This sentence is redirected to a serial output.");
    fprintf(stream, "Assertion failed: %s (%lu) - %s\n", file, line, expr);
    fprintf(stream, "Debug information:\n");
    fprintf(stream, "Posix Thread ID: 0x%08lx\n", pthread_self());
    fprintf(stream, "Linux Thread ID:   %8ld (%s)\n", threadId, threadName);
    void* frames[MAX_FRAMES];
    PrintFrames(stream, frames, backtrace(frames, MAX_FRAMES));
    fflush(stream);
}

void TCDebug::Print(unsigned long level, const char* format, ...)
{
    TCASSERT(format != NULL);
    if (level != 0 || format == nullptr) {
        return;
    }
    const unsigned long number = lineCount.fetch_add(1, std::memory_order_relaxed);
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, PRINT_TAG, "%s: %s(%d) > %lu (%lu): ", PRINT_MODULE,
                 "Print", __LINE__, number, level);

    char text[PRINT_BUFFER_SIZE];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, PRINT_TAG, "%s: %s(%d) > %s", PRINT_MODULE, "Print",
                 __LINE__, text);
}

void TCDebug::Print(const char* format, ...)
{
    TCASSERT(format != NULL);
    if (format == nullptr) {
        return;
    }
    const unsigned long number = lineCount.fetch_add(1, std::memory_order_relaxed);
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, PRINT_TAG, "%s: %s(%d) > %lu (0): ", PRINT_MODULE, "Print",
                 __LINE__, number);

    char text[PRINT_BUFFER_SIZE];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, PRINT_TAG, "%s: %s(%d) > %s\n", PRINT_MODULE, "Print",
                 __LINE__, text);
}

void PrintProfiling(int option, const char* fmt, ...)
{
    char text[PROFILING_BUFFER_SIZE];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    prctl(option, text, strlen(text));
}
