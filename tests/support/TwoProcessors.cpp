#include <sched.h>

#include <cerrno>

/// Two processors are what the process may use, whatever the machine has: the library asks when it
/// is loaded, for this process.
extern "C" int sched_getaffinity(pid_t process, size_t size, cpu_set_t* processors) noexcept
{
    if (process != 0) {
        errno = ESRCH;
        return -1;
    }
    CPU_ZERO_S(size, processors);
    CPU_SET_S(0, size, processors);
    CPU_SET_S(1, size, processors);
    return 0;
}
