#pragma once

#include <Queue.h>
#include <Sync.h>
#include <Thread.h>

/// @file
/// What is held for a scope.

namespace zor::detail {

/// The entry of an asking thread in the table of synchronous calls, for a scope.
class CallEntry
{
 public:
    CallEntry() = default;

    ~CallEntry()
    {
        if (m_index >= 0) {
            TCSyncDet::Remove(m_index);
        }
    }

    CallEntry(const CallEntry&) = delete;
    CallEntry& operator=(const CallEntry&) = delete;

    /// Enters the thread as waiting for the task that @p event is to go to, which is created.
    void Enter(TSEvent* event)
    {
        m_index = TCSyncDet::PCTaskSyncMonitoring(static_cast<int>(TCThreadSelf::Id()), event);
    }

 private:
    int m_index = -1; ///< negative while it is not listed
};

/// Holds a queue's lock for a scope.
class QueueLock
{
 public:
    explicit QueueLock(TCQueue* queue) : m_queue(queue) { m_queue->Lock(); }
    ~QueueLock() { m_queue->Unlock(); }

    QueueLock(const QueueLock&) = delete;
    QueueLock& operator=(const QueueLock&) = delete;

 private:
    TCQueue* const m_queue; ///< not owned
};

} // namespace zor::detail
