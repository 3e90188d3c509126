#include "PageData.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Calls.h"
#include "Circles.h"
#include "Flows.h"
#include "Path.h"
#include "TaskNames.h"
#include "Top.h"

namespace zorrecord {

namespace {

using nlohmann::json;

/// Gives each key a number, in the order in which they come.
template <typename Key>
class Numbers
{
 public:
    /// The number of @p key, and whether it is new.
    std::pair<std::size_t, bool> Of(const Key& key)
    {
        const auto [at, isNew] = m_numbers.emplace(key, m_numbers.size());
        return {at->second, isNew};
    }

 private:
    std::map<Key, std::size_t> m_numbers;
};

std::string Hex(std::uint64_t number)
{
    char text[32];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(number));
    return text;
}

/// What stands in a parameter that is not set.
constexpr std::uint64_t UNSET_16 = 0xFFFF;
constexpr std::uint64_t UNSET_64 = ~std::uint64_t{0};

/// The parameters that are set.
std::string ParametersOf(const EventFields& event)
{
    std::string text;
    const auto add = [&text](const char* name, std::uint64_t value, std::uint64_t unset = 0) {
        if (value != unset) {
            const std::string number = value < 1000000 ? std::to_string(value) : Hex(value);
            text += (text.empty() ? "" : " ") + std::string(name) + '=' + number;
        }
    };
    add("param1", event.param1);
    add("param2", event.param2);
    add("param3", event.param3, UNSET_16);
    add("param4", event.param4, UNSET_16);
    add("param5", event.param5, UNSET_64);
    add("param6", event.param6);
    if (!event.appName.empty()) {
        text += (text.empty() ? "" : " ") + std::string("application=") + event.appName;
    }
    return text;
}

class Data
{
 public:
    Data(const Recording& recording, const TypeNames& types)
        : m_recording(recording), m_types(types), m_calls(CallsOf(recording)), m_names(m_calls)
    {}

    json Of(const Selection& selection)
    {
        m_data = {{"process", m_recording.process},
                  {"pid", m_recording.session},
                  {"began_ns", std::to_string(m_recording.startRealtimeNsec)},
                  {"goes_on", m_recording.goesOn},
                  {"overwritten_bytes", m_recording.overwrittenBytes},
                  {"gaps", m_recording.gaps},
                  {"records", m_recording.records.size()},
                  {"lanes", json::array()},
                  {"types", json::array()},
                  {"sites", json::array()}};
        AddSpan();
        AddCalls();
        json flows = json::array();
        for (const Flow& flow : FlowsOf(m_calls)) {
            flows.push_back(flow.send);
            flows.push_back(flow.handling);
        }
        m_data["flows"] = std::move(flows);
        m_data["circles"] = CirclesOf(m_calls, m_names);
        m_data["path"] = Path(selection);
        m_data["top"] = TopOf(m_calls, m_types);
        return std::move(m_data);
    }

 private:
    std::int64_t SinceStart(std::uint64_t nsec) const
    {
        return static_cast<std::int64_t>(nsec - m_recording.startMonotonicNsec);
    }

    void AddSpan()
    {
        std::int64_t from = 0;
        std::int64_t to = 0;
        if (!m_recording.records.empty()) {
            const auto byTime = [](const Record& left, const Record& right) {
                return left.timeNsec < right.timeNsec;
            };
            const auto& records = m_recording.records;
            from = SinceStart(std::min_element(records.begin(), records.end(), byTime)->timeNsec);
            to = SinceStart(EndOf(m_recording));
        }
        m_data["from_ns"] = from;
        m_data["to_ns"] = to;
    }

    std::size_t LaneOf(const Record& record)
    {
        const auto [lane, isNew] = m_lanes.Of({record.session, record.thread});
        if (isNew) {
            m_data["lanes"].push_back(
                {{"name", record.threadName}, {"thread", record.thread}, {"pid", record.session}});
        } else {
            m_data["lanes"][lane]["name"] = record.threadName; // the last one it had
        }
        return lane;
    }

    std::int64_t TypeOf(const Call& call)
    {
        if (!call.event) {
            return -1;
        }
        const std::uint64_t type = call.event->type;
        const auto [number, isNew] = m_typeNumbers.Of(type);
        if (isNew) {
            m_data["types"].push_back(
                {{"type", std::to_string(type)}, {"name", m_types.NameOf(type)}});
        }
        return static_cast<std::int64_t>(number);
    }

    std::int64_t SiteOf(const Call& call)
    {
        if (call.location == nullptr) {
            return -1;
        }
        const auto [number, isNew] = m_siteNumbers.Of(call.location->id);
        if (isNew) {
            m_data["sites"].push_back(
                {{"function", call.location->function},
                 {"at", call.location->file + ":" + std::to_string(call.location->line)}});
        }
        return static_cast<std::int64_t>(number);
    }

    void AddCalls()
    {
        constexpr const char* COLUMNS[] = {"lane",     "kind",   "begin",    "duration", "depth",
                                           "type",     "site",   "receiver", "finished", "sync",
                                           "priority", "result", "cpu",      "params"};
        std::map<std::string, std::vector<json>> columns;
        for (const char* const column : COLUMNS) {
            columns[column].reserve(m_calls.size());
        }
        std::vector<int> depths;
        depths.reserve(m_calls.size());
        for (const Call& call : m_calls) {
            depths.push_back(call.caller == Call::NONE ? 0 : depths[call.caller] + 1);
            columns["lane"].emplace_back(LaneOf(*call.record));
            columns["kind"].emplace_back(static_cast<int>(call.shape));
            columns["begin"].emplace_back(SinceStart(call.beginNsec));
            columns["duration"].emplace_back(call.endNsec - call.beginNsec);
            columns["depth"].emplace_back(depths.back());
            columns["type"].emplace_back(TypeOf(call));
            columns["site"].emplace_back(SiteOf(call));
            columns["receiver"].emplace_back(m_names.ReceiverOf(call));
            columns["finished"].emplace_back(call.finished ? 1 : 0);
            columns["sync"].emplace_back(call.sync ? 1 : 0);
            columns["priority"].emplace_back(call.priority ? 1 : 0);
            columns["result"].emplace_back(call.result ? (*call.result ? 1 : 0) : -1);
            columns["cpu"].emplace_back(call.cpuNsec ? static_cast<std::int64_t>(*call.cpuNsec)
                                                     : -1);
            columns["params"].emplace_back(call.event ? ParametersOf(*call.event) : "");
        }
        for (auto& [name, column] : columns) {
            m_data["calls"][name] = std::move(column);
        }
    }

    json Path(const Selection& selection) const
    {
        const std::size_t longest = LongestCall(m_recording, m_calls, selection);
        if (longest == Call::NONE) {
            if (!selection.IsEverything()) {
                throw std::runtime_error(NO_SUCH_CALL);
            }
            return nullptr;
        }
        json path =
            JsonOf(m_recording, m_calls[longest], m_types, PathOf(m_calls, m_types, longest));
        path["call"] = longest;
        path["type"] = m_calls[longest].event ? std::to_string(m_calls[longest].event->type) : "";
        return path;
    }

    const Recording& m_recording;
    const TypeNames& m_types;
    const std::vector<Call> m_calls;
    const TaskNames m_names;
    Numbers<std::pair<std::uint32_t, std::uint32_t>> m_lanes;
    Numbers<std::uint64_t> m_typeNumbers;
    Numbers<std::uint32_t> m_siteNumbers;
    json m_data;
};

} // namespace

json PageData(const Recording& recording, const Selection& selection, const TypeNames& types)
{
    return Data(recording, types).Of(selection);
}

} // namespace zorrecord
