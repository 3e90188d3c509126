#include "ParserTask.h"

#include <exception>
#include <utility>

#include "Batch.h"
#include "Log.h"

namespace tsmon {

namespace {

constexpr unsigned int WAIT_MSEC = 100;
constexpr int TICK_MSEC = 1000;
constexpr int ENDLESS = -1;

} // namespace

bool ParserTask::Start()
{
    return Create("TsParser", WAIT_MSEC, STACK_SIZE, QUEUE_COUNT, WATCHDOG_TIME);
}

std::optional<TickStatistics> ParserTask::AskStatistics()
{
    TickStatistics answer;
    TSEvent event;
    event.receiver = this;
    event.type = MESSAGE_ASK;
    event.flag = true;
    event.setWrappedData(&answer);
    return TCTask::Send(&event, true, true) ? std::optional(std::move(answer)) : std::nullopt;
}

bool ParserTask::t_Create()
{
    try {
        TableSink& sink = *this; // private to others, std::make_unique() included
        m_finder = std::make_unique<ServiceFinder>(sink);
    } catch (const std::exception& error) {
        m_failure = error.what();
    }
    if (!m_alarm.Create(this, MESSAGE_TICK, TICK_MSEC, ENDLESS)) {
        ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_WARN, "no alarm: statistics come at the end only");
    }
    return true; // the packets are taken in any case: nobody is left waiting for room
}

/// On the task's own thread no event of the alarm can be under way.
void ParserTask::t_Destroy()
{
    if (m_alarm.FlagCreate()) {
        m_alarm.Destroy();
    }
    TCMultiQTask::t_Destroy();
}

bool ParserTask::t_OnEvent(const TSEvent* event)
{
    switch (event->type) {
        case MESSAGE_PACKETS:
            OnPackets(*event);
            return true;
        case MESSAGE_END:
            OnEnd(*event);
            return true;
        case MESSAGE_TICK:
            OnTick();
            return true;
        case MESSAGE_ASK:
            OnAsk(*event);
            return true;
        default:
            return TCMultiQTask::t_OnEvent(event);
    }
}

void ParserTask::OnPackets(const TSEvent& event)
{
    const auto* attached = dynamic_cast<ZORManagedEventData<Batch>*>(event.wrappedData.get());
    if (attached == nullptr) {
        return;
    }
    const PacketBlock& packets = attached->data.packets;
    for (std::size_t index = 0; index < packets.Count(); ++index) {
        ++m_counts.perPid[PidOf(packets.Packet(index))];
    }
    m_statistics.total.Add(attached->data.statistics);
    if (event.param1 == QUEUE_STREAMS) {
        m_counts.streamPackets += packets.Count();
    } else {
        m_counts.tablePackets += packets.Count();
        Find(packets);
    }
}

void ParserTask::Find(const PacketBlock& block)
{
    try {
        for (std::size_t index = 0; m_finder && index < block.Count(); ++index) {
            m_finder->Push(block.Packet(index));
        }
    } catch (const std::exception& error) {
        m_failure = error.what();
        m_finder.reset();
    }
}

/// The end comes behind everything in the last queue. Packets sent before it may still be in the
/// first one, so it goes there for another round and counts when it comes back.
void ParserTask::OnEnd(const TSEvent& event)
{
    if (event.param1 == QUEUE_TABLES) {
        m_services.Post(TablesEnd(), zor::WaitAtMost(FOR_EVER));
        return;
    }
    TSEvent end;
    end.receiver = this;
    end.type = MESSAGE_END;
    end.flag = true;
    end.param1 = QUEUE_TABLES;
    if (!TCMultiQTask::Send(&end, false, false, QUEUE_TABLES)) {
        // Its own thread cannot wait for room. In the last queue there is some, where it has just
        // come from.
        end.param1 = QUEUE_STREAMS;
        TCMultiQTask::Send(&end, false, false, QUEUE_STREAMS);
    }
}

void ParserTask::OnTick()
{
    m_statistics.lastSecond = m_statistics.total.Since(m_atTick);
    m_atTick = m_statistics.total;
    m_services.Post(m_statistics.lastSecond, zor::DropWhenFull()); // that second is not logged
}

/// The asker waits.
void ParserTask::OnAsk(const TSEvent& event) const
{
    using Place = ZORManagedEventData<TickStatistics*>;
    if (const auto* place = dynamic_cast<Place*>(event.wrappedData.get())) {
        *place->data = m_statistics;
    }
}

void ParserTask::OnPrograms(const ProgramAssociation& programs)
{
    ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO, "PAT version %d of transport stream %d: %zu services",
                   programs.version, programs.transportStreamId, programs.programs.size());
    m_services.Post(programs, zor::WaitAtMost(FOR_EVER));
}

void ParserTask::OnProgramMap(const ProgramMap& map)
{
    ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO,
                   "PMT version %d of service %d: %zu elementary streams", map.version,
                   map.serviceId, map.streams.size());
    m_services.Post(map, zor::WaitAtMost(FOR_EVER));
}

void ParserTask::OnDescriptions(const ServiceDescriptions& descriptions)
{
    ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO, "SDT version %d of transport stream %d: %zu services",
                   descriptions.version, descriptions.transportStreamId,
                   descriptions.services.size());
    m_services.Post(descriptions, zor::WaitAtMost(FOR_EVER));
}

void ParserTask::OnComplaint(Severity severity, const std::string& text)
{
    ZOR_LOG_TAGGED(LOG_TAG, false, severity == Severity::ERROR ? DLOG_ERROR : DLOG_WARN, "%s",
                   text.c_str());
}

} // namespace tsmon
