#pragma once

#include <nlohmann/json.hpp>

namespace made {

/// The services of a report of ffprobe's, by id, in what both it and zor-tsmon can tell. It names
/// all languages of a stream, zor-tsmon the first, which is what stands here.
nlohmann::json ServicesOfFfprobe(const nlohmann::json& report);

/// The same of a document of zor-tsmon's.
///
/// @param expected  ServicesOfFfprobe(): where a registered format hides a stream's type from
///                  ffprobe, it is left out here too
nlohmann::json ServicesOfTsmon(const nlohmann::json& report, const nlohmann::json& expected);

} // namespace made
