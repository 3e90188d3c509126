#include "Statistics.h"

#include <set>

#include "Packet.h"

namespace tsmon {

namespace {

constexpr double BITS_PER_PACKET = 8.0 * PACKET_SIZE;

/// Sums PIDs up, and makes figures of them.
class Sum
{
 public:
    void Add(const PidStatistics& pid)
    {
        m_sum.packets += pid.packets;
        m_sum.timedPackets += pid.timedPackets;
        m_sum.continuityErrors += pid.continuityErrors;
        m_sum.scrambledPackets += pid.scrambledPackets;
    }

    Figures Over(const StreamStatistics& statistics) const
    {
        Figures figures = {m_sum.packets, m_sum.continuityErrors, std::nullopt,
                           m_sum.scrambledPackets};
        const double seconds = std::chrono::duration<double>(statistics.time).count();
        if (seconds > 0) {
            figures.bitRate = static_cast<double>(m_sum.timedPackets) * BITS_PER_PACKET / seconds;
        }
        return figures;
    }

 private:
    PidStatistics m_sum;
};

Figures FiguresOf(const StreamStatistics& statistics, const std::set<std::uint16_t>& pids)
{
    Sum sum;
    for (const std::uint16_t pid : pids) {
        const auto found = statistics.pids.find(pid);
        if (found != statistics.pids.end()) {
            sum.Add(found->second);
        }
    }
    return sum.Over(statistics);
}

} // namespace

void StreamStatistics::Add(const StreamStatistics& part)
{
    if (part.counts.bytes >= counts.bytes) { // tables overtake streams that were read before
        counts = part.counts;
    }
    time += part.time;
    for (const auto& [pid, added] : part.pids) {
        PidStatistics& each = pids[pid];
        each.packets += added.packets;
        each.timedPackets += added.timedPackets;
        each.continuityErrors += added.continuityErrors;
        each.scrambledPackets += added.scrambledPackets;
    }
}

StreamStatistics StreamStatistics::Since(const StreamStatistics& earlier) const
{
    StreamStatistics result = *this;
    result.time -= earlier.time;
    for (const auto& [pid, before] : earlier.pids) {
        PidStatistics& each = result.pids[pid];
        each.packets -= before.packets;
        each.timedPackets -= before.timedPackets;
        each.continuityErrors -= before.continuityErrors;
        each.scrambledPackets -= before.scrambledPackets;
    }
    return result;
}

Figures FiguresOfAll(const StreamStatistics& statistics)
{
    Sum sum;
    for (const auto& [pid, each] : statistics.pids) {
        sum.Add(each);
    }
    return sum.Over(statistics);
}

Figures FiguresOf(const StreamStatistics& statistics, std::uint16_t pid)
{
    return FiguresOf(statistics, std::set<std::uint16_t>{pid});
}

Figures FiguresOf(const StreamStatistics& statistics, const Service& service)
{
    std::set<std::uint16_t> pids; // a set: the clock is usually one of the streams
    if (service.pmtPid) {
        pids.insert(*service.pmtPid);
    }
    if (service.map) {
        if (service.map->pcrPid != NULL_PID) { // which says that the service has no clock
            pids.insert(service.map->pcrPid);
        }
        for (const ElementaryStream& stream : service.map->streams) {
            pids.insert(stream.pid);
        }
    }
    return FiguresOf(statistics, pids);
}

} // namespace tsmon
