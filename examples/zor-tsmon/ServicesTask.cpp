#include "ServicesTask.h"

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

} // namespace

bool ServicesTask::Start()
{
    return Create("TsServices", IDLE_MSEC, STACK_SIZE, WATCHDOG_TIME);
}

std::optional<ServiceTable> ServicesTask::Ask()
{
    ServiceTable answer;
    TSEvent event;
    event.receiver = this;
    event.type = MESSAGE_ASK;
    event.flag = true;
    event.setWrappedData(&answer);
    return Send(&event, true, false) ? std::optional(answer) : std::nullopt;
}

bool ServicesTask::t_OnEvent(const TSEvent* event)
{
    switch (event->type) {
        case MESSAGE_TABLE:
            OnTable(*event);
            return true;
        case MESSAGE_ASK:
            OnAsk(*event);
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

void ServicesTask::OnAsk(const TSEvent& event) const
{
    using Place = ZORManagedEventData<ServiceTable*>;
    if (const auto* place = dynamic_cast<Place*>(event.wrappedData.get())) {
        *place->data = m_table; // the asker waits, so its place is there
    }
}

} // namespace tsmon
