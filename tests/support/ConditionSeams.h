#pragma once

#include <pthread.h>

#include <ctime>
#include <mutex>
#include <vector>

#include "Seam.h"

/// @file
/// The clock and the condition variables that semaphores are made of.

namespace zortest {

extern Seam<int(clockid_t, timespec*)> clockGettimeSeam;
extern Seam<int(pthread_condattr_t*)> condattrInitSeam;
extern Seam<int(pthread_condattr_t*, clockid_t)> condattrSetclockSeam;
extern Seam<int(pthread_condattr_t*)> condattrDestroySeam;
extern Seam<int(pthread_cond_t*, const pthread_condattr_t*)> condInitSeam;
extern Seam<int(pthread_cond_t*)> condDestroySeam;
extern Seam<int(pthread_cond_t*, pthread_mutex_t*)> condWaitSeam;
extern Seam<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> condTimedwaitSeam;
extern Seam<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)> condClockwaitSeam;
extern Seam<int(pthread_cond_t*)> condSignalSeam;
extern Seam<int(pthread_cond_t*)> condBroadcastSeam;

/// Watches condition variables come and go while it lives, and so semaphores, of which each has
/// one. They are known by their number in the order in which they were made, from 0.
class ConditionWatch
{
 public:
    static constexpr int NONE = -1;

    /// @param failing  the number of the condition that cannot be made
    explicit ConditionWatch(int failing = NONE);

    ConditionWatch(const ConditionWatch&) = delete;
    ConditionWatch& operator=(const ConditionWatch&) = delete;

    /// How many have been made, counting the one that could not be.
    int Made() const;

    /// The numbers of those that have been destroyed, in that order. Others do not count: a thread
    /// that has just ended may be the last to let go of a condition made before.
    std::vector<int> Destroyed() const;

    /// Whether a thread has begun to wait on condition @p number.
    bool WaitedFor(int number) const;

    /// The clocks that the conditions were made with.
    std::vector<clockid_t> Clocks() const;

 private:
    int Init(pthread_cond_t* condition, const pthread_condattr_t* attributes);
    int NumberLocked(const pthread_cond_t* condition) const;

    const int m_failing;
    mutable std::mutex m_mutex; ///< guards the rest
    std::vector<pthread_cond_t*> m_made;
    std::vector<clockid_t> m_clocks;
    std::vector<int> m_destroyed;
    std::vector<int> m_waitedFor;
    Takeover<int(pthread_cond_t*, const pthread_condattr_t*)> m_init;
    Takeover<int(pthread_cond_t*)> m_destroy;
    Takeover<int(pthread_cond_t*, pthread_mutex_t*)> m_wait;
};

} // namespace zortest
