#include "ServiceComparison.h"

#include <algorithm>
#include <map>
#include <string>

namespace made {

using nlohmann::json;

namespace {

/// What ffprobe calls what zor-tsmon describes.
const std::map<std::string, std::string> CODECS = {
    {"AAC audio", "aac"},           {"AAC audio (LATM)", "aac_latm"},
    {"AC-3 audio", "ac3"},          {"DVB subtitles", "dvb_subtitle"},
    {"E-AC-3 audio", "eac3"},       {"H.264 video", "h264"},
    {"H.265 video", "hevc"},        {"MPEG-1 audio", "mp2"},
    {"MPEG-2 video", "mpeg2video"}, {"MPEG-4 video", "mpeg4"},
    {"Opus audio", "opus"},         {"teletext", "dvb_teletext"},
};

/// Of a member that may be missing or null, which both come to an empty text.
std::string TextOf(const json& object, const char* name)
{
    const auto found = object.find(name);
    return found == object.end() || found->is_null() ? "" : found->get<std::string>();
}

/// Stream types are compared where ffprobe keeps them: a registered format takes their place.
constexpr int LARGEST_TYPE = 0xFF;

/// @param codec  as ffprobe names it. Which layer MPEG audio has does not show in tables.
json StreamOf(const std::string& codec, int type, const std::string& language)
{
    return {{"codec", codec == "mp3" ? "mp2" : codec},
            {"type", type <= LARGEST_TYPE ? json(type) : json("registered")},
            {"language", language}};
}

/// The services of a report of zor-tsmon, by id, in what both can tell.
json AllServicesOfTsmon(const json& report)
{
    json services = json::object();
    for (const json& service : report["services"]) {
        json streams = json::object();
        for (const json& stream : service["streams"]) {
            const std::string description = stream["description"];
            const auto codec = CODECS.find(description);
            streams[std::to_string(stream["pid"].get<int>())] =
                StreamOf(codec == CODECS.end() ? description : codec->second, stream["streamType"],
                         TextOf(stream, "language"));
        }
        services[std::to_string(service["serviceId"].get<int>())] = {
            {"name", TextOf(service, "name")},
            {"provider", TextOf(service, "provider")},
            {"pmtPid", service["pmtPid"]},
            {"pcrPid", service["pcrPid"]},
            {"streams", streams}};
    }
    return services;
}

/// Where a registered format hides a type from ffprobe, it is not compared.
void ForgetRegisteredTypes(const json& seen, json& services)
{
    for (auto& [id, service] : services.items()) {
        for (auto& [pid, stream] : service["streams"].items()) {
            const json::json_pointer type("/" + id + "/streams/" + pid + "/type");
            if (seen.contains(type) && seen[type] == "registered") {
                stream["type"] = "registered";
            }
        }
    }
}

} // namespace

json ServicesOfFfprobe(const json& report)
{
    json services = json::object();
    for (const json& program : report["programs"]) {
        json streams = json::object();
        for (const json& stream : program["streams"]) {
            const json tags = stream.value("tags", json::object());
            const int pid = std::stoi(stream["id"].get<std::string>(), nullptr, 16);
            const long type = std::stol(stream["codec_tag"].get<std::string>(), nullptr, 16);
            streams[std::to_string(pid)] =
                StreamOf(TextOf(stream, "codec_name"),
                         static_cast<int>(std::min<long>(type, LARGEST_TYPE + 1)),
                         TextOf(tags, "language").substr(0, 3));
        }
        const json tags = program.value("tags", json::object());
        services[std::to_string(program["program_id"].get<int>())] = {
            {"name", TextOf(tags, "service_name")},
            {"provider", TextOf(tags, "service_provider")},
            {"pmtPid", program["pmt_pid"]},
            {"pcrPid", program["pcr_pid"]},
            {"streams", streams}};
    }
    return services;
}

json ServicesOfTsmon(const json& report, const json& expected)
{
    json services = AllServicesOfTsmon(report);
    ForgetRegisteredTypes(expected, services);
    return services;
}

} // namespace made
