#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>

#include "Deadline.h"
#include "Real.h"

namespace zorsim {

namespace {

pthread_key_t g_endKey;

/// Called for an ending thread once in each of the rounds in which libc runs the destructors of
/// thread-specific data; those of thread-local objects are behind it then. In the last round
/// nothing of the program is left to run on the thread.
void AtEnd(void* argument)
{
    Thread* const self = static_cast<Thread*>(argument);
    if (Self() == nullptr) {
        return;
    }
    if (++self->endRounds < PTHREAD_DESTRUCTOR_ITERATIONS || !EndTurns(self)) {
        pthread_setspecific(g_endKey, self);
    }
}

__attribute__((constructor(65535))) void MakeEndKey()
{
    if (Thread* const self = Self()) {
        pthread_key_create(&g_endKey, AtEnd);
        pthread_setspecific(g_endKey, self);
    }
}

void* RunThread(void* argument)
{
    Thread* const self = static_cast<Thread*>(argument);
    __atomic_store_n(&self->tid, static_cast<pid_t>(ZOR_SIM_REAL(syscall)(SYS_gettid)),
                     __ATOMIC_RELEASE);
    MakeSelf(self);
    AwaitFirstTurn(self);
    pthread_setspecific(g_endKey, self);
    return self->start(self->argument);
}

bool IsDetached(const pthread_attr_t* attributes)
{
    int state = PTHREAD_CREATE_JOINABLE;
    return attributes != nullptr && pthread_attr_getdetachstate(attributes, &state) == 0 &&
           state == PTHREAD_CREATE_DETACHED;
}

int Create(pthread_t* handle, const pthread_attr_t* attributes, void* (*start)(void*),
           void* argument)
{
    Thread* const thread = NewThread();
    thread->start = start;
    thread->argument = argument;
    thread->isDetached = IsDetached(attributes);
    memcpy(thread->name, Self()->name, NAME_SIZE);
    // A copy that shares what it points to; it is not destroyed.
    pthread_attr_t joinable;
    if (attributes != nullptr) {
        memcpy(&joinable, attributes, sizeof(joinable));
        pthread_attr_setdetachstate(&joinable, PTHREAD_CREATE_JOINABLE);
    }
    const int error = ZOR_SIM_REAL(pthread_create)(
        &thread->handle, attributes != nullptr ? &joinable : nullptr, RunThread, thread);
    if (error != 0) {
        FreeThread(thread);
        return error;
    }
    *handle = thread->handle;
    // So that it is known to the kernel under a number when somebody sends it a signal.
    while (__atomic_load_n(&thread->tid, __ATOMIC_ACQUIRE) == 0) {
        ZOR_SIM_REAL(sched_yield)();
    }
    return 0;
}

int Join(pthread_t handle, void** result, std::int64_t deadline, const void* caller)
{
    Thread* const self = Self();
    Thread* const thread = FindThread(handle);
    if (thread == nullptr) {
        return ESRCH;
    }
    if (thread == self) {
        return EDEADLK;
    }
    if (thread->isDetached || thread->isJoining) {
        return EINVAL;
    }
    thread->isJoining = true;
    Step(self, Operation::JOIN, thread, caller);
    while (thread->state != ThreadState::ENDED) {
        if (Block(self, Operation::JOIN, thread, deadline) == Woken::BY_DEADLINE &&
            thread->state != ThreadState::ENDED) {
            thread->isJoining = false;
            return ETIMEDOUT;
        }
    }
    if (thread->isMain) {
        return 0; // its result is with libc, which does not give it while the process runs
    }
    ZOR_SIM_REAL(pthread_join)(handle, result);
    FreeThread(thread);
    return 0;
}

} // namespace

Thread* FindThread(pthread_t handle)
{
    for (std::uint32_t i = 0; i < ThreadCount(); ++i) {
        if (ThreadAt(i)->state != ThreadState::FREE && ThreadAt(i)->handle == handle) {
            return ThreadAt(i);
        }
    }
    return nullptr;
}

} // namespace zorsim

using namespace zorsim;

ZOR_SIM_EXPORT int pthread_create(pthread_t* handle, const pthread_attr_t* attributes,
                                  void* (*start)(void*), void* argument) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_create)(handle, attributes, start, argument);
    }
    const int error = Create(handle, attributes, start, argument);
    Step(self, Operation::CREATE, nullptr, ZOR_SIM_CALLER);
    return error;
}

