#pragma once

#include <Task.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

/// @file
/// What others may still hold of a task that has gone, and what they have for its thread.

namespace zor {

class TaskBase;

namespace detail {

/// Something that is to be done on a task's thread between two events. It is done there or, if the
/// task ends first, destroyed there undone.
class Delivery
{
 public:
    Delivery() = default;
    virtual ~Delivery() = default;

    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    virtual void Do(TaskBase& task) = 0;

 private:
    friend class Life;

    std::unique_ptr<Delivery> m_next; ///< of those that are waiting, while it is one of them
};

/// Something that calls a lambda from time to time, and that must stop before its task ends.
class Ticking
{
 public:
    Ticking() = default;
    virtual ~Ticking() = default;

    Ticking(const Ticking&) = delete;
    Ticking& operator=(const Ticking&) = delete;

    /// Ends it. Any thread may call, more than once; the task must not have gone.
    virtual void Stop() = 0;
};

/// The event types of a zor::Task, beside the runtime's own. They are the receiving task's.
enum EKitEventType : unsigned long
{
    /// Work for the task's thread: attached, or waiting as a delivery.
    EVENT_WORK = 0x10000,
    /// From here on two for each message that the task takes, in the order of its list: one that is
    /// posted, and one that somebody asks with.
    EVENT_FIRST_MESSAGE = 0x10002,
};

/// The part of a task that outlives it, held by whoever may have to reach the task later: answers
/// on their way to it, timers, alarms. Whoever holds the lock finds the task there or gone; while
/// it is held the task cannot end. Any thread may call.
///
/// The lock may be taken with none held but that of a Ticking; the queue's lock may be taken under
/// it, and that of the table of synchronous calls. No lambda and no destructor of an application's
/// runs under it.
class Life
{
 public:
    using Tickings = std::vector<std::shared_ptr<Ticking>>;

    explicit Life(TCTask* task) : m_task(task) {}

    Life(const Life&) = delete;
    Life& operator=(const Life&) = delete;

    /// A new life is about to be made.
    void Prepare()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_hasEnded = false;
        m_hasBegun = false;
    }

    /// The task has been created, and can be reached. Its thread may have said so before, and may
    /// be about to end or have ended by now: then this changes nothing.
    ///
    ///   owner:   Prepare -- create ............................... Begin
    ///   thread:              BeginOnThread ... EndTickings ... End
    void Begin()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_hasBegun) {
            BeginLocked();
        }
    }

    /// The same, said by the task's thread.
    void BeginOnThread()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_hasEnded = false;
        BeginLocked();
    }

    /// Whether the task's loop has ended, or there never was one. Takes no lock: requests ask when
    /// they are destroyed, which may be anywhere.
    bool HasEnded() const { return m_hasEnded.load(); }

    /// Calls @p send, which is to put something into the task's queue, if there is somebody to
    /// handle it.
    ///
    /// @return what it returned; else @p gone
    template <typename Value, typename Send>
    Value IfAlive(Value gone, const Send& send)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lives ? send() : gone;
    }

    /// Has @p delivery done on the task's thread. Allocates nothing.
    ///
    /// @return false if the task has ended; the delivery is the caller's to destroy then
    bool Deliver(std::unique_ptr<Delivery>& delivery)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_lives) {
            return false;
        }
        Delivery* const last = delivery.get();
        (m_last == nullptr ? m_first : m_last->m_next) = std::move(delivery);
        m_last = last;
        // Relaxed: the list is guarded by the lock, and the event below is put after this.
        m_hasDeliveries.store(true, std::memory_order_relaxed);
        WakeLocked();
        return true;
    }

    /// Whether there are deliveries; asked on the task's thread, which the event that comes with
    /// each has woken.
    bool HasDeliveries() const { return m_hasDeliveries.load(std::memory_order_relaxed); }

    /// Takes one delivery out, the oldest; null if there is none.
    std::unique_ptr<Delivery> TakeDelivery()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::unique_ptr<Delivery> delivery = std::move(m_first);
        if (delivery != nullptr) {
            m_first = std::move(delivery->m_next);
        }
        if (m_first == nullptr) {
            m_last = nullptr;
            m_hasDeliveries.store(false, std::memory_order_relaxed);
        }
        return delivery;
    }

    /// Remembers what must stop before the task ends.
    ///
    /// @return false if the task is about to end or has ended
    bool Add(const std::shared_ptr<Ticking>& ticking)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_takesTickings) {
            m_tickings.push_back(ticking);
        }
        return m_takesTickings;
    }

    /// Forgets it; it has been stopped.
    void Remove(const Ticking* ticking)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& each : m_tickings) {
            if (each.get() == ticking) {
                each.swap(m_tickings.back());
                m_tickings.pop_back();
                return;
            }
        }
    }

    // The end, on the task's thread, in this order.

    /// Takes what is still to be stopped; no more comes.
    Tickings EndTickings()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_takesTickings = false;
        return std::exchange(m_tickings, {});
    }

    /// Nothing reaches the task from here on. Deliveries that are left are destroyed.
    void End()
    {
        std::unique_ptr<Delivery> left;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lives = false;
            m_hasEnded = true;
            m_last = nullptr;
            m_hasDeliveries.store(false, std::memory_order_relaxed);
            left = std::move(m_first);
        }
        while (left != nullptr) {
            left = std::move(left->m_next); // one by one: a long list must not recurse
        }
    }

 private:
    void BeginLocked()
    {
        m_hasBegun = true;
        m_lives = true;
        m_takesTickings = true;
    }

    /// If the queue is too full even for this, the task is about to take an event anyway. Where
    /// memory is too short, the delivery waits for the next event or for the idle time.
    void WakeLocked()
    {
        TSEvent event;
        event.receiver = m_task;
        event.type = EVENT_WORK;
        try {
            TCTask::Send(&event, false, true);
        } catch (const std::bad_alloc&) {
        }
    }

    std::mutex m_mutex;      ///< guards all that follows
    TCTask* const m_task;    ///< not owned; may be used while m_lives
    bool m_hasBegun = false; ///< since Prepare()
    bool m_lives = false;
    bool m_takesTickings = false;
    Tickings m_tickings;
    std::unique_ptr<Delivery> m_first; ///< the oldest delivery, which has the next
    Delivery* m_last = nullptr;
    std::atomic<bool> m_hasDeliveries{false}; ///< written under the lock
    std::atomic<bool> m_hasEnded{true};       ///< since Prepare(); written under the lock
};

} // namespace detail
} // namespace zor
