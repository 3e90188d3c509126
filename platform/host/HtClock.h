#pragma once

#include <cstdint>
#include <ctime>

namespace zorhost {

/// What @p clock shows, in nanoseconds.
inline std::uint64_t NowNsec(clockid_t clock)
{
    struct timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U +
           static_cast<std::uint64_t>(now.tv_nsec);
}

} // namespace zorhost
