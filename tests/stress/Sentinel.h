#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Worker.h"

namespace storm {

/// Watches the threads of a storm while it lives, and aborts the process when one of them has been
/// at the same operation for too long.
class Sentinel
{
 public:
    /// @param workers     not owned
    /// @param hangAfter   what is too long
    /// @param beforeAbort  says what can be said
    Sentinel(const std::vector<std::unique_ptr<Worker>>& workers, std::chrono::seconds hangAfter,
             std::function<void()> beforeAbort);
    ~Sentinel();

    Sentinel(const Sentinel&) = delete;
    Sentinel& operator=(const Sentinel&) = delete;

 private:
    void Watch();

    const std::vector<std::unique_ptr<Worker>>& m_workers;
    const std::chrono::seconds m_hangAfter;
    const std::function<void()> m_beforeAbort;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_done = false; ///< guarded by m_mutex
    std::thread m_thread;
};

} // namespace storm
