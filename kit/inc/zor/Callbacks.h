#pragma once

#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "zor/TaskBase.h"

/// @file
/// What TaskBase calls, and what calls its users' lambdas.

namespace zor {
namespace detail {

/// The lambda of a timer or an alarm.
template <typename Function>
class LambdaCallback : public TickCallback
{
 public:
    LambdaCallback(TaskBase* task, const char* what, Function function)
        : m_task(task), m_what(what), m_function(std::move(function))
    {}

    void Call(const Firing& firing) override
    {
        m_task->CallOrEnd(m_what, nullptr, [&] {
            if constexpr (std::is_invocable_v<Function&, const Firing&>) {
                m_function(firing);
            } else {
                static_assert(
                    std::is_invocable_v<Function&>,
                    "the lambda of a timer or alarm takes nothing or a const zor::Firing&");
                m_function();
            }
        });
    }

 private:
    TaskBase* const m_task; ///< outlives its timers; not owned
    const char* const m_what;
    Function m_function;
};

/// The callback of an AskAsync(), and its deadline.
template <typename Value>
class PendingAnswer : public AnyPendingAnswer
{
 public:
    virtual void Call(Result<Value>&& answer) = 0;

    Timer deadline; ///< of nothing without one
};

/// The road to an asking task: takes the answer there as a delivery, and becomes it.
template <typename Value>
class AsyncSink final : public AnswerSink<Value>, public Delivery
{
 public:
    AsyncSink(std::shared_ptr<Life> asker, std::uint64_t number)
        : m_asker(std::move(asker)), m_number(number)
    {}

    bool Accept(Result<Value>&& answer) noexcept override
    {
        std::unique_ptr<Delivery> self(this);
        m_answer.emplace(std::move(answer));
        const std::shared_ptr<Life> asker = std::move(m_asker);
        return asker->Deliver(self);
    }

    void Do(TaskBase& task) override { Finish(task, m_number, std::move(*m_answer)); }

    /// Calls the callback of that number, unless it has been called.
    static void Finish(TaskBase& task, std::uint64_t number, Result<Value>&& answer)
    {
        const auto found = task.m_pending.find(number);
        if (found == task.m_pending.end()) {
            Increment(task.m_counters.late); // after its deadline
            return;
        }
        const std::unique_ptr<AnyPendingAnswer> pending = std::move(found->second);
        task.m_pending.erase(found);
        task.CallOrEnd("the callback of an ask", nullptr, [&] {
            static_cast<PendingAnswer<Value>&>(*pending).Call(std::move(answer));
        });
    }

 private:
    std::shared_ptr<Life> m_asker;
    const std::uint64_t m_number;
    std::optional<Result<Value>> m_answer;
};

} // namespace detail

template <typename Function>
Timer TaskBase::AddTimer(Function& callback, std::chrono::milliseconds interval, unsigned int count)
{
    auto control = std::make_shared<detail::TimerControl>();
    auto lambda = std::make_unique<detail::LambdaCallback<Function>>(this, "the lambda of a timer",
                                                                     std::move(callback));
    if (!m_life->Add(control)) {
        return {};
    }
    Timer timer(m_life, control); // stops it in any case
    if (!control->Begin(this, std::move(lambda))) {
        return {};
    }
    if (count != 0) {
        timer.Restart(interval, count);
    }
    return timer;
}

template <typename Function>
Timer TaskBase::Every(std::chrono::milliseconds interval, Function callback, unsigned int count)
{
    return AddTimer(callback, interval, count);
}

template <typename Function>
Timer TaskBase::After(std::chrono::milliseconds delay, Function callback)
{
    return AddTimer(callback, delay, 1);
}

template <typename Function>
Timer TaskBase::MakeTimer(Function callback)
{
    return AddTimer(callback, ITimer::INTERVAL_MIN, 0);
}

template <typename Function>
Alarm TaskBase::AlarmEvery(std::chrono::milliseconds interval, Function callback,
                           unsigned long count)
{
    auto control = std::make_shared<detail::AlarmControl>(m_life);
    auto lambda = std::make_unique<detail::LambdaCallback<Function>>(this, "the lambda of an alarm",
                                                                     std::move(callback));
    if (!m_life->Add(control)) {
        return {};
    }
    Alarm alarm(m_life, control);
    if (!control->Begin(this, std::move(lambda), static_cast<unsigned long>(interval.count()),
                        count)) {
        return {};
    }
    return alarm;
}

} // namespace zor
