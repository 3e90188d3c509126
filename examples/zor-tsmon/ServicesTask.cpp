#include "ServicesTask.h"

#include <cstdio>

#include "Log.h"
#include "Statistics.h"

namespace tsmon {

namespace {

constexpr unsigned int IDLE_MSEC = 1000;

void Enter(ServiceTable& table, const ProgramAssociation& programs)
{
    table.OnPrograms(programs);
}

void Enter(ServiceTable& table, const ProgramMap& map)
{
    table.OnProgramMap(map);
}

void Enter(ServiceTable& table, const ServiceDescriptions& descriptions)
{
    table.OnDescriptions(descriptions);
}

std::string RateText(const Figures& figures)
{
    if (!figures.bitRate) {
        return "no clock";
    }
    char text[48];
    std::snprintf(text, sizeof(text), "%.1f kbit/s", *figures.bitRate / 1000);
    return text;
}

} // namespace

bool ServicesTask::Start()
{
    return Create("TsServices", IDLE_MSEC, STACK_SIZE, WATCHDOG_TIME);
}

std::optional<ServiceTable> ServicesTask::Ask()
{
    return tsmon::Ask<ServiceTable>(*this, false);
}

bool ServicesTask::t_OnEvent(const TSEvent* event)
{
    switch (event->type) {
        case MESSAGE_TABLE:
            OnTable(*event);
            return true;
        case MESSAGE_ASK:
            Reply(*event, m_table);
            return true;
        case MESSAGE_SECOND:
            OnSecond(*event);
            return true;
        case MESSAGE_END:
            m_done.Set();
            return true;
        default:
            return TCTask::t_OnEvent(event);
    }
}

void ServicesTask::OnTable(const TSEvent& event)
{
    if (const auto* table = dynamic_cast<ZORManagedEventData<Table>*>(event.wrappedData.get())) {
        std::visit([this](const auto& each) { Enter(m_table, each); }, table->data);
    }
}

void ServicesTask::OnSecond(const TSEvent& event) const
{
    using Attached = ZORManagedEventData<StreamStatistics>;
    const auto* second = dynamic_cast<Attached*>(event.wrappedData.get());
    if (second == nullptr) {
        return;
    }
    std::string services;
    for (const Service& service : m_table.Services()) {
        const Figures figures = FiguresOf(second->data, service);
        services += "; " + std::to_string(service.id) + ": " + RateText(figures) + ", " +
                    std::to_string(figures.continuityErrors) + " errors";
    }
    const Figures all = FiguresOfAll(second->data);
    ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO,
                   "last second: %llu packets, %s, %llu continuity errors%s",
                   static_cast<unsigned long long>(all.packets), RateText(all).c_str(),
                   static_cast<unsigned long long>(all.continuityErrors), services.c_str());
}

} // namespace tsmon
