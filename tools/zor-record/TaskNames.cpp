#include "TaskNames.h"

namespace zorrecord {

TaskNames::TaskNames(const std::vector<Call>& calls)
{
    for (const Call& call : calls) {
        if (call.shape == Shape::HANDLING && call.event) {
            m_names[{call.record->session, call.event->receiver}] = call.record->threadName;
        }
    }
}

const std::string& TaskNames::ReceiverOf(const Call& call) const
{
    static const std::string none;
    if (!call.event) {
        return none;
    }
    const auto found = m_names.find({call.record->session, call.event->receiver});
    return found != m_names.end() ? found->second : none;
}

} // namespace zorrecord
