#pragma once

#include <cstdint>

#include "Scheduler.h"

/// All that a run decides. A run is a function of these decisions and of nothing else.
namespace zorsim {

void InitStrategy();

/// The thread to go on with, out of @p count that can; @p self is null if it is none of them.
Thread* DecideThread(Thread* self, Thread* const* runnable, std::uint32_t count);

/// One of @p count waiters, without a reason the first.
std::uint32_t DecideWaiter(std::uint32_t count);

/// Whether a deadline comes first although threads can run.
bool DecideStall();

/// Whether a wait ends for no reason.
bool DecideSpurious();

/// A number below @p count.
std::uint32_t DecideNumber(std::uint32_t count);

/// The thread can do nothing useful now: others of any priority go first.
void Demote(Thread* thread);

/// For the priority of a new thread.
std::int64_t NewPriority();

/// Bits that are not decisions: what a program reads as chance.
std::uint64_t ProgramRandom();

} // namespace zorsim
