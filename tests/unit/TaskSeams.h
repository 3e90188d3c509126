#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "Seam.h"

/// @file
/// The watchdog service, taken over for the programs that this is linked into.

namespace zortest {

extern Seam<int(unsigned long)> watchdogRegisterSeam;
extern Seam<int()> watchdogNotifySeam;

/// Stands in for the watchdog service while it lives. Any thread may call anything.
class FakeWatchdog
{
 public:
    FakeWatchdog();

    FakeWatchdog(const FakeWatchdog&) = delete;
    FakeWatchdog& operator=(const FakeWatchdog&) = delete;

    /// The time-outs asked for, in order.
    std::vector<unsigned long> TimeOuts() const;

    /// The names of the threads that registered.
    std::vector<std::string> Registered() const;

    /// The names of the threads that notified, in order.
    std::vector<std::string> Notifiers() const;

    /// Waits until at least @p count notifications have come.
    bool WaitForNotifications(std::size_t count) const;

    std::atomic<int> registerResult{0}; ///< what the service answers
    std::atomic<int> notifyResult{0};   ///< what the service answers

 private:
    mutable std::mutex m_mutex; ///< guards the three lists
    std::vector<unsigned long> m_timeOuts;
    std::vector<std::string> m_registered;
    std::vector<std::string> m_notifiers;
    Takeover<int(unsigned long)> m_register;
    Takeover<int()> m_notify;
};

} // namespace zortest
