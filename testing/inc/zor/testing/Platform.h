#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "zor/testing/Link.h"
#include "zor/testing/PlatformLog.h"

/// @file
/// The platform's calls, recorded and answered.
///
/// A program that is linked with zor::testing defines these functions of the platform itself, and
/// the dynamic linker prefers a program's functions to those of a library: neither the development
/// machine's platform nor a device's gets the calls, only what is recorded here. `main()` checks at
/// the start that it is so. Any thread may call anything; a test begins with empty records and the
/// answers that stand here as the usual ones.

namespace zor::testing {

/// The platform's watchdog: `brisk_deadlock_register_watchdog_service` and
/// `brisk_deadlock_watchdog_notify`. Nobody is supervised; a test decides what a hang is.
class Watchdog
{
 public:
    /// A thread that registered.
    struct Registration
    {
        std::string threadName;    ///< its name
        unsigned long seconds = 0; ///< the time-out that was asked for
    };

    /// The registrations, in order.
    static std::vector<Registration> Registrations();

    /// How often a thread of that name has told that it is alive.
    static std::size_t Notifications(const std::string& threadName);

    /// What both calls answer from now on: an error number, and usually 0.
    static void Answer(int registration, int notification);

    /// Forgets all calls, and answers 0 again.
    static void Reset();
};

/// The platform's small facts: `ZorApiLite::LiteUtility`. `SleepMs` sleeps, in the time of a Clock
/// if there is one.
class BuildKind
{
 public:
    /// What `IsRelease()` answers from now on, `IsDebug()` answering the opposite. Usually false.
    /// What is failed assertions' part in this is taken over as well: see Assertions.
    static void AnswerIsRelease(bool isRelease);
};

} // namespace zor::testing
