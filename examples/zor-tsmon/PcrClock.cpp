#include "PcrClock.h"

#include <algorithm>

#include "Packet.h"

namespace tsmon {

namespace {

constexpr std::uint8_t HAS_ADAPTATION_FIELD = 0x20;
constexpr std::uint8_t HAS_PCR = 0x10;
constexpr std::size_t PCR_FIELD_SIZE = 7; ///< flags and reference

constexpr std::uint64_t TICKS_PER_MICROSECOND = 27;
constexpr std::uint64_t EXTENSION_RANGE = 300;
constexpr std::uint64_t PCR_RANGE = (UINT64_C(1) << 33) * EXTENSION_RANGE;

/// References are due every tenth of a second. What is far longer is a cut, not a lost packet.
constexpr std::uint64_t LONGEST_GAP = UINT64_C(5) * 1000 * 1000 * TICKS_PER_MICROSECOND;

/// References of other PIDs after which the followed one counts as silent.
constexpr int SILENCE = 100;

constexpr std::chrono::seconds LONGEST_LAG(1);

} // namespace

std::optional<std::uint64_t> PcrOf(const std::uint8_t* packet)
{
    const bool hasField = (packet[3] & HAS_ADAPTATION_FIELD) != 0 && packet[4] >= PCR_FIELD_SIZE;
    if (!hasField || (packet[5] & HAS_PCR) == 0) {
        return std::nullopt;
    }
    std::uint64_t bits = 0;
    for (std::size_t index = 6; index < 12; ++index) {
        bits = bits << 8 | packet[index];
    }
    // 33 bits of base, 6 that mean nothing, 9 of extension.
    return (bits >> 15) * EXTENSION_RANGE + std::min(bits & 0x1FF, EXTENSION_RANGE - 1);
}

bool PcrClock::Push(const std::uint8_t* packet)
{
    const std::optional<std::uint64_t> pcr = PcrOf(packet);
    if (!pcr) {
        return false;
    }
    const std::uint16_t pid = PidOf(packet);
    const bool followed = !m_pid || *m_pid == pid;
    if (!followed && ++m_others < SILENCE) {
        return false;
    }
    const std::uint64_t ticks = (*pcr + PCR_RANGE - m_last) % PCR_RANGE;
    const bool continuous =
        m_pid && followed && !AnnouncesDiscontinuity(packet) && ticks <= LONGEST_GAP;
    m_elapsed += continuous ? ticks : 0;
    m_pid = pid;
    m_last = *pcr;
    m_others = 0;
    return true;
}

std::chrono::microseconds PcrClock::Time() const
{
    return std::chrono::microseconds(m_elapsed / TICKS_PER_MICROSECOND);
}

bool Pacer::IsDue(std::chrono::microseconds streamTime, TimePoint now)
{
    if (!m_start || now > *m_start + streamTime + LONGEST_LAG) {
        m_start = now - streamTime;
    }
    return now >= *m_start + streamTime;
}

} // namespace tsmon
