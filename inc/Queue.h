#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <shared_mutex>
#include <type_traits>

#include "Event.h"
#include "Thread.h"
#include "ZorExport.h"

/// The bounded event queue of a task: any thread puts, one consumer thread gets.
///
/// Events are kept by value in a fixed ring of 256 records. Normal events are handled in the order
/// in which they were put; a priority event overtakes all that are queued, the last one put first.
/// The last 16 records are kept for priority events: a normal put is refused when 240 or more
/// events are queued, a priority put only when all 256 records are taken.
///
/// The lock of the queue is the queue itself (a TCMutex): recursive, so that a handler may put to
/// and delete from its own queue. Every operation asserts "FlagCreate() == true", except Create(),
/// which asserts the opposite; pointers to events are asserted "event != NULL". Times are
/// milliseconds; all ones waits for ever, 0 does not wait. Any thread may call any operation; the
/// queue must outlive every thread that may still put to it.
///
/// Beside the ring there is a semaphore with one unit for every event put. GetSyncQData() and
/// GetQData() leave it alone, so it may run ahead of the ring; a waiting get that obtains a unit
/// without an event waits again.
class ZOR_CORE_API TCQueue : public TCMutex
{
 public:
    // cppcheck-suppress uninitMemberVar ; the ring's records are made when they are used
    TCQueue() {} // NOLINT(modernize-use-equals-default): or the ring would be cleared

    /// Asserts "FlagCreate() == false" and releases the events still queued.
    ~TCQueue() override;

    /// Makes the queue usable and empty.
    ///
    /// @return whether lock and semaphore could be created; nothing is left behind if not
    bool Create();

    /// Ends the queue: locks it, without ever unlocking, and releases lock and semaphore. No other
    /// thread may be in an operation by then or begin one later: it would meet a lock that is gone.
    /// Queued events stay until the object is destroyed; a sender that waits for one of them is not
    /// released.
    void Destroy() override;

    /// True between a successful Create() and Destroy().
    bool FlagCreate() const { return m_eventCount.FlagCreate(); }

    /// Queues a copy of @p event without waiting for its handling; see PutSync().
    bool Put(TSEvent* event, bool priority);

    /// Queues a copy of @p event, stamped with the calling thread's application data and id. The
    /// event stays the caller's and is not changed; the attachment is shared.
    ///
    /// @param sync      whether to wait until the event has been handled or deleted. The consumer
    ///                  itself would wait for ever.
    /// @param priority  whether the event overtakes all that are queued
    /// @return false if the queue is full (or no reply semaphore can be made): nothing is queued
    ///
    /// A thread that waits cannot be cancelled before the event has been handled or deleted: the
    /// event points to its stack.
    bool PutSync(TSEvent* event, bool sync, bool priority);

    /// Takes the oldest event, waiting at most @p msec for one.
    ///
    /// @param skipSync  whether to leave an event whose sender waits in the queue
    /// @return false on time-out, and if the oldest event is left because of @p skipSync; @p event
    ///         is untouched then. The unit taken for an event that is left is not given back.
    bool GetSync(TSEvent* event, unsigned long msec, bool skipSync);

    /// GetSync() that takes only events whose sender does not wait.
    bool Get(TSEvent* event, unsigned long msec);

    /// The same with a time of any integral type, so that Get(event, 0) is a wait and no receiver.
    template <typename Integer, std::enable_if_t<std::is_integral_v<Integer>, int> = 0>
    bool Get(TSEvent* event, Integer msec)
    {
        return Get(event, static_cast<unsigned long>(msec));
    }

    /// GetSync() without waiting and without touching the semaphore.
    bool GetSyncQData(TSEvent* event, bool skipSync);

    /// Get() without waiting and without touching the semaphore.
    bool GetQData(TSEvent* event);

    /// Takes the oldest event for @p receiver and of @p type whose sender does not wait, from
    /// anywhere in the queue. The others keep their order.
    ///
    /// @return whether there was one
    bool Get(TSEvent* event, const TCHandler* receiver, unsigned long type);

    /// The same for events of any type.
    bool Get(TSEvent* event, const TCHandler* receiver);

    /// Counts the queued events for @p receiver.
    ///
    /// @param found  where to store the number; may be null
    /// @return whether there are any
    bool Find(const TCHandler* receiver, unsigned int* found);

    /// The same for events of @p type only.
    bool Find(const TCHandler* receiver, unsigned long type, unsigned int* found);

    /// Removes the queued events for @p receiver. A sender that waits for a removed event is
    /// released and told that it was handled; the event's attachment is released before the call
    /// returns, behind the queue's lock.
    ///
    /// @param deleted  where to store the number removed; may be null
    /// @return whether any was removed
    bool Delete(const TCHandler* receiver, unsigned int* deleted);

    /// The same for events of @p type only.
    bool Delete(const TCHandler* receiver, unsigned long type, unsigned int* deleted);

