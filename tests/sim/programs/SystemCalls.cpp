/// Sleeps an hour by system calls made by number, beside a clock of the program's own that stands.
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <thread>

extern "C" int clock_gettime(clockid_t, timespec* now) noexcept
{
    *now = {};
    return 0;
}

namespace {

constexpr time_t HALF_AN_HOUR = 1800;

time_t Now()
{
    timespec now = {};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

bool RefusesWrongTimes()
{
    const timespec wrong = {0, -1};
    errno = 0;
    return syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &wrong, nullptr) == -1 &&
           errno == EINVAL;
}

} // namespace

int main()
{
    std::thread other([] { syscall(SYS_poll, nullptr, 0, 1000); });
    const time_t begin = Now();
    const timespec pause = {HALF_AN_HOUR, 0};
    const bool slept = syscall(SYS_nanosleep, &pause, nullptr) == 0 &&
                       syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &pause, nullptr) == 0;
    const time_t took = Now() - begin;
    other.join();
    std::printf("%ld seconds\n", static_cast<long>(took));
    return slept && took == 2 * HALF_AN_HOUR && RefusesWrongTimes() ? 0 : 1;
}
