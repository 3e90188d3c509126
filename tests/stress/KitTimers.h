#pragma once

#include <mutex>

#include "World.h"
#include "zor/Task.h"

namespace storm {

/// A timer and an alarm of a task of the kit. Any thread may call anything.
class KitTimers
{
 public:
    explicit KitTimers(Actor* actor) : m_actor(actor) {}

    /// Does one of all that can be done with them.
    void Control(Random* random);

    /// Ends them, if the task has not done so.
    void End();

 private:
    class Lambda;

    void MakeLocked(Random* random);

    Actor* const m_actor;
    std::mutex m_mutex; ///< guards the handles; not taken by the lambdas
    zor::Timer m_timer;
    zor::Alarm m_alarm;
};

} // namespace storm
