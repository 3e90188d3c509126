#pragma once

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
