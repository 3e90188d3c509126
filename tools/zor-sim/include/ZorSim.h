#pragma once

/// What a program may tell the simulator, and ask it for.
///
/// The functions are weak: without the simulator they are not there, and the wrappers below do
/// nothing. A program needs this header alone and is linked with nothing for it. All may be called
/// by any thread at any time.

#include <cstdio>

extern "C" {
__attribute__((weak)) void zor_sim_point(const char* name);
__attribute__((weak)) unsigned int zor_sim_choose(unsigned int count);
__attribute__((weak)) int zor_sim_is_active(void);
__attribute__((weak)) void zor_sim_expect_progress(double seconds);
}

namespace zorsim {

/// Whether this process is simulated.
inline bool IsActive()
{
    return zor_sim_is_active != nullptr && zor_sim_is_active() != 0;
}

/// A place where another thread may go first; it stands in the trace by @p name, 31 characters of
/// it.
inline void Point(const char* name)
{
    if (zor_sim_point != nullptr) {
        zor_sim_point(name);
    }
}

/// The same with a number behind the name, such as the type of an event, which the simulator does
/// not know by itself: `Point("handles", event->type)`.
inline void Point(const char* name, unsigned long number)
{
    if (zor_sim_point != nullptr) {
        char text[32];
        std::snprintf(text, sizeof(text), "%s %lu", name, number);
        zor_sim_point(text);
    }
}

/// A number below @p count that differs from seed to seed; 0 without the simulator, and if @p count
/// is 0 or 1. For what a test would otherwise leave to chance.
inline unsigned int Choose(unsigned int count)
{
    return zor_sim_choose != nullptr ? zor_sim_choose(count) : 0;
}

/// The program makes progress and will call this again within @p seconds of virtual time; that it
/// did not is a finding ("no progress"). 0 ends the expectation. There is one in the process.
inline void ExpectProgress(double seconds)
{
    if (zor_sim_expect_progress != nullptr) {
        zor_sim_expect_progress(seconds);
    }
}

} // namespace zorsim
