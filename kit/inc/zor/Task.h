#pragma once

#include <chrono>
#include <memory>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "zor/Request.h"
#include "zor/Result.h"
#include "zor/Sending.h"
#include "zor/TaskBase.h"
#include "zor/Timing.h"

/// @file
/// Typed messages over the runtime's events: see zor::Task.

namespace zor {

/// What a compiler calls incomplete when a message is sent to a task whose list does not have it.
template <typename Task, typename Message>
struct TaskDoesNotTake;

/// What a compiler calls incomplete when a task lists a message, but has no On() that can be called
/// with it, publicly or as a friend of zor::Access.
template <typename Task, typename Message>
struct TaskHasNoHandlerOf;

namespace detail {

/// Stands for a result where there is none because the call does not compile.
struct Nothing
{
    template <typename Anything>
    operator Anything() const; // NOLINT: converts to whatever is wanted, so that one error remains
};

/// Lets a template take part only for bare numbers.
template <typename Number>
using IfNumber = std::enable_if_t<std::is_arithmetic_v<Number>, int>;

/// Whether a template that takes part for bare numbers may compile: never.
template <typename Number>
constexpr bool IS_DEADLINE = !std::is_arithmetic_v<Number>;

template <typename Message>
constexpr bool IS_MESSAGE = std::is_object_v<Message> && !std::is_const_v<Message> &&
                            !std::is_volatile_v<Message> && !std::is_pointer_v<Message> &&
                            !std::is_array_v<Message> && std::is_move_constructible_v<Message>;

template <typename... Messages>
constexpr bool ARE_DIFFERENT = true;

template <typename First, typename... Rest>
constexpr bool ARE_DIFFERENT<First, Rest...> =
    !(std::is_same_v<First, Rest> || ...) && ARE_DIFFERENT<Rest...>;

} // namespace detail

/// A task whose messages are types.
///
///     struct Tune { int channel; };
///     struct Tuned { bool locked; };
///     struct Scan {};
///
///     class Tuner : public zor::Task<Tuner, Tune, Scan>
///     {
///         friend zor::Access;
///         Tuned On(const Tune& tune);
///         void On(const Scan&);
///     };
///
/// For each message of its list the class has a method On(), which takes the message as `const&`,
/// by value or as `&&`, and returns what is answered to who asks with it. It runs on the task's
/// thread, one message at a time, like any handler. Sending a message that is not in the list does
/// not compile.
///
/// Messages that are trivially copyable and have at most 24 bytes travel in the event itself; any
/// other as its attachment, with one allocation. It is freed once, whether it is handled or not, on
/// the thread that lets go of it last: usually the task's.
///
/// A message that was queued is handled once, unless the task ends before, or somebody deletes it
/// from the queue (TCTask::ClearQueue(), ReplaceQueued()). Who asks is always told.
///
/// Post() may be called by any thread while the task is created, from its own hooks on; and on a
/// task that is not, as long as no other thread is creating or destroying it. Ask(), AskAsync() and
/// Run() may also be called while it ends, and the task may be destroyed while they wait.
///
/// Handlers that throw: the log gets a line with task, message and what(). Who has asked is told,
/// and the task goes on. A message that was posted has nobody to tell: the exception leaves the
/// thread and ends the process, as from any other handler.
///
/// The kit's events have types from 0x10000 to 0x10FFFF, addressed to the task's own handler. An
/// application's own types are from 6 on, below these.
template <typename Derived, typename... Messages>
class Task : public TaskBase
{
    static_assert(
        (detail::IS_MESSAGE<Messages> && ...),
        "a message is a type of its own, which can be moved: no reference, no pointer, not "
        "const");
    static_assert(detail::ARE_DIFFERENT<Messages...>, "a message stands twice in a task's list");

 public:
    /// Whether Message is in the list.
    template <typename Message>
    static constexpr bool Takes()
    {
        return (std::is_same_v<Message, Messages> || ...);
    }

    /// The type of the events in which a message travels that is posted, for who fills events by
    /// hand, looks into queues or reads recordings. One that is asked with has the next number. The
    /// attachment of a message that has one is a ZORManagedEventData<Message>.
    template <typename Message>
    static constexpr unsigned long EventType()
    {
        static_assert(Takes<Message>(), "the task's list does not have this message");
        unsigned long index = 0;
        bool found = false;
        ((found = found || std::is_same_v<Message, Messages>, index += found ? 0 : 1), ...);
        return detail::EVENT_FIRST_MESSAGE + 2 * index;
    }

