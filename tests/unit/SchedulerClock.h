#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <optional>

#include "ConditionSeams.h"
#include "Seam.h"
#include "TimersScheduler.h"

namespace zortest {

/// The time that one scheduler lives in, under a test's control.
///
/// While it lives, the scheduler's thread and the calls made inside Run() read this clock, which
/// stands still but for Advance(); everybody else has the real one. The thread's waits on the
/// scheduler's own condition end when the condition is notified or when this clock reaches their
/// deadline, never by themselves:
///
///   test:    Run(operation) -- Settle() ............ looks -- Advance() -- Settle() ...
///   thread:           (notified) works -- waits again             (due) works -- waits again
///
/// So after Settle() nothing happens until the test does something, and the test may look at what
/// is otherwise guarded by the scheduler's mutex. Made before the scheduler, and gone after it.
class SchedulerClock
{
 public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// @param scheduler  whose clock it is; need not be constructed yet
    explicit SchedulerClock(const TCTimersScheduler* scheduler);

    SchedulerClock(const SchedulerClock&) = delete;
    SchedulerClock& operator=(const SchedulerClock&) = delete;

    /// Lets time pass, and the thread's wait end if it is over. Any thread may call it.
    void Advance(std::chrono::nanoseconds time);

    TimePoint Now() const { return TimePoint(std::chrono::nanoseconds(m_now.load())); }

    /// How much time has passed since the clock was made.
    std::chrono::nanoseconds Elapsed() const { return Now() - START; }

    /// Waits until the thread waits for something that has not happened yet.
    ///
    /// @return false if it does not within DEADLINE
    bool Settle();

    /// When the wait of the settled thread is to end, counted as Elapsed(); empty if it has no
    /// limit.
    std::optional<std::chrono::nanoseconds> WakeTime() const;

    /// How often the condition has been notified.
    unsigned int Notifications() const;

    /// Runs @p call on the calling thread in this clock's time.
    template <typename Call>
    auto Run(Call call) const
    {
        const Inside inside;
        return call();
    }

 private:
    static constexpr TimePoint START{std::chrono::hours(1000)};

    struct Inside
    {
        Inside();
        ~Inside();

        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;
    };

    bool IsOwn(const pthread_cond_t* condition) const;
    bool IsOverLocked() const;
    int GetTime(clockid_t id, timespec* now) const;
    int Wait(pthread_mutex_t* mutex, std::optional<TimePoint> deadline);
    void Notify();

    const TCTimersScheduler* const m_scheduler;
    std::atomic<std::chrono::nanoseconds::rep> m_now; ///< since the clock's epoch
    mutable std::mutex m_mutex;                       ///< guards what follows
    std::condition_variable m_changed;
    bool m_waiting = false;  ///< the thread is in a wait
    bool m_notified = false; ///< and has been notified since it began
    unsigned int m_notifications = 0;
    std::optional<TimePoint> m_deadline; ///< of that wait

    Takeover<int(clockid_t, timespec*)> m_getTime;
    Takeover<int(pthread_cond_t*, pthread_mutex_t*)> m_wait;
    Takeover<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)> m_clockWait;
    Takeover<int(pthread_cond_t*)> m_signal;
};

} // namespace zortest
