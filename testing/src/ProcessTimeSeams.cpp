#include "ProcessTimeSeams.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <sys/times.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <set>

#include "ProcessTime.h"
#include "RealTime.h"

// libc's clocks and waits, as the program defines them. A condition variable is only a key here:
// whoever waits for it waits in the list of ProcessTime.

namespace zor::testing::internal {
namespace {

constexpr long NSEC_PER_SEC = 1000L * 1000 * 1000;

Seam<int(pthread_cond_t*, const pthread_condattr_t*)> gCondInit("pthread_cond_init");
Seam<int(pthread_cond_t*)> gCondDestroy("pthread_cond_destroy");
Seam<int(pthread_cond_t*)> gCondBroadcast("pthread_cond_broadcast");
Seam<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> gCreate("pthread_create");
Seam<int(clockid_t, int, const timespec*, timespec*)> gClockNanosleep("clock_nanosleep");
Seam<int(const timespec*, timespec*)> gNanosleep("nanosleep");
Seam<clock_t(tms*)> gTimes("times");
Seam<long(long, long, long, long, long, long, long)> gSyscall("syscall");

/// The conditions whose deadlines are on the monotonic clock. Guarded by the time's lock; never
/// destroyed.
std::set<const pthread_cond_t*>& Monotonic()
{
    static auto* const conditions = new std::set<const pthread_cond_t*>;
    return *conditions;
}

bool IsValid(const timespec& time)
{
    return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < NSEC_PER_SEC;
}

Nanoseconds FromTimespec(const timespec& time)
{
    constexpr time_t LONGEST = static_cast<time_t>(INT64_MAX / NSEC_PER_SEC / 2);
    return std::chrono::seconds(time.tv_sec < LONGEST ? time.tv_sec : LONGEST) +
           Nanoseconds(time.tv_nsec);
}

/// Lets a mutex go for a scope, which the thread may also leave by being cancelled.
class Unlocked
{
 public:
    explicit Unlocked(pthread_mutex_t* mutex) : m_mutex(mutex) {}
    ~Unlocked() { pthread_mutex_lock(m_mutex); }

    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

 private:
    pthread_mutex_t* const m_mutex;
};

/// The mutex is let go while the list's lock is held: a notification that comes as soon as it is
/// free finds the wait begun. It is taken again when that lock is free.
int WaitFor(pthread_cond_t* condition, pthread_mutex_t* mutex, const Deadline& deadline)
{
    const Unlocked unlocked(mutex);
    const TimeLock lock;
    pthread_mutex_unlock(mutex);
    return WaitLocked(condition, deadline) == EWake::NOTIFIED ? 0 : ETIMEDOUT;
}

int Notify(pthread_cond_t* condition, int count)
{
    const TimeLock lock;
    return NotifyLocked(condition, count);
}

/// A sleep of libc's. While the time runs it is the system's, which signals end.
int SleepFor(const timespec* time, timespec* left)
{
    if (!Stands() || !IsValid(*time)) {
        return gNanosleep.Real(time, left);
    }
    Sleep(FromTimespec(*time), nullptr);
    return 0;
}

long FutexWait(const std::uint32_t* word, std::uint32_t expected, const Deadline& deadline)
{
    const TimeLock lock;
    if (__atomic_load_n(word, __ATOMIC_SEQ_CST) != expected) {
        errno = EAGAIN;
        return -1;
    }
    if (WaitLocked(word, deadline) == EWake::NOTIFIED) {
        return 0;
    }
    errno = ETIMEDOUT;
    return -1;
}

/// The waits that futures and the like are made of.
///
/// @return whether this was one; then @p result is its result
bool TakeFutex(const long* args, long* result)
{
    constexpr long WAIT = 0;
    constexpr long WAKE = 1;
    constexpr long WAIT_BITSET = 9;
    constexpr long PRIVATE = 128;
    constexpr long ON_SYSTEM_CLOCK = 256;

    // All arguments of a system call are numbers.
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    const auto* word = reinterpret_cast<const std::uint32_t*>(args[0]);
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    const auto* time = reinterpret_cast<const timespec*>(args[3]);
    const long operation = args[1] & ~(PRIVATE | ON_SYSTEM_CLOCK);
    if (operation == WAKE) {
        const int count = static_cast<int>(args[2]);
        int woken = 0;
        {
            const TimeLock lock;
            woken = NotifyLocked(word, count);
        }
        *result = woken;
        return woken == count; // the rest may wait in the kernel
    }
    if (operation != WAIT && operation != WAIT_BITSET) {
        return false;
    }
    Deadline deadline;
    if (time != nullptr) {
        if (!IsValid(*time)) {
            return false;
        }
        const bool onSystem = (args[1] & ON_SYSTEM_CLOCK) != 0;
        deadline.clock = onSystem ? EDeadlineClock::SYSTEM : EDeadlineClock::PROCESS;
        deadline.at = FromTimespec(*time) + (operation == WAIT ? Now() : Nanoseconds(0));
    }
    *result = FutexWait(word, static_cast<std::uint32_t>(args[2]), deadline);
    return true;
}

} // namespace
} // namespace zor::testing::internal

using namespace zor::testing::internal;

