#pragma once

#include <pthread.h>

#include <atomic>

#include "Patience.h"
#include "Thread.h"

/// What stands behind every semaphore (src/Semaphore.cpp), for the semaphore itself and for those
/// who work on several of them, or on what one of them guards, in one critical section.

namespace zor {

/// Holds the one mutex that guards the counts of all semaphores of the process, for a scope or
/// until Unlock(). No foreign code runs, nothing is allocated and no page is touched for the first
/// time under it: every semaphore of the process would wait.
class TimeMutexLock
{
 public:
    /// About what the other side needs for a critical section and the way back to it.
    static constexpr int STAY_AWAY_NSEC = 700;

    /// @param stayAwayNsec  how long to stay away when the mutex is taken, before the next try
    explicit TimeMutexLock(int stayAwayNsec = STAY_AWAY_NSEC);
    ~TimeMutexLock()
    {
        if (m_held) {
            Unlock();
        }
    }

    TimeMutexLock(const TimeMutexLock&) = delete;
    TimeMutexLock& operator=(const TimeMutexLock&) = delete;

    void Unlock();

 private:
    bool m_held = true;
};

} // namespace zor

/// The state block of a semaphore.
///
/// It lives as long as the semaphore is created, and longer while a giver has yet to wake somebody:
/// a giver does so when the mutex is free, because a woken waiter would only run into it, and once
/// that waiter has its unit it may destroy the semaphore. Whoever is the last to let go deletes the
/// block.
///
///   giver:   lock -- count -- hold -- unlock --------------------- signal -- let go (deletes)
///   taker:                                    take -- destroy (lets go)
struct __attribute__((visibility("hidden"))) TCSemaphore::State
{
    /// Whom a giver has to wake once the mutex is unlocked.
    enum class Waking
    {
        NOBODY,
        ONE,
        ALL,
    };

    explicit State(const TCSemaphore* semaphore) : owner(semaphore) {}

    const TCSemaphore* const owner; ///< for debuggers: whose state a sleeping thread waits on
    pthread_cond_t condition;       ///< waits on the process-wide mutex
    std::atomic<int> count;         ///< written under the mutex; watched without it
    std::atomic<int> waiters{0};    ///< threads parked; written under the mutex; watched without it
    unsigned wakingsOfAll = 0;      ///< guarded by the mutex
    unsigned forks = 0;             ///< of which the members know; guarded by the mutex
    std::atomic<int> holders{1};    ///< the semaphore, and givers about to wake somebody
    zor::Patience patience;

    /// Makes the block of a semaphore that the parent of this process has made one of this
    /// process's. Needs the mutex.
    void ForgetBeforeForkLocked();

    /// Lets go; the last one deletes the block.
    void LetGo();

    /// Yields or watches the count without the mutex, if that has paid off lately and nobody is
    /// parked. What it has seen means nothing until the mutex is held.
    void Watch();

    /// Waits until there is a unit and takes it. Needs the mutex, which is given back meanwhile.
    void TakeLocked();
    bool TryLocked(unsigned long msec);

    /// Takes as many units as there are, but not more than @p most. Needs the mutex.
    void TakeUpToLocked(int most);

    /// Takes all units if none of them stands for anything any more, as @p stale says, and if they
    /// are so many that they would overflow some day. Needs the mutex.
    void DropStaleLocked(bool stale)
    {
        constexpr int MANY = 1 << 20;
        if (stale && Count() > MANY) {
            TakeUpToLocked(Count());
        }
    }

    /// Adds a unit. Needs the mutex. If the result is not NOBODY, Wake() must be called with it
    /// once the mutex is unlocked.
    [[nodiscard]] Waking GiveLocked();
    void Wake(Waking waking);

    int Count() const { return count.load(std::memory_order_relaxed); }
    void AddLocked(int units) { count.store(Count() + units, std::memory_order_relaxed); }

 private:
    class Parking;

    void WakeNow(Waking waking);
    Waking WhomToWakeLocked() const;
    void PassOnLocked();
};
