#include "Packetiser.h"

#include <algorithm>

namespace tsmon {

namespace {

/// Packets whose sync bytes are looked at behind a position that may be a packet's start.
constexpr std::size_t NEIGHBOURS = 4;

/// Damaged packets in a row after which the old step is given up and packets may start anywhere.
constexpr std::size_t STEPS = 5;

/// The more usual first: what fits several is taken for the first of them.
constexpr PacketLayout LAYOUTS[] = {{188, 0}, {192, 4}, {204, 0}};

constexpr std::size_t LARGEST_SIZE = 204;

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
            static_cast<std::uint64_t>((m_offset + SignedSize() - 1) / SignedSize());
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
    if (Available(m_position) <= (m_synchronised ? m_layout.lead : 0)) {
        return false; // the sync byte has not come
    }
    if (!m_synchronised || !IsSync(m_position)) {
        return FindPacketInStep(block);
    }
    if (Available(m_position) < m_layout.size) {
        return false;
    }
    ReleaseHeld(block);
    Hold(m_position);
    m_position += m_layout.size;
    return true;
}

bool Packetiser::FindPacketInStep(PacketBlock& block)
{
    const std::size_t size = m_synchronised ? m_layout.size : LARGEST_SIZE;
    if (!m_final && Available(m_position) <= (STEPS + NEIGHBOURS) * size) {
        return false;
    }
    if (!m_synchronised) {
        GuessLayout();
    }
    for (std::size_t steps = 0; steps <= STEPS; ++steps) {
        const std::size_t index = m_position + steps * m_layout.size;
        if (IsPacketInStep(index)) {
            ReleaseHeld(block);
            m_counts.lostSync += steps;
            m_position = index;
            OnSynchronised();
            return true;
        }
    }
    StartSearching();
    return true;
}

/// Takes the layout of which more sync bytes are at their places than are missing.
void Packetiser::GuessLayout()
{
    for (const PacketLayout& layout : LAYOUTS) {
        m_layout = layout;
        Evidence evidence = LookAhead(m_position, STEPS + NEIGHBOURS);
        ++(IsSync(m_position) ? evidence.hits : evidence.misses);
        if (evidence.hits > evidence.misses) {
            return;
        }
    }
    m_layout = LAYOUTS[0];
}

void Packetiser::OnSynchronised()
{
    m_synchronised = true;
    m_counts.packetSize = m_layout.size;
}

void Packetiser::StartSearching()
{
    m_state = State::SEARCHING;
    m_offset = 0;
    if (m_holding) {
        // Bytes missing from the held packet have moved its successor to somewhere inside it.
        m_position -= m_layout.size - 1;
        m_offset -= SignedSize() - 1;
    }
}

bool Packetiser::FindPacketAnywhere(PacketBlock& block)
{
    while (Available(m_position) > (m_final ? 0 : NEIGHBOURS * LARGEST_SIZE)) {
        if (IsPacketAnywhere(m_position) || IsPacketOfOtherLayout(m_position)) {
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
    if (IsHeldAgain()) {
        m_holding = false; // it is the first of the packets that have been found
    } else if (m_offset >= 0 && m_offset % SignedSize() == 0) {
        ReleaseHeld(block);
        m_counts.lostSync += static_cast<std::uint64_t>(m_offset / SignedSize());
    } else {
        m_counts.lostSync += InPackets(m_holding ? m_offset + SignedSize() : m_offset);
        m_holding = false;
    }
    m_state = State::EXPECTING;
    OnSynchronised();
}

bool Packetiser::IsPacketInStep(std::size_t index) const
{
    if (!IsSync(index)) {
        return false;
    }
    const Evidence evidence = LookAhead(index, NEIGHBOURS);
    if (evidence.hits + evidence.misses == 0) {
        // The stream's last packet; alone it is believed only if it is the whole stream.
        return m_synchronised || (index == 0 && Available(index) == m_layout.size);
    }
    return evidence.hits >= evidence.misses;
}

bool Packetiser::IsPacketAnywhere(std::size_t index) const
{
    if (!IsSync(index)) {
        return false;
    }
    const Evidence evidence = LookAhead(index, NEIGHBOURS);
    const std::size_t seen = evidence.hits + evidence.misses;
    if (seen == NEIGHBOURS) {
        return evidence.misses <= (m_synchronised ? 1U : 0U);
    }
    const bool fitsTheEnd = m_synchronised && Available(index) % m_layout.size == 0;
    return evidence.misses == 0 && (seen >= 2 || fitsTheEnd);
}

/// Takes that layout over. Once packets have been found, it takes more to believe in another one.
bool Packetiser::IsPacketOfOtherLayout(std::size_t index)
{
    const PacketLayout old = m_layout;
    for (const PacketLayout& layout : LAYOUTS) {
        m_layout = layout;
        const Evidence evidence = IsSync(index) ? LookAhead(index, NEIGHBOURS) : Evidence();
        if (evidence.misses == 0 && evidence.hits >= (m_synchronised ? NEIGHBOURS : 2)) {
            return true;
        }
    }
    m_layout = old;
    return false;
}

/// Whether the packets that were found, of another layout, begin with the held one: time stamps may
/// end with it.
bool Packetiser::IsHeldAgain() const
{
    const std::int64_t unit = m_offset + static_cast<std::int64_t>(m_heldLayout.size);
    return m_holding && unit + static_cast<std::int64_t>(m_layout.lead) ==
                            static_cast<std::int64_t>(m_heldLayout.lead);
}

bool Packetiser::IsSync(std::size_t index) const
{
    const std::size_t sync = index + m_layout.lead;
    return sync < m_buffer.size() && m_buffer[sync] == SYNC_BYTE;
}

Packetiser::Evidence Packetiser::LookAhead(std::size_t index, std::size_t neighbours) const
{
    Evidence evidence;
    for (std::size_t neighbour = 1; neighbour <= neighbours; ++neighbour) {
        const std::size_t next = index + neighbour * m_layout.size;
        if (next + m_layout.lead < m_buffer.size()) {
            ++(IsSync(next) ? evidence.hits : evidence.misses);
        }
    }
    return evidence;
}

std::size_t Packetiser::Available(std::size_t index) const
{
    return m_buffer.size() - index;
}

std::int64_t Packetiser::SignedSize() const
{
    return static_cast<std::int64_t>(m_layout.size);
}

/// @p bytes in packets, rounded; what is lost is at least one packet.
std::uint64_t Packetiser::InPackets(std::int64_t bytes) const
{
    return static_cast<std::uint64_t>(
        std::max<std::int64_t>(1, (bytes + SignedSize() / 2) / SignedSize()));
}

void Packetiser::Hold(std::size_t index)
{
    const auto packet = m_buffer.begin() + static_cast<std::ptrdiff_t>(index + m_layout.lead);
    std::copy_n(packet, PACKET_SIZE, m_held.begin());
    m_heldLayout = m_layout;
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
    const std::size_t consumed = m_position - (heldIsNeeded ? m_layout.size : 0);
    m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<std::ptrdiff_t>(consumed));
    m_position -= consumed;
}

} // namespace tsmon
