#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "Run.h"

namespace zorsim {

/// Virtual time since the start, like "12.000345 s".
std::string TimeText(std::int64_t nsec);

/// What every thread does or waits for when something was found, and where: as far as the records
/// of the run tell.
void PrintThreads(const Report& report, const std::vector<Record>& records, std::ostream& out);

/// The traced steps, one a line; and as trace events for a viewer.
void PrintTrace(const RunResult& result, std::ostream& out);
void ExportTrace(const RunResult& result, std::ostream& out);

} // namespace zorsim
