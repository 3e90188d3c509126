#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tsmon {

/// A descriptor as it stands in a table.
struct Descriptor
{
    std::uint8_t tag = 0;
    std::string_view data; ///< raw bytes, owned by the table
};

/// Says in words what an elementary stream of stream type @p type is: "MPEG-2 video". Streams of
/// private data are told by their descriptors: "AC-3 audio", "DVB subtitles".
std::string DescribeStream(std::uint8_t type, const std::vector<Descriptor>& descriptors);

/// The first language that the descriptors of a stream name: three letters, or empty.
std::string LanguageOf(const std::vector<Descriptor>& descriptors);

} // namespace tsmon
