#pragma once

#include <list>

#include "Task.h"

/// Holds the registry's lock for a scope.
class TaskListLock
{
 public:
    TaskListLock() { TCTaskList::m_mutex.Lock(); }
    ~TaskListLock() { TCTaskList::m_mutex.Unlock(); }

    TaskListLock(const TaskListLock&) = delete;
    TaskListLock& operator=(const TaskListLock&) = delete;
};

/// A task's entry in the registry, made before the task's thread is: nothing may fail once that
/// runs, because only an exit event ends it.
class TaskListEntry
{
 public:
    explicit TaskListEntry(const TCTask* task) : m_entry{task} {}

    /// Registers the task.
    void Enter()
    {
        TaskListLock lock;
        TCTaskList::m_taskList.splice(TCTaskList::m_taskList.end(), m_entry);
    }

 private:
    std::list<const TCTask*> m_entry; ///< empty once it has been entered
};
