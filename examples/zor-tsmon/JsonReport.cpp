#include "JsonReport.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "Complaints.h"
#include "ServiceId.h"
#include "ZorServiceDebug.h"

namespace tsmon {

namespace {

/// Keeps the members in the order in which they are written here.
using Json = nlohmann::ordered_json;

constexpr int INDENT = 2;

template <class Value>
Json OrNull(const std::optional<Value>& value)
{
    return value ? Json(*value) : Json();
}

void AddFigures(Json& object, const Figures& figures)
{
    object["packets"] = figures.packets;
    object["bitRate"] = OrNull(figures.bitRate);
    object["continuityErrors"] = figures.continuityErrors;
    object["scrambledPackets"] = figures.scrambledPackets;
}

Json StreamObject(const ElementaryStream& stream, const StreamStatistics& statistics)
{
    Json object;
    object["pid"] = stream.pid;
    object["streamType"] = stream.type;
    object["description"] = stream.description;
    object["language"] = stream.language.empty() ? Json() : Json(stream.language);
    AddFigures(object, FiguresOf(statistics, stream.pid));
    return object;
}

Json ServiceObject(const Service& service, const Outcome& outcome)
{
    Json object;
    object["serviceId"] = service.id;
    const auto streamId = outcome.table.AnnouncedStreamId();
    object["id"] =
        streamId ? Json(TCZorServiceDebug::ToString(PackServiceId(*streamId, service.id))) : Json();
    object["name"] = service.description ? Json(service.description->name) : Json();
    object["provider"] = service.description ? Json(service.description->provider) : Json();
    object["pmtPid"] = OrNull(service.pmtPid);
    object["pcrPid"] = service.map ? Json(service.map->pcrPid) : Json();
    AddFigures(object, FiguresOf(outcome.statistics, service));
    object["streams"] = Json::array();
    if (service.map) {
        for (const ElementaryStream& stream : service.map->streams) {
            object["streams"].push_back(StreamObject(stream, outcome.statistics));
        }
    }
    return object;
}

/// Why it failed; null if it did not.
Json FailureText(const std::vector<std::string>& complaints)
{
    std::string text;
    for (const std::string& complaint : complaints) {
        text += (text.empty() ? "" : "; ") + complaint;
    }
    return complaints.empty() ? Json() : Json(text);
}

Json DamageObject(const StreamCounts& counts)
{
    Json object;
    object["total"] = counts.Damaged();
    object["lostSync"] = counts.lostSync;
    object["transportErrors"] = counts.transportErrors;
    object["truncated"] = counts.truncated;
    return object;
}

} // namespace

void PrintJson(const std::string& path, const Outcome& outcome, std::ostream& out)
{
    const Figures all = FiguresOfAll(outcome.statistics);
    const double seconds = std::chrono::duration<double>(outcome.statistics.time).count();
    Json document;
    document["file"] = path;
    const std::vector<std::string> complaints = ComplaintsOf(outcome);
    document["ok"] = complaints.empty();
    document["failure"] = FailureText(complaints);
    document["stopped"] = outcome.stopped;
    document["transportStreamId"] = OrNull(outcome.table.TransportStreamId());
    document["bytes"] = outcome.counts.bytes;
    document["packets"] = outcome.counts.packets;
    const std::size_t packetSize = outcome.counts.packetSize;
    document["packetSize"] = packetSize == 0 ? Json() : Json(packetSize);
    document["damagedPackets"] = DamageObject(outcome.counts);
    document["seconds"] = all.bitRate ? Json(seconds) : Json();
    document["bitRate"] = OrNull(all.bitRate);
    document["continuityErrors"] = all.continuityErrors;
    document["inputLosses"] = outcome.inputLosses;
    document["inputsWithoutPackets"] = outcome.packetlessInputs;
    document["services"] = Json::array();
    for (const Service& service : outcome.table.Services()) {
        document["services"].push_back(ServiceObject(service, outcome));
    }
    out << document.dump(INDENT, ' ', false, Json::error_handler_t::replace) << '\n';
}

} // namespace tsmon
