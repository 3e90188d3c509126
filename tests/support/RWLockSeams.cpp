#include "RWLockSeams.h"

namespace zortest {

Seam<int(pthread_key_t*, KeyDestructor)> keyCreateSeam("pthread_key_create");
Seam<int(pthread_key_t)> keyDeleteSeam("pthread_key_delete");
Seam<int(pthread_rwlockattr_t*)> rwlockattrInitSeam("pthread_rwlockattr_init");
Seam<int(pthread_rwlockattr_t*)> rwlockattrDestroySeam("pthread_rwlockattr_destroy");
Seam<int(pthread_rwlock_t*, const pthread_rwlockattr_t*)> rwlockInitSeam("pthread_rwlock_init");
Seam<int(pthread_rwlock_t*)> rwlockDestroySeam("pthread_rwlock_destroy");
Seam<int(pthread_rwlock_t*)> rdlockSeam("pthread_rwlock_rdlock");
Seam<int(pthread_rwlock_t*)> wrlockSeam("pthread_rwlock_wrlock");
Seam<int(pthread_rwlock_t*)> rwlockUnlockSeam("pthread_rwlock_unlock");

namespace {

/// Whether the program has come to its own initialisation, behind that of its sanitizers.
bool gInitialised = false;

__attribute__((constructor)) void NoteInitialisation()
{
    gInitialised = true;
}

} // namespace
} // namespace zortest

extern "C" {

/// The C library's own name for pthread_key_create().
int __pthread_key_create(pthread_key_t* key, zortest::KeyDestructor destructor) noexcept;

// Nothing instrumented: the thread sanitizer makes a key before it is ready to be called back.
__attribute__((no_sanitize("thread"))) int pthread_key_create(
    pthread_key_t* key, zortest::KeyDestructor destructor) noexcept
{
    return zortest::gInitialised ? zortest::keyCreateSeam(key, destructor)
                                 : __pthread_key_create(key, destructor);
}

int pthread_key_delete(pthread_key_t key) noexcept
{
    return zortest::keyDeleteSeam(key);
}

int pthread_rwlockattr_init(pthread_rwlockattr_t* attributes) noexcept
{
    return zortest::rwlockattrInitSeam(attributes);
}

int pthread_rwlockattr_destroy(pthread_rwlockattr_t* attributes) noexcept
{
    return zortest::rwlockattrDestroySeam(attributes);
}

int pthread_rwlock_init(pthread_rwlock_t* lock, const pthread_rwlockattr_t* attributes) noexcept
{
    return zortest::rwlockInitSeam(lock, attributes);
}

int pthread_rwlock_destroy(pthread_rwlock_t* lock) noexcept
{
    return zortest::rwlockDestroySeam(lock);
}

int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept
{
    return zortest::rdlockSeam(lock);
}

int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept
{
    return zortest::wrlockSeam(lock);
}

int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept
{
    return zortest::rwlockUnlockSeam(lock);
}
}
