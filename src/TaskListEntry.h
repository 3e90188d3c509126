#pragma once

#include <list>

#include "MutexLock.h"
#include "Task.h"

namespace zor {

/// A task's entry in the registry, made before the task's thread is: nothing may fail once that
/// runs, because only an exit event ends it.
class TaskListEntry
{
 public:
    explicit TaskListEntry(const TCTask* task) : m_entry{task} {}

    /// Registers the task.
    void Enter()
    {
        const MutexLock lock(&TCTaskList::m_mutex);
        TCTaskList::m_taskList.splice(TCTaskList::m_taskList.end(), m_entry);
    }

 private:
    std::list<const TCTask*> m_entry; ///< empty once it has been entered
};

} // namespace zor
