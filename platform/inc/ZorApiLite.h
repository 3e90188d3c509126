#pragma once

#include "PlatformExport.h"

namespace ZorApiLite {

/// Small facts and helpers of the platform. Any thread may call any of them.
class ZOR_PLATFORM_API LiteUtility
{
 public:
    /// True on a release build of the platform; the answer never changes while the process lives.
    static bool IsRelease();

    /// The opposite of IsRelease().
    static bool IsDebug();

    /// Sleeps for @p msec milliseconds, signals notwithstanding.
    static void SleepMs(unsigned long msec);
};

} // namespace ZorApiLite
