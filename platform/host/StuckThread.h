#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <ctime>

namespace zorhost {

/// Writes to the platform log, at ERROR, what a thread that does not get on is doing: whether it
/// has used the processor (it spins) or not (it is blocked), and its call stack, one line for each
/// frame.
///
/// The stack is taken by the thread itself, in the handler of a real-time signal that nobody else
/// uses. A thread that blocks signals or is stuck in the kernel gives none, and the log says so.
/// Interruptible system calls of the thread are restarted where the system does that; others
/// (sleeping, polling) end early with EINTR.
///
/// Takes at most half a second, allocates no memory and takes no lock: the thread may hold any.
/// One caller at a time.
///
/// @param name      what to call the thread in the log
/// @param tid       its kernel id
/// @param cpuClock  its clock from pthread_getcpuclockid(); it may have ended since
void LogStuckThread(const char* name, pid_t tid, clockid_t cpuClock);

} // namespace zorhost
