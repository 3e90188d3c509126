#pragma once

#include <chrono>
#include <optional>

#include "zor/testing/Link.h"

namespace zor::testing {

/// A clock that the test moves: alarms, timers, idle turns and time-outs come when the test says
/// so, at once and in a certain order.
///
/// While it lives the program's monotonic time stands still. Only the thread that made the clock,
/// which is the test's own, moves it:
///
///   test:   Clock -- sends, starts timers ... Advance(100 ms) ------------------> expects
///   time:     0                                 0 .. 30 .......... 60 ......... 100
///   tasks:              handle, wait again        fires, is handled  fires ...
///
/// Advance() goes from deadline to deadline. At each it lets one waiting thread go on (of several
/// with the same deadline the one that has waited longest) and waits until all threads of the
/// program wait again; so when it returns, all that was due by then has happened, with all that
/// came of it, and nothing happens until the test does something. The same goes for any other wait
/// of that thread, with or without a time-out: while it waits for an answer the time moves to the
/// next deadline whenever nothing else can happen. `task.Ping(100)` of a task that hangs takes
/// 100 ms of this clock.
///
/// What it moves:
/// - `clock_gettime(CLOCK_MONOTONIC)`, `std::chrono::steady_clock`, `times()`, and so all of the
///   runtime's times: TCTimeWrapper::Tick() and Sleep(), TCSemaphore::Try(), alarms, timers, the
///   wait time of tasks, the time-outs of pings and clear-queue requests, the watchdog notifier;
/// - waits of condition variables with a deadline of that clock, `wait_for` and `wait_until` of
///   futures, `nanosleep`, `clock_nanosleep` of that clock, `usleep`, `sleep`,
///   `std::this_thread::sleep_for`.
///
/// What it does not move:
/// - the system clock (`CLOCK_REALTIME`, `std::chrono::system_clock`, `time()`), CPU times, and
///   waits whose deadline is one of the system clock;
/// - poll(), select(), epoll, timerfd, timer_create(), alarm(), and what other processes do;
/// - the time-outs of `std::timed_mutex`, `pthread_rwlock_timed...`, `sem_timedwait`;
/// - sleeps of libc (not waits, and not SleepMs) that had begun before the clock was made;
/// - Eventually(), WaitUntil() and Gate, whose deadlines are in real time.
///
/// A thread that sleeps in something which the clock does not see (a file, a mutex, a child
/// process, one of the calls above) counts as waiting once it has not run for 20 ms. A thread that
/// never waits, or reads the clock until it changes, keeps Advance() waiting; after a minute that
/// is a failure with the thread's name. Reading the clock does not move it. Joining a thread and
/// locking a mutex do not move it either: a test must not wait so for what needs time to pass.
///
/// A semaphore's wait whose end falls on a whole second to the microsecond is refused by the
/// system and ends at once (see TCSemaphore::Try()). The clock stands half a millisecond past a
/// whole one, so that no number of whole milliseconds meets that.
///
/// When the clock goes the time runs on from where it stands: it never goes back. There is one
/// clock at a time. Make it before what is to be seen from its beginning, in a fixture as the first
/// member; threads that wait already are taken over.
class Clock
{
 public:
    /// Stops the time. Adds a failure to the test if there is a clock already.
    Clock();

    /// Lets the time run again. On the thread that made it.
    ~Clock();

    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    /// Lets @p time pass. On the thread that made the clock.
    ///
    /// @param time  0 or more; 0 waits until all threads wait, see Settle()
    void Advance(std::chrono::nanoseconds time);

    /// Lets all threads do what they can do without time passing.
    void Settle() { Advance(std::chrono::nanoseconds(0)); }

    /// How much time has passed since the clock was made. Any thread may ask.
    std::chrono::nanoseconds Elapsed() const;

    /// How much time is missing to the earliest deadline that a thread waits for, once all threads
    /// wait; empty if there is none. On the thread that made the clock.
    std::optional<std::chrono::nanoseconds> UntilNext();

 private:
    void ReportUnrest();

    bool m_stopped;
    std::chrono::nanoseconds m_start;
};

} // namespace zor::testing
