#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Ledger.h"

/// @file
/// Whether a task takes its events in the order that its queues promise.

namespace storm {

/// Looks at the events of one task in the order in which they are handled. Only the task's thread
/// uses it.
///
/// Of two events it is known which one must come first if the send of the one had returned before
/// the other one was taken. An event was taken after the handling of the one before it had ended.
class Order
{
 public:
    /// @param taken  a moment before the event was taken from its queue and after the handling of
    ///               the event before it
    /// @return what is wrong; empty if nothing is
    std::string Check(const Facts& event, Stamp taken);

 private:
    /// A priority event that has been handled.
    struct Taken
    {
        std::uint64_t id;
        Stamp stamp;
    };

    struct Queue
    {
        std::map<unsigned, std::uint64_t> lastOrdinary;  ///< by sender
        std::map<unsigned, std::vector<Taken>> priority; ///< by sender; see CheckPriority()
        Stamp lastTaken = 0;                             ///< of any event
        Stamp lastOrdinaryTaken = 0;
    };

    std::string CheckPriority(const Facts& event, Stamp taken, Queue* queue);
    std::string CheckQueues(const Facts& event) const;

    std::array<Queue, MAX_QUEUES> m_queues;
};

/// Looks at the firings of one alarm or timer. Check() is for the task's thread.
class Firings
{
 public:
    /// To be called before an operation that makes the count start from 0 again.
    void Restarts() { ++m_restarts; }

    /// @param index  the firing's
    /// @return what is wrong; empty if nothing is
    std::string Check(std::uint32_t index);

 private:
    std::atomic<std::uint64_t> m_restarts{0};
    std::uint64_t m_seen = 0; ///< how often the index went back
    std::int64_t m_last = -1;
};

} // namespace storm
