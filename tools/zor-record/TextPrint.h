#pragma once

#include <iosfwd>
#include <string>

#include "Reader.h"

namespace zorrecord {

/// Writes one line a record: seconds since the recording began, thread, `>` before or `<` after the
/// call, the call site, and the arguments or result and CPU time.
void PrintRecords(const Recording& recording, std::ostream& out);

/// @p nsec as seconds with nine decimals.
std::string Seconds(std::int64_t nsec);

/// @p text with all that is not printable as `\xNN`.
std::string Escaped(const std::string& text);

} // namespace zorrecord
