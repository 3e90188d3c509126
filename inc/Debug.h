#pragma once

#include <cstdio>
#include <functional>

#include "ZorExport.h"

/// @file
/// Assertions, call stacks, the numbered debug print and profiling marks.
///
/// Everything here may be called from any thread and takes no lock; reports of threads that fail at
/// the same time may interleave on the console.

namespace test {

/// Where a test harness catches failed assertions.
struct ZOR_CORE_API TSCustomAssert
{
    /// While it is not empty, a failed assertion calls it with source file and line instead of
    /// writing to the console, and the program goes on, in release and debug builds alike.
    /// Set it while no other thread can assert.
    static std::function<void(const char* file, unsigned long line)> callback;
};

} // namespace test

/// Reports a failed assertion; use TCASSERT() instead of calling this.
///
/// The report (see PrintCallstack()) goes to "/dev/console", then one entry at FATAL with file,
/// line, expression and thread to the platform log, and if it is the first, the same to the record
/// in FailedAssertion.h. Then the thread sleeps 100 ms so that the console drains. In a release
/// build (ZorApiLite::LiteUtility::IsRelease()) the call returns and the program goes on past the
/// failed check; in any other build it aborts.
///
/// @param expr  text of the failed expression
/// @param file  source file of the assertion
/// @param line  its line
ZOR_CORE_API void _TCAssert(const char* expr, const char* file, unsigned long line);

/// The same with a printf-style message, which goes to standard error first; no line end is added.
ZOR_CORE_API void _TCAssert(const char* expr, const char* file, unsigned long line, const char* fmt,
                            ...) __attribute__((format(printf, 4, 5)));

/// Asserts that @p expr holds and reports its text, the file and the line if it does not.
#define TCASSERT(expr) ((expr) ? static_cast<void>(0) : _TCAssert(#expr, __FILE__, __LINE__))

/// TCASSERT() with a printf-style message: `TCASSERT_MSG(ret == 0, "open = %d\n", ret)`.
#define TCASSERT_MSG(expr, ...) \
    ((expr) ? static_cast<void>(0) : _TCAssert(#expr, __FILE__, __LINE__, __VA_ARGS__))

/// Writes a report of a failed expression to @p stream: the application on whose behalf the thread
/// works (if any), file, line and expression, the thread, and its call stack of at most 100 frames.
///
/// @param stream  where to; null writes nothing. It stays the caller's and is flushed.
ZOR_CORE_API void PrintCallstack(FILE* stream, const char* expr, const char* file,
                                 unsigned long line);

/// The numbered debug print: it writes straight to the platform log (priority INFO, tag "ZOR"),
/// past the logging front.
class ZOR_CORE_API TCDebug
{
 public:
    /// Prints when @p level is 0; any other level makes the call a no-op. At most 8,191 characters
    /// of the text are printed. Asserts "format != NULL".
    static void Print(unsigned long level, const char* format, ...)
        __attribute__((format(printf, 2, 3)));

    /// Prints always, and ends the text with a line end. At most 8,191 characters of the text are
    /// printed. Asserts "format != NULL".
    static void Print(const char* format, ...) __attribute__((format(printf, 1, 2)));
};

/// Hands a profiling mark to the kernel as `prctl(option, text, strlen(text))`.
///
/// @param option  the platform's profiling option
/// @param fmt     printf-style text of the mark, at most 127 characters
///
/// A kernel without such profiling refuses the mark; that is not reported.
ZOR_CORE_API void PrintProfiling(int option, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));
