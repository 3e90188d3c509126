#pragma once

#include <cstdint>

namespace tsmon {

/// The runtime's packed id, in its full layout, of a DVB television service.
///
/// @param transportStreamId  its low 13 bits are the major number
/// @param serviceId          the program number
unsigned long long PackServiceId(std::uint16_t transportStreamId, std::uint16_t serviceId);

} // namespace tsmon
