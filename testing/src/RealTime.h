#pragma once

#include <pthread.h>

#include <ctime>

#include "zor/testing/Seam.h"

/// @file
/// libc's own functions of those that the program defines. Nobody redirects these seams.

namespace zor::testing::internal {

extern Seam<int(clockid_t, timespec*)> realClockGettime;
extern Seam<int(pthread_cond_t*, pthread_mutex_t*)> realCondWait;
extern Seam<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)> realCondClockwait;
extern Seam<int(pthread_cond_t*)> realCondSignal;

} // namespace zor::testing::internal
