#pragma once

#include <list>

#include "Thread.h"
#include "ZorExport.h"

class TCTask;

/// All tasks of the process that have been created and not yet destroyed, oldest first.
///
/// There is one cursor for the whole process, so no operation but Finalize() locks by itself: hold
/// `m_mutex` from the look-up to the last use of what it found. While it is held no task that
/// is listed can be destroyed.
///
/// The registry is there while its lock is created: from before Main() until Main() has returned.
/// Tasks that still run then find none: TCTask::Ping() and ClearQueue() know no task, destroying a
/// task has nothing to take out, creating one is an error. Nobody else may use `m_mutex` any more.
class ZOR_CORE_API TCTaskList
{
 public:
    /// Whether the registry can be used: its lock is created.
    static bool FlagInitialize();

    /// The task at the cursor, null at the end position. Hold `m_mutex`.
    static TCTask* Task();

    /// Moves the cursor to @p task, which is only compared; to the end position if it is not there.
    /// Hold `m_mutex`.
    static bool Find(const TCTask* task);

    /// Moves the cursor to the oldest task of that name; to the end position if there is none.
    /// Asserts of every task it looks at that it is created. Hold `m_mutex`.
    static bool Find(const char* name);

    /// Puts the cursor @p n entries behind the first; the end position can be reached. Hold
    /// `m_mutex`.
    ///
    /// @return false if there are fewer than @p n entries (a negative @p n always ends here)
    static bool Seek(int n);

    /// Empties the registry and destroys its lock; the tasks are not touched. Called by the process
    /// entry. Waits for tasks that are using the registry; whoever else has locked `m_mutex` must
    /// be through with it.
    static void Finalize();

    /// Guards all that follows; it may be taken before a queue's lock. The objects behind these two
    /// references outlive every static destructor; that does not make the lock usable after
    /// Finalize().
    static TCMutex& m_mutex;
    static std::list<const TCTask*>& m_taskList;             ///< not owned
    static std::list<const TCTask*>::iterator m_currentTask; ///< the cursor

 private:
    friend class TCMultiQTask;
    friend class TCTask;

    ZOR_CORE_LOCAL static void Unregister(const TCTask* task);
};
