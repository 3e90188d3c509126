#include "Mutex.h"

#include <pthread.h>

#include <cerrno>

#include "Deadline.h"
#include "Real.h"

namespace zorsim {

namespace {

constexpr int TYPE_BITS = 3;
constexpr int ROBUST_BIT = 16;
constexpr int PROTOCOL_BITS = 32 | 64;
constexpr int SHARED_BIT = 128;

void CheckKind(int kind)
{
    if ((kind & ROBUST_BIT) != 0) {
        Note("the robustness of mutexes");
    }
    if ((kind & PROTOCOL_BITS) != 0) {
        Note("the priority protocols of mutexes");
    }
    if ((kind & SHARED_BIT) != 0) {
        Note("mutexes shared with other processes");
    }
}

} // namespace

int Lock(Thread* self, pthread_mutex_t* mutex, std::int64_t deadline)
{
    auto& data = mutex->__data;
    if (__builtin_expect((data.__kind & ~TYPE_BITS) != 0, 0)) {
        CheckKind(data.__kind);
    }
    while (data.__lock != 0) {
        if (data.__owner == self->tid) {
            if ((data.__kind & TYPE_BITS) == PTHREAD_MUTEX_RECURSIVE) {
                ++data.__count;
                return 0;
            }
            if ((data.__kind & TYPE_BITS) == PTHREAD_MUTEX_ERRORCHECK) {
                return EDEADLK;
            }
        }
        if (Block(self, Operation::LOCK, mutex, deadline) == Woken::BY_DEADLINE &&
            data.__lock != 0) {
            return ETIMEDOUT;
        }
    }
    data.__lock = 1;
    data.__owner = self->tid;
    data.__count = (data.__kind & TYPE_BITS) == PTHREAD_MUTEX_RECURSIVE ? 1 : 0;
    ++data.__nusers;
    return 0;
}

int Unlock(Thread* self, pthread_mutex_t* mutex)
{
    auto& data = mutex->__data;
    const int type = data.__kind & TYPE_BITS;
    if ((type == PTHREAD_MUTEX_RECURSIVE || type == PTHREAD_MUTEX_ERRORCHECK) &&
        (data.__lock == 0 || data.__owner != self->tid)) {
        return EPERM;
    }
    if (type == PTHREAD_MUTEX_RECURSIVE && --data.__count != 0) {
        return 0;
    }
    data.__owner = 0;
    data.__nusers -= data.__nusers > 0 ? 1 : 0;
    data.__lock = 0;
    WakeAll(mutex);
    return 0;
}

namespace {

int LockUntil(pthread_mutex_t* mutex, clockid_t clock, const timespec* until, const void* caller)
{
    Thread* const self = Self();
    if (!IsValid(*until)) {
        return EINVAL;
    }
    Step(self, Operation::LOCK, mutex, caller);
    return Lock(self, mutex, Deadline(clock, *until));
}

} // namespace

} // namespace zorsim

using namespace zorsim;

ZOR_SIM_EXPORT int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_mutex_lock)(mutex);
    }
    Step(self, Operation::LOCK, mutex, ZOR_SIM_CALLER);
    return Lock(self, mutex, NEVER);
}

ZOR_SIM_EXPORT int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_mutex_trylock)(mutex);
    }
    Step(self, Operation::TRY_LOCK, mutex, ZOR_SIM_CALLER);
    const auto& data = mutex->__data;
    const bool isOwn =
        data.__owner == self->tid && (data.__kind & 3) == static_cast<int>(PTHREAD_MUTEX_RECURSIVE);
    if (data.__lock != 0 && !isOwn) {
        Tick(self, 1000); // or a loop around it would last for ever
        return EBUSY;
    }
    return Lock(self, mutex, NEVER);
}

ZOR_SIM_EXPORT int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* until) noexcept
{
    return Self() == nullptr ? ZOR_SIM_REAL(pthread_mutex_timedlock)(mutex, until)
                             : LockUntil(mutex, CLOCK_REALTIME, until, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                                           const timespec* until) noexcept
{
    return Self() == nullptr ? ZOR_SIM_REAL(pthread_mutex_clocklock)(mutex, clock, until)
                             : LockUntil(mutex, clock, until, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_mutex_unlock)(mutex);
    }
    const int result = Unlock(self, mutex);
    Step(self, Operation::UNLOCK, mutex, ZOR_SIM_CALLER);
    return result;
}
