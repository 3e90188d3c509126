#include "TraceShow.h"

#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>

#include "Symbols.h"

namespace zorsim {

namespace {

constexpr std::size_t MOST_CALLERS = 6;
constexpr std::int64_t START_NSEC = 1000 * NSEC_PER_SEC;

constexpr const char* OPERATIONS[] = {"starts",
                                      "ends",
                                      "creates a thread",
                                      "joins",
                                      "detaches",
                                      "locks",
                                      "tries",
                                      "unlocks",
                                      "waits for",
                                      "signals",
                                      "broadcasts",
                                      "read-locks",
                                      "write-locks",
                                      "unlocks",
                                      "takes",
                                      "gives",
                                      "initialises",
                                      "arrives at",
                                      "waits at",
                                      "wakes at",
                                      "sleeps",
                                      "reads the clock",
                                      "yields",
                                      "polls files",
                                      "reads a file",
                                      "writes a file",
                                      "waits for a child",
                                      "waits for a signal",
                                      "sends a signal",
                                      "passes",
                                      "chooses",
                                      "touches"};
static_assert(std::size(OPERATIONS) == static_cast<std::size_t>(Operation::SIZE));

const char* KindOf(Operation operation)
{
    switch (operation) {
        case Operation::LOCK:
        case Operation::TRY_LOCK:
        case Operation::UNLOCK:
            return "mutex";
        case Operation::WAIT:
        case Operation::SIGNAL:
        case Operation::BROADCAST:
            return "condition";
        case Operation::READ_LOCK:
        case Operation::WRITE_LOCK:
        case Operation::RW_UNLOCK:
            return "read-write lock";
        case Operation::SEM_WAIT:
        case Operation::SEM_POST:
            return "semaphore";
        case Operation::BARRIER:
            return "barrier";
        case Operation::ONCE:
            return "once";
        case Operation::WORD_WAIT:
        case Operation::WORD_WAKE:
            return "word";
        case Operation::MEMORY:
            return "memory";
        case Operation::JOIN:
            return "thread";
        default:
            return "";
    }
}

std::string ThreadText(const char* name, std::uint32_t id)
{
    return std::string(name) + '#' + std::to_string(id);
}

/// Objects are called by the names of variables, or else numbered as they appear.
class Objects
{
 public:
    explicit Objects(Symbols* symbols) : m_symbols(symbols) {}

    std::string NameOf(Operation operation, std::uint64_t address)
    {
        const std::string kind = KindOf(operation);
        if (address == 0 || kind.empty() || operation == Operation::JOIN) {
            return kind;
        }
        std::string& name = m_names[{kind, address}];
        if (name.empty()) {
            const std::string variable = m_symbols->ObjectAt(address);
            name = kind + ' ' + (variable.empty() ? std::to_string(++m_counts[kind]) : variable);
        }
        return name;
    }

