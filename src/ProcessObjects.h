#pragma once

#include <list>

#include "Immortal.h"
#include "TaskList.h"
#include "Thread.h"
#include "TimersScheduler.h"

/// Objects that public references stand for. Their own addresses are constants, which those of what
/// a reference is bound to in another source are not.

namespace zor {

extern Immortal<TCMutex> g_registryMutex;                 ///< TCTaskList::m_mutex
extern Immortal<std::list<const TCTask*>> g_registryList; ///< TCTaskList::m_taskList
extern Immortal<TCTimersScheduler> g_scheduler;           ///< TCTimer::m_scheduler

} // namespace zor
