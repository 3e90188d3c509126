#pragma once

#include "SemaphoreState.h"
#include "Thread.h"

namespace zor {

/// Holds a mutex for a scope in which a few words are read or written, which allocates nothing,
/// runs no foreign code and touches no new page.
///
/// While nobody holds the mutex the process-wide one is held instead, for the whole scope: to take
/// the mutex needs that one, so nobody can. That is one critical section instead of two.
class BriefLock
{
 public:
    explicit BriefLock(TCMutex* mutex)
        : m_mutex(mutex), m_isTaken(mutex->m_semaphore.m_state->Count() <= 0)
    {
        if (m_isTaken) {
            m_shared.Unlock();
            m_mutex->Lock();
        }
    }

    ~BriefLock()
    {
        if (m_isTaken) {
            m_mutex->Unlock();
        }
    }

    BriefLock(const BriefLock&) = delete;
    BriefLock& operator=(const BriefLock&) = delete;

 private:
    TimeMutexLock m_shared; ///< until the mutex is taken, if it is
    TCMutex* const m_mutex;
    const bool m_isTaken;
};

} // namespace zor
