#pragma once

#include "Scheduler.h"

/// A mutex as the simulation keeps it: in the fields of the mutex itself and with libc's meaning,
/// for a mutex need not be announced before its first use nor after its last, and the child of a
/// fork goes on with libc.
namespace zorsim {

/// @return 0, or what pthread_mutex_lock() would
int Lock(Thread* self, pthread_mutex_t* mutex, std::int64_t deadline);
int Unlock(Thread* self, pthread_mutex_t* mutex);

} // namespace zorsim
