#pragma once

#include <cstdint>

namespace zor {

/// Waiting for a moment without giving the processor away, in time and not in instructions: what a
/// pause costs differs by a factor of a hundred between processors. All static; any thread may call
/// any operation. Until the library's objects are made nobody spins.
class Spin
{
 public:
    /// Keeps the processor from whatever it does between two looks at the same memory.
    static void Pause()
    {
#if defined(__x86_64__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        // `yield` takes no time on cores that run one thread each.
        asm volatile("isb" ::: "memory");
#else
        asm volatile("" ::: "memory");
#endif
    }

    /// Nanoseconds on the monotonic clock; 0 if it cannot be read.
    static std::int64_t Now();

    /// Nanoseconds of processor time that the process has used; 0 if that cannot be read.
    static std::int64_t Used();

    /// How many pauses take about @p nsec nanoseconds on this processor; at least one.
    static int PausesIn(int nsec);

    /// Whether another thread can run while this one spins: whether the process may use several
    /// processors. The system was asked when the library was loaded, and by Reconsider().
    static bool CanHelp()
    {
        return Processors() > 1;
    }

    /// How many processors the process may use, as the system said when it was asked last; one
    /// until the library's objects are made.
    static int Processors();

    /// Asks the system again, once in a thousand calls of a thread. The processors that a process
    /// may use can change while it runs.
    static void Reconsider();
};

} // namespace zor
