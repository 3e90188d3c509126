#pragma once

#include <cstdint>
#include <map>

#include "PcrClock.h"
#include "Statistics.h"

namespace tsmon {

/// Counts a stream's packets where they still are in the stream's order: only there can a gap in
/// their counters and the time between two clock references be seen.
///
/// Rates are measured from one clock reference to the next, so packets before the first and behind
/// the last reference, and across a jump of the clock, have no part in them.
///
/// Knows nothing of threads; one thread at a time may use it.
class StreamMeter
{
 public:
    /// Takes the next packet of the stream, PACKET_SIZE bytes.
    void Push(const std::uint8_t* packet);

    /// What has been counted since the last call; `counts` is the caller's to fill in.
    StreamStatistics Take();

 private:
    /// Where a PID's continuity counter stands.
    struct Counter
    {
        std::uint8_t last = 0;
        bool repeated = false; ///< the last packet was sent twice already
    };

    bool IsContinuous(const std::uint8_t* packet, std::uint16_t pid);
    void MeasureTime();

    PcrClock m_clock;
    std::map<std::uint16_t, Counter> m_counters;      ///< of PIDs that have had a packet
    std::map<std::uint16_t, std::uint64_t> m_untimed; ///< packets by PID since the last reference
    std::chrono::microseconds m_reference{0};         ///< the clock at the last reference
    StreamStatistics m_counted;
};

} // namespace tsmon
