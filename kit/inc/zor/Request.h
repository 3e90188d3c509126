#pragma once

#include <chrono>
#include <type_traits>
#include <utility>

#include "zor/TaskBase.h"

/// @file
/// What is asked of a task: attachments that carry the duty to answer.

namespace zor {

/// Reaches the handlers of a task's class: `friend zor::Access;` there lets them be private.
struct Access
{
    /// `task.On(message)`.
    template <typename Task, typename Message>
    static auto On(Task& task, Message&& message)
        -> decltype(task.On(std::forward<Message>(message)))
    {
        return task.On(std::forward<Message>(message));
    }
};

namespace detail {

template <typename Task, typename Message, typename = void>
struct Handling : std::false_type
{};

template <typename Task, typename Message>
struct Handling<Task, Message,
                std::void_t<decltype(Access::On(std::declval<Task&>(), std::declval<Message>()))>>
    : std::true_type
{};

/// Whether a message or a lambda was asked with, and by whom, is the duty's affair: it lies with an
/// asking thread's slot or leads to an asking task.
template <typename Message, typename Value>
class Request : public ZOREventDataBase
{
 public:
    template <typename Given>
    Request(Given&& given, Duty<Value> itsDuty)
        : message(std::forward<Given>(given)), duty(std::move(itsDuty))
    {}

    Message message;
    Duty<Value> duty;
};

/// Calls a lambda of Run() on the task's thread, with the task if it takes that.
template <typename Task, typename Function>
decltype(auto) CallOn(Function& function, Task& task)
{
    if constexpr (std::is_invocable_v<Function&, Task&>) {
        return function(task);
    } else {
        return function();
    }
}

/// What a lambda of Run() gives.
template <typename Task, typename Function>
using ValueOfRun = std::decay_t<decltype(CallOn(std::declval<Function&>(), std::declval<Task&>()))>;

/// A lambda that nobody waits for.
template <typename Task, typename Function>
class Errand : public Work
{
 public:
    Errand(void (*run)(TaskBase&, Function&), Function function)
        : m_run(run), m_function(std::move(function))
    {}

    void Do(TaskBase& task) override { m_run(task, m_function); }

 private:
    void (*const m_run)(TaskBase&, Function&); ///< knows how to call it
    Function m_function;
};

/// A lambda whose value is waited for.
template <typename Value, typename Function>
class RunRequest : public Work
{
 public:
    RunRequest(Value (*run)(TaskBase&, Function&), Function given, Duty<Value> itsDuty)
        : duty(std::move(itsDuty)), m_run(run), m_function(std::move(given))
    {}

    void Do(TaskBase& task) override
    {
        Result<Value> value = task.CallOrFail<Value>(
            "a lambda of Run()", nullptr, [&]() -> Value { return m_run(task, m_function); });
        if (!duty.Answer(std::move(value))) {
            Increment(task.m_counters.late);
        }
    }

    Duty<Value> duty;

 private:
    Value (*const m_run)(TaskBase&, Function&); ///< knows how to call it
    Function m_function;
};

/// The callback of an AskAsync(), called on the asking task's thread.
template <typename Value, typename Function>
class PendingCall final : public PendingAnswer<Value>
{
 public:
    PendingCall(Function function) : m_function(std::move(function)) {}

    void Call(Result<Value>&& answer) override { m_function(std::move(answer)); }

 private:
    Function m_function;
};

} // namespace detail
} // namespace zor
