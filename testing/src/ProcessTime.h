#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>

/// @file
/// The time that the test program lives in, and all that waits for it.
///
/// The program defines libc's timed waits and clocks itself (ProcessTimeSeams.cpp). Each wait,
/// timed or not, is an entry in one list, and each thread is known from its creation on, so that
/// two questions have exact answers: which deadline comes next, and whether any thread still has
/// something to do. While the time runs, a deadline is kept in real time; while it stands, only
/// DriveFor() moves it.

namespace zor::testing::internal {

using Nanoseconds = std::chrono::nanoseconds;

/// How a wait has ended.
enum class EWake
{
    NOTIFIED,
    TIMED_OUT,
};

/// Which clock a deadline is on. The system's is never moved.
enum class EDeadlineClock
{
    PROCESS,
    SYSTEM,
};

/// A point in time to wait for at most; empty for ever.
struct Deadline
{
    std::optional<Nanoseconds> at;
    EDeadlineClock clock = EDeadlineClock::PROCESS;
};

/// The monotonic clock as the program sees it.
Nanoseconds Now();

/// The system's own monotonic clock.
Nanoseconds SystemNow();

/// How far the program's clock is ahead of the system's.
Nanoseconds Offset();

/// Holds the lock of the list for a scope.
class TimeLock
{
 public:
    TimeLock();
    ~TimeLock();

    TimeLock(const TimeLock&) = delete;
    TimeLock& operator=(const TimeLock&) = delete;
};

/// Waits for NotifyLocked() of @p key. Needs the lock, which is let go meanwhile.
EWake WaitLocked(const void* key, const Deadline& deadline);

/// Wakes at most @p count waits of @p key, the oldest first. Needs the lock.
///
/// @return how many
int NotifyLocked(const void* key, int count);

/// Sleeps in the program's time, but not while @p hurry is true.
///
/// @param hurry  null, or what EndSleeps() is told
void Sleep(Nanoseconds time, const std::atomic<bool>* hurry);

/// Ends the sleeps that were given @p hurry.
void EndSleeps(const std::atomic<bool>* hurry);

/// Stops the time, for the calling thread to drive. False if it stands already.
bool Stop();

/// Lets the time run on from where it stands.
void Go();

/// Whether the time stands.
bool Stands();

/// Whether the time stands and the calling thread drives it.
bool DrivesTime();

/// Lets @p time pass deadline by deadline; the calling thread must drive the time. Before each step
/// and at the end every other thread has come to rest.
void DriveFor(Nanoseconds time);

/// What was the matter when a rest was waited for in vain, and forgets it; empty if nothing was.
std::string TakeUnrest();

/// The earliest deadline that a thread waits for.
std::optional<Nanoseconds> EarliestDeadline();

/// A thread was made by @p entry: runs that with the thread known. To be used as the start routine
/// of a thread, with what PrepareThread() has returned.
void* RunThread(void* prepared);

/// Makes a thread known that is about to be created.
void* PrepareThread(void* (*entry)(void*), void* argument);

/// Takes it back, because the thread could not be created.
void ForgetThread(void* prepared);

} // namespace zor::testing::internal
