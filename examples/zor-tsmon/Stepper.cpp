#include "Stepper.h"

#include <utility>

namespace tsmon {

bool StreamSorter::IsElementary(const std::uint8_t* packet)
{
    const std::uint16_t pid = PidOf(packet);
    if (BeginsUnit(packet)) {
        m_elementary[pid] = BeginsElementaryUnit(packet);
    }
    return pid == NULL_PID || m_elementary[pid];
}

Stepper::Stepper(const std::string& path, bool realtime) : m_file(path), m_realtime(realtime) {}

Stepper::Step Stepper::Advance(Pacer::TimePoint now)
{
    m_awaitsInput = false;
    if (!m_batches.empty()) {
        const std::optional<std::chrono::microseconds> due = m_batches.front().due;
        return m_stopped || !due || m_pacer.IsDue(*due, now) ? Step::BATCH : Step::WAIT;
    }
    if (m_ended) {
        return Step::END;
    }
    if (!m_file.HasInput()) {
        m_awaitsInput = true;
        return Step::WAIT;
    }
    PacketBlock block;
    m_ended = !m_file.Read(block);
    Sort(block);
    return Step::READ;
}

Batch Stepper::Take()
{
    Batch batch = std::move(m_batches.front());
    m_batches.pop_front();
    return batch;
}

void Stepper::Stop()
{
    if (m_ended) {
        return;
    }
    m_ended = true;
    m_stopped = true;
    PacketBlock block;
    m_file.Stop(block);
    Sort(block);
}

/// Makes batches of the block's packets: with a clock, new ones at each of its references.
void Stepper::Sort(const PacketBlock& block)
{
    PacketBlock tables;
    PacketBlock streams;
    for (std::size_t index = 0; index < block.Count(); ++index) {
        const std::uint8_t* packet = block.Packet(index);
        if (m_realtime && PcrOf(packet)) {
            Append(tables, streams);
            m_clock.Push(packet);
        }
        m_meter.Push(packet);
        (m_sorter.IsElementary(packet) ? streams : tables).Append(packet);
    }
    Append(tables, streams);
}

void Stepper::Append(PacketBlock& tables, PacketBlock& streams)
{
    const auto due = m_clock.IsRunning() ? std::optional(m_clock.Time()) : std::nullopt;
    for (PacketBlock* packets : {&tables, &streams}) {
        if (packets->Count() > 0) {
            StreamStatistics statistics = m_meter.Take();
            statistics.counts = m_file.Counts();
            m_batches.push_back(
                {std::exchange(*packets, {}), packets == &streams, due, std::move(statistics)});
        }
    }
}

} // namespace tsmon