ZOR_SIM_EXPORT int pthread_join(pthread_t handle, void** result)
{
    return Self() == nullptr ? ZOR_SIM_REAL(pthread_join)(handle, result)
                             : Join(handle, result, NEVER, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pthread_timedjoin_np(pthread_t handle, void** result, const timespec* until)
{
    return Self() == nullptr
               ? ZOR_SIM_REAL(pthread_timedjoin_np)(handle, result, until)
               : Join(handle, result, Deadline(CLOCK_REALTIME, *until), ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pthread_clockjoin_np(pthread_t handle, void** result, clockid_t clock,
                                        const timespec* until)
{
    return Self() == nullptr ? ZOR_SIM_REAL(pthread_clockjoin_np)(handle, result, clock, until)
                             : Join(handle, result, Deadline(clock, *until), ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pthread_tryjoin_np(pthread_t handle, void** result) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_tryjoin_np)(handle, result);
    }
    Tick(self, 1000);
    const int error = Join(handle, result, 0, ZOR_SIM_CALLER);
    return error == ETIMEDOUT ? EBUSY : error;
}

ZOR_SIM_EXPORT int pthread_detach(pthread_t handle) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_detach)(handle);
    }
    Step(self, Operation::DETACH, nullptr, ZOR_SIM_CALLER);
    Thread* const thread = FindThread(handle);
    if (thread == nullptr || thread->isMain) {
        return thread == nullptr ? ESRCH : 0;
    }
    if (thread->isDetached) {
        return EINVAL;
    }
    thread->isDetached = true;
    if (thread->state == ThreadState::ENDED) {
        ZOR_SIM_REAL(pthread_join)(handle, nullptr);
        FreeThread(thread);
    }
    return 0;
}

ZOR_SIM_EXPORT int pthread_setname_np(pthread_t handle, const char* name) noexcept
{
    Thread* const thread = Self() != nullptr ? FindThread(handle) : nullptr;
    const int error = ZOR_SIM_REAL(pthread_setname_np)(handle, name);
    if (thread != nullptr && error == 0) {
        strncpy(thread->name, name, NAME_SIZE - 1);
    }
    return error;
}

ZOR_SIM_EXPORT int prctl(int option, ...) noexcept
{
    va_list list;
    va_start(list, option);
    unsigned long a[4];
    for (unsigned long& argument : a) {
        argument = va_arg(list, unsigned long);
    }
    va_end(list);
    Thread* const self = Self();
    if (self != nullptr && option == PR_SET_NAME) {
        strncpy(self->name, reinterpret_cast<const char*>(a[0]), NAME_SIZE - 1);
    }
    return ZOR_SIM_REAL(prctl)(option, a[0], a[1], a[2], a[3]);
}

ZOR_SIM_EXPORT int pthread_cancel(pthread_t handle)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(pthread_cancel)(handle);
    }
    Unsupported("the cancellation of threads (pthread_cancel)");
}

/// What glibc offers besides and makes of its own threads and locks.
extern "C" int thrd_create(unsigned long*, int (*)(void*), void*);
ZOR_SIM_EXPORT int thrd_create(unsigned long* handle, int (*start)(void*), void* argument)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(thrd_create)(handle, start, argument);
    }
    Unsupported("the threads of C11 (thrd_create)");
}

/// Everything runs on one processor, and so nothing should spin.
ZOR_SIM_EXPORT long sysconf(int name) noexcept
{
    const bool isProcessors = name == _SC_NPROCESSORS_ONLN || name == _SC_NPROCESSORS_CONF;
    return isProcessors && Self() != nullptr ? 1 : ZOR_SIM_REAL(sysconf)(name);
}

ZOR_SIM_EXPORT int sched_setaffinity(pid_t process, std::size_t size, const cpu_set_t* set) noexcept
{
    return Self() != nullptr ? 0 : ZOR_SIM_REAL(sched_setaffinity)(process, size, set);
}

ZOR_SIM_EXPORT int pthread_setaffinity_np(pthread_t handle, std::size_t size,
                                          const cpu_set_t* set) noexcept
{
    return Self() != nullptr ? 0 : ZOR_SIM_REAL(pthread_setaffinity_np)(handle, size, set);
}
