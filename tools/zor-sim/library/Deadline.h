#pragma once

#include <ctime>

#include "Scheduler.h"

namespace zorsim {

/// Added to the monotonic clock it gives the wall clock of the simulation, which is always the
/// same.
constexpr std::int64_t WALL_CLOCK = 1767225600 * NSEC_PER_SEC;

inline bool IsValid(const timespec& time)
{
    return time.tv_nsec >= 0 && time.tv_nsec < NSEC_PER_SEC;
}

inline std::int64_t Nsec(const timespec& time)
{
    constexpr std::int64_t MOST_SEC = NEVER / NSEC_PER_SEC - 1;
    return time.tv_sec >= MOST_SEC ? NEVER : time.tv_sec * NSEC_PER_SEC + time.tv_nsec;
}

inline std::int64_t After(std::int64_t nsec)
{
    return nsec >= NEVER - g_now ? NEVER : g_now + (nsec > 0 ? nsec : 0);
}

/// The moment on the monotonic clock.
inline std::int64_t Deadline(clockid_t clock, const timespec& time)
{
    const std::int64_t nsec = Nsec(time);
    return clock != CLOCK_REALTIME || nsec == NEVER ? nsec : nsec - WALL_CLOCK;
}

inline timespec Timespec(std::int64_t nsec)
{
    return {nsec / NSEC_PER_SEC, nsec % NSEC_PER_SEC};
}

} // namespace zorsim
