#pragma once

#include <atomic>

#include "Alarm.h"
#include "ZorExport.h"

/// An alarm that sends its task an event of the application's own type whenever it fires.
///
/// The task receives it as its own handler's event, without parameters, after the alarm event that
/// caused it. A before callback that returns true keeps it from being sent; one that returns false
/// must not have ended the alarm.
class ZOR_CORE_API TCStateAlarm : public TCAlarm
{
 public:
    TCStateAlarm() = default;
    ~TCStateAlarm() override = default;

    /// Sends the event, on the task's thread. Asserts "FlagCreate() == true".
    ///
    /// @return false
    bool t_OnAlarm(const TSEvent* event) override;

    /// As TCAlarm::Create().
    ///
    /// @param state     type of the event to send
    /// @param interval  milliseconds; a negative one never passes
    /// @param count     how many times to fire; -1 for ever
    bool Create(TCTask* task, unsigned short state, int interval, int count);

 private:
    std::atomic<unsigned short> m_state{0}; ///< read on the task's thread
};
