#pragma once

#include <iosfwd>

#include "Reader.h"

namespace zorrecord {

/// Writes what a recording holds: process, times, sizes, threads, and the calls of each call site
/// with their CPU time.
void PrintSummary(const Recording& recording, std::ostream& out);

} // namespace zorrecord
