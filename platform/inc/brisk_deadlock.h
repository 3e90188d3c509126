#pragma once

#include "PlatformExport.h"

/// Puts the calling thread under supervision: from now on it must call
/// brisk_deadlock_watchdog_notify() at least once in every @p seconds.
///
/// @param seconds  the time-out in seconds, 1 or more; a second call replaces the first
/// @return 0 on success, otherwise an error number
///
/// Supervision ends with the thread.
extern "C" ZOR_PLATFORM_API int brisk_deadlock_register_watchdog_service(unsigned long seconds);

/// Tells the supervisor that the calling thread is alive.
///
/// @return 0 on success, otherwise an error number (the thread was never registered)
extern "C" ZOR_PLATFORM_API int brisk_deadlock_watchdog_notify(void);
