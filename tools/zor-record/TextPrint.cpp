#include "TextPrint.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <map>
#include <ostream>
#include <vector>

#include "Calls.h"
#include "EventFields.h"

namespace zorrecord {

namespace {

constexpr std::int64_t NSEC_PER_SEC = 1000000000;
constexpr std::array<const char*, 4> SEND_NAMES = {"event", "sync", "priority", "queue"};
constexpr std::array<const char*, 1> AFTER_NAMES = {"result"};

std::string Hex(std::uint64_t number)
{
    char text[32];
    std::snprintf(text, sizeof(text), "0x%" PRIx64, number);
    return text;
}

std::string Decimal(std::uint64_t number)
{
    return std::to_string(number);
}

std::string AppName(const EventFields& event)
{
    if (event.appName.size() != event.appNameSize) {
        return "(" + Decimal(event.appNameSize) + " characters)";
    }
    return '"' + Escaped(event.appName) + '"';
}

/// What a record's bare numbers are called.
struct Called
{
    const TypeNames& types;
    std::string task; ///< of the event's receiver; or empty
};

std::string InBrackets(const std::string& name)
{
    return name.empty() ? "" : '(' + Escaped(name) + ')';
}

std::string EventText(const EventFields& event, const Called& called)
{
    return "{address=" + Hex(event.address) + " sync=" + Hex(event.sync) +
           " receiver=" + Hex(event.receiver) + InBrackets(called.task) +
           " sender=" + Hex(event.sender) + " type=" + Decimal(event.type) +
           InBrackets(called.types.NameOf(event.type)) + " param1=" + Decimal(event.param1) +
           " param2=" + Decimal(event.param2) + " param3=" + Hex(event.param3) +
           " param4=" + Hex(event.param4) + " param5=" + Hex(event.param5) +
           " param6=" + Decimal(event.param6) + " flag=" + (event.flag ? "true" : "false") +
           " appName=" + AppName(event) + " appFlag=" + Decimal(event.appFlag) +
           " wrappedData=" + Hex(event.wrappedData) + "}";
}

std::string ItemText(const Item& item, const std::string& type, const Called& called)
{
    switch (item.kind) {
        case Item::Kind::NULL_POINTER:
            return "null";
        case Item::Kind::BLOCK:
            if (const auto event = EventFrom(item); event && type == EVENT_TYPE) {
                return EventText(*event, called);
            }
            return Decimal(item.bytes.size()) + " bytes at " + Hex(item.address);
        case Item::Kind::FIXED:
            break;
    }
    if (type == "bool") {
        return item.Number() != 0 ? "true" : "false";
    }
    return Decimal(item.Number());
}

std::string ArgumentsText(const Record& record, const Location* location, const Called& called)
{
    const bool isCall = location != nullptr && ShapeOf(*location) != Shape::OTHER;
    std::string text;
    std::size_t argument = 0;
    for (const Item& item : record.items) {
        std::string type;
        if (location != nullptr) {
            while (argument < location->arguments.size() && !location->arguments[argument].input) {
                ++argument;
            }
            if (argument < location->arguments.size()) {
                type = location->arguments[argument].type;
            }
        }
        const bool isNamed = isCall && argument < SEND_NAMES.size();
        text += ' ' + (isNamed ? SEND_NAMES[argument] : "arg" + Decimal(argument + 1)) + '=' +
                ItemText(item, type, called);
        ++argument;
    }
    return text;
}

std::string AfterText(const Record& record, const Location* location, const Called& called)
{
    std::string text;
    for (std::size_t i = 0; i < record.items.size(); ++i) {
        const std::string name = i < AFTER_NAMES.size() ? AFTER_NAMES[i] : "item" + Decimal(i);
        const std::string type = i == 0 && location != nullptr ? location->resultType : "";
        text += ' ' + name + '=' + ItemText(record.items[i], type, called);
    }
    return text + " cpu_ns=" + Decimal(record.cpuNsec);
}

std::string LocationText(const Record& record, const Location* location)
{
    if (location == nullptr) {
        return "location " + Decimal(record.location);
    }
    return Escaped(location->function) + " [" + Escaped(location->file) + ':' +
           std::to_string(location->line) + ']';
}

std::string Lasting(const Call& call)
{
    if (call.finished) {
        return "";
    }
    return " unfinished after " +
           Seconds(static_cast<std::int64_t>(call.endNsec - call.beginNsec)) + " s";
}

/// The time of day @p nsec after the recording's beginning, in this process' zone.
std::string TimeOfDay(const Recording& recording, std::int64_t nsec)
{
    const auto sinceEpoch = static_cast<std::int64_t>(recording.startRealtimeNsec) + nsec;
    const auto seconds = static_cast<std::time_t>(sinceEpoch / NSEC_PER_SEC);
    std::tm local = {};
    char day[64] = "";
    if (sinceEpoch >= 0 && localtime_r(&seconds, &local) != nullptr) {
        std::strftime(day, sizeof(day), "%Y-%m-%dT%H:%M:%S", &local);
    }
    char text[96];
    char zone[16] = "";
    std::strftime(zone, sizeof(zone), "%z", &local);
    std::snprintf(text, sizeof(text), "%s.%09" PRId64 "%s", day, sinceEpoch % NSEC_PER_SEC, zone);
    return text;
}

} // namespace

std::string Seconds(std::int64_t nsec)
{
    char text[48];
    const bool isNegative = nsec < 0;
    const std::uint64_t size =
        isNegative ? 0 - static_cast<std::uint64_t>(nsec) : static_cast<std::uint64_t>(nsec);
    std::snprintf(text, sizeof(text), "%s%" PRIu64 ".%09" PRIu64, isNegative ? "-" : "",
                  size / NSEC_PER_SEC, size % NSEC_PER_SEC);
    return text;
}

std::string Escaped(const std::string& text)
{
    std::string escaped;
    for (const char c : text) {
        const auto code = static_cast<unsigned char>(c);
        if (code >= 0x20 && code < 0x7F && c != '\\' && c != '"') {
            escaped += c;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02x", code);
            escaped += hex;
        }
    }
    return escaped;
}

void PrintRecords(const Recording& recording, const TaskNames& names, const TypeNames& types,
                  bool isWallTime, std::ostream& out)
{
    const std::vector<Call> calls = CallsOf(recording);
    std::map<const Record*, const Call*> callOf;
    for (const Call& call : calls) {
        callOf[call.record] = &call;
    }
    for (const Record& record : recording.records) {
        const Location* const location = recording.LocationOf(record);
        const auto call = callOf.find(&record); // not that of a record after one
        const auto nsec = static_cast<std::int64_t>(record.timeNsec - recording.startMonotonicNsec);
        out << (isWallTime ? TimeOfDay(recording, nsec) : Seconds(nsec)) << ' '
            << Escaped(record.threadName) << '(' << record.thread << ") "
            << (call != callOf.end() ? "> " : "< ") << LocationText(record, location);
        if (call == callOf.end()) {
            out << AfterText(record, location, {types, ""});
        } else {
            out << ArgumentsText(record, location, {types, names.ReceiverOf(*call->second)})
                << Lasting(*call->second);
        }
        out << (record.truncated ? " ...\n" : "\n");
    }
}

} // namespace zorrecord
