#include "ServiceId.h"

#include "ZorServiceDebug.h"

namespace tsmon {

namespace {

using Id = unsigned long long;

constexpr Id CHANNEL_TYPE_DTV = 2;
constexpr int CHANNEL_TYPE_SHIFT = 60;
constexpr int PROFILE_SHIFT = 39;
constexpr int PROGRAM_SHIFT = 23;
constexpr int MAJOR_SHIFT = 10;
constexpr Id MAJOR_MASK = 0x1FFF;

} // namespace

unsigned long long PackServiceId(std::uint16_t transportStreamId, std::uint16_t serviceId)
{
    // Channel number and minor number are given by a channel list, which a stream does not have.
    return CHANNEL_TYPE_DTV << CHANNEL_TYPE_SHIFT | Id{SERVICE_PROFILE_DVB} << PROFILE_SHIFT |
           Id{serviceId} << PROGRAM_SHIFT | (transportStreamId & MAJOR_MASK) << MAJOR_SHIFT;
}

} // namespace tsmon
