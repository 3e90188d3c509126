#pragma once

#include <string>

#include "Options.h"
#include "Packetiser.h"
#include "ServiceTable.h"
#include "Signals.h"

namespace tsmon {

/// What became of one file.
struct Outcome
{
    std::string failure;     ///< why reading stopped before the end; empty if it did not
    StreamCounts counts;     ///< what was read
    ServiceTable table;      ///< what was found in it
    bool stopped = false;    ///< a signal ended the reading before the end
    bool lacksClock = false; ///< it was to be read at its own clock and has none
};

/// Reads the transport stream file to its end with one task, looks for its services with another,
/// gathers them with a third, and returns when all are done. What happens is logged on the way.
///
/// Meanwhile it takes signals: SIGINT and SIGTERM end the reading, after which everything that was
/// read is handled; SIGUSR1 pauses it and SIGUSR2 resumes it.
Outcome MonitorFile(const Options& options, Signals& signals);

} // namespace tsmon