#pragma GCC visibility push(default)
extern "C" {

int clock_gettime(clockid_t id, timespec* now) noexcept
{
    if (id != CLOCK_MONOTONIC && id != CLOCK_MONOTONIC_COARSE) {
        return realClockGettime.Real(id, now);
    }
    const Nanoseconds time = Now();
    now->tv_sec = static_cast<time_t>(time.count() / NSEC_PER_SEC);
    now->tv_nsec = static_cast<long>(time.count() % NSEC_PER_SEC);
    return 0;
}

clock_t times(tms* buffer) noexcept
{
    if (gTimes.Real(buffer) == static_cast<clock_t>(-1)) {
        return static_cast<clock_t>(-1);
    }
    return static_cast<clock_t>(Now().count() / (NSEC_PER_SEC / sysconf(_SC_CLK_TCK)));
}

int pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) noexcept
{
    clockid_t clock = CLOCK_REALTIME;
    if (attributes != nullptr) {
        pthread_condattr_getclock(attributes, &clock);
    }
    {
        const TimeLock lock;
        if (clock == CLOCK_MONOTONIC) {
            Monotonic().insert(condition);
        } else {
            Monotonic().erase(condition);
        }
    }
    return gCondInit.Real(condition, attributes);
}

int pthread_cond_destroy(pthread_cond_t* condition) noexcept
{
    {
        const TimeLock lock;
        Monotonic().erase(condition);
    }
    return gCondDestroy.Real(condition);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    return WaitFor(condition, mutex, {});
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                           const timespec* deadline)
{
    if (!IsValid(*deadline)) {
        return EINVAL;
    }
    bool isMonotonic = false;
    {
        const TimeLock lock;
        isMonotonic = Monotonic().count(condition) != 0;
    }
    return WaitFor(
        condition, mutex,
        {FromTimespec(*deadline), isMonotonic ? EDeadlineClock::PROCESS : EDeadlineClock::SYSTEM});
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline)
{
    if (!IsValid(*deadline) || (clock != CLOCK_MONOTONIC && clock != CLOCK_REALTIME)) {
        return EINVAL;
    }
    return WaitFor(condition, mutex,
                   {FromTimespec(*deadline),
                    clock == CLOCK_MONOTONIC ? EDeadlineClock::PROCESS : EDeadlineClock::SYSTEM});
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept
{
    return Notify(condition, 1) == 1 ? 0 : realCondSignal.Real(condition);
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    Notify(condition, INT_MAX);
    return gCondBroadcast.Real(condition);
}

int pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) noexcept
{
    void* const prepared = PrepareThread(entry, argument);
    const int error = gCreate.Real(handle, attributes, RunThread, prepared);
    if (error != 0) {
        ForgetThread(prepared);
    }
    return error;
}

int nanosleep(const timespec* time, timespec* left)
{
    return SleepFor(time, left);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left)
{
    if (clock != CLOCK_MONOTONIC || !IsValid(*time)) {
        return gClockNanosleep.Real(clock, flags, time, left);
    }
    const bool isAbsolute = (flags & TIMER_ABSTIME) != 0;
    if (Stands()) {
        Sleep(FromTimespec(*time) - (isAbsolute ? Now() : Nanoseconds(0)), nullptr);
        return 0;
    }
    if (!isAbsolute) {
        return gClockNanosleep.Real(clock, flags, time, left);
    }
    const Nanoseconds end = FromTimespec(*time) - Offset();
    if (end.count() <= 0) {
        return 0;
    }
    const timespec systemEnd = {static_cast<time_t>(end.count() / NSEC_PER_SEC),
                                static_cast<long>(end.count() % NSEC_PER_SEC)};
    return gClockNanosleep.Real(clock, flags, &systemEnd, left);
}

int usleep(useconds_t usec)
{
    const timespec time = {static_cast<time_t>(usec / 1000000),
                           static_cast<long>(usec % 1000000) * 1000};
    return SleepFor(&time, nullptr);
}

unsigned int sleep(unsigned int seconds)
{
    const timespec time = {static_cast<time_t>(seconds), 0};
    timespec left = {};
    return SleepFor(&time, &left) == 0 ? 0 : static_cast<unsigned int>(left.tv_sec);
}

/// Hands on as many arguments as a call can have, like the C library's: those that this one was not
/// given are whatever lies in their places, which a sanitizer would take for a fault.
__attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept
{
    long args[6];
    va_list list;
    va_start(list, number);
    for (long& arg : args) {
        arg = va_arg(list, long);
    }
    va_end(list);
    long result = 0;
    if (number == SYS_futex && TakeFutex(args, &result)) {
        return result;
    }
    const long more = gSyscall.Real(number, args[0], args[1], args[2], args[3], args[4], args[5]);
    return number == SYS_futex && more >= 0 ? more + result : more;
}
}
#pragma GCC visibility pop

namespace zor::testing::internal {

std::vector<TakenFunction> TakenFunctionsOfTime()
{
#define ZOR_TESTING_TAKEN(name)                   \
    {                                             \
#name, reinterpret_cast < void*>(&::name) \
    }
    return {
        ZOR_TESTING_TAKEN(clock_gettime),
        ZOR_TESTING_TAKEN(times),
        ZOR_TESTING_TAKEN(pthread_cond_init),
        ZOR_TESTING_TAKEN(pthread_cond_destroy),
        ZOR_TESTING_TAKEN(pthread_cond_wait),
        ZOR_TESTING_TAKEN(pthread_cond_timedwait),
        ZOR_TESTING_TAKEN(pthread_cond_clockwait),
        ZOR_TESTING_TAKEN(pthread_cond_signal),
        ZOR_TESTING_TAKEN(pthread_cond_broadcast),
        ZOR_TESTING_TAKEN(pthread_create),
        ZOR_TESTING_TAKEN(nanosleep),
        ZOR_TESTING_TAKEN(clock_nanosleep),
        ZOR_TESTING_TAKEN(usleep),
        ZOR_TESTING_TAKEN(sleep),
        ZOR_TESTING_TAKEN(syscall),
    };
#undef ZOR_TESTING_TAKEN
}

} // namespace zor::testing::internal
