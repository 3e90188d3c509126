#include "WatchdogNotifier.h"

#include "Debug.h"
#include "Task.h"
#include "TaskList.h"
#include "TaskListUse.h"
#include "ZorServiceDebugOverlay.h"

namespace {

constexpr unsigned long SWEEP_INTERVAL_MSEC = 2000;
constexpr unsigned long STACK_SIZE = 4096;

} // namespace

TCWatchdogNotifier* TCWatchdogNotifier::m_pInstance = nullptr;

TCWatchdogNotifier::TCWatchdogNotifier() : m_active(true)
{
    if (!TCThread::Create("WatchdogNotifier", STACK_SIZE)) {
        ZOR_LOG(true, DLOG_FATAL,
                "No thread for the watchdog notifier: supervised tasks will be reported as hung.");
    }
}

TCWatchdogNotifier::~TCWatchdogNotifier()
{
    m_active.store(false, std::memory_order_relaxed);
    if (FlagCreate()) { // the thread may never have been made
        TCThread::Destroy();
    }
}

void TCWatchdogNotifier::Init()
{
    TCASSERT(m_pInstance == __null);
    if (m_pInstance != nullptr) {
        TCDebug::Print("ASSERT!, Func:%s\n", __func__);
        return;
    }
    m_pInstance = new TCWatchdogNotifier;
}

TCWatchdogNotifier* TCWatchdogNotifier::Instance()
{
    TCASSERT(m_pInstance);
    if (m_pInstance == nullptr) {
        TCDebug::Print("ASSERT!, Func:%s\n", __func__);
    }
    return m_pInstance;
}

void TCWatchdogNotifier::Exit()
{
    TCASSERT(m_pInstance != __null);
    if (m_pInstance == nullptr) {
        TCDebug::Print("ASSERT!, Func:%s\n", __func__);
        return;
    }
    delete m_pInstance;
    m_pInstance = nullptr;
}

void TCWatchdogNotifier::t_Main()
{
    while (m_active.load(std::memory_order_relaxed)) {
        TCTimeWrapper::Sleep(SWEEP_INTERVAL_MSEC);
        while (TCTask* task = m_NextTaskToNotify()) {
            TCTask::Ping(task, 0);
        }
    }
}

/// The next supervised task of the sweep, null at its end. The task may be destroyed as soon as the
/// registry's lock is free again; the ping looks it up anew.
TCTask* TCWatchdogNotifier::m_NextTaskToNotify()
{
    const zor::TaskListUse registry;
    while (m_nextTask < registry.Size()) {
        TCTaskList::Seek(static_cast<int>(m_nextTask++));
        TCTask* const task = TCTaskList::Task();
        if (task != nullptr && task->m_running.load(std::memory_order_relaxed) &&
            task->m_watchdogTime != 0) {
            return task;
        }
    }
    m_nextTask = 0;
    return nullptr;
}
