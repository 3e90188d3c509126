#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>

#include <cerrno>
#include <climits>

#include "Calls.h"
#include "Deadline.h"
#include "Real.h"
#include "Strategy.h"

/// Read-write locks, semaphores, barriers, spin locks and futexes, kept in the objects themselves.
namespace zorsim {

namespace {

constexpr unsigned int ONE_READER = 8; ///< as libc counts: the lower bits are flags of its own

bool IsWriterWaiting(const pthread_rwlock_t* lock)
{
    for (std::uint32_t i = 0; i < ThreadCount(); ++i) {
        const Thread& thread = *ThreadAt(i);
        if (thread.state == ThreadState::WAITING && thread.object == lock &&
            thread.operation == Operation::WRITE_LOCK) {
            return true;
        }
    }
    return false;
}

bool IsFree(const pthread_rwlock_t* lock, bool writes)
{
    const auto& data = lock->__data;
    if (writes) {
        return data.__cur_writer == 0 && data.__readers < ONE_READER;
    }
    const bool prefersWriters = data.__flags == PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP;
    return data.__cur_writer == 0 && !(prefersWriters && IsWriterWaiting(lock));
}

int LockFor(pthread_rwlock_t* lock, bool writes, bool waits, std::int64_t deadline,
            const void* caller)
{
    Thread* const self = Self();
    const Operation operation = writes ? Operation::WRITE_LOCK : Operation::READ_LOCK;
    Step(self, operation, lock, caller);
    while (!IsFree(lock, writes)) {
        if (!waits) {
            Tick(self, 1000);
            return EBUSY;
        }
        if (lock->__data.__cur_writer == self->tid) {
            return EDEADLK;
        }
        if (Block(self, operation, lock, deadline) == Woken::BY_DEADLINE && !IsFree(lock, writes)) {
            return ETIMEDOUT;
        }
    }
    if (writes) {
        lock->__data.__cur_writer = self->tid;
    } else {
        lock->__data.__readers += ONE_READER;
    }
    return 0;
}

/// libc's semaphores of 64 bits: the value is the lower half.
std::uint32_t* ValueOf(sem_t* semaphore)
{
    return reinterpret_cast<std::uint32_t*>(semaphore);
}

int Take(sem_t* semaphore, std::int64_t deadline, const void* caller)
{
    Thread* const self = Self();
    Step(self, Operation::SEM_WAIT, semaphore, caller);
    while (*ValueOf(semaphore) == 0) {
        const Woken woken = Block(self, Operation::SEM_WAIT, semaphore, deadline);
        if (*ValueOf(semaphore) == 0 && woken != Woken::BY_OTHER) {
            errno = woken == Woken::BY_DEADLINE ? ETIMEDOUT : EINTR;
            return -1;
        }
    }
    --*ValueOf(semaphore);
    return 0;
}

int TakeUntil(sem_t* semaphore, clockid_t clock, const timespec* until, const void* caller)
{
    if (!IsValid(*until)) {
        errno = EINVAL;
        return -1;
    }
    return Take(semaphore, Deadline(clock, *until), caller);
}

/// A barrier in the memory of libc's.
struct Barrier
{
    std::uint32_t count;
    std::uint32_t arrived;
    std::uint64_t round;
};
static_assert(sizeof(Barrier) <= sizeof(pthread_barrier_t));

long WaitForFutex(Thread* self, int* word, int value, std::int64_t deadline, std::uint32_t bits)
{
    if (__atomic_load_n(word, __ATOMIC_SEQ_CST) != value) {
        errno = EAGAIN;
        return -1;
    }
    if (DecideSpurious()) {
        return 0;
    }
    self->futexBits = bits;
    const Woken woken = Block(self, Operation::WORD_WAIT, word, deadline);
    if (woken == Woken::BY_OTHER) {
        return 0;
    }
    errno = woken == Woken::BY_DEADLINE ? ETIMEDOUT : EINTR;
    return -1;
}

long WakeFutex(const int* word, int count, std::uint32_t bits)
{
    long woken = 0;
    for (std::uint32_t i = 0; i < ThreadCount() && woken < count; ++i) {
        Thread* const thread = ThreadAt(i);
        if (thread->state == ThreadState::WAITING && thread->object == word &&
            (thread->futexBits & bits) != 0) {
            Wake(thread);
            ++woken;
        }
    }
    return woken;
}

} // namespace

long SimulateFutex(int* word, int operation, int value, const timespec* time, std::uint32_t bits,
                   const void* caller)
{
    Thread* const self = Self();
    const int command = operation & FUTEX_CMD_MASK;
    const bool isWall = (operation & FUTEX_CLOCK_REALTIME) != 0;
    switch (command) {
        case FUTEX_WAIT:
        case FUTEX_WAIT_BITSET: {
            Step(self, Operation::WORD_WAIT, word, caller);
            std::int64_t deadline = NEVER;
            if (time != nullptr) {
                deadline = command == FUTEX_WAIT
                               ? After(Nsec(*time))
                               : Deadline(isWall ? CLOCK_REALTIME : CLOCK_MONOTONIC, *time);
            }
            return WaitForFutex(self, word, value, deadline,
                                command == FUTEX_WAIT ? FUTEX_BITSET_MATCH_ANY : bits);
        }
        case FUTEX_WAKE:
        case FUTEX_WAKE_BITSET:
            Step(self, Operation::WORD_WAKE, word, caller);
            return WakeFutex(word, value, command == FUTEX_WAKE ? FUTEX_BITSET_MATCH_ANY : bits);
        default:
            Unsupported("this operation of a futex (only waits and wakes)");
    }
}

} // namespace zorsim

