#pragma once

#include <pthread.h>

#include "Seam.h"

/// @file
/// The calls that a reader-writer lock is made of.

namespace zortest {

using KeyDestructor = void (*)(void*);

extern Seam<int(pthread_key_t*, KeyDestructor)> keyCreateSeam;
extern Seam<int(pthread_key_t)> keyDeleteSeam;
extern Seam<int(pthread_rwlockattr_t*)> rwlockattrInitSeam;
extern Seam<int(pthread_rwlockattr_t*)> rwlockattrDestroySeam;
extern Seam<int(pthread_rwlock_t*, const pthread_rwlockattr_t*)> rwlockInitSeam;
extern Seam<int(pthread_rwlock_t*)> rwlockDestroySeam;
extern Seam<int(pthread_rwlock_t*)> rdlockSeam;
extern Seam<int(pthread_rwlock_t*)> wrlockSeam;
extern Seam<int(pthread_rwlock_t*)> rwlockUnlockSeam;

} // namespace zortest
