#include "Packet.h"

namespace tsmon {

namespace {

constexpr std::uint8_t TRANSPORT_ERROR = 0x80;
constexpr std::uint8_t UNIT_START = 0x40;
constexpr std::uint8_t SCRAMBLING = 0xC0;
constexpr std::uint8_t ADAPTATION_FIELD = 0x20;
constexpr std::uint8_t PAYLOAD = 0x10;
constexpr std::uint8_t COUNTER = 0x0F;
constexpr std::uint8_t DISCONTINUITY = 0x80;
constexpr std::size_t HEADER_SIZE = 4;
constexpr std::size_t START_CODE_SIZE = 3;

/// Where the payload of a packet that has one begins; may lie behind the packet's end.
std::size_t PayloadBegin(const std::uint8_t* packet)
{
    const bool hasField = (packet[3] & ADAPTATION_FIELD) != 0;
    return HEADER_SIZE + (hasField ? 1 + std::size_t{packet[HEADER_SIZE]} : 0);
}

} // namespace

std::uint16_t PidOf(const std::uint8_t* packet)
{
    return static_cast<std::uint16_t>((packet[1] & 0x1F) << 8 | packet[2]);
}

bool HasTransportError(const std::uint8_t* packet)
{
    return (packet[1] & TRANSPORT_ERROR) != 0;
}

std::uint8_t ContinuityCounterOf(const std::uint8_t* packet)
{
    return packet[3] & COUNTER;
}

bool HasPayload(const std::uint8_t* packet)
{
    return (packet[3] & PAYLOAD) != 0;
}

bool IsScrambled(const std::uint8_t* packet)
{
    return HasPayload(packet) && (packet[3] & SCRAMBLING) != 0;
}

bool AnnouncesDiscontinuity(const std::uint8_t* packet)
{
    const bool hasFlags = (packet[3] & ADAPTATION_FIELD) != 0 && packet[HEADER_SIZE] > 0;
    return hasFlags && (packet[HEADER_SIZE + 1] & DISCONTINUITY) != 0;
}

bool HasSoundPayload(const std::uint8_t* packet)
{
    if (!HasPayload(packet)) {
        return false;
    }
    std::size_t begin = PayloadBegin(packet);
    if (begin >= PACKET_SIZE) {
        return false;
    }
    if ((packet[1] & UNIT_START) != 0) {
        begin += 1 + std::size_t{packet[begin]};
    }
    return begin < PACKET_SIZE;
}

bool BeginsUnit(const std::uint8_t* packet)
{
    const bool starts = (packet[1] & UNIT_START) != 0 && HasPayload(packet);
    return starts && PayloadBegin(packet) < PACKET_SIZE;
}

bool BeginsElementaryUnit(const std::uint8_t* packet)
{
    const std::size_t begin = PayloadBegin(packet);
    return begin + START_CODE_SIZE <= PACKET_SIZE && packet[begin] == 0 && packet[begin + 1] == 0 &&
           packet[begin + 2] == 1;
}

void PacketBlock::Append(const std::uint8_t* packet)
{
    m_bytes.insert(m_bytes.end(), packet, packet + PACKET_SIZE);
}

const std::uint8_t* PacketBlock::Packet(std::size_t index) const
{
    return m_bytes.data() + index * PACKET_SIZE;
}

} // namespace tsmon
