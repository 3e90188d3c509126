#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>

/// @file
/// Waiting for what other threads do. Needs neither GoogleTest nor anything that is linked.

namespace zor::testing {

/// Far more than anything takes on a busy machine: only a defect makes a test wait this long.
constexpr std::chrono::seconds DEADLINE{60};

/// Time that no test moves: read from the kernel, past `clock_gettime`.
inline std::chrono::nanoseconds RealTime()
{
    timespec now = {};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

/// Lets a millisecond of real time pass.
inline void RealPause()
{
    timespec pause = {0, 1000 * 1000};
    syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &pause, &pause);
}

/// Looks every millisecond of real time whether @p condition holds, at least once, on the calling
/// thread. Eventually() does the same and says what it saw.
///
/// @param deadline  in real time
/// @return false if it did not hold within @p deadline
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::nanoseconds deadline = DEADLINE)
{
    const std::chrono::nanoseconds end = RealTime() + deadline;
    while (!condition()) {
        if (RealTime() > end) {
            return false;
        }
        RealPause();
    }
    return true;
}

/// A door that threads wait at until as many calls of Pass() as it was made for have come.
///
/// Any thread may call anything. It does not use the runtime, and its deadline is in real time: it
/// may be waited at while the test's clock stands.
class Gate
{
 public:
    /// @param passes  how many calls of Pass() open it
    explicit Gate(int passes = 1) : m_missing(passes) {}

    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    /// Brings the opening one step nearer. More calls than needed are harmless.
    void Pass()
    {
        // Signalled under the mutex: who is let through may destroy the gate at once.
        std::lock_guard<std::mutex> lock(m_mutex);
        --m_missing;
        m_changed.notify_all();
    }

    /// Whether Wait() would return at once.
    bool IsOpen() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_missing <= 0;
    }

    /// Waits until the gate is open.
    ///
    /// @return false if it is not within DEADLINE
    bool Wait()
    {
        // The one deadline of libc's that a test's clock leaves alone is that of the system clock.
        const auto end = std::chrono::system_clock::now() + DEADLINE;
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_until(lock, end, [this] { return m_missing <= 0; });
    }

 private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_missing; ///< guarded by m_mutex
};

} // namespace zor::testing
