#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Messages.h"
#include "Packet.h"
#include "ServiceFinder.h"
#include "ServicesTask.h"
#include "StateAlarm.h"
#include "Statistics.h"

namespace tsmon {

/// What the parser has handled.
struct ParserCounts
{
    std::uint64_t tablePackets = 0;                ///< packets that may carry tables
    std::uint64_t streamPackets = 0;               ///< packets of elementary streams
    std::map<std::uint16_t, std::uint64_t> perPid; ///< both kinds

    std::uint64_t Packets() const { return tablePackets + streamPackets; }
};

/// Looks for tables in the packets of one queue, and counts those of both, tables first. What is
/// found is logged and sent on.
///
/// Owns the statistics of the stream, and answers who asks for them. An alarm of its own has it
/// send on what came in each second.
class ParserTask : public TCMultiQTask, private TableSink
{
 public:
    /// @param services  gets the tables and what came in each second, and behind all tables their
    ///                  end; must outlive the task
    explicit ParserTask(ServicesTask& services) : m_services(services) {}

    /// Creates the task. EndTask() ends it.
    bool Start();

    /// Asks for the statistics of what has been handled so far. Any thread but the task's own may
    /// call while the task is created.
    ///
    /// @return nothing if the queue is full
    std::optional<TickStatistics> AskStatistics();

    bool t_Create() override;
    void t_Destroy() override;
    bool t_OnEvent(const TSEvent* event) override;

    /// How often the receiver of the tables had no room for one. Any thread may call.
    std::uint64_t Refusals() const { return m_services.MessageCounts().waited; }

    // What follows may be read once the task has ended.

    const std::string& Failure() const { return m_failure; }
    const ParserCounts& Counts() const { return m_counts; }
    const StreamStatistics& Statistics() const { return m_statistics.total; }

 private:
    void OnPackets(const TSEvent& event);
    void Find(const PacketBlock& block);
    void OnEnd(const TSEvent& event);
    void OnTick();
    void OnAsk(const TSEvent& event) const;

    void OnPrograms(const ProgramAssociation& programs) override;
    void OnProgramMap(const ProgramMap& map) override;
    void OnDescriptions(const ServiceDescriptions& descriptions) override;
    void OnComplaint(Severity severity, const std::string& text) override;

    ServicesTask& m_services;

    // The task's thread's only while it runs.
    std::unique_ptr<ServiceFinder> m_finder; ///< null after a failure
    std::string m_failure;
    ParserCounts m_counts;
    TCStateAlarm m_alarm;
    TickStatistics m_statistics;
    StreamStatistics m_atTick; ///< the total at the last tick
};

} // namespace tsmon
