#include "Top.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <numeric>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Calls.h"
#include "Flows.h"
#include "TextPrint.h"

namespace zorrecord {

namespace {

/// Durations, from the least to the greatest once they are complete.
using Durations = std::vector<std::uint64_t>;

/// The least duration that @p percent of them do not exceed; 0 if there is none.
std::uint64_t Percentile(const Durations& sorted, std::size_t percent)
{
    if (sorted.empty()) {
        return 0;
    }
    const std::size_t rank = (sorted.size() * percent + 99) / 100;
    return sorted[std::max<std::size_t>(rank, 1) - 1];
}

struct Row
{
    std::uint64_t Total() const
    {
        return std::accumulate(handling.begin(), handling.end(), std::uint64_t{0});
    }

    std::string task;
    std::uint64_t type = 0;
    std::size_t unfinished = 0;
    Durations waiting; ///< of those whose send is in the recording
    Durations handling;
};

std::vector<Row> RowsOf(const std::vector<Call>& calls)
{
    std::map<std::pair<std::string, std::uint64_t>, Row> rows;
    const auto rowOf = [&rows](const Call& call) -> Row& {
        return rows[{call.record->threadName, call.event->type}];
    };
    for (const Call& call : calls) {
        if (call.shape == Shape::HANDLING && call.event) {
            Row& row = rowOf(call);
            row.handling.push_back(call.endNsec - call.beginNsec);
            row.unfinished += call.finished ? 0 : 1;
        }
    }
    for (const Flow& flow : FlowsOf(calls)) {
        const Call& handling = calls[flow.handling];
        const std::uint64_t sent = std::min(calls[flow.send].beginNsec, handling.beginNsec);
        rowOf(handling).waiting.push_back(handling.beginNsec - sent);
    }
    std::vector<Row> sorted;
    for (auto& [key, row] : rows) {
        row.task = key.first;
        row.type = key.second;
        std::sort(row.waiting.begin(), row.waiting.end());
        std::sort(row.handling.begin(), row.handling.end());
        sorted.push_back(std::move(row));
    }
    std::stable_sort(sorted.begin(), sorted.end(), [](const Row& left, const Row& right) {
        return left.Total() > right.Total();
    });
    return sorted;
}

std::string Cells(const Durations& durations)
{
    std::string cells;
    for (const std::size_t percent : {50, 99, 100}) {
        char cell[32] = "          -";
        if (!durations.empty()) {
            std::snprintf(cell, sizeof(cell), "%11.3f",
                          static_cast<double>(Percentile(durations, percent)) / 1e6);
        }
        cells += cell;
    }
    return cells;
}

void PrintTable(const std::vector<Row>& rows, const TypeNames& types, std::ostream& out)
{
    out << "                                         waiting, ms                      "
           "handling, ms\n"
           "task                  type  handled     median        p99   greatest     median        "
           "p99   greatest\n";
    for (const Row& row : rows) {
        char head[80];
        std::snprintf(head, sizeof(head), "%-16s %9llu %8zu", Escaped(row.task).c_str(),
                      static_cast<unsigned long long>(row.type), row.handling.size());
        out << head << Cells(row.waiting) << Cells(row.handling);
        if (const std::string& name = types.NameOf(row.type); !name.empty()) {
            out << "  " << Escaped(name);
        }
        if (row.unfinished != 0) {
            out << "  " << row.unfinished << " unfinished";
        }
        out << '\n';
    }
}

nlohmann::json JsonOf(const Durations& durations)
{
    return {{"count", durations.size()},
            {"median_ns", Percentile(durations, 50)},
            {"p99_ns", Percentile(durations, 99)},
            {"greatest_ns", Percentile(durations, 100)}};
}

} // namespace

nlohmann::json TopOf(const std::vector<Call>& calls, const TypeNames& types)
{
    nlohmann::json list = nlohmann::json::array();
    for (const Row& row : RowsOf(calls)) {
        nlohmann::json object = {{"task", row.task},
                                 {"type", row.type},
                                 {"unfinished", row.unfinished},
                                 {"waiting", JsonOf(row.waiting)},
                                 {"handling", JsonOf(row.handling)}};
        if (const std::string& name = types.NameOf(row.type); !name.empty()) {
            object["type_name"] = name;
        }
        list.push_back(std::move(object));
    }
    return list;
}

void PrintTop(const Recording& recording, const TypeNames& types, bool asJson, std::ostream& out)
{
    const std::vector<Call> calls = CallsOf(recording);
    if (!asJson) {
        PrintTable(RowsOf(calls), types, out);
        return;
    }
    out << TopOf(calls, types).dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
        << '\n';
}

} // namespace zorrecord
