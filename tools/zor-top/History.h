#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Report.h"
#include "Snapshot.h"

namespace zortop {

/// Makes reports of the looks at one process, one after the other: what has changed from one to the
/// next, and since when something has not.
class History
{
 public:
    /// Counts, between two looks, which tasks had an event in hand.
    ///
    /// @param busy  for each task of the last look; nothing counts if there are not as many
    void Glance(const std::vector<bool>& busy);

    /// The report of a look. What it says of circles, and of tasks that sleep on events, holds for
    /// the whole time since the look before.
    Report Next(Snapshot snapshot);

 private:
    /// What has been seen of a task. Another one at the same address has another thread.
    struct Life
    {
        std::uint64_t handled = 0;
        std::uint64_t refused = 0;
        std::int64_t changedNsec = 0; ///< since when it has handled none to its end
        std::uint64_t receiver = 0;
        std::uint64_t type = 0;
        std::int64_t inHandNsec = 0; ///< since when it has had this event in hand
        bool isFirst = true;         ///< it has that since the first look
        std::int64_t cpuNsec = 0;
        bool sleptOnEvents = false;
        std::uint64_t glances = 0;
        std::uint64_t busyGlances = 0;
        bool isSeen = false; ///< at this look
    };

    using Key = std::pair<Address, pid_t>;

    TaskReport ReportOf(const TaskFacts& task, const Snapshot& snapshot, Report* report);
    static void AddCall(const Report& report, TaskReport* task);
    static void AddRates(const Life& before, double sinceSec, TaskReport* report);

    std::map<Key, Life> m_lives;
    std::optional<Snapshot> m_last;
};

/// The kernel id of the thread of a call's receiver; 0 if it is not known.
pid_t ReceiverOf(const SyncCall& call, const Snapshot& snapshot);

/// How long a call has lasted.
double SecondsOf(const SyncCall& call, const Snapshot& snapshot);

/// What a thread is called: its task's name, or its own.
std::string NameOf(pid_t thread, const Snapshot& snapshot);

/// The circles of threads that have waited for each other from @p before to @p now: at both looks
/// for the same, and without having run meanwhile.
std::vector<Circle> FindCircles(const Snapshot& before, const Snapshot& now);

} // namespace zortop
