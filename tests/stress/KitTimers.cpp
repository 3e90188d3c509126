#include "KitTimers.h"

#include <chrono>
#include <utility>

#include "KitTask.h"

namespace storm {

/// What both call. Freed once, on the task's thread.
class KitTimers::Lambda
{
 public:
    explicit Lambda(Actor* actor, bool isAlarm = false) : m_actor(actor), m_isAlarm(isAlarm)
    {
        ++actor->GetWorld()->counts.lambdasMade;
    }

    Lambda(Lambda&& other) noexcept
        : m_actor(std::exchange(other.m_actor, nullptr)), m_isAlarm(other.m_isAlarm)
    {}

    ~Lambda()
    {
        if (m_actor != nullptr) {
            m_actor->NoteLambda(false);
        }
    }

    void operator()(const zor::Firing& firing) const
    {
        m_actor->NoteLambda(true);
        if (!m_isAlarm && firing.index >= firing.count) { // an alarm's count may be a later one
            m_actor->GetWorld()->ledger.Complain("a timer of the kit fired more often than told");
        }
    }

 private:
    Actor* m_actor;
    const bool m_isAlarm;
};

void KitTimers::MakeLocked(Random* random)
{
    KitTask* const task = m_actor->Kit();
    const std::chrono::milliseconds interval(Below(random, 40));
    const unsigned count = OneIn(random, 4) ? ITimer::INFINITE_FIRE : 1 + Below(random, 6);
    switch (Below(random, 4)) {
        case 0:
            m_timer = task->Every(interval, Lambda(m_actor), count);
            break;
        case 1:
            m_timer = task->After(interval, Lambda(m_actor));
            break;
        case 2:
            m_timer = task->MakeTimer(Lambda(m_actor));
            break;
        default:
            m_alarm = task->AlarmEvery(interval, Lambda(m_actor, true), count);
            break;
    }
}

void KitTimers::Control(Random* random)
{
    const std::chrono::milliseconds interval(Below(random, 40));
    const unsigned count = 1 + Below(random, 6);
    const std::lock_guard<std::mutex> lock(m_mutex);
    switch (Below(random, 8)) {
        case 0:
            m_timer.Cancel();
            break;
        case 1:
            m_alarm.Cancel();
            break;
        case 2:
            m_timer.Pause();
            break;
        case 3:
            m_timer.Resume();
            break;
        case 4:
            m_timer.Restart(interval, count);
            break;
        case 5:
            m_alarm.Reset(interval, count);
            break;
        default:
            MakeLocked(random);
            break;
    }
}

void KitTimers::End()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_timer.Cancel();
    m_alarm.Cancel();
}

} // namespace storm
