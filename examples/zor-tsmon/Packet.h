#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// @file
/// What one transport packet says in its header, and packets in bulk.

namespace tsmon {

constexpr std::size_t PACKET_SIZE = 188;
constexpr std::uint8_t SYNC_BYTE = 0x47;

constexpr std::uint16_t PAT_PID = 0x0000;
constexpr std::uint16_t SDT_PID = 0x0011;
constexpr std::uint16_t NULL_PID = 0x1FFF;

/// The packet identifier, 0 to 0x1FFF, of the packet at @p packet (PACKET_SIZE bytes).
std::uint16_t PidOf(const std::uint8_t* packet);

/// Whether a demodulator before us gave the packet up as broken.
bool HasTransportError(const std::uint8_t* packet);

/// The counter, 0 to 15, that goes up with each packet of a PID that has a payload.
std::uint8_t ContinuityCounterOf(const std::uint8_t* packet);

/// Whether the packet says that it has a payload.
bool HasPayload(const std::uint8_t* packet);

/// Whether its payload is scrambled, so that only its header can be read.
bool IsScrambled(const std::uint8_t* packet);

/// Whether the packet announces that counters and clock may jump here.
bool AnnouncesDiscontinuity(const std::uint8_t* packet);

/// Whether the packet carries a payload that lies inside it: a broken adaptation field or section
/// pointer would lead a section decoder past the packet's end.
bool HasSoundPayload(const std::uint8_t* packet);

/// Whether a unit (of an elementary stream, or a section) begins in the packet's sound payload.
bool BeginsUnit(const std::uint8_t* packet);

/// Whether that unit is an elementary stream's. Only asked where BeginsUnit().
bool BeginsElementaryUnit(const std::uint8_t* packet);

/// Whole packets, in the order of the stream, that travel from the reader to the parser together.
class PacketBlock
{
 public:
    /// Appends a copy of the PACKET_SIZE bytes at @p packet.
    void Append(const std::uint8_t* packet);

    /// The packet number @p index, which must be below Count().
    const std::uint8_t* Packet(std::size_t index) const;

    std::size_t Count() const { return m_bytes.size() / PACKET_SIZE; }
    void Clear() { m_bytes.clear(); }

 private:
    std::vector<std::uint8_t> m_bytes;
};

} // namespace tsmon
