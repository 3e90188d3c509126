#pragma once

#include <pthread.h>

namespace zor {

/// Keeps the calling thread from being cancelled for a scope. What has come meanwhile takes effect
/// at the next cancellation point behind the scope, not at its end: that may be a destructor.
class NoCancellation
{
 public:
    /// @param wanted  whether to; if not, this does nothing
    explicit NoCancellation(bool wanted = true) : m_wanted(wanted)
    {
        if (m_wanted) {
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before);
        }
    }
    ~NoCancellation()
    {
        if (m_wanted) {
            pthread_setcancelstate(m_before, nullptr);
        }
    }

    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

 private:
    const bool m_wanted;
    int m_before = PTHREAD_CANCEL_ENABLE;
};

} // namespace zor
