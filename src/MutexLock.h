#pragma once

#include "Thread.h"

namespace zor {

/// Holds a mutex for a scope: an object's, the registry's, or that which a queue is.
class MutexLock
{
 public:
    explicit MutexLock(TCMutex* mutex) : m_mutex(mutex) { m_mutex->Lock(); }
    ~MutexLock() { m_mutex->Unlock(); }

    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

 private:
    TCMutex* const m_mutex;
};

} // namespace zor