    /// The same for at most @p maxCount events of @p type, the oldest first.
    bool DeleteEx(const TCHandler* receiver, unsigned long type, unsigned int maxCount,
                  unsigned int* deleted);

    /// Wakes a waiting getter without queuing anything; it finds no event and waits again.
    void Give();

    /// Takes one unit of the semaphore, waiting at most @p msec for it.
    bool Try(unsigned long msec);

    /// How many events are queued.
    std::size_t Size();

 private:
    friend class TCMultiQTask;
    friend class zor::LayoutTable;

    static constexpr std::uint64_t CAPACITY = 256;
    static constexpr std::uint64_t RESERVED_FOR_PRIORITY = 16;

    static constexpr std::uint64_t MOST_NORMAL = CAPACITY - RESERVED_FOR_PRIORITY;

    /// Who is looked for: the receiver, and the type if there is one.
    struct Match;

    /// What is to go into a record of the ring.
    class Entry;

    /// What an event held that another one is moved into; released when no lock is held.
    struct Remains;

    /// The lock of a table of queues, held while one of them is used.
    using TableLock = std::shared_lock<std::shared_mutex>;

    ZOR_CORE_LOCAL bool PutSync(TSEvent* event, bool sync, bool priority, TableLock* table);
    ZOR_CORE_LOCAL void DeleteAndUnlock(const TCHandler* receiver, TableLock* table);
    ZOR_CORE_LOCAL bool Place(Entry* entry, bool priority);
    ZOR_CORE_LOCAL bool PlaceLocked(Entry* entry, bool priority);
    ZOR_CORE_LOCAL bool TakeHeadLocked(TSEvent* event, bool skipSync, Remains* remains);
    ZOR_CORE_LOCAL bool IsFreeLocked() const;
    ZOR_CORE_LOCAL bool IsFullLocked(bool priority) const;
    ZOR_CORE_LOCAL std::uint64_t NextSlotLocked(bool priority) const;
    ZOR_CORE_LOCAL bool IsMadeLocked(std::uint64_t index) const;
    ZOR_CORE_LOCAL bool BeginsPageLocked(std::uint64_t index) const;
    ZOR_CORE_LOCAL TSEvent* MakeSlotLocked(std::uint64_t index);
    ZOR_CORE_LOCAL bool GetMatching(TSEvent* event, const Match& match);
    ZOR_CORE_LOCAL bool FindMatching(const Match& match, unsigned int* found);
    ZOR_CORE_LOCAL bool DeleteMatching(const Match& match, std::uint64_t maxCount,
                                       unsigned int* deleted, TableLock* table = nullptr);
    ZOR_CORE_LOCAL void MoveRecordLocked(std::uint64_t from, std::uint64_t to);

    static constexpr std::uint64_t Wrap(std::uint64_t index) { return index & (CAPACITY - 1); }

    /// The record at @p index, which has been made.
    TSEvent* Slot(std::uint64_t index)
    {
        return std::launder(reinterpret_cast<TSEvent*>(m_ring + index * sizeof(TSEvent)));
    }

    // Records are made when they are used for the first time, so that a queue in which little ever
    // happens takes one or two of its ring's eight pages: those below m_madeEnd are, by normal
    // puts, and those from m_madeBegin on, by priority puts on the way down. The events lie among
    // them. Guarded as the ring is; the two fit behind the mutex's last field, which is asserted
    // below.
    std::uint16_t m_madeEnd = 0;
    std::uint16_t m_madeBegin = CAPACITY;

    TCSemaphore m_eventCount; ///< synchronised in itself; one unit for every put

    // Guarded by the queue's lock, or, while that is free, by the process-wide mutex that guards
    // all semaphores: taking the lock needs that mutex. The events are the m_count records from
    // m_head on, and m_tail is (m_head + m_count) & 255. A record that is none of them has neither
    // attachment nor name, unless the queue was destroyed with events in it and has been created
    // again.
    std::uint64_t m_tail = 0;
    std::uint64_t m_head = 0;
    std::uint64_t m_count = 0;
    alignas(TSEvent) unsigned char m_ring[CAPACITY * sizeof(TSEvent)]; ///< room for the records

    // Numbers for tools that look at the process from outside; nothing in the process asks. Each is
    // written as the ring is guarded, by the thread that puts. They start at 0 with Create().
    std::atomic<std::uint64_t> m_puts{0};    ///< events that have been queued
    std::atomic<std::uint64_t> m_refused{0}; ///< puts that found the queue full
    std::atomic<std::uint64_t> m_peak{0};    ///< the most events that were queued at once

    /// Keeps what follows in memory, which in a task the consumer reads at every event, out of the
    /// line of the cache that every put writes to.
    [[maybe_unused]] unsigned char m_apart[40] = {};
};

static_assert(sizeof(TCQueue) == sizeof(TCMutex) + sizeof(TCSemaphore) + 3 * sizeof(std::uint64_t) +
                                     256 * sizeof(TSEvent) + 64,
              "the two marks of the ring must fit behind the mutex's last field");
