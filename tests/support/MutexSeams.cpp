#include "MutexSeams.h"

namespace zortest {

Seam<int(pthread_mutex_t*)> mutexLockSeam("pthread_mutex_lock");
Seam<int(pthread_mutex_t*)> mutexTrylockSeam("pthread_mutex_trylock");
Seam<int(pthread_mutex_t*)> mutexUnlockSeam("pthread_mutex_unlock");

} // namespace zortest

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    return zortest::mutexLockSeam(mutex);
}

extern "C" int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept
{
    return zortest::mutexTrylockSeam(mutex);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    return zortest::mutexUnlockSeam(mutex);
}
