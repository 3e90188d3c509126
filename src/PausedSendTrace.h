#pragma once

#include <new>

#include "NoCancellation.h"
#include "TCDebugPrint.h"

namespace zor {

/// The trace scope of a send to a paused task, which begins only when the pause has been noticed
/// but ends with what was begun before it. Unlike an optional it costs nothing where it is not
/// begun: no memory is cleared for it.
///
/// From its beginning to its end the thread cannot be cancelled: both write, and the end is a
/// destructor, which must not be left that way.
class PausedSendTrace
{
 public:
    // Not defaulted: the union would leave it without a constructor.
    PausedSendTrace() {} // NOLINT(modernize-use-equals-default)
    ~PausedSendTrace()
    {
        if (m_begun) {
            m_scope.~Scope();
        }
    }

    PausedSendTrace(const PausedSendTrace&) = delete;
    PausedSendTrace& operator=(const PausedSendTrace&) = delete;

    void Begin(const char* fmt, const char* function, int type)
    {
        new (&m_scope) Scope(fmt, function, type);
        m_begun = true;
    }

 private:
    struct Scope
    {
        Scope(const char* fmt, const char* function, int type) : trace(fmt, function, type) {}

        const NoCancellation noCancellation; ///< outlives the trace
        TCScopeTrace trace;
    };

    union {
        Scope m_scope;
    };
    bool m_begun = false;
};

} // namespace zor
