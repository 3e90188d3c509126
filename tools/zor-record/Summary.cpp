#include "Summary.h"

#include <ctime>
#include <map>
#include <ostream>
#include <string>
#include <utility>

#include "Calls.h"
#include "TextPrint.h"

namespace zorrecord {

namespace {

constexpr std::uint64_t NSEC_PER_SEC = 1000000000;

std::string TimeOfDay(std::uint64_t nsec)
{
    const auto seconds = static_cast<std::time_t>(nsec / NSEC_PER_SEC);
    std::tm utc = {};
    char text[64] = "";
    if (gmtime_r(&seconds, &utc) != nullptr) {
        std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &utc);
    }
    return text;
}

void PrintHead(const Recording& recording, std::ostream& out)
{
    out << "process:    " << Escaped(recording.process) << " (" << recording.session << ")\n"
        << "began:      " << TimeOfDay(recording.startRealtimeNsec) << '\n'
        << "format:     version " << recording.version << '\n'
        << "ring:       " << recording.ringSize << " bytes\n"
        << "records:    " << recording.records.size() << '\n';
    if (!recording.records.empty()) {
        const std::uint64_t start = recording.startMonotonicNsec;
        const Record& first = recording.records.front();
        const Record& last = recording.records.back();
        out << "from, to:   " << Seconds(static_cast<std::int64_t>(first.timeNsec - start)) << ", "
            << Seconds(static_cast<std::int64_t>(last.timeNsec - start)) << " s\n";
    }
    if (recording.goesOn) {
        out << "ended:      not yet\n";
    } else if (recording.endNsec == 0) {
        out << "ended:      without a word (killed, or aborted)\n";
    } else {
        out << "ended:      "
            << Seconds(static_cast<std::int64_t>(recording.endNsec - recording.startMonotonicNsec))
            << " s\n";
    }
    out << "overwritten: " << recording.overwrittenBytes << " bytes of older records\n"
        << "gaps:       " << recording.gaps << " (" << recording.gapBytes << " bytes)\n";
}

void PrintThreads(const Recording& recording, std::ostream& out)
{
    struct Thread
    {
        std::string name;
        std::size_t records = 0;
    };
    std::map<std::pair<std::uint32_t, std::uint32_t>, Thread> threads;
    for (const Record& record : recording.records) {
        Thread& thread = threads[{record.session, record.thread}];
        thread.name = record.threadName;
        ++thread.records;
    }
    out << "threads:    " << threads.size() << '\n';
    for (const auto& [id, thread] : threads) {
        out << "  " << Escaped(thread.name) << '(' << id.second << "): " << thread.records
            << " records\n";
    }
}

void PrintLocations(const Recording& recording, std::ostream& out)
{
    struct Totals
    {
        std::size_t calls = 0;
        std::uint64_t cpuNsec = 0;
        std::size_t unfinished = 0;
    };
    std::map<std::uint32_t, Totals> totals;
    for (const Call& call : CallsOf(recording)) {
        Totals& total = totals[call.record->location];
        ++total.calls;
        total.cpuNsec += call.cpuNsec.value_or(0);
        total.unfinished += call.finished ? 0 : 1;
    }
    out << "call sites: " << recording.locations.size() << '\n';
    for (const auto& [id, location] : recording.locations) {
        const Totals& total = totals[id];
        const std::uint64_t mean = total.calls == 0 ? 0 : total.cpuNsec / total.calls;
        out << "  " << Escaped(location.function) << " [" << Escaped(location.file) << ':'
            << location.line << "]: " << total.calls << " calls, "
            << Seconds(static_cast<std::int64_t>(total.cpuNsec)) << " s of CPU time, " << mean
            << " ns a call";
        if (total.unfinished != 0) {
            out << ", " << total.unfinished << " unfinished";
        }
        out << '\n';
    }
}

} // namespace

void PrintSummary(const Recording& recording, std::ostream& out)
{
    PrintHead(recording, out);
    if (recording.records.empty() && recording.overwrittenBytes == 0) {
        out << "hint:       no event had its flag set: only those that have it are recorded\n";
    }
    PrintThreads(recording, out);
    PrintLocations(recording, out);
}

} // namespace zorrecord
