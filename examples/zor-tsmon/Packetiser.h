#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Packet.h"

namespace tsmon {

/// How a stream's packets lie in it.
struct PacketLayout
{
    std::size_t size = PACKET_SIZE; ///< bytes from packet to packet
    std::size_t lead = 0;           ///< bytes of them that stand before the packet
};

/// Bytes in which packets are recognised if the stream has any: until there are so many, too few
/// may have come to tell.
constexpr std::size_t BYTES_TO_RECOGNISE = 2048;

/// What a stream was made of.
struct StreamCounts
{
    std::uint64_t bytes = 0;           ///< everything that was read
    std::uint64_t packets = 0;         ///< sound packets, handed on
    std::uint64_t lostSync = 0;        ///< packets' worth of bytes in which no packets were found
    std::uint64_t transportErrors = 0; ///< packets marked as broken by their sender; not handed on
    std::uint64_t truncated = 0;       ///< 1 if the stream ends inside a packet
    std::size_t packetSize = 0; ///< bytes from packet to packet, at last; 0 if none was found

    std::uint64_t Damaged() const { return lostSync + transportErrors + truncated; }
};

/// Cuts a stream of bytes into transport packets.
///
/// Packets stand alone (188 bytes), behind a time stamp of 4 bytes (192, as discs and some
/// recorders have them) or before 16 bytes of error correction (204, as some receivers hand them
/// on). Which of these it is shows in the distance of the sync bytes; what stands between packets
/// is left out. It may change where packets are searched anew: where two streams were joined.
///
/// A packet is recognised by the sync byte at its start and by those of its neighbours, so the
/// stream may begin with foreign bytes, and may have bytes changed, missing or added anywhere:
///
/// - A packet whose sync byte is gone, but whose successors stand where they should, is one damaged
///   packet.
/// - When the successors have moved, bytes were lost or added inside the packet before: it is held
///   back until its successor has been seen, and is then counted as damaged instead.
/// - Bytes without packets are skipped to the next run of packets, and counted in packets, rounded,
///   at least one.
///
/// Knows nothing of files and threads; one thread at a time may use it.
class Packetiser
{
 public:
    /// Takes the next @p size bytes of the stream and appends the packets that are certain to
    /// @p block. Holds back a few packets' worth of bytes.
    void Push(const std::uint8_t* data, std::size_t size, PacketBlock& block);

    /// The stream has ended: appends what was held back. Nothing may be pushed afterwards.
    void Finish(PacketBlock& block);

    /// Finish() for a stream that goes on but is not taken any more: a packet that has not come to
    /// its end is not counted as cut off.
    void Stop(PacketBlock& block);

    const StreamCounts& Counts() const { return m_counts; }

 private:
    enum class State
    {
        EXPECTING, ///< a packet should start at m_position
        SEARCHING, ///< none did; m_position is where to look on
    };

    /// How the sync bytes that should follow a position came out, as far as there are bytes.
    struct Evidence
    {
        std::size_t hits = 0;
        std::size_t misses = 0;
    };

    void Run(PacketBlock& block);
    bool ExpectPacket(PacketBlock& block);
    bool FindPacketInStep(PacketBlock& block);
    bool FindPacketAnywhere(PacketBlock& block);
    void GuessLayout();
    void OnSynchronised();
    void StartSearching();
    void EndSearching(PacketBlock& block);

    bool IsPacketInStep(std::size_t index) const;
    bool IsPacketAnywhere(std::size_t index) const;
    bool IsPacketOfOtherLayout(std::size_t index);
    bool IsHeldAgain() const;
    bool IsSync(std::size_t index) const;
    Evidence LookAhead(std::size_t index, std::size_t neighbours) const;
    std::size_t Available(std::size_t index) const;
    std::int64_t SignedSize() const;
    std::uint64_t InPackets(std::int64_t bytes) const;

    void Hold(std::size_t index);
    void ReleaseHeld(PacketBlock& block);
    void DropConsumed();

    State m_state = State::EXPECTING;
    PacketLayout m_layout; ///< of the packets found, or supposed; positions are its beginnings
    bool m_synchronised = false; ///< a packet has been found at some time
    bool m_final = false;        ///< no more bytes will come
    std::vector<std::uint8_t>
        m_buffer;               ///< bytes still looked at; while expecting, the held packet's too
    std::size_t m_position = 0; ///< in m_buffer
    std::int64_t m_offset = 0;  ///< searching: from where a packet was expected to m_position

    std::array<std::uint8_t, PACKET_SIZE> m_held{}; ///< the packet whose successor is awaited
    PacketLayout m_heldLayout;                      ///< in which it was found
    bool m_holding = false;

    StreamCounts m_counts;
};

} // namespace tsmon
