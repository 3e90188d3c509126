#include "Outside.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "Deadline.h"
#include "Real.h"

namespace zorsim {

namespace {

/// How long the process stands for a child, and how long it waits for anything at all from outside.
constexpr int STAND_MSEC = 2000;
constexpr int OUTSIDE_MSEC = 5000;
constexpr int SLICE_MSEC = 2;
constexpr int USEC = 1000;

constexpr std::uint32_t MAX_TIMERS = 256;

/// A timer that is a file: simulated by an event file, which is ready when it has been written to.
struct Timer
{
    int file;
    clockid_t clock;
    std::int64_t due; ///< NEVER if it is not armed
    std::int64_t interval;
};

Timer g_timers[MAX_TIMERS];
std::uint32_t g_timerCount;

bool IsSignalPending(const Thread* thread)
{
    sigset_t pending;
    sigpending(&pending);
    const sigset_t* const wanted = static_cast<const sigset_t*>(thread->argument);
    for (int signal = 1; signal < NSIG; ++signal) {
        if (sigismember(wanted, signal) == 1 && sigismember(&pending, signal) == 1) {
            return true;
        }
    }
    return false;
}

bool IsChildEnded()
{
    siginfo_t info = {};
    return ZOR_SIM_REAL(waitid)(P_ALL, 0, &info, WEXITED | WSTOPPED | WNOHANG | WNOWAIT) != 0 ||
           info.si_pid != 0;
}

/// What a slice counts of such a time, in microseconds: on a machine where many threads want each
/// processor somebody who is waited for gets as much less done.
int WorthOfSlice()
{
    char text[64] = {};
    const long file = ZOR_SIM_REAL(syscall)(SYS_openat, AT_FDCWD, "/proc/loadavg", O_RDONLY);
    if (file >= 0) {
        ZOR_SIM_REAL(read)(static_cast<int>(file), text, sizeof(text) - 1);
        ZOR_SIM_REAL(close)(static_cast<int>(file));
    }
    const char* const slash = strchr(text, '/'); // "0.20 0.18 0.12 1/80 11206"
    const char* running = slash;
    while (slash != nullptr && running > text && running[-1] != ' ') {
        --running;
    }
    const int wanting = running != nullptr ? atoi(running) : 1;
    const auto processors = static_cast<int>(ZOR_SIM_REAL(sysconf)(_SC_NPROCESSORS_ONLN));
    return SLICE_MSEC * USEC / (wanting > processors && processors > 0 ? wanting / processors : 1);
}

bool IsReady(Thread* thread, int msec)
{
    if (thread->operation == Operation::CHILD || thread->operation == Operation::SIGNAL_WAIT) {
        ZOR_SIM_REAL(poll)(nullptr, 0, msec);
        return thread->operation == Operation::CHILD ? IsChildEnded() : IsSignalPending(thread);
    }
    return ZOR_SIM_REAL(poll)(thread->files, thread->fileCount, msec) != 0;
}

} // namespace

bool IsReadyOutside(Thread* thread, bool mayStand)
{
    const int before = errno;
    bool isReady = IsReady(thread, 0);
    g_report->outside = 1;
    for (int spent = 0; !isReady && mayStand && spent < STAND_MSEC * USEC && HasChildren();
         spent += WorthOfSlice()) {
        isReady = IsReady(thread, SLICE_MSEC);
    }
    g_report->outside = 0;
    errno = before;
    return isReady;
}

bool HasChildren()
{
    siginfo_t info = {};
    const int before = errno;
    const bool has = ZOR_SIM_REAL(waitid)(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
    errno = before;
    return has;
}

void AwaitOutside()
{
    Note("input from outside of the process");
    g_report->outside = 1;
    // Whatever a child does will come to an end, or the run will, by its limit.
    for (int spent = 0; spent < OUTSIDE_MSEC * USEC; spent += HasChildren() ? 0 : WorthOfSlice()) {
        for (std::uint32_t i = 0; i < ThreadCount(); ++i) {
            Thread* const thread = ThreadAt(i);
            if (thread->state == ThreadState::WAITING && thread->waitsOutside &&
                IsReady(thread, 0)) {
                g_report->outside = 0;
                Wake(thread);
                return;
            }
        }
        ZOR_SIM_REAL(poll)(nullptr, 0, SLICE_MSEC);
    }
    Found(Finding::DEADLOCK, "every thread waits, and nothing comes from outside of the process");
}

std::int64_t ExpireTimers()
{
    std::int64_t next = NEVER;
    for (std::uint32_t i = 0; i < g_timerCount; ++i) {
        Timer& timer = g_timers[i];
        if (timer.due <= g_now) {
            std::uint64_t count = 1;
            if (timer.interval > 0) {
                count += static_cast<std::uint64_t>((g_now - timer.due) / timer.interval);
                timer.due += static_cast<std::int64_t>(count) * timer.interval;
            } else {
                timer.due = NEVER;
            }
            if (ZOR_SIM_REAL(write)(timer.file, &count, sizeof(count)) > 0) {
                FilesChanged();
            }
        }
        next = timer.due < next ? timer.due : next;
    }
    return next;
}

namespace {

Timer* FindTimer(int file)
{
    for (std::uint32_t i = 0; i < g_timerCount; ++i) {
        if (g_timers[i].file == file) {
            return &g_timers[i];
        }
    }
    return nullptr;
}

timespec LeftOf(const Timer& timer)
{
    return Timespec(timer.due == NEVER ? 0 : timer.due - g_now);
}

std::int64_t DeadlineAfter(int msec)
{
    return msec < 0 ? NEVER : After(msec * std::int64_t{1000000});
}

/// Waits until a call that does not wait says something else than "nothing yet".
template <typename Call>
int Await(pollfd* files, nfds_t count, std::int64_t deadline, const void* caller, Call call)
{
    Thread* const self = Self();
    Step(self, Operation::POLL, nullptr, caller);
    FilesChanged();
    for (;;) {
        const int result = call();
        if (result != 0 || deadline <= g_now) {
            return result;
        }
        const Woken woken = BlockOutside(self, Operation::POLL, files, count, deadline);
        if (woken == Woken::BY_SIGNAL) {
            errno = EINTR;
            return -1;
        }
    }
}

bool Waits(int file)
{
    const int flags = fcntl(file, F_GETFL);
    return flags >= 0 && (flags & O_NONBLOCK) == 0;
}

/// Before a call that could wait: waits in its place.
///
/// @return false if a signal came first
bool AwaitFile(int file, short events, Operation operation, const void* caller)
{
    Thread* const self = Self();
    pollfd wanted = {file, events, 0};
    const bool isReady = ZOR_SIM_REAL(poll)(&wanted, 1, 0) != 0;
    if (isReady && (wanted.revents & POLLNVAL) == 0 && operation == Operation::WRITE) {
        FilesChanged();
        return true; // output is no choice point: logs would make most of a run
    }
    Step(self, operation, nullptr, caller);
    FilesChanged();
    while (ZOR_SIM_REAL(poll)(&wanted, 1, 0) == 0 && Waits(file)) {
        if (BlockOutside(self, operation, &wanted, 1, NEVER) == Woken::BY_SIGNAL) {
            errno = EINTR;
            return false;
        }
    }
    return true;
}

constexpr nfds_t MAX_SELECTED = 1024;

nfds_t FilesOf(int count, const fd_set* in, const fd_set* out, pollfd* files)
{
    nfds_t used = 0;
    for (int file = 0; file < count && file < static_cast<int>(MAX_SELECTED); ++file) {
        short events = in != nullptr && FD_ISSET(file, in) ? POLLIN : 0;
        events = static_cast<short>(events | (out != nullptr && FD_ISSET(file, out) ? POLLOUT : 0));
        if (events != 0) {
            files[used++] = {file, events, 0};
        }
    }
    return used;
}

int Select(int count, fd_set* in, fd_set* out, fd_set* except, std::int64_t deadline,
           const void* caller)
{
    pollfd files[MAX_SELECTED];
    const nfds_t used = FilesOf(count, in, out, files);
    fd_set wanted[3] = {};
    fd_set* const sets[3] = {in, out, except};
    for (int i = 0; i < 3; ++i) {
        wanted[i] = sets[i] != nullptr ? *sets[i] : wanted[i];
    }
    return Await(files, used, deadline, caller, [&] {
        for (int i = 0; i < 3; ++i) {
            if (sets[i] != nullptr) {
                *sets[i] = wanted[i];
            }
        }
        timeval none = {0, 0};
        return ZOR_SIM_REAL(select)(count, in, out, except, &none);
    });
}

pid_t AwaitChild(int options, const void* caller, pid_t (*call)(void*), void* argument)
{
    Thread* const self = Self();
    Step(self, Operation::CHILD, nullptr, caller);
    for (;;) {
        const pid_t result = call(argument);
        if (result != 0 || (options & WNOHANG) != 0) {
            return result;
        }
        if (BlockOutside(self, Operation::CHILD, nullptr, 0, NEVER) == Woken::BY_SIGNAL) {
            errno = EINTR;
            return -1;
        }
        // Another child than the one that is waited for may have ended.
        ZOR_SIM_REAL(poll)(nullptr, 0, 1);
    }
}

} // namespace

} // namespace zorsim

using namespace zorsim;

ZOR_SIM_EXPORT int poll(pollfd* files, nfds_t count, int msec)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(poll)(files, count, msec);
    }
    return Await(files, count, DeadlineAfter(msec), ZOR_SIM_CALLER,
                 [&] { return ZOR_SIM_REAL(poll)(files, count, 0); });
}