using namespace zorsim;

ZOR_SIM_EXPORT int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept
{
    return Self() == nullptr ? ZOR_SIM_REAL(pthread_rwlock_rdlock)(lock)
                             : LockFor(lock, false, true, NEVER, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept
{
    return Self() == nullptr ? ZOR_SIM_REAL(pthread_rwlock_wrlock)(lock)
                             : LockFor(lock, true, true, NEVER, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pthread_rwlock_tryrdlock(pthread_rwlock_t* lock) noexcept
{
    return Self() == nullptr ? ZOR_SIM_REAL(pthread_rwlock_tryrdlock)(lock)
                             : LockFor(lock, false, false, NEVER, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pthread_rwlock_trywrlock(pthread_rwlock_t* lock) noexcept
{
    return Self() == nullptr ? ZOR_SIM_REAL(pthread_rwlock_trywrlock)(lock)
                             : LockFor(lock, true, false, NEVER, ZOR_SIM_CALLER);
}

#define ZOR_SIM_TIMED_RWLOCK(function, writes)                                                     \
    ZOR_SIM_EXPORT int pthread_rwlock_timed##function(pthread_rwlock_t* lock,                      \
                                                      const timespec* until) noexcept              \
    {                                                                                              \
        if (Self() == nullptr) {                                                                   \
            return ZOR_SIM_REAL(pthread_rwlock_timed##function)(lock, until);                      \
        }                                                                                          \
        return IsValid(*until)                                                                     \
                   ? LockFor(lock, writes, true, Deadline(CLOCK_REALTIME, *until), ZOR_SIM_CALLER) \
                   : EINVAL;                                                                       \
    }                                                                                              \
    ZOR_SIM_EXPORT int pthread_rwlock_clock##function(pthread_rwlock_t* lock, clockid_t clock,     \
                                                      const timespec* until) noexcept              \
    {                                                                                              \
        if (Self() == nullptr) {                                                                   \
            return ZOR_SIM_REAL(pthread_rwlock_clock##function)(lock, clock, until);               \
        }                                                                                          \
        return IsValid(*until)                                                                     \
                   ? LockFor(lock, writes, true, Deadline(clock, *until), ZOR_SIM_CALLER)          \
                   : EINVAL;                                                                       \
    }
ZOR_SIM_TIMED_RWLOCK(rdlock, false)
ZOR_SIM_TIMED_RWLOCK(wrlock, true)

ZOR_SIM_EXPORT int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_rwlock_unlock)(lock);
    }
    auto& data = lock->__data;
    if (data.__cur_writer != 0) {
        data.__cur_writer = 0;
    } else if (data.__readers >= ONE_READER) {
        data.__readers -= ONE_READER;
    }
    WakeAll(lock);
    Step(self, Operation::RW_UNLOCK, lock, ZOR_SIM_CALLER);
    return 0;
}

ZOR_SIM_EXPORT int sem_wait(sem_t* semaphore)
{
    return Self() == nullptr ? ZOR_SIM_REAL(sem_wait)(semaphore)
                             : Take(semaphore, NEVER, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int sem_trywait(sem_t* semaphore) noexcept
{
    Thread* const self = Self();
    if (self != nullptr) {
        Step(self, Operation::SEM_WAIT, semaphore, ZOR_SIM_CALLER);
        Tick(self, *ValueOf(semaphore) == 0 ? 1000 : 0);
    }
    return ZOR_SIM_REAL(sem_trywait)(semaphore);
}

ZOR_SIM_EXPORT int sem_timedwait(sem_t* semaphore, const timespec* until)
{
    return Self() == nullptr ? ZOR_SIM_REAL(sem_timedwait)(semaphore, until)
                             : TakeUntil(semaphore, CLOCK_REALTIME, until, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* until)
{
    return Self() == nullptr ? ZOR_SIM_REAL(sem_clockwait)(semaphore, clock, until)
                             : TakeUntil(semaphore, clock, until, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int sem_post(sem_t* semaphore) noexcept
{
    Thread* const self = Self();
    const int result = ZOR_SIM_REAL(sem_post)(semaphore);
    if (self != nullptr) {
        const int error = errno;
        WakeAll(semaphore);
        Step(self, Operation::SEM_POST, semaphore, ZOR_SIM_CALLER);
        errno = error;
    }
    return result;
}

ZOR_SIM_EXPORT sem_t* sem_open(const char* /*name*/, int /*flags*/, ...) noexcept
{
    Unsupported("semaphores with a name (sem_open)");
}

ZOR_SIM_EXPORT int pthread_barrier_init(pthread_barrier_t* barrier,
                                        const pthread_barrierattr_t* attributes,
                                        unsigned int count) noexcept
{
    const int result = ZOR_SIM_REAL(pthread_barrier_init)(barrier, attributes, count);
    if (Self() != nullptr && result == 0) {
        *reinterpret_cast<Barrier*>(barrier) = {count, 0, 0};
    }
    return result;
}

ZOR_SIM_EXPORT int pthread_barrier_destroy(pthread_barrier_t* barrier) noexcept
{
    return Self() == nullptr ? ZOR_SIM_REAL(pthread_barrier_destroy)(barrier) : 0;
}

ZOR_SIM_EXPORT int pthread_barrier_wait(pthread_barrier_t* object) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_barrier_wait)(object);
    }
    Barrier* const barrier = reinterpret_cast<Barrier*>(object);
    Step(self, Operation::BARRIER, object, ZOR_SIM_CALLER);
    const std::uint64_t round = barrier->round;
    if (++barrier->arrived == barrier->count) {
        barrier->arrived = 0;
        ++barrier->round;
        WakeAll(object);
        return PTHREAD_BARRIER_SERIAL_THREAD;
    }
    while (barrier->round == round) {
        Block(self, Operation::BARRIER, object, NEVER);
    }
    return 0;
}

ZOR_SIM_EXPORT int pthread_spin_lock(pthread_spinlock_t* lock) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_spin_lock)(lock);
    }
    do {
        Step(self, Operation::YIELD, const_cast<int*>(lock), ZOR_SIM_CALLER);
    } while (ZOR_SIM_REAL(pthread_spin_trylock)(lock) != 0);
    return 0;
}

ZOR_SIM_EXPORT int pthread_spin_unlock(pthread_spinlock_t* lock) noexcept
{
    const int result = ZOR_SIM_REAL(pthread_spin_unlock)(lock);
    if (Thread* const self = Self()) {
        Step(self, Operation::UNLOCK, const_cast<int*>(lock), ZOR_SIM_CALLER);
    }
    return result;
}

ZOR_SIM_EXPORT int sched_yield() noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(sched_yield)();
    }
    Step(self, Operation::YIELD, nullptr, ZOR_SIM_CALLER);
    return 0;
}
