#include "zor/testing/Runtime.h"

#include <gtest/gtest.h>

#include "Sync.h"
#include "Task.h"
#include "TaskList.h"
#include "WatchdogNotifier.h"

namespace zor::testing {

void (*Runtime::wakeNotifier)(bool hurry) = nullptr;

Runtime::Runtime(Services services) : m_services(services)
{
    EXPECT_TRUE(TCSyncDet::Create()) << "the table of synchronous calls cannot be made";
    if (!TCTaskList::FlagInitialize()) {
        EXPECT_TRUE(TCTaskList::m_mutex.Create()) << "the registry's lock cannot be made";
    }
    if (m_services == Services::ALL) {
        TCWatchdogNotifier::Init();
    }
}

Runtime::~Runtime()
{
    if (m_services == Services::ALL) {
        if (wakeNotifier != nullptr) {
            wakeNotifier(true);
        }
        TCWatchdogNotifier::Exit();
        if (wakeNotifier != nullptr) {
            wakeNotifier(false);
        }
    }
    if (TCSyncDet::FlagCreate()) {
        TCSyncDet::Destroy();
    }
    TCTaskList::Finalize();
}

std::vector<std::string> Runtime::Tasks()
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

} // namespace zor::testing
