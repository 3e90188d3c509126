#pragma once

#include <cstdint>

#if defined(__x86_64__)

#include <x86intrin.h>

/// The processor's own clock; it waits for what comes before.
inline std::uint64_t Ticks()
{
    unsigned processor = 0;
    return __rdtscp(&processor);
}

#else

#include <ctime>

inline std::uint64_t Ticks()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000000 +
           static_cast<std::uint64_t>(time.tv_nsec);
}

#endif
