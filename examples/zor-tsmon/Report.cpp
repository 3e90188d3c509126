#include "Report.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "TextTable.h"

namespace tsmon {

namespace {

constexpr const char* UNKNOWN = "-";

std::string Hex(const char* format, unsigned int number)
{
    char text[16];
    std::snprintf(text, sizeof(text), format, number);
    return text;
}

std::string HexPid(std::uint16_t pid)
{
    return Hex("0x%04x", pid);
}

std::string Count(std::uint64_t number, const std::string& one)
{
    return std::to_string(number) + " " + one + (number == 1 ? "" : "s");
}

std::string OrUnknown(const std::string& text)
{
    return text.empty() ? UNKNOWN : text;
}

std::vector<std::string> ServiceColumns(const Service& service)
{
    return {std::to_string(service.id),
            service.description ? OrUnknown(service.description->name) : UNKNOWN,
            service.description ? OrUnknown(service.description->provider) : UNKNOWN,
            service.pmtPid ? HexPid(*service.pmtPid) : UNKNOWN};
}

std::string StreamText(const ElementaryStream& stream)
{
    const std::string language = stream.language.empty() ? "" : ", " + stream.language;
    return stream.description + " (" + Hex("0x%02x", stream.type) + ")" + language;
}

/// Why there are no elementary streams to show.
const char* NoStreams(const Service& service)
{
    if (!service.pmtPid) {
        return "not in the PAT";
    }
    return service.map ? "no elementary streams" : "no PMT";
}

/// One row per elementary stream; what belongs to the service stands in the first.
void AddService(TextTable& table, const Service& service)
{
    std::vector<std::string> row = ServiceColumns(service);
    const std::size_t serviceColumns = row.size();
    if (!service.map || service.map->streams.empty()) {
        row.insert(row.end(), {UNKNOWN, NoStreams(service)});
        table.AddRow(std::move(row));
        return;
    }
    for (const ElementaryStream& stream : service.map->streams) {
        row.insert(row.end(), {HexPid(stream.pid), StreamText(stream)});
        table.AddRow(std::move(row));
        row.assign(serviceColumns, "");
    }
}

void PrintServices(const Outcome& outcome, const std::vector<Service>& services, std::ostream& out)
{
    const auto id = outcome.table.TransportStreamId();
    out << "Transport stream " << (id ? std::to_string(*id) : "without a PAT") << ": "
        << Count(services.size(), "service") << " in " << Count(outcome.counts.packets, "packet");
    if (outcome.counts.Damaged() > 0) {
        out << ", " << outcome.counts.Damaged() << " damaged";
    }
    if (outcome.stopped) {
        out << ", stopped by a signal";
    }
    out << "\n\n";
    TextTable table;
    table.AddColumn("SERVICE", TextTable::Align::RIGHT);
    table.AddColumn("NAME", TextTable::Align::LEFT);
    table.AddColumn("PROVIDER", TextTable::Align::LEFT);
    table.AddColumn("PMT PID", TextTable::Align::RIGHT);
    table.AddColumn("STREAM", TextTable::Align::RIGHT);
    table.AddColumn("TYPE", TextTable::Align::LEFT);
    for (const Service& service : services) {
        AddService(table, service);
    }
    table.Print(out);
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

/// What is wrong with the file as a whole, a line each.
std::vector<std::string> Complaints(const Outcome& outcome, bool hasServices)
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
        if (!hasServices && !outcome.stopped) {
            complaints.emplace_back("announces no services: neither its PAT nor its SDT has any");
        }
    }
    return complaints;
}

} // namespace

int Report(const std::string& path, const Outcome& outcome, std::ostream& out, std::ostream& err)
{
    const std::vector<Service> services = outcome.table.Services();
    if (!services.empty() || (outcome.stopped && outcome.failure.empty())) {
        PrintServices(outcome, services, out);
    }
    if (outcome.lacksClock && outcome.counts.packets > 0) {
        err << "zor-tsmon: " << path << ": carries no PCR to play it by: read at full speed\n";
    }
    const std::vector<std::string> complaints = Complaints(outcome, !services.empty());
    for (const std::string& complaint : complaints) {
        err << "zor-tsmon: " << path << ": " << complaint << '\n';
    }
    if (!out.flush()) {
        err << "zor-tsmon: standard output could not be written\n";
        return EXIT_FAILURE;
    }
    return complaints.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace tsmon
