#pragma once

#include <chrono>
#include <memory>
#include <utility>

#include "zor/Life.h"
#include "zor/Ticking.h"

namespace zor {
namespace detail {

/// A handle: what it stands for stops with it.
template <typename Control>
class Handle
{
 public:
    /// Of nothing.
    Handle() = default;

    /// Of @p control, of the task with that @p life.
    Handle(std::shared_ptr<Life> life, std::shared_ptr<Control> control)
        : m_life(std::move(life)), m_control(std::move(control))
    {}

    ~Handle() { Cancel(); }

    /// @p other is a handle of nothing then.
    Handle(Handle&& other) noexcept = default;

    /// The same; what this one stood for is cancelled.
    Handle& operator=(Handle&& other) noexcept
    {
        if (this != &other) {
            Cancel();
            m_life = std::move(other.m_life);
            m_control = std::move(other.m_control);
        }
        return *this;
    }

    /// Whether there is anything behind it; it may have ended with its task.
    explicit operator bool() const { return m_control != nullptr; }

    /// What the destructor does.
    void Cancel()
    {
        if (m_control != nullptr) {
            m_control->Stop();
            m_life->Remove(m_control.get());
            m_control.reset();
            m_life.reset();
        }
    }

 protected:
    /// What @p operation does with what is behind it; false if that has ended.
    template <typename Operation>
    bool With(const Operation& operation)
    {
        return m_control != nullptr && m_control->With(operation);
    }

 private:
    std::shared_ptr<Life> m_life;
    std::shared_ptr<Control> m_control; ///< null of nothing
};

} // namespace detail

/// A timer of a task that calls a lambda on the task's thread, made by Every(), After() or
/// MakeTimer() of the task. It is a TCTimer underneath: no thread of its own, no drift.
///
/// Destroying or cancelling it ends it. On the task's own thread, the lambda itself included,
/// nothing is called after that. On any other thread at most one call is under way when the
/// destructor returns: the task has taken its firing off the queue by then and may still be on the
/// way into the lambda. No other follows. The lambda and what it captured are destroyed on the
/// task's thread; if that has ended, by whoever destroys the task. So what it must not outlive, it
/// had better own.
///
/// A task ends its timers itself when its loop has ended, after t_Destroy(); the handle is one of
/// nothing more to do then, and may be destroyed after the task. A handle is used by one thread at
/// a time.
class Timer : public detail::Handle<detail::TimerControl>
{
 public:
    using Handle::Handle;

    /// ITimer::Restart(); false also if the timer has ended.
    bool Restart(std::chrono::milliseconds interval, unsigned int count = ITimer::INFINITE_FIRE)
    {
        return With([&](TCTimer& timer) { return timer.Restart(interval, count); });
    }

    /// ITimer::Pause(); false also if the timer has ended.
    bool Pause()
    {
        return With([](TCTimer& timer) { return timer.Pause(); });
    }

    /// ITimer::Resume(); false also if the timer has ended.
    bool Resume()
    {
        return With([](TCTimer& timer) { return timer.Resume(); });
    }
};

/// An alarm of a task that calls a lambda on the task's thread, made by AlarmEvery() of the task.
/// It is a TCAlarm underneath, with a thread of its own; prefer Timer. What is said there about its
/// end holds here.
class Alarm : public detail::Handle<detail::AlarmControl>
{
 public:
    using Handle::Handle;

    /// TCAlarm::Reset(); false if the alarm has ended.
    bool Reset(std::chrono::milliseconds interval, unsigned long count = TCAlarm::ENDLESS)
    {
        return With([&](auto& alarm) {
            alarm.SetTo(static_cast<unsigned long>(interval.count()), count);
            return true;
        });
    }
};

} // namespace zor
