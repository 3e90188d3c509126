#pragma once

#include <atomic>
#include <cstdint>

#include "ZorExport.h"

class TCHandler;

namespace zor {

/// How many events a task has handled and which one it handles now, for tools that look at the
/// process from outside; nothing in the process asks. Written by the task's thread alone. What a
/// handler sends to its own task with priority is handled within the handler, and is no event here.
///
/// A reader that finds receiver and count again as they were before it has read the type has a
/// receiver and a type that belong together:
///
///   writer:  type -- receiver ............ no receiver -- count -- type -- receiver
///   reader:           count -- receiver -- type -- receiver -- count
class HandledEvents
{
 public:
    /// The event in hand, for a scope. One that is handled inside the handling of another takes
    /// that one's place meanwhile.
    class InHand
    {
     public:
        /// @param receiver  not null
        InHand(HandledEvents* events, const TCHandler* receiver, unsigned long type)
            : m_events(*events),
              m_outerReceiver(m_events.m_receiver.load(std::memory_order_relaxed)),
              m_outerType(m_events.m_type.load(std::memory_order_relaxed))
        {
            if (m_outerReceiver != nullptr) {
                m_events.m_receiver.store(nullptr, std::memory_order_release);
            }
            m_events.Take(receiver, type);
        }

        ~InHand()
        {
            const std::uint64_t count = m_events.m_count.load(std::memory_order_relaxed);
            m_events.m_receiver.store(nullptr, std::memory_order_release);
            m_events.m_count.store(count + 1, std::memory_order_release);
            if (m_outerReceiver != nullptr) {
                m_events.Take(m_outerReceiver, m_outerType);
            }
        }

        InHand(const InHand&) = delete;
        InHand& operator=(const InHand&) = delete;

     private:
        HandledEvents& m_events;
        const TCHandler* const m_outerReceiver; ///< null if this one is inside of no other
        const unsigned long m_outerType;
    };

    /// Counts from 0 again. For who makes the task, before its thread runs.
    void Restart() { m_count.store(0, std::memory_order_relaxed); }

 private:
    friend class LayoutTable;

    /// Keeps what follows in memory, which belongs to whoever derives from the task and may be read
    /// by other threads, out of the line of the cache that every event writes to.
    static constexpr int LINE = 64;

    /// Each store of these releases the ones before: what a reader finds of a later event, or of an
    /// outer one, brings along that the earlier one is not in hand any more.
    void Take(const TCHandler* receiver, unsigned long type)
    {
        m_type.store(type, std::memory_order_release);
        m_receiver.store(receiver, std::memory_order_release);
    }

    std::atomic<std::uint64_t> m_count{0}; ///< events that have been handled
    std::atomic<const TCHandler*> m_receiver{
        nullptr};                         ///< of the one in hand; null if there is none
    std::atomic<unsigned long> m_type{0}; ///< of the one in hand, or of the last one
    [[maybe_unused]] unsigned char m_apart[LINE - sizeof(m_type)] = {};
};

} // namespace zor
