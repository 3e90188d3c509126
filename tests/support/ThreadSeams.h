#pragma once

#include <pthread.h>
#include <sys/resource.h>

#include "Seam.h"

/// @file
/// The calls that make threads and change what they are.

namespace zortest {

using ThreadEntry = void* (*)(void*);

extern Seam<int(pthread_t*, const pthread_attr_t*, ThreadEntry, void*)> pthreadCreateSeam;
extern Seam<int(pthread_t, const char*)> setnameSeam;
extern Seam<int(__priority_which_t, id_t, int)> setprioritySeam;

/// How often the calling thread has destroyed thread attributes since it started.
int AttributesDestroyed();

} // namespace zortest