    /// Queues @p message and does not wait for its handling. A paused task handles it once it is
    /// resumed.
    ///
    /// @param how  its order, and what a full queue does to it: Refuse(), WaitAtMost(),
    ///             ReplaceQueued(), DropWhenFull()
    /// @return true in a condition if it is queued; else QUEUE_FULL, DROPPED or NO_TASK
    template <typename Message>
    auto Post(Message&& message, const Sending& how = Sending());

    /// Queues @p message ahead of nothing (or, with Order::FIRST, of all) that is queued, and waits
    /// until it is answered, at most for @p timeout. While it waits the calling thread is listed in
    /// TCSyncDet.
    ///
    /// @return what On() returned; else NO_TASK, OWN_TASK, PAUSED, QUEUE_FULL or NO_MEMORY, at
    ///         once; THREW, DELETED, or NO_TASK if the task ended before; or NOT_ANSWERED after
    ///         @p timeout. An answer that comes later is dropped and counted; the message is
    ///         handled all the same. Two tasks that ask each other wait until the deadline of one.
    template <typename Message, typename Rep, typename Period>
    auto Ask(Message&& message, std::chrono::duration<Rep, Period> timeout,
             Order order = Order::IN_TURN);

    /// Does not compile: an ask needs a deadline.
    template <typename Message>
    detail::Nothing Ask(Message&& message);

    /// Does not compile: a deadline has a unit.
    template <typename Message, typename Number, detail::IfNumber<Number> = 0>
    detail::Nothing Ask(Message&& message, Number timeout, Order order = Order::IN_TURN);

    /// Queues @p message, and has @p callback called with a Result of what On() returns, on the
    /// calling thread, which is that of a zor::Task: between two of its events, once, and never
    /// within this call. It is called with any of the errors of Ask() as well, but OWN_TASK: a task
    /// may ask itself this way.
    ///
    /// If the asking task ends first, the callback is not called; it is destroyed on that task's
    /// thread, after t_Destroy().
    ///
    /// @return true in a condition if the callback will be called; NO_ASKER on any other thread
    template <typename Message, typename Function>
    auto AskAsync(Message&& message, Function callback);

    /// The same with a deadline, at least ITimer::INTERVAL_MIN: the callback is called with
    /// NOT_ANSWERED then, and an answer that comes later is dropped and counted at the asker.
    template <typename Message, typename Rep, typename Period, typename Function>
    auto AskAsync(Message&& message, std::chrono::duration<Rep, Period> timeout, Function callback);

    /// Does not compile: a deadline has a unit.
    template <typename Message, typename Number, typename Function, detail::IfNumber<Number> = 0>
    detail::Nothing AskAsync(Message&& message, Number timeout, Function callback);

    /// Has @p function called on the task's thread, in turn, and does not wait for that. It takes
    /// nothing or a Derived&, and what it returns is dropped.
    ///
    /// @return true in a condition if that is queued; else NO_TASK, PAUSED or QUEUE_FULL. Queued,
    ///         it is called once, unless the task ends first or somebody deletes it from the queue;
    ///         then it is destroyed uncalled.
    template <typename Function>
    Result<void> Run(Function function);

    /// The same, and waits for what it returns as Ask() does.
    template <typename Function, typename Rep, typename Period>
    auto Run(Function function, std::chrono::duration<Rep, Period> timeout);

    /// Does not compile: a deadline has a unit.
    template <typename Function, typename Number, detail::IfNumber<Number> = 0>
    detail::Nothing Run(Function function, Number timeout);

    /// Calls On() with the message, and hands on what is none of the list.
    bool t_OnEvent(const TSEvent* event) override;

 protected:
    Task() : TaskBase(sizeof...(Messages))
    {
        static_assert(std::is_base_of_v<Task, Derived>,
                      "the first argument of zor::Task is the class that derives from it");
    }

 private:
    /// What is answered to Message.
    template <typename Message>
    using Value =
        std::decay_t<decltype(Access::On(std::declval<Derived&>(), std::declval<Message>()))>;

    using Handler = bool (*)(Task&, const TSEvent&);

    template <typename Message>
    static constexpr bool CanTake();

    /// Whether Function can be run here; does not compile where it cannot.
    template <typename Function>
    static constexpr bool CanRun();

    template <typename Message>
    static bool HandlePosted(Task& task, const TSEvent& event);
    template <typename Message>
    static bool HandleAsked(Task& task, const TSEvent& event);
    template <typename Message, typename Given, typename Expiry, typename Function>
    Result<void> AskFor(Given&& message, Expiry&& expiry, Function& callback);

    Derived& Self() { return static_cast<Derived&>(*this); }
};

} // namespace zor

// What is declared above.
#include "zor/RunInline.h"
#include "zor/TaskInline.h"
