#pragma once

#include "PlatformExport.h"

/// The log buffers of the platform log. The runtime writes to the main buffer only.
enum log_id_t : int
{
    LOG_ID_MAIN = 0,
};

/// Priorities of a log entry, least urgent first.
enum log_priority : int
{
    DLOG_UNKNOWN = 0,
    DLOG_DEFAULT = 1,
    DLOG_VERBOSE = 2,
    DLOG_DEBUG = 3,
    DLOG_INFO = 4,
    DLOG_WARN = 5,
    DLOG_ERROR = 6,
    DLOG_FATAL = 7,
    DLOG_SILENT = 8,
};

/// Writes one entry to the platform log.
///
/// @param id        the log buffer; the runtime passes LOG_ID_MAIN
/// @param priority  a log_priority
/// @param tag       the component that writes; null stands for an empty tag
/// @param fmt       printf-style text
/// @return the number of bytes written, or a negative value if nothing was; the runtime ignores it
///
/// Any thread may call. An implementation must not call back into the runtime.
extern "C" ZOR_PLATFORM_API int __dlog_print(log_id_t id, int priority, const char* tag,
                                             const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
