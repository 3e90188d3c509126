#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Snapshot.h"

/// @file
/// Looks at a process that there is not, for the tests of what follows from them.

namespace zortest {

/// An idle task.
inline zortop::TaskFacts Task(const std::string& name, pid_t thread = 7, std::uint64_t handled = 0)
{
    zortop::TaskFacts task;
    task.name = name;
    task.address = 0x1000 * static_cast<zortop::Address>(thread);
    task.thread = thread;
    task.handle = 0x7F0000000000 + static_cast<std::uint64_t>(thread) * 0x100;
    task.isRunning = true;
    task.handled = handled;
    task.queues.resize(1);
    return task;
}

/// One that handles an event of a handler's.
inline zortop::TaskFacts Handling(const std::string& name, std::uint64_t type,
                                  std::uint64_t handled = 0, pid_t thread = 7)
{
    zortop::TaskFacts task = Task(name, thread, handled);
    task.inHand = zortop::InHand{0x20, type, false, "Tuner"};
    return task;
}

/// A look at that second; every task's thread sleeps.
inline zortop::Snapshot LookAt(int sec, std::vector<zortop::TaskFacts> tasks)
{
    zortop::Snapshot snapshot;
    snapshot.atNsec = sec * INT64_C(1000000000);
    snapshot.tasks = std::move(tasks);
    for (const zortop::TaskFacts& task : snapshot.tasks) {
        zortop::ThreadFacts thread;
        thread.name = task.name;
        thread.wait.kind = zortop::Wait::OTHER;
        snapshot.threads[task.thread] = thread;
    }
    return snapshot;
}

/// A synchronous send from one task to another.
inline zortop::SyncCall Call(const zortop::TaskFacts& from, const zortop::TaskFacts& to,
                             std::uint32_t startTickMsec)
{
    zortop::SyncCall call;
    call.caller = from.thread;
    call.callerName = from.name;
    call.receiver = static_cast<std::uint32_t>(to.handle);
    call.receiverName = to.name;
    call.startTickMsec = startTickMsec;
    return call;
}

} // namespace zortest
