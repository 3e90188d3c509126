#include <poll.h>
#include <sys/time.h>
#include <sys/times.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "Deadline.h"
#include "Real.h"
#include "Strategy.h"

/// Clocks and sleeps, and what else a program takes for chance.
namespace zorsim {

namespace {

constexpr std::int64_t NSEC_PER_USEC = 1000;

/// The clock, after a read of it has taken its time.
std::int64_t Read(Thread* self, clockid_t clock, const void* caller)
{
    Step(self, Operation::CLOCK, nullptr, caller);
    switch (clock) {
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
        case CLOCK_TAI:
            return g_now + WALL_CLOCK;
        case CLOCK_THREAD_CPUTIME_ID:
            return self->cpuNsec;
        case CLOCK_PROCESS_CPUTIME_ID: {
            std::int64_t sum = 0;
            for (std::uint32_t i = 0; i < ThreadCount(); ++i) {
                sum += ThreadAt(i)->cpuNsec;
            }
            return sum;
        }
        default:
            return g_now;
    }
}

/// @return 0 or EINTR
int Sleep(std::int64_t deadline, timespec* left, const void* caller)
{
    Thread* const self = Self();
    Step(self, Operation::SLEEP, nullptr, caller);
    if (Block(self, Operation::SLEEP, nullptr, deadline) != Woken::BY_SIGNAL) {
        return 0;
    }
    if (left != nullptr) {
        *left = Timespec(deadline > g_now ? deadline - g_now : 0);
    }
    return EINTR;
}

} // namespace

} // namespace zorsim

using namespace zorsim;

ZOR_SIM_EXPORT int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(clock_gettime)(clock, time);
    }
    if (clock < 0) {
        Note("the processor time of other threads and processes (clock_gettime)");
        return ZOR_SIM_REAL(clock_gettime)(clock, time);
    }
    const std::int64_t now = Read(self, clock, ZOR_SIM_CALLER);
    *time = Timespec(now);
    return 0;
}

ZOR_SIM_EXPORT int gettimeofday(timeval* time, void* zone) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(gettimeofday)(time, static_cast<struct timezone*>(zone));
    }
    const std::int64_t now = Read(self, CLOCK_REALTIME, ZOR_SIM_CALLER);
    time->tv_sec = now / NSEC_PER_SEC;
    time->tv_usec = now % NSEC_PER_SEC / NSEC_PER_USEC;
    return 0;
}

ZOR_SIM_EXPORT time_t time(time_t* result) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(time)(result);
    }
    const time_t now = Read(self, CLOCK_REALTIME, ZOR_SIM_CALLER) / NSEC_PER_SEC;
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

ZOR_SIM_EXPORT int timespec_get(timespec* time, int base) noexcept
{
    Thread* const self = Self();
    if (self == nullptr || base != TIME_UTC) {
        return ZOR_SIM_REAL(timespec_get)(time, base);
    }
    *time = Timespec(Read(self, CLOCK_REALTIME, ZOR_SIM_CALLER));
    return base;
}

ZOR_SIM_EXPORT clock_t times(tms* result) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(times)(result);
    }
    const std::int64_t tick = NSEC_PER_SEC / ZOR_SIM_REAL(sysconf)(_SC_CLK_TCK);
    const std::int64_t now = Read(self, CLOCK_MONOTONIC, ZOR_SIM_CALLER);
    if (result != nullptr) {
        *result = {self->cpuNsec / tick, 0, 0, 0};
    }
    return now / tick;
}

ZOR_SIM_EXPORT clock_t clock() noexcept
{
    Thread* const self = Self();
    return self == nullptr ? ZOR_SIM_REAL(clock)()
                           : Read(self, CLOCK_PROCESS_CPUTIME_ID, ZOR_SIM_CALLER) / NSEC_PER_USEC;
}

ZOR_SIM_EXPORT int nanosleep(const timespec* wanted, timespec* left)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(nanosleep)(wanted, left);
    }
    const timespec interval = *wanted; // what is left may be stored in the same place
    const int error = IsValid(interval) && interval.tv_sec >= 0
                          ? Sleep(After(Nsec(interval)), left, ZOR_SIM_CALLER)
                          : EINVAL;
    errno = error != 0 ? error : errno;
    return error != 0 ? -1 : 0;
}

ZOR_SIM_EXPORT int clock_nanosleep(clockid_t clock, int flags, const timespec* wanted,
                                   timespec* left)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(clock_nanosleep)(clock, flags, wanted, left);
    }
    const timespec time = *wanted;
    if (!IsValid(time)) {
        return EINVAL;
    }
    const bool isAbsolute = (flags & TIMER_ABSTIME) != 0;
    return Sleep(isAbsolute ? Deadline(clock, time) : After(Nsec(time)),
                 isAbsolute ? nullptr : left, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int usleep(useconds_t usec)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(usleep)(usec);
    }
    const int error = Sleep(After(usec * NSEC_PER_USEC), nullptr, ZOR_SIM_CALLER);
    errno = error != 0 ? error : errno;
    return error != 0 ? -1 : 0;
}

ZOR_SIM_EXPORT unsigned int sleep(unsigned int seconds)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(sleep)(seconds);
    }
    timespec left = {};
    Sleep(After(seconds * NSEC_PER_SEC), &left, ZOR_SIM_CALLER);
    return static_cast<unsigned int>(left.tv_sec + (left.tv_nsec > 0 ? 1 : 0));
}

extern "C" {
int timer_create(clockid_t, struct sigevent*, timer_t*) noexcept;
unsigned int alarm(unsigned int) noexcept;
std::uint32_t arc4random(void) noexcept;
ssize_t getrandom(void*, std::size_t, unsigned int);
int getentropy(void*, std::size_t);
}

ZOR_SIM_EXPORT int timer_create(clockid_t clock, struct sigevent* event, timer_t* timer) noexcept
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(timer_create)(clock, event, timer);
    }
    Unsupported("timers that send signals (timer_create)");
}

ZOR_SIM_EXPORT int setitimer(__itimer_which_t which, const itimerval* value,
                             itimerval* before) noexcept
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(setitimer)(which, value, before);
    }
    Unsupported("timers that send signals (setitimer)");
}

ZOR_SIM_EXPORT unsigned int alarm(unsigned int seconds) noexcept
{
    if (Self() == nullptr || seconds == 0) {
        return ZOR_SIM_REAL(alarm)(seconds);
    }
    Unsupported("timers that send signals (alarm)");
}

namespace {

void FillAtRandom(void* buffer, std::size_t size)
{
    for (std::size_t i = 0; i < size; ++i) {
        static_cast<unsigned char*>(buffer)[i] = static_cast<unsigned char>(ProgramRandom());
    }
}

} // namespace

ZOR_SIM_EXPORT std::uint32_t arc4random(void) noexcept
{
    return Self() == nullptr ? ZOR_SIM_REAL(arc4random)()
                             : static_cast<std::uint32_t>(ProgramRandom());
}

ZOR_SIM_EXPORT ssize_t getrandom(void* buffer, std::size_t size, unsigned int flags)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(getrandom)(buffer, size, flags);
    }
    FillAtRandom(buffer, size);
    return static_cast<ssize_t>(size);
}

ZOR_SIM_EXPORT int getentropy(void* buffer, std::size_t size)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(getentropy)(buffer, size);
    }
    FillAtRandom(buffer, size);
    return 0;
}
