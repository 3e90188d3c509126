#pragma once

#include <ostream>

#include "Options.h"
#include "Outcome.h"
#include "ProgressLine.h"
#include "Signals.h"

namespace tsmon {

/// Reads the transport stream file to its end with one task, looks for its services with another,
/// gathers them with a third, and returns when all are done. What happens is logged on the way.
///
/// A fourth task shows how far it has come, in @p progress, and repeats the table on @p tables if
/// the options ask for it.
///
/// Meanwhile it takes signals: SIGINT and SIGTERM end the reading, after which everything that was
/// read is handled; SIGUSR1 pauses it and SIGUSR2 resumes it.
Outcome MonitorFile(const Options& options, Signals& signals, std::ostream& tables,
                    ProgressLine& progress);

} // namespace tsmon
