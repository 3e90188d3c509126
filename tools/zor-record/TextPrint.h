#pragma once

#include <iosfwd>
#include <string>

#include "Reader.h"
#include "TaskNames.h"
#include "TypeNames.h"

namespace zorrecord {

/// Writes one line a record: seconds since the recording began, thread, `>` before or `<` after the
/// call, the call site, the arguments or result and CPU time, and of a call that has not finished
/// for how long it has lasted. Behind the address of a receiver stands the task that handles its
/// events, behind a type its name.
///
/// @param names       of the whole recording, if this is a part of it
/// @param isWallTime  time of day in the zone of this process, instead of seconds
void PrintRecords(const Recording& recording, const TaskNames& names, const TypeNames& types,
                  bool isWallTime, std::ostream& out);

/// @p nsec as seconds with nine decimals.
std::string Seconds(std::int64_t nsec);

/// @p text with all that is not printable as `\xNN`.
std::string Escaped(const std::string& text);

} // namespace zorrecord
