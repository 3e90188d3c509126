#include "ProgressLogger.h"

namespace tsmon {

void ProgressLogger::ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                            const char* prettyFunction, const char* function, int scope,
                            int classBegin, int classEnd, int functionBegin, int functionEnd,
                            int line, const char* fmt, va_list* args)
{
    // The front announces a new logger through itself, as the gravest of all entries. It is not.
    const log_priority shown = m_isAnnounced.exchange(true) ? priority : DLOG_DEBUG;
    m_line.Around([&] {
        m_next.ZORLog(flag, shown, tag, file, prettyFunction, function, scope, classBegin, classEnd,
                      functionBegin, functionEnd, line, fmt, args);
    });
}

} // namespace tsmon
