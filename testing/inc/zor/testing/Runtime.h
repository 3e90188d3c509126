#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Sync.h"
#include "Task.h"
#include "TaskList.h"
#include "WatchdogNotifier.h"

namespace zor::testing {

/// The services of the runtime, brought up and taken down as the process entry does it, but without
/// a pid file, without log lines, and as often as a test likes. The library's own `main()` makes
/// one for the whole run; a program with a `main()` of its own makes one itself. There is at most
/// one at a time, on one thread.
///
/// Up, in this order: the table of synchronous calls, the registry's lock, the watchdog notifier.
/// Down, in this order: the notifier, the table, the registry.
class Runtime
{
 public:
    /// What is brought up.
    enum class Services
    {
        TASKS, ///< the table of synchronous calls and the registry's lock
        ALL,   ///< these and the watchdog notifier, which pings supervised tasks every 2 seconds
    };

    /// Adds a failure to the test for each service that cannot be brought up.
    explicit Runtime(Services services = Services::TASKS) : m_services(services)
    {
        EXPECT_TRUE(TCSyncDet::Create()) << "the table of synchronous calls cannot be made";
        if (!TCTaskList::FlagInitialize()) {
            EXPECT_TRUE(TCTaskList::m_mutex.Create()) << "the registry's lock cannot be made";
        }
        if (m_services == Services::ALL) {
            TCWatchdogNotifier::Init();
        }
    }

    /// The application must have destroyed its tasks; see Tasks(). Ends at once if the library's
    /// `main()` is linked; if not, the notifier takes up to its 2 seconds.
    ~Runtime()
    {
        if (m_services == Services::ALL) {
            HurryNotifier(true);
            TCWatchdogNotifier::Exit();
            HurryNotifier(false);
        }
        if (TCSyncDet::FlagCreate()) {
            TCSyncDet::Destroy();
        }
        TCTaskList::Finalize();
    }

    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    /// The names of the tasks that have been created and not yet destroyed, oldest first. Any
    /// thread may ask.
    static std::vector<std::string> Tasks()
    {
        std::vector<std::string> names;
        if (!TCTaskList::FlagInitialize()) {
            return names;
        }
        TCTaskList::m_mutex.Lock();
        for (const TCTask* task : TCTaskList::m_taskList) {
            names.emplace_back(task->Name());
        }
        TCTaskList::m_mutex.Unlock();
        return names;
    }

    /// Has the notifier sleep no more, or as always again; null where nobody has taken its sleep
    /// over.
    static inline void (*hurryNotifier)(bool hurries) = nullptr;

 private:
    static void HurryNotifier(bool hurries)
    {
        if (hurryNotifier != nullptr) {
            hurryNotifier(hurries);
        }
    }

    const Services m_services;
};

} // namespace zor::testing
