#pragma once

#include <atomic>

#include "Thread.h"
#include "ZorExport.h"

class TCQueue;

/// Forwards every event put into one queue as one unit of a semaphore, so that one thread can wait
/// for several queues. Made by TCMultiQTask, one for each of its queues.
///
/// Queue and semaphore stay the caller's and must outlive the thread.
class ZOR_CORE_API TCEventNotifyThread : public TCThread
{
 public:
    TCEventNotifyThread() = default;

    /// Forwards until Destroy() is called. Asserts "FlagCreate() == true".
    void t_Main() override;

    ~TCEventNotifyThread() override = default;

    /// Has the thread end and waits for that, with the watched queue locked. One unit is given to
    /// that queue, which the thread forwards or leaves there. Must be called before the queue goes,
    /// by a thread that nobody who holds the queue's lock waits for.
    void Destroy() override;

    /// Starts the thread.
    ///
    /// @param name      of the thread
    /// @param queue     whose units are taken
    /// @param target    given one unit for each
    /// @param waitMsec  milliseconds that one wait for a unit lasts
    /// @return whether the thread exists
    bool Create(const char* name, TCQueue* queue, TCSemaphore* target, unsigned int waitMsec);

 private:
    ZOR_CORE_LOCAL bool ForwardOne();

    TCQueue* m_queue = nullptr;         ///< not owned; fixed while the thread runs
    TCSemaphore* m_target = nullptr;    ///< not owned; fixed while the thread runs
    std::atomic<bool> m_exit{false};    ///< written by Destroy(), read by the thread
    std::atomic<bool> m_running{false}; ///< written by the thread
    unsigned int m_waitMsec = 0;        ///< fixed while the thread runs
};
