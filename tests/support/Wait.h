#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace zortest {

/// Far more than anything takes on a busy machine: only a defect makes a test wait this long.
constexpr std::chrono::seconds DEADLINE{60};

/// Waits until @p condition holds.
/// @return false if it does not within DEADLINE
template <typename Condition>
bool Eventually(Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + DEADLINE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// A door that threads wait at until as many calls of Pass() as it was made for have come.
/// Any thread may call anything; it does not use what is under test.
class Gate
{
 public:
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

    bool IsOpen() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_missing <= 0;
    }

    /// Waits until the gate is open.
    /// @return false if it is not within DEADLINE
    bool Wait()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, DEADLINE, [this] { return m_missing <= 0; });
    }

 private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_missing; ///< guarded by m_mutex
};

} // namespace zortest
