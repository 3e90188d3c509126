#include "TableReport.h"

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "ServiceId.h"
#include "TextTable.h"
#include "ZorServiceDebug.h"

namespace tsmon {

namespace {

constexpr const char* UNKNOWN = "-";

/// In which column the lines below a service begin.
constexpr std::size_t NAME_COLUMN = 1;

template <class Number>
std::string Format(const char* format, Number number)
{
    char text[48];
    std::snprintf(text, sizeof(text), format, number);
    return text;
}

std::string HexPid(std::uint16_t pid)
{
    return Format("0x%04x", static_cast<unsigned int>(pid));
}

std::string Count(std::uint64_t number, const std::string& one)
{
    return std::to_string(number) + " " + one + (number == 1 ? "" : "s");
}

std::string OrUnknown(const std::string& text)
{
    return text.empty() ? UNKNOWN : text;
}

std::string Kilobits(const std::optional<double>& bitRate)
{
    return bitRate ? Format("%.1f", *bitRate / 1000) : UNKNOWN;
}

std::string StreamText(const ElementaryStream& stream, const Figures& figures)
{
    const std::string scrambled = figures.scrambledPackets > 0 ? ", scrambled" : "";
    const std::string language = stream.language.empty() ? "" : ", " + stream.language;
    return stream.description + " (" + Format("0x%02x", static_cast<unsigned int>(stream.type)) +
           ")" + language + scrambled;
}

/// Why there are no elementary streams to show; null if there are.
const char* NoStreams(const Service& service)
{
    if (!service.pmtPid) {
        return "not in the PAT";
    }
    if (!service.map) {
        return "no PMT";
    }
    return service.map->streams.empty() ? "no elementary streams" : nullptr;
}

/// Prints @p items with commas between them, on as many lines as it takes.
void PrintItems(const std::vector<std::string>& items, std::size_t width, std::ostream& out)
{
    constexpr const char* SEPARATOR = ", ";
    std::string line = items.front();
    for (std::size_t index = 1; index < items.size(); ++index) {
        const std::string longer = line + SEPARATOR + items[index];
        if (DisplayWidth(longer) < width) { // a comma may have to follow
            line = longer;
            continue;
        }
        out << Clip(line, width - 1) << ",\n";
        line = "  " + items[index];
    }
    out << Clip(line, width) << '\n';
}

void PrintSummary(const Outcome& outcome, std::size_t services, std::size_t width,
                  std::ostream& out)
{
    const auto id = outcome.table.TransportStreamId();
    const std::size_t packetSize = outcome.counts.packetSize;
    const bool isPlain = packetSize == 0 || packetSize == PACKET_SIZE;
    std::vector<std::string> read = {
        "Transport stream " + (id ? std::to_string(*id) : "without a PAT") + ": " +
        Count(services, "service") + " in " + Count(outcome.counts.packets, "packet") +
        (isPlain ? "" : " of " + std::to_string(packetSize) + " bytes")};
    if (outcome.counts.Damaged() > 0) {
        read.push_back(std::to_string(outcome.counts.Damaged()) + " damaged");
    }
    if (outcome.stopped) {
        read.emplace_back("stopped by a signal");
    }
    PrintItems(read, width, out);

    const Figures all = FiguresOfAll(outcome.statistics);
    std::vector<std::string> counted = {"No clock to measure bit rates by"};
    if (all.bitRate) {
        const std::chrono::duration<double> time = outcome.statistics.time;
        counted = {Format("%.2f s by its clock", time.count()), Kilobits(all.bitRate) + " kbit/s"};
    }
    counted.push_back(Count(all.continuityErrors, "continuity error"));
    if (outcome.inputLosses > 0) {
        counted.push_back("input lost " + Count(outcome.inputLosses, "time"));
    }
    if (outcome.packetlessInputs > 0) {
        counted.push_back("data without packets " + Count(outcome.packetlessInputs, "time"));
    }
    PrintItems(counted, width, out);
}

/// The services and their streams, as rows.
class ServiceRows
{
 public:
    explicit ServiceRows(const Outcome& outcome) : m_outcome(outcome)
    {
        m_table.AddColumn("SERVICE", TextTable::Align::RIGHT);
        m_table.AddColumn("NAME", TextTable::Align::LEFT, TextTable::Cut::ALLOWED);
        m_table.AddColumn("PROVIDER", TextTable::Align::LEFT, TextTable::Cut::ALLOWED);
        m_table.AddColumn("PID", TextTable::Align::RIGHT);
        m_table.AddColumn("PACKETS", TextTable::Align::RIGHT);
        m_table.AddColumn("KBIT/S", TextTable::Align::RIGHT);
        if (outcome.lastSecond) {
            m_table.AddColumn("NOW", TextTable::Align::RIGHT);
        }
        m_table.AddColumn("ERRORS", TextTable::Align::RIGHT);
    }

    void Add(const Service& service)
    {
        AddRow(std::to_string(service.id),
               service.description ? OrUnknown(service.description->name) : UNKNOWN,
               service.description ? OrUnknown(service.description->provider) : UNKNOWN,
               service.pmtPid ? HexPid(*service.pmtPid) : UNKNOWN, service);
        if (const auto streamId = m_outcome.table.AnnouncedStreamId()) {
            m_table.AddText(NAME_COLUMN,
                            TCZorServiceDebug::ToString(PackServiceId(*streamId, service.id)));
        }
        if (const char* reason = NoStreams(service)) {
            m_table.AddText(NAME_COLUMN, reason);
            return;
        }
        for (const ElementaryStream& stream : service.map->streams) {
            const Figures figures = FiguresOf(m_outcome.statistics, stream.pid);
            AddRow("", StreamText(stream, figures), "", HexPid(stream.pid), stream.pid);
        }
    }

    void Print(std::size_t width, std::ostream& out) const { m_table.Print(out, width); }

 private:
    /// @param counted  the service or the PID that the figures are of
    template <class Counted>
    void AddRow(std::string service, std::string name, std::string provider, std::string pid,
                const Counted& counted)
    {
        const Figures figures = FiguresOf(m_outcome.statistics, counted);
        std::vector<std::string> row = {std::move(service),
                                        std::move(name),
                                        std::move(provider),
                                        std::move(pid),
                                        std::to_string(figures.packets),
                                        Kilobits(figures.bitRate)};
        if (m_outcome.lastSecond) {
            row.push_back(Kilobits(FiguresOf(*m_outcome.lastSecond, counted).bitRate));
        }
        row.push_back(std::to_string(figures.continuityErrors));
        m_table.AddRow(std::move(row));
    }

    const Outcome& m_outcome;
    TextTable m_table;
};

} // namespace

void PrintTable(const Outcome& outcome, std::size_t width, std::ostream& out)
{
    const std::vector<Service> services = outcome.table.Services();
    PrintSummary(outcome, services.size(), width, out);
    out << '\n';
    ServiceRows rows(outcome);
    for (const Service& service : services) {
        rows.Add(service);
    }
    rows.Print(width, out);
}

} // namespace tsmon
