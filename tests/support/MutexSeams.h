#pragma once

#include <pthread.h>

#include "Seam.h"

/// @file
/// Locking mutexes: those of the standard library and the one that guards all semaphores.

namespace zortest {

extern Seam<int(pthread_mutex_t*)> mutexLockSeam;
extern Seam<int(pthread_mutex_t*)> mutexTrylockSeam;
extern Seam<int(pthread_mutex_t*)> mutexUnlockSeam;

/// Whether @p mutex is a member of @p object.
template <typename Object>
bool IsInside(const pthread_mutex_t* mutex, const Object& object)
{
    const auto* at = reinterpret_cast<const char*>(mutex);
    const auto* begin = reinterpret_cast<const char*>(&object);
    return at >= begin && at < begin + sizeof(object);
}

} // namespace zortest
