#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Deadline.h"
#include "Outside.h"
#include "Real.h"

/// Signals that the process sends to itself. The thread that gets one raises it when it has the
/// turn, so that a handler never runs beside another thread. Signals from outside are the kernel's.
namespace zorsim {

namespace {

long Kernel(long number, long first, long second, long third)
{
    return ZOR_SIM_REAL(syscall)(number, first, second, third);
}

/// Whether the thread keeps the signal from being delivered to it.
bool Blocks(const Thread& thread, int signal)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/task/%d/status", thread.tid);
    const int file =
        static_cast<int>(Kernel(SYS_openat, AT_FDCWD, reinterpret_cast<long>(path), O_RDONLY));
    char text[4096];
    const long size = file < 0 ? 0
                               : Kernel(SYS_read, file, reinterpret_cast<long>(text),
                                        static_cast<long>(sizeof(text) - 1));
    Kernel(SYS_close, file, 0, 0);
    text[size > 0 ? size : 0] = '\0';
    const char* const line = strstr(text, "SigBlk:");
    const std::uint64_t mask = line != nullptr ? strtoull(line + 7, nullptr, 16) : 0;
    return (mask >> (signal - 1) & 1) != 0;
}

/// The thread that a signal to the process goes to: as with the kernel the first one if it may, or
/// the sender; null if all block it.
Thread* ReceiverOf(Thread* self, int signal)
{
    Thread* receiver = nullptr;
    for (std::uint32_t i = 0; i < ThreadCount(); ++i) {
        Thread* const thread = ThreadAt(i);
        const bool lives =
            thread->state == ThreadState::RUNNABLE || thread->state == ThreadState::WAITING;
        if (lives && !Blocks(*thread, signal) && (receiver == nullptr || thread == self)) {
            receiver = thread;
            if (thread->isMain) {
                break;
            }
        }
    }
    return receiver;
}

/// Whoever waits for signals looks again.
void WakeSignalWaiters()
{
    for (std::uint32_t i = 0; i < ThreadCount(); ++i) {
        Thread* const thread = ThreadAt(i);
        if (thread->state == ThreadState::WAITING && thread->operation == Operation::SIGNAL_WAIT) {
            Wake(thread);
        }
    }
}

/// Sent to this thread of the process.
int SendTo(Thread* self, Thread* thread, int signal)
{
    if (thread == self || Blocks(*thread, signal)) {
        const long result = Kernel(SYS_tgkill, getpid(), thread->tid, signal);
        WakeSignalWaiters();
        return static_cast<int>(result);
    }
    sigaddset(&thread->pendingSignals, signal);
    thread->hasPendingSignals = true;
    const bool endsWait =
        thread->operation == Operation::SLEEP || thread->operation == Operation::SEM_WAIT ||
        thread->operation == Operation::WORD_WAIT || thread->operation == Operation::POLL ||
        thread->operation == Operation::READ || thread->operation == Operation::CHILD ||
        thread->operation == Operation::SIGNAL_WAIT;
    Interrupt(thread, endsWait);
    return 0;
}

int AwaitSignal(const sigset_t* wanted, siginfo_t* info, std::int64_t deadline, const void* caller)
{
    Thread* const self = Self();
    Step(self, Operation::SIGNAL_WAIT, nullptr, caller);
    const timespec none = {0, 0};
    for (;;) {
        const int signal = ZOR_SIM_REAL(sigtimedwait)(wanted, info, &none);
        if (signal > 0 || deadline <= g_now) {
            return signal;
        }
        void* const before = self->argument;
        self->argument = const_cast<sigset_t*>(wanted);
        const Woken woken = BlockOutside(self, Operation::SIGNAL_WAIT, nullptr, 0, deadline);
        self->argument = before;
        if (woken == Woken::BY_SIGNAL) {
            errno = EINTR;
            return -1;
        }
    }
}

} // namespace

void RaisePending(Thread* self)
{
    const int before = errno;
    self->hasPendingSignals = false;
    const sigset_t pending = self->pendingSignals;
    sigemptyset(&self->pendingSignals);
    for (int signal = 1; signal < NSIG; ++signal) {
        if (sigismember(&pending, signal) == 1) {
            Kernel(SYS_tgkill, getpid(), self->tid, signal);
        }
    }
    errno = before;
}

} // namespace zorsim

using namespace zorsim;

ZOR_SIM_EXPORT int kill(pid_t process, int signal) noexcept
{
    Thread* const self = Self();
    if (self == nullptr || process != getpid() || signal <= 0 || signal >= NSIG) {
        return ZOR_SIM_REAL(kill)(process, signal);
    }
    Step(self, Operation::KILL, nullptr, ZOR_SIM_CALLER);
    if (Thread* const receiver = ReceiverOf(self, signal)) {
        return SendTo(self, receiver, signal);
    }
    const int result = ZOR_SIM_REAL(kill)(process, signal);
    WakeSignalWaiters();
    return result;
}

ZOR_SIM_EXPORT int pthread_kill(pthread_t handle, int signal) noexcept
{
    Thread* const self = Self();
    Thread* const thread = self != nullptr ? FindThread(handle) : nullptr;
    if (thread == nullptr || thread->state == ThreadState::ENDED || signal <= 0 || signal >= NSIG) {
        return ZOR_SIM_REAL(pthread_kill)(handle, signal);
    }
    Step(self, Operation::KILL, nullptr, ZOR_SIM_CALLER);
    return SendTo(self, thread, signal) == 0 ? 0 : errno;
}

ZOR_SIM_EXPORT int sigtimedwait(const sigset_t* wanted, siginfo_t* info, const timespec* time)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(sigtimedwait)(wanted, info, time);
    }
    return AwaitSignal(wanted, info, time != nullptr ? After(Nsec(*time)) : NEVER, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int sigwaitinfo(const sigset_t* wanted, siginfo_t* info)
{
    return Self() == nullptr ? ZOR_SIM_REAL(sigwaitinfo)(wanted, info)
                             : AwaitSignal(wanted, info, NEVER, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int sigwait(const sigset_t* wanted, int* signal)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(sigwait)(wanted, signal);
    }
    int result = -1;
    do {
        result = AwaitSignal(wanted, nullptr, NEVER, ZOR_SIM_CALLER);
    } while (result < 0 && errno == EINTR);
    *signal = result;
    return result > 0 ? 0 : errno;
}

ZOR_SIM_EXPORT int pause()
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(pause)();
    }
    Thread* const self = Self();
    Step(self, Operation::SIGNAL_WAIT, nullptr, ZOR_SIM_CALLER);
    while (Block(self, Operation::SLEEP, nullptr, NEVER) != Woken::BY_SIGNAL) {
    }
    errno = EINTR;
    return -1;
}
