#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "Layout.h"
#include "Queue.h"

namespace zortest {

/// The fields of a queue, whose order other binaries rely on. Look while no other thread uses the
/// queue.
class QueueProbe
{
 public:
    static constexpr std::size_t CAPACITY = 256;

    explicit QueueProbe(const TCQueue& queue) : m_queue(queue) {}

    pthread_t LockOwner() const { return FieldAt<pthread_t>(m_queue, OWNER_OFFSET); }
    int LockDepth() const { return FieldAt<int>(m_queue, DEPTH_OFFSET); }
    const void* LockState() const { return FieldAt<const void*>(m_queue, LOCK_STATE_OFFSET); }
    const void* CountState() const { return FieldAt<const void*>(m_queue, COUNT_STATE_OFFSET); }
    std::uint64_t Tail() const { return FieldAt<std::uint64_t>(m_queue, TAIL_OFFSET); }
    std::uint64_t Head() const { return FieldAt<std::uint64_t>(m_queue, HEAD_OFFSET); }
    std::uint64_t Count() const { return FieldAt<std::uint64_t>(m_queue, COUNT_OFFSET); }

    /// The record at @p index of the ring, which wraps.
    const TSEvent& Slot(std::uint64_t index) const { return Ring()[index % CAPACITY]; }

    /// Event @p i of the queue, from 0 for the oldest.
    const TSEvent& Event(std::uint64_t i) const { return Slot(Head() + i); }

    /// Whether the record at @p index has been used; before, it is raw memory.
    bool IsMade(std::uint64_t index) const
    {
        return index < FieldAt<std::uint16_t>(m_queue, MADE_END_OFFSET) ||
               index >= FieldAt<std::uint16_t>(m_queue, MADE_BEGIN_OFFSET);
    }

    /// Whether no record outside of the queued ones keeps an attachment or the memory of a name.
    bool VacatedSlotsAreEmpty() const
    {
        const TSEvent* const ring = Ring();
        const std::size_t noMemory = std::string().capacity();
        const std::uint64_t head = Head();
        for (std::uint64_t i = Count(); i < CAPACITY; ++i) {
            const std::uint64_t index = (head + i) % CAPACITY;
            if (!IsMade(index)) {
                continue;
            }
            const TSEvent& record = ring[index];
            if (record.wrappedData.get() != nullptr || !record.appName.empty() ||
                record.appName.capacity() > noMemory) {
                return false;
            }
        }
        return true;
    }

    /// Whether the tail lies as many records behind the head as events are queued.
    bool IndicesAgree() const
    {
        return Head() < CAPACITY && Count() <= CAPACITY && Tail() == (Head() + Count()) % CAPACITY;
    }

 private:
    const TSEvent* Ring() const
    {
        const auto* bytes = reinterpret_cast<const unsigned char*>(&m_queue);
        return reinterpret_cast<const TSEvent*>(bytes + RING_OFFSET);
    }

    static constexpr std::size_t LOCK_STATE_OFFSET = 16;
    static constexpr std::size_t OWNER_OFFSET = 24;
    static constexpr std::size_t DEPTH_OFFSET = 32;
    static constexpr std::size_t MADE_END_OFFSET = 36;
    static constexpr std::size_t MADE_BEGIN_OFFSET = 38;
    static constexpr std::size_t COUNT_STATE_OFFSET = 48;
    static constexpr std::size_t TAIL_OFFSET = 56;
    static constexpr std::size_t HEAD_OFFSET = 64;
    static constexpr std::size_t COUNT_OFFSET = 72;
    static constexpr std::size_t RING_OFFSET = 80;

    static constexpr std::size_t NUMBERS = 64; // for tools, behind the ring
    static_assert(sizeof(TCQueue) == RING_OFFSET + CAPACITY * sizeof(TSEvent) + NUMBERS);

    const TCQueue& m_queue;
};

} // namespace zortest
