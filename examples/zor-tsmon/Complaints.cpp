#include "Complaints.h"

#include <cstdint>
#include <utility>

namespace tsmon {

namespace {

std::string Count(std::uint64_t number, const std::string& one)
{
    return std::to_string(number) + " " + one + (number == 1 ? "" : "s");
}

std::string DescribeDamage(const StreamCounts& counts)
{
    const std::pair<std::uint64_t, const char*> kinds[] = {
        {counts.lostSync, " lost or out of sync"},
        {counts.transportErrors, " with the transport error indicator set"},
        {counts.truncated, " cut off at the end"},
    };
    std::string details;
    for (const auto& [number, text] : kinds) {
        if (number > 0) {
            details += (details.empty() ? "" : ", ") + std::to_string(number) + text;
        }
    }
    return "is damaged: " + Count(counts.Damaged(), "damaged packet") + " (" + details + "), " +
           Count(counts.packets, "packet") + " read";
}

} // namespace

std::vector<std::string> ComplaintsOf(const Outcome& outcome)
{
    const StreamCounts& counts = outcome.counts;
    std::vector<std::string> complaints;
    if (!outcome.failure.empty()) {
        complaints.push_back(outcome.failure);
    } else if (outcome.stopped) {
        // Too little may have been read to say more about the file.
    } else if (counts.bytes == 0) {
        complaints.emplace_back("is empty");
    } else if (counts.packets == 0 && counts.transportErrors == 0) {
        complaints.push_back("is not a transport stream: no 188-byte packets in " +
                             Count(counts.bytes, "byte"));
    }
    if (counts.packets + counts.transportErrors > 0) {
        if (counts.Damaged() > 0) {
            complaints.push_back(DescribeDamage(counts));
        }
        if (outcome.table.Services().empty() && !outcome.stopped) {
            complaints.emplace_back("announces no services: neither its PAT nor its SDT has any");
        }
    }
    return complaints;
}

} // namespace tsmon
