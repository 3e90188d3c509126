#include "Circles.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace zorrecord {

std::vector<std::vector<std::size_t>> CirclesOf(const std::vector<Call>& calls,
                                                const TaskNames& names)
{
    // Of each thread the innermost send that has not finished: that is what it waits for. Inner
    // calls come later.
    std::map<std::pair<std::uint32_t, std::string>, std::size_t> waits;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        const Call& call = calls[i];
        const bool waiting = call.shape == Shape::SEND && call.sync && !call.finished;
        if (waiting) {
            waits[{call.record->session, call.record->threadName}] = i;
        }
    }
    std::vector<std::vector<std::size_t>> circles;
    std::vector<bool> isDone(calls.size());
    for (const auto& [thread, first] : waits) {
        std::vector<std::size_t> chain;
        for (std::size_t at = first;;) {
            const auto again = std::find(chain.begin(), chain.end(), at);
            if (again != chain.end()) {
                circles.emplace_back(again, chain.end());
                break;
            }
            if (isDone[at]) {
                break;
            }
            chain.push_back(at);
            const auto next = waits.find({calls[at].record->session, names.ReceiverOf(calls[at])});
            if (next == waits.end()) {
                break;
            }
            at = next->second;
        }
        for (const std::size_t call : chain) {
            isDone[call] = true;
        }
    }
    return circles;
}

} // namespace zorrecord
