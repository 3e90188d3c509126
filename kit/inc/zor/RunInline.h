#pragma once

#include "zor/Task.h"

/// @file
/// The bodies of Task.h that have to do with Run().

namespace zor {

template <typename Derived, typename... Messages>
template <typename Function, typename Number, detail::IfNumber<Number>>
detail::Nothing Task<Derived, Messages...>::Run(Function /*function*/, Number /*timeout*/)
{
    static_assert(detail::IS_DEADLINE<Number>, "a deadline has a unit: Run(function, 500ms)");
    return {};
}

template <typename Derived, typename... Messages>
template <typename Function>
constexpr bool Task<Derived, Messages...>::CanRun()
{
    constexpr bool CAN_RUN =
        std::is_invocable_v<Function&, Derived&> || std::is_invocable_v<Function&>;
    static_assert(CAN_RUN, "the lambda of Run takes nothing or a reference to the task's class");
    return CAN_RUN;
}

template <typename Derived, typename... Messages>
template <typename Function>
Result<void> Task<Derived, Messages...>::Run(Function function)
{
    if constexpr (CanRun<Function>()) {
        const auto run = [](TaskBase& task, Function& each) {
            task.CallOrEnd("a lambda of Run()", nullptr,
                           [&] { detail::CallOn(each, static_cast<Derived&>(task)); });
        };
        TSEvent event;
        event.type = detail::EVENT_WORK;
        event.wrappedData =
            std::make_shared<detail::Errand<Derived, Function>>(run, std::move(function));
        return PutRequest(&event, false, nullptr);
    } else {
        return detail::Nothing();
    }
}

template <typename Derived, typename... Messages>
template <typename Function, typename Rep, typename Period>
auto Task<Derived, Messages...>::Run(Function function, std::chrono::duration<Rep, Period> timeout)
{
    if constexpr (!CanRun<Function>()) {
        return detail::Nothing();
    } else {
        using Answer = detail::ValueOfRun<Derived, Function>;
        if (Current() == this) {
            return Result<Answer>(tl::make_unexpected(Error::OWN_TASK));
        }
        const auto deadline = detail::DeadlineAfter(timeout);
        detail::Awaited<Answer> answer;
        if (!answer.IsPossible()) {
            return Result<Answer>(tl::make_unexpected(Error::NO_MEMORY));
        }
        const auto run = [](TaskBase& task, Function& each) -> Answer {
            return detail::CallOn(each, static_cast<Derived&>(task));
        };
        detail::CallEntry entry;
        TSEvent event;
        event.type = detail::EVENT_WORK;
        event.wrappedData = std::make_shared<detail::RunRequest<Answer, Function>>(
            run, std::move(function), answer.MakeDuty(m_life));
        const Result<void> sent = PutRequest(&event, false, &entry);
        event.wrappedData.reset();
        return sent ? answer.Wait(deadline) : Result<Answer>(tl::make_unexpected(sent.error()));
    }
}

} // namespace zor
