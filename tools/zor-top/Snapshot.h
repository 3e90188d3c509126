#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Process.h"

namespace zortop {

/// What one look at a process has found. Plain data: what follows from it is worked out elsewhere.

/// A queue of a task.
struct QueueFacts
{
    std::uint64_t depth = 0;   ///< events that are queued
    std::uint64_t puts = 0;    ///< that have been queued
    std::uint64_t refused = 0; ///< puts that found the queue full
    std::uint64_t peak = 0;    ///< the most that were queued at once

    Address events = 0; ///< the semaphore that its task waits on
};

/// The event that a task handles.
struct InHand
{
    Address receiver = 0;
    std::uint64_t type = 0;
    bool isOwn = false;        ///< the receiver is the task itself
    std::string receiverClass; ///< empty if memory does not say
};

/// A task.
struct TaskFacts
{
    Address address = 0;
    std::string name;
    pid_t thread = 0;         ///< kernel id; 0 while there is none
    std::uint64_t handle = 0; ///< the thread's pthread_t
    bool isRunning = false;   ///< its loop does
    bool isExiting = false;
    bool isPaused = false;
    bool isMultiQueue = false; ///< of several queues, which are gone when it has handled its exit
    std::uint64_t watchdogSec = 0; ///< 0 if it is not supervised
    std::uint64_t handled = 0;     ///< events since it was created
    std::optional<InHand> inHand;
    std::vector<QueueFacts> queues; ///< at least one
};

/// What a thread waits for.
struct Wait
{
    enum Kind
    {
        NOTHING, ///< it runs, or is ready to
        EVENTS,  ///< the next event of its queue
        REPLY,   ///< the reply to a synchronous send
        LOCK,    ///< a lock, perhaps with a holder that is known
        OTHER,   ///< sleeps, is not known for what
    };

    Kind kind = NOTHING;
    std::string what;                      ///< of a lock
    pid_t holder = 0;                      ///< of a lock; 0 if it is not known
    std::optional<std::int64_t> untilNsec; ///< of the monotonic clock, if it ends by itself
};

/// A thread of the process.
struct ThreadFacts
{
    std::string name;
    std::int64_t cpuNsec = 0; ///< of processor time so far
    std::uint64_t turns = 0;  ///< how often it was given a processor
    Wait wait;
};

/// A synchronous send that has not returned.
struct SyncCall
{
    pid_t caller = 0;
    std::string callerName;
    std::uint32_t receiver = 0; ///< the low half of its thread's handle
    std::string receiverName;
    std::uint32_t startTickMsec = 0;

    bool operator==(const SyncCall& other) const
    {
        return caller == other.caller && receiver == other.receiver &&
               startTickMsec == other.startTickMsec;
    }
};

/// The timers of the process.
struct TimerFacts
{
    std::uint64_t scheduled = 0;
    std::uint64_t paused = 0;
    std::uint64_t idle = 0;              ///< have fired as often as they were told to
    std::optional<std::int64_t> dueNsec; ///< of the monotonic clock; of the one that is due next
};

/// An alarm, by its thread.
struct AlarmFacts
{
    pid_t thread = 0;
    std::string name;
    std::optional<std::int64_t> dueNsec; ///< of the monotonic clock; nothing if it is not under way
};

struct Snapshot
{
    std::int64_t atNsec = 0;      ///< of the monotonic clock
    std::uint32_t tickMsec = 0;   ///< of the clock that synchronous sends are stamped with
    std::int64_t tookNsec = 0;    ///< for reading
    std::vector<TaskFacts> tasks; ///< oldest first
    std::map<pid_t, ThreadFacts> threads;
    std::vector<SyncCall> calls;
    TimerFacts timers;
    std::vector<AlarmFacts> alarms;
    std::optional<pid_t> registryHolder; ///< 0 if it is held by a thread that is not known
    std::vector<std::string> remarks;    ///< what has been left out
};

} // namespace zortop
