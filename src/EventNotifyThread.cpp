#include "EventNotifyThread.h"

#include "MutexLock.h"
#include "Queue.h"

namespace {

constexpr unsigned long STACK_SIZE = 8192;

} // namespace

bool TCEventNotifyThread::Create(const char* name, TCQueue* queue, TCSemaphore* target,
                                 unsigned int waitMsec)
{
    m_queue = queue;
    m_target = target;
    m_waitMsec = waitMsec;
    m_exit.store(false, std::memory_order_relaxed);
    return TCThread::Create(name, STACK_SIZE);
}

// Why the queue is locked until the thread has ended:
//
//   this thread:  lock queue -- give unit ---------------- wait for the end -- unlock
//   deleter:                              (waits for the lock) ............... take units
//   thread:                                   take unit -- end
//
// A deletion takes as many units as it removes events, and a selective get takes one. If that were
// the unit that wakes the thread, it would sleep on for its whole wait. The thread itself needs the
// semaphore only, not the lock.
void TCEventNotifyThread::Destroy()
{
    m_exit.store(true, std::memory_order_relaxed);
    {
        const zor::MutexLock lock(m_queue);
        m_queue->Give();
        TCThread::Destroy();
    }
    m_queue = nullptr;
    m_target = nullptr;
}

void TCEventNotifyThread::t_Main()
{
    TCASSERT(FlagCreate() == true);
    m_running.store(true, std::memory_order_relaxed);
    while (ForwardOne()) {
    }
    m_running.store(false, std::memory_order_relaxed);
}

bool TCEventNotifyThread::ForwardOne()
{
    if (m_exit.load(std::memory_order_relaxed)) {
        return false;
    }
    if (m_queue->Try(m_waitMsec)) {
        m_target->Give();
    }
    return true;
}
