#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Snapshot.h"

namespace zortop {

/// What two looks and what was between them say of a task.
struct TaskReport
{
    TaskFacts facts;
    std::optional<ThreadFacts> thread;

    // Of all queues together.
    std::uint64_t depth = 0;
    std::uint64_t puts = 0;
    std::uint64_t refused = 0;
    std::uint64_t peak = 0; ///< the greatest of the queues'

    // Since the last look; nothing at the first one, and of a task that is new.
    std::optional<double> cpuShare;     ///< of one processor
    std::optional<double> busyShare;    ///< of the time, in handlers
    std::optional<double> eventsPerSec; ///< that were handled
    std::uint64_t refusedNow = 0;       ///< puts

    std::optional<double> inHandSec; ///< so long it has had its event in hand
    bool isAtLeast = false;          ///< it may have had it before the first look as well
    double unchangedSec = 0;         ///< at least so long it has handled no event to its end
    bool sleepsOnEvents = false;     ///< it slept at both looks, with events queued, none in hand
};

/// A synchronous send in progress.
struct CallReport
{
    pid_t caller = 0;
    pid_t receiver = 0; ///< 0 if its thread is not known
    std::string callerName;
    std::string receiverName;
    double sec = 0;
};

/// Threads that wait for each other.
struct Circle
{
    std::vector<pid_t> threads;
    std::vector<std::string> names; ///< of the threads
    std::vector<std::string> waits; ///< what each does
};

/// Something that deserves a look.
struct Notice
{
    enum Kind
    {
        DEADLOCK,
        HANDLER,
        QUEUE,
        REFUSED,
        WAITING,
        SILENT,
    };

    Kind kind;
    std::string text;
};

struct Report
{
    std::int64_t atNsec = 0;
    std::optional<double> sinceSec; ///< the last look; nothing at the first one
    double tookMsec = 0;
    std::uint64_t capacity = 0; ///< of a queue
    std::vector<TaskReport> tasks;
    std::vector<CallReport> calls;
    std::vector<Circle> circles;
    TimerFacts timers;
    std::vector<AlarmFacts> alarms;
    std::optional<std::string> registryHolder;
    std::vector<Notice> notices;
    std::vector<std::string> remarks;
    std::map<std::uint64_t, std::string> typeNames; ///< of event types, from a file
};

} // namespace zortop
