#include <cstring>

#include "ProcessObjects.h"
#include "Task.h"
#include "TaskListUse.h"

zor::Immortal<TCMutex> zor::g_registryMutex;
zor::Immortal<std::list<const TCTask*>> zor::g_registryList;

TCMutex& TCTaskList::m_mutex = zor::g_registryMutex.object;
std::list<const TCTask*>& TCTaskList::m_taskList = zor::g_registryList.object;
std::list<const TCTask*>::iterator TCTaskList::m_currentTask = TCTaskList::m_taskList.end();

zor::UseGate zor::TaskListUse::GATE;

bool TCTaskList::FlagInitialize()
{
    return m_mutex.FlagCreate();
}

TCTask* TCTaskList::Task()
{
    return m_currentTask == m_taskList.end() ? nullptr : const_cast<TCTask*>(*m_currentTask);
}

bool TCTaskList::Find(const TCTask* task)
{
    for (m_currentTask = m_taskList.begin(); m_currentTask != m_taskList.end(); ++m_currentTask) {
        if (*m_currentTask == task) {
            return true;
        }
    }
    return false;
}

bool TCTaskList::Find(const char* name)
{
    for (m_currentTask = m_taskList.begin(); m_currentTask != m_taskList.end(); ++m_currentTask) {
        if (strcmp((*m_currentTask)->Name(), name) == 0) {
            return true;
        }
    }
    return false;
}

bool TCTaskList::Seek(int n)
{
    m_currentTask = m_taskList.begin();
    for (unsigned int i = 0; i < static_cast<unsigned int>(n); ++i) {
        if (m_currentTask == m_taskList.end()) {
            return false;
        }
        ++m_currentTask;
    }
    return true;
}

void TCTaskList::Finalize()
{
    m_mutex.Lock();
    m_taskList.clear();
    m_currentTask = m_taskList.end();
    m_mutex.Unlock();
    // Tasks that still run may be on their way to the lock. They may also hold it and come again,
    // so they are waited for without it.
    const zor::UseGate::Closure closure(&zor::TaskListUse::GATE);
    m_mutex.Destroy();
}

void TCTaskList::Unregister(const TCTask* task)
{
    const zor::TaskListUse registry;
    if (registry.Find(task)) {
        m_currentTask = m_taskList.erase(m_currentTask);
    }
}
