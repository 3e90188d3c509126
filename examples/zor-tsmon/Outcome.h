#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Packetiser.h"
#include "ServiceTable.h"
#include "Statistics.h"

namespace tsmon {

/// What has become of one file, at the end or on the way there.
struct Outcome
{
    std::string failure;         ///< why reading stopped before the end; empty if it did not
    StreamCounts counts;         ///< what was read
    ServiceTable table;          ///< what was found in it
    StreamStatistics statistics; ///< what was counted in it
    std::optional<StreamStatistics> lastSecond; ///< where the present rates are to be shown too
    std::uint64_t inputLosses = 0;              ///< how often nothing came for too long
    std::uint64_t packetlessInputs = 0;         ///< how often much came that held no packets
    bool stopped = false;                       ///< a signal ended the reading before the end
    bool lacksClock = false;                    ///< it was to be read at its own clock and has none
};

} // namespace tsmon
