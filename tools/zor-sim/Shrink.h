#pragma once

#include <iosfwd>
#include <string>

#include "Run.h"

namespace zorsim {

/// Leaves out decisions of a run that fails as long as it fails in the same way, and tells the
/// progress.
///
/// @return the shortest run, with its decisions; the first one if it passes
RunResult Shrink(const RunOptions& run, std::ostream& err);

/// Decisions as lines: what is decided, the number of the decision, its value; and the settings.
void WriteDecisions(const RunResult& result, std::ostream& out);

/// @throws std::runtime_error if the file cannot be read
void ReadDecisions(const std::string& file, RunOptions* run);

} // namespace zorsim
