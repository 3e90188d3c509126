#include "Order.h"

namespace storm {

std::string Order::Check(const Facts& event, Stamp taken)
{
    Queue& queue = m_queues[event.queue];
    std::string wrong = CheckQueues(event);
    if (event.priority) {
        const std::string more = CheckPriority(event, taken, &queue);
        wrong = wrong.empty() ? more : wrong;
    } else {
        std::uint64_t& last = queue.lastOrdinary[event.sender];
        if (event.id <= last) {
            wrong = "handled after event " + std::to_string(last) + " of the same sender";
        }
        last = event.id;
        queue.lastOrdinaryTaken = taken;
    }
    queue.lastTaken = taken;
    return wrong;
}

/// A queue is not looked at while one before it holds an event.
std::string Order::CheckQueues(const Facts& event) const
{
    for (unsigned behind = event.queue + 1; behind < MAX_QUEUES; ++behind) {
        if (event.accepted != 0 && m_queues[behind].lastTaken > event.accepted) {
            return "an event of queue " + std::to_string(behind) + " was taken before it";
        }
    }
    return {};
}

/// A priority event overtakes all that are queued. So neither an ordinary event nor an older
/// priority event (one of the same sender: of others it is not known which is older) can have been
/// taken after it was put.
///
/// Of the older ones the one taken last decides. An event makes those that were taken before it and
/// are younger than it superfluous, so what is kept rises in both.
std::string Order::CheckPriority(const Facts& event, Stamp taken, Queue* queue)
{
    constexpr std::size_t KEPT = 32; // with fewer, less would be noticed

    std::string wrong;
    if (event.accepted != 0 && queue->lastOrdinaryTaken > event.accepted) {
        wrong = "an ordinary event was taken before it";
    }
    std::vector<Taken>& kept = queue->priority[event.sender];
    while (!kept.empty() && kept.back().id > event.id) {
        kept.pop_back();
    }
    if (!kept.empty() && event.accepted != 0 && kept.back().stamp > event.accepted) {
        wrong =
            "the older priority event " + std::to_string(kept.back().id) + " was taken before it";
    }
    kept.push_back({event.id, taken});
    if (kept.size() > KEPT) {
        kept.erase(kept.begin());
    }
    return wrong;
}

std::string Firings::Check(std::uint32_t index)
{
    std::string wrong;
    if (index <= m_last && ++m_seen > m_restarts.load()) {
        wrong = "firing " + std::to_string(index) + " came after firing " + std::to_string(m_last);
    }
    m_last = index;
    return wrong;
}

} // namespace storm
