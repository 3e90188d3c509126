#pragma once

#include <iosfwd>

#include "Reader.h"
#include "TaskNames.h"
#include "TypeNames.h"

namespace zorrecord {

/// Writes the recording as Chrome trace-event JSON: a track per thread with its name, a slice for
/// each call, and an arrow from each send to its handling. Times are microseconds since the
/// recording began.
///
/// @param names  of the whole recording, if this is a part of it
void ExportTrace(const Recording& recording, const TaskNames& names, const TypeNames& types,
                 std::ostream& out);

} // namespace zorrecord
