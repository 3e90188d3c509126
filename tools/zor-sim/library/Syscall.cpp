#include <linux/futex.h>
#include <poll.h>
#include <sched.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>

#include "Calls.h"
#include "Real.h"
#include "Scheduler.h"

/// System calls by number: programs make them past libc, or past what takes the place of a function
/// of libc's. What is called here is this library's own function, whatever the program defines.
namespace zorsim {

namespace {

template <typename Type>
Type* Pointer(long argument)
{
    return reinterpret_cast<Type*>(argument);
}

/// The function of libc's tells the error itself, the system call by errno.
long ByErrno(int error)
{
    if (error != 0) {
        errno = error;
    }
    return error != 0 ? -1 : 0;
}

/// @return whether @p result has been set: the call is simulated
bool Simulate(long number, const long* a, long* result, const void* caller)
{
    switch (number) {
        case SYS_futex:
            *result = SimulateFutex(Pointer<int>(a[0]), static_cast<int>(a[1]),
                                    static_cast<int>(a[2]), Pointer<const timespec>(a[3]),
                                    static_cast<std::uint32_t>(a[5]), caller);
            return true;
        case SYS_clock_gettime:
            *result = clock_gettime(static_cast<clockid_t>(a[0]), Pointer<timespec>(a[1]));
            return true;
        case SYS_gettimeofday:
            *result = gettimeofday(Pointer<timeval>(a[0]), Pointer<void>(a[1]));
            return true;
        case SYS_nanosleep:
            *result = nanosleep(Pointer<const timespec>(a[0]), Pointer<timespec>(a[1]));
            return true;
        case SYS_clock_nanosleep:
            *result =
                ByErrno(clock_nanosleep(static_cast<clockid_t>(a[0]), static_cast<int>(a[1]),
                                        Pointer<const timespec>(a[2]), Pointer<timespec>(a[3])));
            return true;
#ifdef SYS_poll // newer processors have ppoll alone
        case SYS_poll:
            *result =
                poll(Pointer<pollfd>(a[0]), static_cast<nfds_t>(a[1]), static_cast<int>(a[2]));
            return true;
#endif
        case SYS_getrandom:
            *result = getrandom(Pointer<void>(a[0]), static_cast<std::size_t>(a[1]),
                                static_cast<unsigned int>(a[2]));
            return true;
        case SYS_sched_yield:
            *result = sched_yield();
            return true;
        default:
            return false;
    }
}

} // namespace

} // namespace zorsim

using namespace zorsim;

ZOR_SIM_EXPORT long syscall(long number, ...) noexcept
{
    va_list list;
    va_start(list, number);
    long a[6];
    for (long& argument : a) {
        argument = va_arg(list, long);
    }
    va_end(list);
    long result = 0;
    if (Self() != nullptr && Simulate(number, a, &result, ZOR_SIM_CALLER)) {
        return result;
    }
    return ZOR_SIM_REAL(syscall)(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
