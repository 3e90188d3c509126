#pragma once

#include <ostream>
#include <string>

#include "Monitor.h"

namespace tsmon {

/// Prints what was found in the file @p path to @p out, and what was wrong with it to @p err.
///
/// @return the exit code of the process: 0 if nothing was wrong
int Report(const std::string& path, const Outcome& outcome, std::ostream& out, std::ostream& err);

} // namespace tsmon
