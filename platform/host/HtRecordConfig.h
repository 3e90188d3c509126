#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zorhost {

/// What the environment says about the recording of calls.
struct TSRecordConfig
{
    std::string path; ///< of the record file; empty if nothing is to be recorded
    std::uint64_t ringSize = 0;
    std::string process; ///< its name, when this was read
};

constexpr std::uint64_t DEFAULT_RING_SIZE = UINT64_C(16) << 20;
constexpr std::uint64_t LEAST_RING_SIZE = UINT64_C(4) << 10;
constexpr std::uint64_t GREATEST_RING_SIZE = UINT64_C(64) << 30;

/// Reads a number of bytes: digits, and a K, M or G for the powers of 1024.
///
/// @return 0 if @p text is no such number or its value does not lie between the limits above
std::uint64_t ParseRingSize(std::string_view text);

/// Puts the process id in place of each "%p".
std::string ExpandPath(std::string_view path);

/// The path from the root: the file is made later, and the process may have gone elsewhere by then.
///
/// @param path  not empty
std::string AbsolutePath(std::string path);

/// Makes the configuration from ZOR_RECORD (the path; each "%p" stands for the process id) and
/// ZOR_RECORD_SIZE (the ring's size, rounded up to whole pages). Says in the platform log what is
/// wrong with a size that cannot be followed, and takes the default.
TSRecordConfig ReadRecordConfig();

} // namespace zorhost