ZOR_SIM_EXPORT int ppoll(pollfd* files, nfds_t count, const timespec* time, const sigset_t* mask)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(ppoll)(files, count, time, mask);
    }
    const timespec none = {0, 0};
    return Await(files, count, time != nullptr ? After(Nsec(*time)) : NEVER, ZOR_SIM_CALLER,
                 [&] { return ZOR_SIM_REAL(ppoll)(files, count, &none, mask); });
}

ZOR_SIM_EXPORT int select(int count, fd_set* in, fd_set* out, fd_set* except, timeval* time)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(select)(count, in, out, except, time);
    }
    const std::int64_t deadline =
        time != nullptr ? After(time->tv_sec * NSEC_PER_SEC + time->tv_usec * 1000) : NEVER;
    return Select(count, in, out, except, deadline, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pselect(int count, fd_set* in, fd_set* out, fd_set* except, const timespec* time,
                           const sigset_t* mask)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(pselect)(count, in, out, except, time, mask);
    }
    if (mask != nullptr) {
        Note("the signal mask of pselect()");
    }
    return Select(count, in, out, except, time != nullptr ? After(Nsec(*time)) : NEVER,
                  ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int epoll_pwait(int epoll, epoll_event* events, int count, int msec,
                               const sigset_t* mask)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(epoll_pwait)(epoll, events, count, msec, mask);
    }
    pollfd file = {epoll, POLLIN, 0};
    return Await(&file, 1, DeadlineAfter(msec), ZOR_SIM_CALLER,
                 [&] { return ZOR_SIM_REAL(epoll_pwait)(epoll, events, count, 0, mask); });
}

