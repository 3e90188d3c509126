#include "Flows.h"

#include <algorithm>
#include <deque>
#include <map>
#include <numeric>
#include <optional>
#include <tuple>

namespace zorrecord {

namespace {

/// What an event has in common with the copy of it that is handled.
auto KeyOf(const Call& call, std::uint32_t sender)
{
    const EventFields& event = *call.event;
    return std::make_tuple(call.record->session, sender, event.receiver, event.type, event.param1,
                           event.param2, event.param3, event.param4, event.param5, event.param6,
                           event.wrappedData, event.wrappedControl);
}

using Key = decltype(KeyOf(std::declval<const Call&>(), 0));

/// Sends that are alike and not yet handled, by queue.
using Pending = std::map<unsigned int, std::deque<std::size_t>>;

class Matching
{
 public:
    explicit Matching(const std::vector<Call>& calls) : m_calls(calls)
    {
        std::vector<std::size_t> order(calls.size());
        std::iota(order.begin(), order.end(), 0);
        std::stable_sort(order.begin(), order.end(), [&](std::size_t left, std::size_t right) {
            return calls[left].beginNsec < calls[right].beginNsec;
        });
        for (const std::size_t call : order) {
            if (!calls[call].event) {
                continue;
            }
            if (calls[call].shape == Shape::SEND) {
                AddSend(call);
            } else if (calls[call].shape == Shape::HANDLING) {
                AddHandling(call);
            }
        }
    }

    std::vector<Flow> TakeFlows() { return std::move(m_flows); }

 private:
    void AddSend(std::size_t index)
    {
        const Call& send = m_calls[index];
        if (send.result == false) {
            return;
        }
        auto& sends = m_pending[KeyOf(send, send.record->threadHandle)][send.queue];
        if (send.priority) {
            sends.push_front(index);
        } else {
            sends.push_back(index);
        }
    }

    void AddHandling(std::size_t index)
    {
        std::optional<std::size_t> send = DirectSend(index);
        if (!send) {
            send = QueuedSend(index);
        }
        if (send) {
            m_flows.push_back({*send, index});
        }
    }

    /// The send inside of which the handling runs.
    std::optional<std::size_t> DirectSend(std::size_t index)
    {
        const Call& handling = m_calls[index];
        if (handling.caller == Call::NONE) {
            return std::nullopt;
        }
        const Call& caller = m_calls[handling.caller];
        if (caller.shape != Shape::SEND || !caller.event ||
            caller.event->address != handling.event->address) {
            return std::nullopt;
        }
        auto& sends = m_pending[KeyOf(caller, caller.record->threadHandle)][caller.queue];
        sends.erase(std::remove(sends.begin(), sends.end(), handling.caller), sends.end());
        return handling.caller;
    }

    std::optional<std::size_t> QueuedSend(std::size_t index)
    {
        const Call& handling = m_calls[index];
        const auto found = m_pending.find(KeyOf(handling, handling.event->sender));
        if (found == m_pending.end()) {
            return std::nullopt;
        }
        for (auto& [queue, sends] : found->second) {
            while (!sends.empty()) {
                const std::size_t send = sends.front();
                sends.pop_front();
                // A synchronous send that has returned was answered before.
                const Call& candidate = m_calls[send];
                if (!candidate.sync || !candidate.finished ||
                    candidate.endNsec >= handling.beginNsec) {
                    return send;
                }
            }
        }
        return std::nullopt;
    }

    const std::vector<Call>& m_calls;
    std::map<Key, Pending> m_pending;
    std::vector<Flow> m_flows;
};

} // namespace

std::vector<Flow> FlowsOf(const std::vector<Call>& calls)
{
    return Matching(calls).TakeFlows();
}

} // namespace zorrecord
