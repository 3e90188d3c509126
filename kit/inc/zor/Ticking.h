#pragma once

// In angle brackets, because the kit has headers of the same names.
#include <Alarm.h>
#include <Timer.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "zor/Life.h"

/// @file
/// What stands behind the handles of timers and alarms.

namespace zor {

/// One firing of a timer or an alarm.
struct Firing
{
    unsigned int index; ///< from 0
    unsigned int count; ///< how many were asked for; ITimer::INFINITE_FIRE for no end. Of an alarm
                        ///< that another thread resets meanwhile it may be the new number already
};

namespace detail {

/// A lambda of an application's, on its task's thread.
class TickCallback
{
 public:
    TickCallback() = default;
    virtual ~TickCallback() = default;

    TickCallback(const TickCallback&) = delete;
    TickCallback& operator=(const TickCallback&) = delete;

    virtual void Call(const Firing& firing) = 0;
};

/// What every handle of something that ticks has in common.
class TickingControl : public Ticking
{
 public:
    /// Whether no call may begin any more.
    bool IsCancelled() const { return m_cancelled.load(); }

 protected:
    std::mutex m_mutex; ///< guards the timer or alarm itself; before the lock of a Life
    std::atomic<bool> m_cancelled{false}; ///< written under the mutex, before the end of the other
};

/// A TCTimer that calls a lambda.
///
/// The lambda belongs to the listener, which the timer's handler has: it goes where that goes, to
/// the task's thread.
class TimerControl : public TickingControl, public std::enable_shared_from_this<TimerControl>
{
 public:
    bool Begin(const TCTask* task, std::unique_ptr<TickCallback> callback)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_cancelled.load()) {
            return false;
        }
        ITimer::TimerHandlerParams params;
        params.task = task;
        params.listener = std::make_shared<Listener>(shared_from_this(), std::move(callback));
        m_timer.emplace(params);
        return true;
    }

    void Stop() override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_cancelled.store(true);
        m_timer.reset();
    }

    /// Calls @p operation with the timer, if there still is one.
    template <typename Operation>
    bool With(const Operation& operation)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_timer.has_value() && operation(*m_timer);
    }

 private:
    class Listener : public ITimerListener
    {
     public:
        Listener(std::shared_ptr<TimerControl> control, std::unique_ptr<TickCallback> callback)
            : m_control(std::move(control)), m_callback(std::move(callback))
        {}

        bool OnTimer(const TSEvent* event, void* /*userData*/) override
        {
            if (m_control->IsCancelled()) {
                return false;
            }
            m_callback->Call({event->param2, event->param1});
            return true;
        }

     private:
        const std::shared_ptr<TimerControl> m_control;
        const std::unique_ptr<TickCallback> m_callback;
    };

    std::optional<TCTimer> m_timer;
};

/// A TCAlarm that calls a lambda.
///
/// Only the task knows that it is not handling a firing, so the alarm is destroyed on the task's
/// thread, between two events: it goes there as a delivery.
class AlarmControl : public TickingControl, public std::enable_shared_from_this<AlarmControl>
{
 public:
    explicit AlarmControl(std::shared_ptr<Life> life) : m_life(std::move(life)) {}

    bool Begin(const TCTask* task, std::unique_ptr<TickCallback> callback, unsigned long interval,
               unsigned long count)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_cancelled.load()) {
            return false;
        }
        auto alarm = std::make_unique<LambdaAlarm>(shared_from_this(), std::move(callback), count);
        if (!alarm->Create(task, interval, count)) {
            return false;
        }
        m_alarm = std::move(alarm);
        return true;
    }

    void Stop() override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_cancelled.store(true);
        if (m_alarm == nullptr) {
            return;
        }
        m_alarm->Reset(TCAlarm::INTERVAL_MIN, 0); // queued firings go, and none comes
        std::unique_ptr<Delivery> grave = std::make_unique<Grave>(std::move(m_alarm));
        m_life->Deliver(grave); // the task has not ended: it would have stopped this before
    }

    template <typename Operation>
    bool With(const Operation& operation)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_alarm != nullptr && operation(*m_alarm);
    }

 private:
    class LambdaAlarm : public TCAlarm
    {
     public:
        LambdaAlarm(std::shared_ptr<AlarmControl> control, std::unique_ptr<TickCallback> callback,
                    unsigned long count)
            : m_control(std::move(control)),
              m_callback(std::move(callback)),
              m_count(static_cast<unsigned int>(count))
        {}

        void SetTo(unsigned long interval, unsigned long count)
        {
            m_count.store(static_cast<unsigned int>(count));
            TCAlarm::Reset(interval, count);
        }

        ~LambdaAlarm() override
        {
            if (FlagCreate()) {
                TCAlarm::Destroy();
            }
        }

        bool t_OnAlarm(const TSEvent* event) override
        {
            if (m_control->IsCancelled()) {
                return false;
            }
            m_callback->Call({event->param2, m_count.load()});
            return true;
        }

     private:
        const std::shared_ptr<AlarmControl> m_control;
        const std::unique_ptr<TickCallback> m_callback;
        std::atomic<unsigned int>
            m_count; ///< the events keep the number that the alarm ran out with
    };

    /// Where an alarm ends, done or not.
    class Grave : public Delivery
    {
     public:
        explicit Grave(std::unique_ptr<LambdaAlarm> alarm) : m_alarm(std::move(alarm)) {}
        void Do(TaskBase& /*task*/) override {}

     private:
        const std::unique_ptr<LambdaAlarm> m_alarm;
    };

    const std::shared_ptr<Life> m_life; ///< of the task
    std::unique_ptr<LambdaAlarm> m_alarm;
};

} // namespace detail
} // namespace zor
