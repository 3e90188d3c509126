#pragma once

#include <chrono>
#include <optional>

#include "Packet.h"
#include "Statistics.h"

namespace tsmon {

/// Packets that are handed over together, and what was counted in the stream up to them.
struct Batch
{
    PacketBlock packets;
    bool elementary = false;                      ///< of elementary streams, all of them; else none
    std::optional<std::chrono::microseconds> due; ///< time of the stream's; nothing before it began
    StreamStatistics statistics; ///< since the batch before; not only of these packets
};

} // namespace tsmon
