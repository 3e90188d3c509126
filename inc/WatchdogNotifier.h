#pragma once

#include <atomic>
#include <cstddef>

#include "Thread.h"
#include "ZorExport.h"

class TCTask;

/// The thread that has every supervised task prove that it is alive.
///
/// Every 2 seconds it pings each task that has a watchdog time and whose loop runs. The task
/// notifies the platform's watchdog when it handles the ping, on its own thread; one that is stuck
/// does not, and the watchdog reacts. There is one notifier in a process; the process entry makes
/// it and takes it down.
class ZOR_CORE_API TCWatchdogNotifier : public TCThread
{
 public:
    /// Makes the notifier and starts its thread. If that cannot be made this is logged at FATAL,
    /// and supervised tasks will be reported as hung. Asserts "m_pInstance == __null"; prints a
    /// line and does nothing else if there is one already.
    static void Init();

    /// The notifier. Asserts "m_pInstance", and prints a line if there is none.
    static TCWatchdogNotifier* Instance();

    /// Ends the thread and the notifier; this takes as long as the sweep under way and what is left
    /// of its 2 seconds. Asserts "m_pInstance != __null", and prints a line if there is none.
    static void Exit();

    /// Sleeps and sweeps until the notifier is taken down.
    void t_Main() override;

    ~TCWatchdogNotifier() override;

 private:
    TCWatchdogNotifier();

    TCTask* m_NextTaskToNotify();

    std::atomic<bool> m_active; ///< cleared by the destructor, read by the thread
    std::size_t m_nextTask = 0; ///< index into the registry; only the thread

    static TCWatchdogNotifier* m_pInstance; ///< owned; only the process entry changes it
};
