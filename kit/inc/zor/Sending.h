#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace zor {

/// Where in the queue a message goes.
enum class Order : bool
{
    IN_TURN, ///< behind all that is queued; refused from 240 queued events on
    FIRST,   ///< ahead of all that is queued, like a priority event; refused at 256 queued events
};

/// How a message is posted: where it goes, and what a full queue does to it.
///
/// Refuse() is what Post() does by itself. The others may also be given an order:
/// `WaitAtMost(50ms, Order::FIRST)`.
class Sending
{
 public:
    /// What is done when the queue has no room.
    enum class WhenFull : std::uint8_t
    {
        REFUSE,  ///< see Refuse()
        WAIT,    ///< see WaitAtMost()
        REPLACE, ///< see ReplaceQueued()
        DROP,    ///< see DropWhenFull()
    };

    /// In that order; a full queue refuses.
    constexpr Sending(Order order = Order::IN_TURN) : m_order(order) {} // NOLINT: is a way to send

    /// What the functions below make; @p longest is that of WAIT.
    constexpr Sending(WhenFull whenFull, Order order, std::chrono::milliseconds longest)
        : m_longest(longest), m_order(order), m_whenFull(whenFull)
    {}

    /// Whether it is a priority send.
    constexpr bool IsFirst() const { return m_order == Order::FIRST; }

    /// What a full queue does to it.
    constexpr WhenFull FullQueue() const { return m_whenFull; }

    /// How long to wait for room; only with WAIT.
    constexpr std::chrono::milliseconds Longest() const { return m_longest; }

 private:
    std::chrono::milliseconds m_longest{0}; ///< only for WAIT
    Order m_order;
    WhenFull m_whenFull = WhenFull::REFUSE;
};

/// A full queue refuses the message: Error::QUEUE_FULL.
constexpr Sending Refuse(Order order = Order::IN_TURN)
{
    return order;
}

/// A full queue is waited for: the post tries again every millisecond, until there is room or
/// @p longest has passed (Error::QUEUE_FULL). On the task's own thread, which alone could make
/// room, it does not wait.
constexpr Sending WaitAtMost(std::chrono::milliseconds longest, Order order = Order::IN_TURN)
{
    return {Sending::WhenFull::WAIT, order, longest};
}

/// From a full queue the posted messages of the same type are taken out, unhandled, and the new one
/// goes to its place in their stead: of a slider that floods a task the last value arrives. A full
/// queue without one refuses (Error::QUEUE_FULL), and so does one that would still be too full then
/// because of priority events; nothing is taken out of it. Messages that somebody has asked with
/// stay.
constexpr Sending ReplaceQueued(Order order = Order::IN_TURN)
{
    return {Sending::WhenFull::REPLACE, order, std::chrono::milliseconds(0)};
}

/// A full queue drops the message: Error::DROPPED. It differs from Refuse() in what is counted:
/// these losses are meant.
constexpr Sending DropWhenFull(Order order = Order::IN_TURN)
{
    return {Sending::WhenFull::DROP, order, std::chrono::milliseconds(0)};
}

/// What has happened to messages of one task, from its creation on.
struct Counts
{
    std::uint64_t refused = 0;    ///< sends that a full queue refused in the end
    std::uint64_t dropped = 0;    ///< sends that a full queue dropped as the sender wished
    std::uint64_t replaced = 0;   ///< queued messages that were taken out for a later one
    std::uint64_t waited = 0;     ///< sends that waited for room, with or without success
    std::uint64_t late = 0;       ///< answers that came after the asker's deadline
    std::uint64_t thrown = 0;     ///< calls of handlers, lambdas and callbacks that threw
    std::uint64_t mismatched = 0; ///< events with another attachment than their type says
};

namespace detail {

/// The same, in the task: 64 bytes right behind the TCTask, at sizeof(TCTask) from where the
/// registry points to, for tools that look from outside. They know a task of this kind by the mark.
/// Relaxed counters; sends that succeed at once count nothing.
struct Counters
{
    static constexpr std::uint64_t MARK = 0x314B5F524F5AULL; ///< "ZOR_K1" in memory

    const std::uint64_t mark = MARK;
    std::atomic<std::uint64_t> refused{0};
    std::atomic<std::uint64_t> dropped{0};
    std::atomic<std::uint64_t> replaced{0};
    std::atomic<std::uint64_t> waited{0};
    std::atomic<std::uint64_t> late{0};
    std::atomic<std::uint64_t> thrown{0};
    std::atomic<std::uint64_t> mismatched{0};

    Counts Read() const
    {
        constexpr auto RELAXED = std::memory_order_relaxed; // each number for itself
        return {refused.load(RELAXED),   dropped.load(RELAXED), replaced.load(RELAXED),
                waited.load(RELAXED),    late.load(RELAXED),    thrown.load(RELAXED),
                mismatched.load(RELAXED)};
    }
};

static_assert(sizeof(Counters) == 64);

inline void Increment(std::atomic<std::uint64_t>& counter, std::uint64_t by = 1)
{
    counter.fetch_add(by, std::memory_order_relaxed);
}

} // namespace detail
} // namespace zor