ZOR_SIM_EXPORT int epoll_wait(int epoll, epoll_event* events, int count, int msec)
{
    return Self() == nullptr ? ZOR_SIM_REAL(epoll_wait)(epoll, events, count, msec)
                             : epoll_pwait(epoll, events, count, msec, nullptr);
}

ZOR_SIM_EXPORT ssize_t read(int file, void* buffer, std::size_t size)
{
    if (Self() != nullptr && !AwaitFile(file, POLLIN, Operation::READ, ZOR_SIM_CALLER)) {
        return -1;
    }
    return ZOR_SIM_REAL(read)(file, buffer, size);
}

ZOR_SIM_EXPORT ssize_t readv(int file, const iovec* parts, int count)
{
    if (Self() != nullptr && !AwaitFile(file, POLLIN, Operation::READ, ZOR_SIM_CALLER)) {
        return -1;
    }
    return ZOR_SIM_REAL(readv)(file, parts, count);
}

ZOR_SIM_EXPORT ssize_t recv(int file, void* buffer, std::size_t size, int flags)
{
    if (Self() != nullptr && (flags & MSG_DONTWAIT) == 0 &&
        !AwaitFile(file, POLLIN, Operation::READ, ZOR_SIM_CALLER)) {
        return -1;
    }
    return ZOR_SIM_REAL(recv)(file, buffer, size, flags);
}

