#pragma once

#include <iosfwd>

#include "Reader.h"

namespace zorrecord {

/// Writes the recording as Chrome trace-event JSON: a track per thread with its name, a slice for
/// each call, and an arrow from each send to its handling. Times are microseconds since the
/// recording began.
void ExportTrace(const Recording& recording, std::ostream& out);

} // namespace zorrecord
