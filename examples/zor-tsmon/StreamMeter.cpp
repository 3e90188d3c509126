#include "StreamMeter.h"

#include <utility>

#include "Packet.h"

namespace tsmon {

void StreamMeter::Push(const std::uint8_t* packet)
{
    const std::uint16_t pid = PidOf(packet);
    PidStatistics& statistics = m_counted.pids[pid];
    ++statistics.packets;
    statistics.scrambledPackets += IsScrambled(packet) ? 1 : 0;
    if (pid != NULL_PID && !IsContinuous(packet, pid)) {
        ++statistics.continuityErrors;
    }
    const bool wasRunning = m_clock.IsRunning();
    const bool isReference = m_clock.Push(packet);
    if (wasRunning) {
        ++m_untimed[pid]; // a reference stands at its packet's end: the first one's is before it
    }
    if (isReference) {
        MeasureTime();
    }
}

StreamStatistics StreamMeter::Take()
{
    return std::exchange(m_counted, {});
}

/// The counter goes up with every packet that has a payload and stands still with the others. A
/// packet may be sent twice in a row, and an announced discontinuity may set it to anything.
bool StreamMeter::IsContinuous(const std::uint8_t* packet, std::uint16_t pid)
{
    const std::uint8_t value = ContinuityCounterOf(packet);
    const auto [found, isFirst] = m_counters.try_emplace(pid, Counter{value});
    Counter& counter = found->second;
    const Counter before = std::exchange(counter, Counter{value});
    if (isFirst || AnnouncesDiscontinuity(packet)) {
        return true;
    }
    if (!HasPayload(packet)) {
        counter.repeated = before.repeated;
        return value == before.last;
    }
    if (value == before.last) {
        counter.repeated = true;
        return !before.repeated;
    }
    return value == ((before.last + 1) & 0x0F);
}

/// A clock that stands still at a reference has jumped: how long the packets before took is
/// unknown.
void StreamMeter::MeasureTime()
{
    const std::chrono::microseconds now = m_clock.Time();
    const std::chrono::microseconds passed = now - std::exchange(m_reference, now);
    const auto untimed = std::exchange(m_untimed, {});
    if (passed.count() == 0) {
        return;
    }
    m_counted.time += passed;
    for (const auto& [pid, packets] : untimed) {
        m_counted.pids[pid].timedPackets += packets;
    }
}

} // namespace tsmon