ZOR_SIM_EXPORT ssize_t recvmsg(int file, msghdr* message, int flags)
{
    if (Self() != nullptr && (flags & MSG_DONTWAIT) == 0 &&
        !AwaitFile(file, POLLIN, Operation::READ, ZOR_SIM_CALLER)) {
        return -1;
    }
    return ZOR_SIM_REAL(recvmsg)(file, message, flags);
}

ZOR_SIM_EXPORT int accept4(int file, sockaddr* address, socklen_t* size, int flags)
{
    if (Self() != nullptr && !AwaitFile(file, POLLIN, Operation::READ, ZOR_SIM_CALLER)) {
        return -1;
    }
    return ZOR_SIM_REAL(accept4)(file, address, size, flags);
}

ZOR_SIM_EXPORT int accept(int file, sockaddr* address, socklen_t* size)
{
    return accept4(file, address, size, 0);
}

ZOR_SIM_EXPORT ssize_t write(int file, const void* buffer, std::size_t size)
{
    if (Self() != nullptr && !AwaitFile(file, POLLOUT, Operation::WRITE, ZOR_SIM_CALLER)) {
        return -1;
    }
    return ZOR_SIM_REAL(write)(file, buffer, size);
}

ZOR_SIM_EXPORT int close(int file)
{
    if (Self() != nullptr) {
        FilesChanged();
        if (Timer* const timer = FindTimer(file)) {
            *timer = g_timers[--g_timerCount];
        }
    }
    return ZOR_SIM_REAL(close)(file);
}

ZOR_SIM_EXPORT int timerfd_create(int clock, int flags) noexcept
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(timerfd_create)(clock, flags);
    }
    if (g_timerCount == MAX_TIMERS) {
        Unsupported("more than 256 timers at a time (timerfd_create)");
    }
    const int file = ZOR_SIM_REAL(eventfd)(0, flags); // the flags are the same
    if (file >= 0) {
        g_timers[g_timerCount++] = {file, clock, NEVER, 0};
    }
    return file;
}

ZOR_SIM_EXPORT int timerfd_settime(int file, int flags, const itimerspec* value,
                                   itimerspec* before) noexcept
{
    Timer* const timer = Self() != nullptr ? FindTimer(file) : nullptr;
    if (timer == nullptr) {
        return ZOR_SIM_REAL(timerfd_settime)(file, flags, value, before);
    }
    if (before != nullptr) {
        *before = {Timespec(timer->interval), LeftOf(*timer)};
    }
    pollfd ready = {file, POLLIN, 0};
    std::uint64_t count = 0;
    if (ZOR_SIM_REAL(poll)(&ready, 1, 0) > 0) {
        ZOR_SIM_REAL(read)(file, &count, sizeof(count)); // what has expired is forgotten
    }
    const std::int64_t nsec = Nsec(value->it_value);
    timer->interval = Nsec(value->it_interval);
    timer->due = NEVER;
    if (nsec != 0) {
        timer->due = (flags & TFD_TIMER_ABSTIME) != 0 ? Deadline(timer->clock, value->it_value)
                                                      : After(nsec);
    }
    ExpireTimers();
    ExpectTimer(timer->due);
    return 0;
}

ZOR_SIM_EXPORT int timerfd_gettime(int file, itimerspec* value) noexcept
{
    const Timer* const timer = Self() != nullptr ? FindTimer(file) : nullptr;
    if (timer == nullptr) {
        return ZOR_SIM_REAL(timerfd_gettime)(file, value);
    }
    *value = {Timespec(timer->interval), LeftOf(*timer)};
    return 0;
}

ZOR_SIM_EXPORT pid_t waitpid(pid_t child, int* status, int options)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(waitpid)(child, status, options);
    }
    struct Call
    {
        pid_t child;
        int* status;
        int options;
    } call = {child, status, options};
    return AwaitChild(
        options, ZOR_SIM_CALLER,
        [](void* argument) {
            const Call* const wanted = static_cast<Call*>(argument);
            return ZOR_SIM_REAL(waitpid)(wanted->child, wanted->status, wanted->options | WNOHANG);
        },
        &call);
}

ZOR_SIM_EXPORT pid_t wait(int* status)
{
    return Self() == nullptr ? ZOR_SIM_REAL(wait)(status) : waitpid(-1, status, 0);
}
