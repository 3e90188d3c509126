#pragma once

#include <list>

#include "TaskList.h"
#include "UseGate.h"

namespace zor {

/// A use of the registry by the runtime, for a scope: holds its lock, if the registry is there.
/// Tasks may still run when the process entry has taken it down.
class TaskListUse
{
 public:
    TaskListUse() : m_use(&GATE), m_isThere(m_use.IsAdmitted() && TCTaskList::m_mutex.FlagCreate())
    {
        if (m_isThere) {
            TCTaskList::m_mutex.Lock();
        }
    }

    ~TaskListUse()
    {
        if (m_isThere) {
            TCTaskList::m_mutex.Unlock();
        }
    }

    TaskListUse(const TaskListUse&) = delete;
    TaskListUse& operator=(const TaskListUse&) = delete;

    /// TCTaskList::Find(); false if there is no registry.
    bool Find(const TCTask* task) const { return m_isThere && TCTaskList::Find(task); }

    /// How many tasks there are; none if there is no registry.
    std::size_t Size() const { return m_isThere ? TCTaskList::m_taskList.size() : 0; }

 private:
    friend class ::TCTaskList;

    static UseGate GATE;

    const UseGate::Use m_use;
    const bool m_isThere;
};

} // namespace zor
