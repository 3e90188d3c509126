#pragma once

#include <string>
#include <string_view>

namespace tsmon {

/// Decodes a text of a DVB table to UTF-8.
///
/// @param bytes  the text as broadcast: optionally the selector of a character table (a byte below
///               0x20), then characters of that table; without a selector the default Latin table
/// @return UTF-8 on one line. DVB's control codes are left out, but for the new line, which becomes
/// a
///         space. Bytes that mean nothing in their table, and other control characters, become
///         U+FFFD. Of a table that is reserved, or that the system has no converter for, the
///         selector becomes U+FFFD and the ASCII characters remain.
///
/// Any thread may call.
std::string DecodeDvbText(std::string_view bytes);

} // namespace tsmon
