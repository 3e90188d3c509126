#pragma once

#include <cstdint>

/// How long and how often threads hold one mutex: the one that guards all semaphores of the
/// process. Interposed.cpp takes over the C library's functions for it.
namespace held {

/// What all threads together have done since the last Reset().
struct Tally
{
    std::uint64_t sections = 0;     ///< shorter than LONG_NSEC
    std::uint64_t ticks = 0;        ///< the clock's, in these; the clock's own cost is in them
    std::uint64_t longSections = 0; ///< whoever held it was interrupted, or its page was not there
};

constexpr double LONG_NSEC = 10000;

/// Finds out which mutex it is, and what the clock costs. Before there is a second thread.
void Prepare();

/// Nothing is recorded before the first Start(); the others may run meanwhile.
void Start();
void Stop();

/// No other thread may be inside a section.
void Reset();
Tally Sum();

double NsecPerTick();

/// What is read between the two looks at the clock when nothing lies between them.
double EmptyNsec();

/// What an uncontended lock and unlock of a mutex take together, without any record.
double LockUnlockNsec();

} // namespace held
