#pragma once

#include "Scheduler.h"

/// What a thread waits for that no other thread of the process brings: files, children, signals.
namespace zorsim {

/// Whether what the thread waits for is there. With @p mayStand the process stands for it, as long
/// as a child of it runs that may bring it.
bool IsReadyOutside(Thread* thread, bool mayStand);

/// Whether the process has children that run, or have ended and were not waited for.
bool HasChildren();

/// Nothing inside the process can happen any more: waits in real time for one of the threads that
/// wait for something outside. It is a deadlock if nothing comes.
void AwaitOutside();

/// Raises in the calling thread what others have sent to it.
void RaisePending(Thread* self);

/// Makes the timers ready whose time has come.
///
/// @return when the next one is due
std::int64_t ExpireTimers();

/// A timer is due at that moment; forgotten once it has passed.
void ExpectTimer(std::int64_t due);

/// Has the thread raise its signals, even if it waits; the wait ends by it if @p endsWait.
void Interrupt(Thread* thread, bool endsWait);

} // namespace zorsim
