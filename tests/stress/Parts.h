#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "Alarm.h"
#include "Handler.h"
#include "Order.h"
#include "Shot.h"
#include "StateAlarm.h"
#include "Timer.h"
#include "World.h"

/// @file
/// What hangs on a task of the storm: further handlers, alarms, timers.

namespace storm {

/// A handler beside the task's own. It is made with the task and may end before it; the object
/// stays until the task is gone, because queued events may still point to it.
class SubHandler : public TCHandler
{
 public:
    SubHandler(Actor* actor, TCTask* task);

    bool t_OnEvent(const TSEvent* event) override;

    /// Ends the handler on its task's thread, unless somebody is sending to it: the object must be
    /// created for the whole of a send. And a synchronous sender that waits in a further queue
    /// would never be released, because such an event is dropped when the task comes to it.
    void TryEnd();

    UseCount use;
    const std::shared_ptr<Receiver> receiver = std::make_shared<Receiver>();

 private:
    Actor* const m_actor;
};

/// Room for one alarm of a task. The mutex keeps the alarm from being destroyed while somebody
/// controls it; the task's thread never waits for anything else under it.
class AlarmBox
{
 public:
    explicit AlarmBox(Actor* actor) : m_actor(actor) {}

    /// Makes an alarm if there is none. On the task's thread, or before there are other users.
    void Make(Random* random);

    /// Any thread, while the task is in use.
    void Control(Random* random);

    /// Ends the alarm, if there is one. On the task's thread: elsewhere one of its events could be
    /// on its way to the handler.
    void End();

 private:
    Actor* const m_actor;
    std::mutex m_mutex;
    std::unique_ptr<TCAlarm> m_alarm;   ///< guarded by m_mutex
    std::shared_ptr<Firings> m_firings; ///< guarded by m_mutex; the alarm has a share
};

/// Room for one timer of a task. Any thread may call anything while the task is in use.
class TimerBox
{
 public:
    explicit TimerBox(Actor* actor) : m_actor(actor) {}

    /// Does one of all that can be done with a timer.
    void Control(Random* random);

    /// Destroys the timer, if there is one.
    void End();

    struct Run;

 private:
    void MakeLocked();
    void MoveLocked();

    Actor* const m_actor;
    std::mutex m_mutex; ///< guards the timer
    TCTimer m_timer;
    Run* m_run = nullptr; ///< of the timer, which owns it; null if there is none
};

} // namespace storm
