#include <pthread.h>

#include <cerrno>

#include "Deadline.h"
#include "Mutex.h"
#include "Real.h"
#include "Strategy.h"

/// Conditions and once-initialisation. Who waits for a condition is known from the threads; nothing
/// is kept in the condition but the clock that libc has put there.
namespace zorsim {

namespace {

using Bytes = unsigned char[sizeof(pthread_cond_t)];

/// Which byte of a condition says what clock it has differs between releases of libc, and the one
/// that runs need not be the one that this was compiled for: a condition of each kind tells.
struct ClockByte
{
    bool isKnown;
    std::size_t at;
    unsigned char monotonic;
};

ClockByte FindClockByte()
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_t usual = {};
    pthread_cond_t other = {};
    ZOR_SIM_REAL(pthread_cond_init)(&usual, nullptr);
    ZOR_SIM_REAL(pthread_cond_init)(&other, &attributes);
    const auto& usualBytes = reinterpret_cast<const Bytes&>(usual);
    const auto& otherBytes = reinterpret_cast<const Bytes&>(other);
    std::size_t at = 0;
    while (at + 1 < sizeof(Bytes) && usualBytes[at] == otherBytes[at]) {
        ++at;
    }
    return {true, at, static_cast<unsigned char>(usualBytes[at] ^ otherBytes[at])};
}

bool IsMonotonic(const pthread_cond_t* condition)
{
    static ClockByte s_byte; // of who has the turn
    if (!s_byte.isKnown) {
        s_byte = FindClockByte();
    }
    return (reinterpret_cast<const Bytes&>(*condition)[s_byte.at] & s_byte.monotonic) != 0;
}

/// When a wait ends for no reason: after some steps, in which others believe that it lasts.
std::int64_t SoonerThan(std::int64_t deadline)
{
    constexpr std::int64_t LONGEST_NSEC = 1000;

    const auto chance = static_cast<std::int64_t>(g_report->hash % LONGEST_NSEC);
    return g_now + chance < deadline ? g_now + chance : deadline;
}

/// Waits as long as nobody signals; afterwards the mutex is held again.
int WaitFor(pthread_cond_t* condition, pthread_mutex_t* mutex, std::int64_t deadline,
            const void* caller)
{
    Thread* const self = Self();
    Step(self, Operation::WAIT, condition, caller);
    const unsigned int depth = mutex->__data.__count;
    if (const int error = Unlock(self, mutex); error != 0) {
        return error;
    }
    if (depth > 1) {
        Note("waits for a condition with a mutex locked more than once");
    }
    const std::int64_t until = DecideSpurious() ? SoonerThan(deadline) : deadline;
    const Woken woken = Block(self, Operation::WAIT, condition, until);
    Lock(self, mutex, NEVER);
    return woken == Woken::BY_DEADLINE && until == deadline ? ETIMEDOUT : 0;
}

int WaitUntil(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
              const timespec* until, const void* caller)
{
    return IsValid(*until) ? WaitFor(condition, mutex, Deadline(clock, *until), caller) : EINVAL;
}

/// Whether the deadline of a waiter has come, and it has not run since.
bool HasTimedOutWaiter(const pthread_cond_t* condition)
{
    for (std::uint32_t i = 0; i < ThreadCount(); ++i) {
        const Thread& thread = *ThreadAt(i);
        if (thread.state == ThreadState::RUNNABLE && thread.woken == Woken::BY_DEADLINE &&
            thread.operation == Operation::WAIT && thread.object == condition) {
            return true;
        }
    }
    return false;
}

/// The standard lets any of the waiters be woken, and a signal be used up by one whose wait times
/// out at the same moment.
void WakeOne(const pthread_cond_t* condition)
{
    if (HasTimedOutWaiter(condition) && DecideSpurious()) {
        return;
    }
    std::uint32_t count = 0;
    for (std::uint32_t i = 0; i < ThreadCount(); ++i) {
        const Thread& thread = *ThreadAt(i);
        count += thread.state == ThreadState::WAITING && thread.object == condition ? 1 : 0;
    }
    std::uint32_t chosen = DecideWaiter(count);
    for (std::uint32_t i = 0; i < ThreadCount() && count > 0; ++i) {
        Thread* const thread = ThreadAt(i);
        if (thread->state == ThreadState::WAITING && thread->object == condition && chosen-- == 0) {
            Wake(thread);
            return;
        }
    }
}

constexpr int ONCE_NEW = 0;
constexpr int ONCE_RUNS = 1;
constexpr int ONCE_DONE = 2;

/// Leaves the initialisation to another thread if it ends by an exception.
class OnceRun
{
 public:
    explicit OnceRun(int* state) : m_state(state) { *state = ONCE_RUNS; }
    ~OnceRun()
    {
        *m_state = m_isDone ? ONCE_DONE : ONCE_NEW;
        WakeAll(m_state);
    }
    OnceRun(const OnceRun&) = delete;
    OnceRun& operator=(const OnceRun&) = delete;

    void Done() { m_isDone = true; }

 private:
    int* m_state;
    bool m_isDone = false;
};

} // namespace

} // namespace zorsim

using namespace zorsim;

ZOR_SIM_EXPORT int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    return Self() == nullptr ? ZOR_SIM_REAL(pthread_cond_wait)(condition, mutex)
                             : WaitFor(condition, mutex, NEVER, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                          const timespec* until)
{
    if (Self() == nullptr) {
        return ZOR_SIM_REAL(pthread_cond_timedwait)(condition, mutex, until);
    }
    return WaitUntil(condition, mutex, IsMonotonic(condition) ? CLOCK_MONOTONIC : CLOCK_REALTIME,
                     until, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                          clockid_t clock, const timespec* until)
{
    return Self() == nullptr ? ZOR_SIM_REAL(pthread_cond_clockwait)(condition, mutex, clock, until)
                             : WaitUntil(condition, mutex, clock, until, ZOR_SIM_CALLER);
}

ZOR_SIM_EXPORT int pthread_cond_signal(pthread_cond_t* condition) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_cond_signal)(condition);
    }
    Step(self, Operation::SIGNAL, condition, ZOR_SIM_CALLER);
    WakeOne(condition);
    return 0;
}

ZOR_SIM_EXPORT int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_cond_broadcast)(condition);
    }
    Step(self, Operation::BROADCAST, condition, ZOR_SIM_CALLER);
    WakeAll(condition);
    return 0;
}

ZOR_SIM_EXPORT int pthread_once(pthread_once_t* once, void (*initialise)())
{
    Thread* const self = Self();
    if (self == nullptr) {
        return ZOR_SIM_REAL(pthread_once)(once, initialise);
    }
    if (*once == ONCE_DONE) {
        return 0;
    }
    Step(self, Operation::ONCE, once, ZOR_SIM_CALLER);
    while (*once == ONCE_RUNS) {
        Block(self, Operation::ONCE, once, NEVER);
    }
    if (*once == ONCE_NEW) {
        OnceRun run(once);
        initialise();
        run.Done();
    }
    return 0;
}
