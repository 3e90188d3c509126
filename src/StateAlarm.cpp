#include "StateAlarm.h"

#include "Task.h"

bool TCStateAlarm::Create(TCTask* task, unsigned short state, int interval, int count)
{
    // Before the alarm's thread starts: its first firing must not send what an earlier life left.
    const unsigned short before = m_state.exchange(state, std::memory_order_relaxed);
    // Extended with the sign, so that -1 becomes the value without end.
    if (!TCAlarm::Create(task, static_cast<unsigned long>(static_cast<long>(interval)),
                         static_cast<unsigned long>(static_cast<long>(count)))) {
        m_state.store(before, std::memory_order_relaxed);
        return false;
    }
    return true;
}

bool TCStateAlarm::t_OnAlarm(const TSEvent* event)
{
    if (event->type != EVENT_ALARM) {
        return false;
    }
    TSEvent stateEvent;
    stateEvent.type = m_state.load(std::memory_order_relaxed);
    stateEvent.receiver = Task();
    TCTask::Send(&stateEvent, false, false);
    return false; // the after callback decides the result
}
