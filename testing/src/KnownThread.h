#pragma once

#include <sys/types.h>

#include <string>

namespace zor::testing::internal {

/// A thread of the program, from before it is created to its end. Guarded by the time's lock.
struct KnownThread
{
    pid_t kernelId = 0;   ///< 0 until it runs
    bool atWork = true;   ///< not in a wait that is in the list
    int looksAsleep = 0;  ///< how often in a row it slept all the same, without having run
    std::string switches; ///< how often the system has switched it, when it was last looked at
    KnownThread* next = nullptr;

    /// Looks whether the thread sleeps in something that the list does not show: a mutex, a file, a
    /// child. One that slept at so many looks in a row stays there until it is seen to have run.
    bool IsStuckElsewhere();

    /// Whether the last look found it so.
    bool SeemedStuck() const { return looksAsleep >= LOOKS; }

    static constexpr int LOOKS = 20;

    /// Its name, as the system knows it.
    std::string Name() const;
};

} // namespace zor::testing::internal
