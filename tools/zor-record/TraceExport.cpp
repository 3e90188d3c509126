#include "TraceExport.h"

#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <utility>

#include "Calls.h"
#include "Flows.h"

namespace zorrecord {

namespace {

using nlohmann::json;

constexpr double NSEC_PER_USEC = 1000.0;

std::string Hex(std::uint64_t number)
{
    char text[32];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(number));
    return text;
}

/// Writes the elements of a JSON array one by one, so that only one is in memory.
class ArrayWriter
{
 public:
    explicit ArrayWriter(std::ostream& out) : m_out(out) {}

    void Add(const json& element)
    {
        // Names come from the recorded process and may be anything; JSON is UTF-8.
        m_out << (m_isFirst ? "\n" : ",\n")
              << element.dump(-1, ' ', false, json::error_handler_t::replace);
        m_isFirst = false;
    }

 private:
    std::ostream& m_out;
    bool m_isFirst = true;
};

class Export
{
 public:
    Export(const Recording& recording, const TaskNames& names, const TypeNames& types,
           std::ostream& out)
        : m_recording(recording),
          m_calls(CallsOf(recording)),
          m_names(names),
          m_types(types),
          m_events(out)
    {}

    void AddTracks()
    {
        std::map<std::uint32_t, bool> processes;
        std::map<std::pair<std::uint32_t, std::uint32_t>, std::string> threads;
        for (const Record& record : m_recording.records) {
            processes[record.session] = true;
            threads[{record.session, record.thread}] = record.threadName; // the last one it had
        }
        for (const auto& process : processes) {
            m_events.Add({{"ph", "M"},
                          {"name", "process_name"},
                          {"pid", process.first},
                          {"args", {{"name", m_recording.process}}}});
        }
        for (const auto& [id, name] : threads) {
            m_events.Add({{"ph", "M"},
                          {"name", "thread_name"},
                          {"pid", id.first},
                          {"tid", id.second},
                          {"args", {{"name", name}}}});
        }
    }

    void AddSlices()
    {
        for (const Call& call : m_calls) {
            json slice = EventOf(call, "X");
            slice["cat"] = Category(call);
            slice["name"] = Name(call);
            slice["dur"] = static_cast<double>(call.endNsec - call.beginNsec) / NSEC_PER_USEC;
            slice["args"] = Arguments(call);
            m_events.Add(slice);
        }
    }

    void AddFlows()
    {
        std::uint64_t id = 0;
        for (const Flow& flow : FlowsOf(m_calls)) {
            ++id;
            m_events.Add(ArrowEnd(m_calls[flow.send], "s", id));
            json head = ArrowEnd(m_calls[flow.handling], "f", id);
            head["bp"] = "e"; // the slice that it lies in, not the next one
            m_events.Add(head);
        }
    }

 private:
    json EventOf(const Call& call, const char* phase) const
    {
        const auto nsec =
            static_cast<std::int64_t>(call.beginNsec - m_recording.startMonotonicNsec);
        return {{"ph", phase},
                {"ts", static_cast<double>(nsec) / NSEC_PER_USEC},
                {"pid", call.record->session},
                {"tid", call.record->thread}};
    }

    json ArrowEnd(const Call& call, const char* phase, std::uint64_t id) const
    {
        json end = EventOf(call, phase);
        end["cat"] = "event";
        end["name"] = "event";
        end["id"] = id;
        return end;
    }

    static const char* Category(const Call& call)
    {
        switch (call.shape) {
            case Shape::SEND:
                return "send";
            case Shape::HANDLING:
                return "handling";
            case Shape::OTHER:
                break;
        }
        return "call";
    }

    std::string Name(const Call& call) const
    {
        return NameOf(call) + (call.finished ? "" : " (unfinished)");
    }

    std::string NameOf(const Call& call) const
    {
        if (call.event) {
            const std::string verb = call.shape == Shape::SEND ? "send " : "handle ";
            return verb + m_types.TextOf(call.event->type);
        }
        return call.location != nullptr ? call.location->function
                                        : "location " + std::to_string(call.record->location);
    }

    json Arguments(const Call& call) const
    {
        json arguments = json::object();
        if (call.location != nullptr) {
            arguments["function"] = call.location->function;
            arguments["at"] = call.location->file + ":" + std::to_string(call.location->line);
        }
        if (call.event) {
            AddEvent(*call.event, &arguments);
            if (const std::string& name = m_types.NameOf(call.event->type); !name.empty()) {
                arguments["type_name"] = name;
            }
            if (const std::string& task = m_names.ReceiverOf(call); !task.empty()) {
                arguments["receiver_task"] = task;
            }
        }
        if (call.shape == Shape::SEND) {
            arguments["sync"] = call.sync;
            arguments["priority"] = call.priority;
            arguments["queue"] = call.queue;
        }
        if (call.result) {
            arguments["result"] = *call.result;
        }
        if (call.cpuNsec) {
            arguments["cpu_ns"] = *call.cpuNsec;
        }
        if (!call.finished) {
            arguments["unfinished"] = true;
        }
        return arguments;
    }

    static void AddEvent(const EventFields& event, json* arguments)
    {
        json& to = *arguments;
        to["receiver"] = Hex(event.receiver);
        to["type"] = event.type;
        to["param1"] = event.param1;
        to["param2"] = event.param2;
        to["param3"] = event.param3;
        to["param4"] = event.param4;
        to["param5"] = Hex(event.param5); // a number of 64 bits need not survive a viewer
        to["param6"] = Hex(event.param6);
        if (!event.appName.empty()) {
            to["appName"] = event.appName;
        }
        if (event.wrappedData != 0) {
            to["wrappedData"] = Hex(event.wrappedData);
        }
    }

    const Recording& m_recording;
    const std::vector<Call> m_calls;
    const TaskNames& m_names;
    const TypeNames& m_types;
    ArrayWriter m_events;
};

} // namespace

void ExportTrace(const Recording& recording, const TaskNames& names, const TypeNames& types,
                 std::ostream& out)
{
    out << R"({"displayTimeUnit":"ns","traceEvents":[)";
    Export trace(recording, names, types, out);
    trace.AddTracks();
    trace.AddSlices();
    trace.AddFlows();
    out << "\n]}\n";
}

} // namespace zorrecord
