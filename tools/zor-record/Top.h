#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "Calls.h"
#include "Reader.h"
#include "TypeNames.h"

namespace zorrecord {

/// Writes for each task and type of events how many it has handled, and median, 99th percentile and
/// greatest of how long they waited (from the beginning of the send to that of the handling) and of
/// how long the handling took. The task that was busiest comes first. A handling that has not
/// finished counts with what it has taken so far.
///
/// @param asJson  an array of objects, times in nanoseconds, instead of a table
void PrintTop(const Recording& recording, const TypeNames& types, bool asJson, std::ostream& out);

/// The same as an array of objects.
nlohmann::json TopOf(const std::vector<Call>& calls, const TypeNames& types);

} // namespace zorrecord
