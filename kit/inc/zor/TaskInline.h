#pragma once

#include "zor/Task.h"

/// @file
/// The bodies of Task.h.

namespace zor {

namespace detail {

/// What Given, as it was handed over, can be made a message of.
template <typename Message, typename Given>
constexpr void CheckCopy()
{
    static_assert(std::is_constructible_v<Message, Given>,
                  "a message that cannot be copied is sent with std::move");
}

/// Whether Value can be answered with; does not compile where it cannot.
template <typename Value>
constexpr bool CanAnswer()
{
    static_assert(std::is_void_v<Value> || std::is_move_constructible_v<Value>,
                  "what On() returns must be movable, for it is an answer");
    return std::is_void_v<Value> || std::is_move_constructible_v<Value>;
}

} // namespace detail

/// Whether Message can be sent and handled; does not compile where it cannot.
template <typename Derived, typename... Messages>
template <typename Message>
constexpr bool Task<Derived, Messages...>::CanTake()
{
    if constexpr (!Takes<Message>()) {
        // The compiler's error about this line names task and message.
        return sizeof(TaskDoesNotTake<Derived, Message>) == 0;
    } else if constexpr (!detail::Handling<Derived, Message>::value) {
        return sizeof(TaskHasNoHandlerOf<Derived, Message>) == 0;
    } else {
        return true;
    }
}

template <typename Derived, typename... Messages>
template <typename Message>
auto Task<Derived, Messages...>::Post(Message&& message, const Sending& how)
{
    using Kind = std::decay_t<Message>;
    if constexpr (!Takes<Kind>()) {
        CanTake<Kind>();
        return detail::Nothing();
    } else {
        detail::CheckCopy<Kind, Message>();
        TSEvent event;
        event.type = EventType<Kind>();
        detail::Pack<Kind>(&event, std::forward<Message>(message));
        return Put(&event, how);
    }
}

template <typename Derived, typename... Messages>
template <typename Message, typename Rep, typename Period>
auto Task<Derived, Messages...>::Ask(Message&& message, std::chrono::duration<Rep, Period> timeout,
                                     Order order)
{
    using Kind = std::decay_t<Message>;
    if constexpr (!Takes<Kind>() || !detail::Handling<Derived, Kind>::value) {
        CanTake<Kind>();
        return detail::Nothing();
    } else {
        using Answer = Value<Kind>;
        detail::CheckCopy<Kind, Message>();
        if (Current() == this) {
            return Result<Answer>(tl::make_unexpected(Error::OWN_TASK));
        }
        const auto deadline = detail::DeadlineAfter(timeout);
        detail::Awaited<Answer> answer; // before the request: it sees that go
        if (!answer.IsPossible()) {
            return Result<Answer>(tl::make_unexpected(Error::NO_MEMORY));
        }
        detail::CallEntry entry;
        TSEvent event;
        event.type = EventType<Kind>() + 1;
        event.wrappedData = std::make_shared<detail::Request<Kind, Answer>>(
            std::forward<Message>(message), answer.MakeDuty(m_life));
        const Result<void> sent = PutRequest(&event, order == Order::FIRST, &entry);
        event.wrappedData.reset(); // from here on whoever loses the request tells the asker
        return sent ? answer.Wait(deadline) : Result<Answer>(tl::make_unexpected(sent.error()));
    }
}

template <typename Derived, typename... Messages>
template <typename Message>
detail::Nothing Task<Derived, Messages...>::Ask(Message&& /*message*/)
{
    static_assert(std::is_void_v<Message>, "an ask needs a deadline: Ask(message, 500ms)");
    return {};
}

template <typename Derived, typename... Messages>
template <typename Message, typename Number, detail::IfNumber<Number>>
detail::Nothing Task<Derived, Messages...>::Ask(Message&& /*message*/, Number /*timeout*/,
                                                Order /*order*/)
{
    static_assert(detail::IS_DEADLINE<Number>, "a deadline has a unit: Ask(message, 500ms)");
    return {};
}

template <typename Derived, typename... Messages>
template <typename Message, typename Number, typename Function, detail::IfNumber<Number>>
detail::Nothing Task<Derived, Messages...>::AskAsync(Message&& /*message*/, Number /*timeout*/,
                                                     Function /*callback*/)
{
    static_assert(detail::IS_DEADLINE<Number>,
                  "a deadline has a unit: AskAsync(message, 500ms, callback)");
    return {};
}

template <typename Derived, typename... Messages>
template <typename Message, typename Given, typename Expiry, typename Function>
Result<void> Task<Derived, Messages...>::AskFor(Given&& message, Expiry&& expiry,
                                                Function& callback)
{
    using Answer = Value<Message>;
    detail::CheckCopy<Message, Given>();
    static_assert(std::is_invocable_v<Function&, Result<Answer>>,
                  "the callback of AskAsync takes a zor::Result of what On() returns");
    TaskBase* const asker = Current();
    if (asker == nullptr) {
        return tl::make_unexpected(Error::NO_ASKER);
    }
    auto pending = std::make_unique<detail::PendingCall<Answer, Function>>(std::move(callback));
    const std::uint64_t number = ++asker->m_lastPending;
    auto sink = std::make_unique<detail::AsyncSink<Answer>>(asker->m_life, number);
    auto request = std::make_shared<detail::Request<Message, Answer>>(
        std::forward<Given>(message), detail::Duty<Answer>(nullptr, m_life));
    expiry(asker, number, &pending->deadline);
    asker->m_pending.emplace(number, std::move(pending));
    request->duty.Take(sink.release());

    TSEvent event;
    event.type = EventType<Message>() + 1;
    event.wrappedData = request;
    const Result<void> sent = PutRequest(&event, false, nullptr);
    if (!sent) {
        request->duty.Answer(tl::make_unexpected(sent.error()));
    }
    return {};
}

template <typename Derived, typename... Messages>
template <typename Message, typename Function>
auto Task<Derived, Messages...>::AskAsync(Message&& message, Function callback)
{
    using Kind = std::decay_t<Message>;
    if constexpr (!Takes<Kind>() || !detail::Handling<Derived, Kind>::value) {
        CanTake<Kind>();
        return detail::Nothing();
    } else {
        const auto never = [](TaskBase*, std::uint64_t, Timer*) {};
        return AskFor<Kind>(std::forward<Message>(message), never, callback);
    }
}

template <typename Derived, typename... Messages>
template <typename Message, typename Rep, typename Period, typename Function>
auto Task<Derived, Messages...>::AskAsync(Message&& message,
                                          std::chrono::duration<Rep, Period> timeout,
                                          Function callback)
{
    using Kind = std::decay_t<Message>;
    if constexpr (!Takes<Kind>() || !detail::Handling<Derived, Kind>::value) {
        CanTake<Kind>();
        return detail::Nothing();
    } else {
        const auto delay = detail::Bounded<std::chrono::milliseconds>(timeout);
        const auto expiry = [delay](TaskBase* asker, std::uint64_t number, Timer* deadline) {
            *deadline = asker->After(delay, [asker, number] {
                detail::AsyncSink<Value<Kind>>::Finish(*asker, number,
                                                       tl::make_unexpected(Error::NOT_ANSWERED));
            });
        };
        return AskFor<Kind>(std::forward<Message>(message), expiry, callback);
    }
}

template <typename Derived, typename... Messages>
template <typename Message>
bool Task<Derived, Messages...>::HandlePosted(Task& task, const TSEvent& event)
{
    if constexpr (!detail::Handling<Derived, Message>::value) {
        return CanTake<Message>();
    } else {
        const auto handle = [&](Message& message) {
            task.CallOrEnd("the handler of message ", &typeid(Message),
                           [&] { Access::On(task.Self(), std::move(message)); });
            return true;
        };
        if constexpr (detail::TRAVELS_IN_PARAMETERS<Message>) {
            return handle(detail::Unpacked<Message>(event).Get());
        } else {
            using Attachment = ZORManagedEventData<Message>;
            Attachment* const attached = detail::AttachmentOf<Attachment>(event);
            return attached != nullptr
                       ? handle(attached->data)
                       : task.OnMismatch(event, typeid(Message), typeid(Attachment));
        }
    }
}

template <typename Derived, typename... Messages>
template <typename Message>
bool Task<Derived, Messages...>::HandleAsked(Task& task, const TSEvent& event)
{
    if constexpr (!detail::Handling<Derived, Message>::value) {
        return false; // HandlePosted() does not compile
    } else if constexpr (detail::CanAnswer<Value<Message>>()) {
        using Attachment = detail::Request<Message, Value<Message>>;
        Attachment* const request = detail::AttachmentOf<Attachment>(event);
        if (request == nullptr) {
            return task.OnMismatch(event, typeid(Message), typeid(Attachment));
        }
        Result<Value<Message>> answer = task.CallOrFail<Value<Message>>(
            "the handler of message ", &typeid(Message), [&]() -> Value<Message> {
                return Access::On(task.Self(), std::move(request->message));
            });
        if (!request->duty.Answer(std::move(answer))) {
            detail::Increment(task.m_counters.late);
        }
        return true;
    } else {
        return false; // CanAnswer() does not compile
    }
}

template <typename Derived, typename... Messages>
bool Task<Derived, Messages...>::t_OnEvent(const TSEvent* event)
{
    static constexpr Handler HANDLERS[] = {&Task::HandlePosted<Messages>...,
                                           &Task::HandleAsked<Messages>..., nullptr};
    const unsigned long index = event->type - detail::EVENT_FIRST_MESSAGE; // huge if it is below
    if (index >= 2 * sizeof...(Messages)) {
        return TaskBase::t_OnEvent(event);
    }
    return HANDLERS[index / 2 + index % 2 * sizeof...(Messages)](*this, *event);
}

} // namespace zor
