#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>

#include "Packetiser.h"
#include "ServiceTable.h"

namespace tsmon {

/// What has been counted of one PID.
struct PidStatistics
{
    std::uint64_t packets = 0;
    std::uint64_t timedPackets = 0;     ///< those that came while the stream's clock was known
    std::uint64_t continuityErrors = 0; ///< gaps in its packets' counters
    std::uint64_t scrambledPackets = 0;
};

/// What has been counted of a stream, or of a part of it.
struct StreamStatistics
{
    StreamCounts counts;               ///< of everything read so far, also in a part
    std::chrono::microseconds time{0}; ///< of the stream's clock, in which the timed packets came
    std::map<std::uint16_t, PidStatistics> pids;

    /// Adds what @p part has counted, and takes over how much had been read by then if it is more.
    void Add(const StreamStatistics& part);

    /// What has been counted since @p earlier, an earlier state of the same stream.
    StreamStatistics Since(const StreamStatistics& earlier) const;
};

/// A stream's statistics on the way.
struct TickStatistics
{
    StreamStatistics total;
    StreamStatistics lastSecond; ///< what came between the last two ticks
};

/// What the statistics of some PIDs come to.
struct Figures
{
    std::uint64_t packets = 0;
    std::uint64_t continuityErrors = 0;
    std::optional<double> bitRate; ///< bits per second of the stream's clock, if it has one
    std::uint64_t scrambledPackets = 0;
};

/// Of the whole stream, null packets included.
Figures FiguresOfAll(const StreamStatistics& statistics);

/// Of one PID.
Figures FiguresOf(const StreamStatistics& statistics, std::uint16_t pid);

/// Of everything that a service is made of: its map, its clock references and its elementary
/// streams. What several services share counts for each.
Figures FiguresOf(const StreamStatistics& statistics, const Service& service);

} // namespace tsmon
