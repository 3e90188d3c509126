#pragma once

#include <new>

#include "TCDebugPrint.h"

namespace zor {

/// The trace scope of a send to a paused task, which begins only when the pause has been noticed
/// but ends with what was begun before it. Unlike an optional it costs nothing where it is not
/// begun: no memory is cleared for it.
class PausedSendTrace
{
 public:
    // Not defaulted: the union would leave it without a constructor.
    PausedSendTrace() {} // NOLINT(modernize-use-equals-default)
    ~PausedSendTrace()
    {
        if (m_begun) {
            m_trace.~TCScopeTrace();
        }
    }

    PausedSendTrace(const PausedSendTrace&) = delete;
    PausedSendTrace& operator=(const PausedSendTrace&) = delete;

    void Begin(const char* fmt, const char* function, int type)
    {
        new (&m_trace) TCScopeTrace(fmt, function, type);
        m_begun = true;
    }

 private:
    union {
        TCScopeTrace m_trace;
    };
    bool m_begun = false;
};

} // namespace zor
