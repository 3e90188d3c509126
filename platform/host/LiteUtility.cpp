#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ZorApiLite.h"

namespace ZorApiLite {
namespace {

constexpr unsigned long MSEC_PER_SEC = 1000;
constexpr long NSEC_PER_MSEC = 1000 * 1000;
constexpr long NSEC_PER_SEC = 1000 * NSEC_PER_MSEC;

bool ReadIsRelease()
{
    const char* value = getenv("ZOR_RELEASE");
    return value != nullptr && strcmp(value, "1") == 0;
}

} // namespace

bool LiteUtility::IsRelease()
{
    static const bool isRelease = ReadIsRelease();
    return isRelease;
}

bool LiteUtility::IsDebug()
{
    return !IsRelease();
}

void LiteUtility::SleepMs(unsigned long msec)
{
    // Towards a point in time, so that no number of signals makes the sleep longer. Even the
    // greatest number of milliseconds is far from the end of time_t in seconds.
    struct timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(msec / MSEC_PER_SEC);
    end.tv_nsec += static_cast<long>(msec % MSEC_PER_SEC) * NSEC_PER_MSEC;
    if (end.tv_nsec >= NSEC_PER_SEC) {
        end.tv_nsec -= NSEC_PER_SEC;
        ++end.tv_sec;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

} // namespace ZorApiLite
