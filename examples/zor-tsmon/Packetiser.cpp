#include "Packetiser.h"

#include <algorithm>

namespace tsmon {

namespace {

/// Packets whose sync bytes are looked at behind a position that may be a packet's start.
constexpr std::size_t NEIGHBOURS = 4;

/// Damaged packets in a row after which the old step is given up and packets may start anywhere.
constexpr std::size_t STEPS = 5;

constexpr auto SIGNED_PACKET_SIZE = static_cast<std::int64_t>(PACKET_SIZE);

/// @p bytes in packets, rounded; what is lost is at least one packet.
std::uint64_t InPackets(std::int64_t bytes)
{
    return static_cast<std::uint64_t>(
        std::max<std::int64_t>(1, (bytes + SIGNED_PACKET_SIZE / 2) / SIGNED_PACKET_SIZE));
}

} // namespace

void Packetiser::Push(const std::uint8_t* data, std::size_t size, PacketBlock& block)
{
    m_counts.bytes += size;
    m_buffer.insert(m_buffer.end(), data, data + size);
    Run(block);
}

void Packetiser::Finish(PacketBlock& block)
{
    m_final = true;
    Run(block);
    ReleaseHeld(block);
    if (m_state == State::EXPECTING) {
        m_counts.truncated += Available(m_position) > 0 ? 1 : 0;
    } else if (m_offset > 0) {
        m_counts.lostSync +=
            static_cast<std::uint64_t>((m_offset + SIGNED_PACKET_SIZE - 1) / SIGNED_PACKET_SIZE);
    }
}

void Packetiser::Stop(PacketBlock& block)
{
    Finish(block);
    m_counts.truncated = 0;
}

void Packetiser::Run(PacketBlock& block)
{
    bool progress = true;
    while (progress) {
        progress = m_state == State::EXPECTING ? ExpectPacket(block) : FindPacketAnywhere(block);
    }
    DropConsumed();
}

bool Packetiser::ExpectPacket(PacketBlock& block)
{
    if (Available(m_position) == 0) {
        return false;
    }
    if (!m_synchronised || !IsSync(m_position)) {
        return FindPacketInStep(block);
    }
    if (Available(m_position) < PACKET_SIZE) {
        return false;
    }
    ReleaseHeld(block);
    Hold(m_position);
    m_position += PACKET_SIZE;
    return true;
}

bool Packetiser::FindPacketInStep(PacketBlock& block)
{
    if (!m_final && Available(m_position) <= (STEPS + NEIGHBOURS) * PACKET_SIZE) {
        return false;
    }
    for (std::size_t steps = 0; steps <= STEPS; ++steps) {
        const std::size_t index = m_position + steps * PACKET_SIZE;
        if (IsPacketInStep(index)) {
            ReleaseHeld(block);
            m_counts.lostSync += steps;
            m_position = index;
            m_synchronised = true;
            return true;
        }
    }
    StartSearching();
    return true;
}

void Packetiser::StartSearching()
{
    m_state = State::SEARCHING;
    m_offset = 0;
    if (m_holding) {
        // Bytes missing from the held packet have moved its successor to somewhere inside it.
        m_position -= PACKET_SIZE - 1;
        m_offset -= SIGNED_PACKET_SIZE - 1;
    }
}

bool Packetiser::FindPacketAnywhere(PacketBlock& block)
{
    while (Available(m_position) > (m_final ? 0 : NEIGHBOURS * PACKET_SIZE)) {
        if (IsPacketAnywhere(m_position)) {
            EndSearching(block);
            return true;
        }
        ++m_position;
        ++m_offset;
    }
    return false;
}

void Packetiser::EndSearching(PacketBlock& block)
{
    if (m_offset % SIGNED_PACKET_SIZE == 0) {
        ReleaseHeld(block);
        m_counts.lostSync += static_cast<std::uint64_t>(m_offset / SIGNED_PACKET_SIZE);
    } else {
        m_counts.lostSync += InPackets(m_holding ? m_offset + SIGNED_PACKET_SIZE : m_offset);
        m_holding = false;
    }
    m_state = State::EXPECTING;
    m_synchronised = true;
}

bool Packetiser::IsPacketInStep(std::size_t index) const
{
    if (!IsSync(index)) {
        return false;
    }
    const Evidence evidence = LookAhead(index);
    if (evidence.hits + evidence.misses == 0) {
        // The stream's last packet; alone it is believed only if it is the whole stream.
        return m_synchronised || (index == 0 && Available(index) == PACKET_SIZE);
    }
    return evidence.hits >= evidence.misses;
}

bool Packetiser::IsPacketAnywhere(std::size_t index) const
{
    if (!IsSync(index)) {
        return false;
    }
    const Evidence evidence = LookAhead(index);
    const std::size_t seen = evidence.hits + evidence.misses;
    if (seen == NEIGHBOURS) {
        return evidence.misses <= (m_synchronised ? 1U : 0U);
    }
    const bool fitsTheEnd = m_synchronised && Available(index) % PACKET_SIZE == 0;
    return evidence.misses == 0 && (seen >= 2 || fitsTheEnd);
}

bool Packetiser::IsSync(std::size_t index) const
{
    return index < m_buffer.size() && m_buffer[index] == SYNC_BYTE;
}

Packetiser::Evidence Packetiser::LookAhead(std::size_t index) const
{
    Evidence evidence;
    for (std::size_t neighbour = 1; neighbour <= NEIGHBOURS; ++neighbour) {
        const std::size_t next = index + neighbour * PACKET_SIZE;
        if (next < m_buffer.size()) {
            ++(IsSync(next) ? evidence.hits : evidence.misses);
        }
    }
    return evidence;
}

std::size_t Packetiser::Available(std::size_t index) const
{
    return m_buffer.size() - index;
}

void Packetiser::Hold(std::size_t index)
{
    std::copy_n(m_buffer.begin() + static_cast<std::ptrdiff_t>(index), PACKET_SIZE, m_held.begin());
    m_holding = true;
}

void Packetiser::ReleaseHeld(PacketBlock& block)
{
    if (!m_holding) {
        return;
    }
    m_holding = false;
    if (HasTransportError(m_held.data())) {
        ++m_counts.transportErrors;
    } else {
        ++m_counts.packets;
        block.Append(m_held.data());
    }
}

void Packetiser::DropConsumed()
{
    const bool heldIsNeeded = m_state == State::EXPECTING && m_holding;
    const std::size_t consumed = m_position - (heldIsNeeded ? PACKET_SIZE : 0);
    m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<std::ptrdiff_t>(consumed));
    m_position -= consumed;
}

} // namespace tsmon
