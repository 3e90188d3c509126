#pragma once

#include <cstdint>

/// What the driver and the preloaded library tell each other: one file that both have mapped.
///
/// The driver writes the settings before the program starts; the library writes everything else
/// while it runs. Whatever way the program ends, what it had reached stands in the file. A program
/// that is executed by the simulated one finds the same settings, but reports to nobody.
namespace zorsim {

/// The library finds the file by this variable, and by the other one whether it is the program that
/// the driver started or a descendant of it.
constexpr const char* REPORT_VARIABLE = "ZOR_SIM_REPORT";
constexpr const char* PROCESS_VARIABLE = "ZOR_SIM_PROCESS";
constexpr const char* ANY_PROCESS = "any"; ///< under a debugger, which starts the program

constexpr std::uint32_t REPORT_MAGIC = 0x5a53494d;
constexpr std::uint32_t REPORT_VERSION = 1;

/// The status with which the library ends a program in which it found something.
constexpr int FOUND_STATUS = 113;

constexpr std::int64_t NSEC_PER_SEC = 1000000000;
constexpr std::int64_t NEVER = INT64_MAX;

enum class StrategyKind : std::uint32_t
{
    RANDOM,
    STICKY,
    PCT,
    REPLAY
};

enum class Finding : std::uint32_t
{
    NONE,
    DEADLOCK,
    ENDLESS_WAIT,
    NO_PROGRESS,
    STEPS,
    UNSUPPORTED
};

enum class Operation : std::uint32_t
{
    START,
    END,
    CREATE,
    JOIN,
    DETACH,
    LOCK,
    TRY_LOCK,
    UNLOCK,
    WAIT,
    SIGNAL,
    BROADCAST,
    READ_LOCK,
    WRITE_LOCK,
    RW_UNLOCK,
    SEM_WAIT,
    SEM_POST,
    ONCE,
    BARRIER,
    WORD_WAIT,
    WORD_WAKE,
    SLEEP,
    CLOCK,
    YIELD,
    POLL,
    READ,
    WRITE,
    CHILD,
    SIGNAL_WAIT,
    KILL,
    POINT,
    CHOOSE,
    MEMORY,
    SIZE
};

/// What is decided. Each kind is numbered for itself, so that a decision keeps its number when
/// decisions of another kind are left out.
enum class Choice : std::uint32_t
{
    THREAD,
    WAITER,
    STALL,
    SPURIOUS,
    NUMBER,
    SIZE
};

/// A decision that differed from what would have been done without any reason to do otherwise.
struct Decision
{
    std::uint64_t number;
    Choice choice;
    std::uint32_t value;
};

struct Settings
{
    std::uint64_t seed;
    StrategyKind strategy;
    std::uint32_t changePoints; ///< of StrategyKind::PCT
    std::uint64_t length;   ///< decisions that a run takes, as measured; places the change points
    std::int64_t stallNsec; ///< how far the clock may jump although threads could run; 0: never
    std::uint32_t spuriousPerMillion;
    std::uint32_t trap; ///< whether a finding stops in the debugger
    std::uint64_t maxSteps;
    std::int64_t endlessNsec; ///< a wait without a deadline may take this long; 0: for ever
    std::uint64_t decisions;  ///< to be replayed: the first ones of the area
    std::uint64_t records;    ///< how many the area of records has room for; 0: no trace
};

constexpr std::uint32_t NAME_SIZE = 16;
constexpr std::uint32_t MAX_THREADS_SHOWN = 256;
constexpr std::uint32_t MAX_MODULES = 256;
constexpr std::uint32_t MAX_FRAMES = 12;
constexpr std::uint64_t MAX_DECISIONS = 1 << 20;

struct ThreadReport
{
    std::uint32_t id;
    Operation operation;
    std::uint32_t waits;
    char name[NAME_SIZE];
    std::uint64_t object;
    std::uint32_t holder; ///< id of the thread that holds the object; 0 if none does
    std::int64_t deadlineNsec;
    std::int64_t sinceNsec;
    std::uint64_t caller;
};

struct Module
{
    std::uint64_t begin;
    std::uint64_t end;
    std::uint64_t offset;
    char path[232];
};

/// One step of a traced run.
struct Record
{
    std::uint64_t step;
    std::int64_t timeNsec;
    std::uint32_t thread;
    Operation operation;
    std::uint64_t object;
    char name[NAME_SIZE]; ///< of the thread
    char text[32];        ///< of a point
    std::uint64_t frames[MAX_FRAMES];
};

struct Report
{
    std::uint32_t magic;
    std::uint32_t version;
    Settings settings;

    std::uint32_t started;
    std::uint32_t outside; ///< whether the program waits for something outside of it
    std::uint64_t steps;
    std::uint64_t hash;
    std::uint64_t threads; ///< created in all
    std::uint64_t choices; ///< of a thread, where there were several
    std::int64_t nowNsec;
    std::uint32_t current;
    char currentName[NAME_SIZE];

    Finding finding;
    char text[256];
    char notes[512]; ///< what was used and is not simulated, one a line

    std::uint32_t shownCount;
    ThreadReport shown[MAX_THREADS_SHOWN];
    std::uint32_t moduleCount;
    Module modules[MAX_MODULES];

    std::uint64_t decisionCount; ///< made; those beyond the area are not kept
    std::uint64_t recordCount;
};

/// The file: the report, the decisions (those to replay, replaced by those made), the records.
constexpr std::uint64_t ReportSize(std::uint64_t records)
{
    return sizeof(Report) + 2 * MAX_DECISIONS * sizeof(Decision) + records * sizeof(Record);
}
inline Decision* DecisionsToReplay(Report* report)
{
    return reinterpret_cast<Decision*>(report + 1);
}
inline Decision* DecisionsMade(Report* report)
{
    return DecisionsToReplay(report) + MAX_DECISIONS;
}
inline Record* Records(Report* report)
{
    return reinterpret_cast<Record*>(DecisionsMade(report) + MAX_DECISIONS);
}

} // namespace zorsim
