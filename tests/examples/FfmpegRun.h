#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace made {

/// Whether ffmpeg and ffprobe are installed.
bool HasFfmpeg();

/// Runs ffmpeg to its end. It may overwrite files and complains of errors only. A test failure if
/// it fails.
void RunFfmpeg(const std::vector<std::string>& arguments);

/// What ffprobe reports of the file at @p path, having read all of it: its programs with their
/// streams, and its format. A test failure if it fails.
///
/// @param directory  takes a file for its output
nlohmann::json RunFfprobe(const std::string& path, const std::string& directory);

} // namespace made
