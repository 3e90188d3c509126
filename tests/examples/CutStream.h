#pragma once

#include <algorithm>
#include <cstddef>

#include "Packetiser.h"
#include "StreamBuilder.h"

/// @file
/// What a packetiser makes of a stream, for its tests.

namespace made {

/// What came out of a packetiser.
struct CutStream
{
    Bytes packets;
    tsmon::StreamCounts counts;
};

/// Has a packetiser cut @p stream, which it gets in pieces of @p chunk bytes.
inline CutStream Cut(const Bytes& stream, std::size_t chunk = 1000)
{
    tsmon::Packetiser packetiser;
    tsmon::PacketBlock block;
    for (std::size_t begin = 0; begin < stream.size(); begin += chunk) {
        packetiser.Push(stream.data() + begin, std::min(chunk, stream.size() - begin), block);
    }
    packetiser.Finish(block);
    const std::uint8_t* first = block.Packet(0);
    return {Bytes(first, first + block.Count() * tsmon::PACKET_SIZE), packetiser.Counts()};
}

} // namespace made
