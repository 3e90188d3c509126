#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>

namespace zorrecord {

/// Writes a recording as one page for a browser: a lane for each thread, what it did and waited
/// for, and whom its events went to. The page has everything in it and asks no network for more.
///
/// @param data  as PageData() makes it
void PrintPage(const nlohmann::json& data, std::ostream& out);

} // namespace zorrecord