 private:
    Symbols* m_symbols;
    std::map<std::pair<std::string, std::uint64_t>, std::string> m_names;
    std::map<std::string, int> m_counts;
};

std::string PlaceText(const Place& place)
{
    return place.function.empty() ? std::string()
           : place.file.empty()   ? place.function
                                  : place.function + " at " + place.file;
}

std::vector<std::uint64_t> AddressesOf(const RunResult& result)
{
    std::set<std::uint64_t> addresses;
    for (const Record& record : result.records) {
        addresses.insert(std::begin(record.frames), std::end(record.frames));
    }
    return {addresses.begin(), addresses.end()};
}

/// One step in words, but for who and when.
struct Line
{
    std::string what;
    std::string where;
};

Line LineOf(const Record& record, const Symbols& symbols, Objects* objects)
{
    Line line;
    line.what = OPERATIONS[static_cast<int>(record.operation)];
    const std::string object = objects->NameOf(record.operation, record.object);
    line.what += object.empty() ? "" : ' ' + object;
    line.what += record.text[0] != '\0' ? " \"" + std::string(record.text) + '"' : "";
    line.where = PlaceText(symbols.PlaceOf(record.frames, MAX_FRAMES));
    return line;
}

/// A point is recorded twice: with its name, and as a step.
bool IsShown(const Record& record)
{
    return record.operation != Operation::POINT || record.text[0] != '\0';
}

} // namespace

std::string TimeText(std::int64_t nsec)
{
    char text[64];
    const std::int64_t usec = (nsec - START_NSEC) / 1000;
    std::snprintf(text, sizeof(text), "%lld.%06lld s", static_cast<long long>(usec / 1000000),
                  static_cast<long long>(usec % 1000000));
    return text;
}

void PrintThreads(const Report& report, const std::vector<Record>& records, std::ostream& out)
{
    Symbols symbols(report);
    std::vector<std::uint64_t> addresses;
    std::map<std::uint32_t, const Record*> last;
    for (const Record& record : records) {
        last[record.thread] = &record;
    }
    for (std::uint32_t i = 0; i < report.shownCount; ++i) {
        addresses.push_back(report.shown[i].caller);
    }
    for (const auto& [id, record] : last) {
        addresses.insert(addresses.end(), std::begin(record->frames), std::end(record->frames));
    }
    symbols.Load(addresses);
    Objects objects(&symbols);
    for (std::uint32_t i = 0; i < report.shownCount; ++i) {
        const ThreadReport& thread = report.shown[i];
        out << "  " << ThreadText(thread.name, thread.id) << ' '
            << (thread.waits != 0 ? "waits: " : "can run: ")
            << OPERATIONS[static_cast<int>(thread.operation)];
        const std::string object = objects.NameOf(thread.operation, thread.object);
        out << (object.empty() ? "" : ' ' + object);
        if (thread.holder != 0) {
            out << (thread.operation == Operation::JOIN ? " " : ", held by thread ")
                << thread.holder;
        }
        if (thread.waits != 0 && thread.deadlineNsec != NEVER) {
            out << ", until " << TimeText(thread.deadlineNsec);
        }
        const auto record = last.find(thread.id);
        const std::string place =
            PlaceText(record != last.end() ? symbols.PlaceOf(record->second->frames, MAX_FRAMES)
                                           : symbols.PlaceOf(&thread.caller, 1));
        out << (place.empty() ? "" : ", in " + place) << '\n';
        if (thread.waits != 0 && record != last.end()) {
            const std::vector<Place> stack = symbols.StackOf(record->second->frames, MAX_FRAMES);
            for (std::size_t caller = 1; caller < stack.size() && caller <= MOST_CALLERS;
                 ++caller) {
                out << "      called by " << PlaceText(stack[caller]) << '\n';
            }
        }
    }
}

void PrintTrace(const RunResult& result, std::ostream& out)
{
    Symbols symbols(*result.report);
    symbols.Load(AddressesOf(result));
    Objects objects(&symbols);
    for (const Record& record : result.records) {
        if (!IsShown(record)) {
            continue;
        }
        const Line line = LineOf(record, symbols, &objects);
        char begin[96];
        std::snprintf(begin, sizeof(begin), "%8llu %16s  %-20s ",
                      static_cast<unsigned long long>(record.step),
                      TimeText(record.timeNsec).c_str(),
                      ThreadText(record.name, record.thread).c_str());
        out << begin << line.what << (line.where.empty() ? "" : "  (" + line.where + ')') << '\n';
    }
}

void ExportTrace(const RunResult& result, std::ostream& out)
{
    Symbols symbols(*result.report);
    symbols.Load(AddressesOf(result));
    Objects objects(&symbols);
    nlohmann::json events = nlohmann::json::array();
    std::map<std::uint32_t, std::string> names;
    for (const Record& record : result.records) {
        if (!IsShown(record)) {
            continue;
        }
        const Line line = LineOf(record, symbols, &objects);
        names[record.thread] = ThreadText(record.name, record.thread);
        // Steps at the same virtual moment lie one behind the other.
        events.push_back(
            {{"name", line.what},
             {"ph", "X"},
             {"pid", 1},
             {"tid", record.thread},
             {"ts", static_cast<double>(record.step)},
             {"dur", 1},
             {"args", {{"place", line.where}, {"virtual time", TimeText(record.timeNsec)}}}});
    }
    for (const auto& [id, name] : names) {
        events.push_back({{"name", "thread_name"},
                          {"ph", "M"},
                          {"pid", 1},
                          {"tid", id},
                          {"args", {{"name", name}}}});
    }
    const nlohmann::json trace = {{"traceEvents", events}, {"displayTimeUnit", "ms"}};
    out << trace.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

} // namespace zorsim
