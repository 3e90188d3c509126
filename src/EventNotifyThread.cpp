#include "EventNotifyThread.h"

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

void TCEventNotifyThread::Destroy()
{
    m_exit.store(true, std::memory_order_relaxed);
    m_queue->Give(); // wakes the thread; the unit ends up in the target
    TCThread::Destroy();
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
