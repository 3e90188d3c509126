#include "Thread.h"

#include <gnu/libc-version.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "SemaphoreState.h"
#include "Spin.h"

namespace {

/// Guards the counts of all semaphores of the process; their condition variables wait on it.
pthread_mutex_t TimeMutex = PTHREAD_MUTEX_INITIALIZER;

constexpr unsigned long WAIT_FOR_EVER = ~0UL;

void LockTimeMutex()
{
    pthread_mutex_lock(&TimeMutex);
}

void UnlockTimeMutex()
{
    pthread_mutex_unlock(&TimeMutex);
}

/// How many forks lie between this process and the first one. Guarded by the mutex.
unsigned g_forks = 0;

void BeginAfresh()
{
    ++g_forks;
    UnlockTimeMutex();
}

/// A child of fork() has only the thread that called it. It must not find the mutex taken by one
/// of the others, who could never give it back: so nobody else holds it at the moment of the fork.
const int g_forkHandlers = pthread_atfork(LockTimeMutex, UnlockTimeMutex, BeginAfresh);

/// Whether the C library may lose a signal when at least three threads wait on one condition
/// variable: glibc's bug 25847, repaired in 2.41.
const bool g_losesSignals = strverscmp(gnu_get_libc_version(), "2.41") < 0;

/// A condition variable that waits on the monotonic clock.
bool InitMonotonicCondition(pthread_cond_t* condition)
{
    pthread_condattr_t attributes;
    if (pthread_condattr_init(&attributes) != 0) {
        return false;
    }
    const bool done = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC) == 0 &&
                      pthread_cond_init(condition, &attributes) == 0;
    pthread_condattr_destroy(&attributes);
    return done;
}

/// Stores the moment @p msec from now; false if the clock cannot be read.
bool DeadlineAfter(unsigned long msec, timespec* deadline)
{
    constexpr long USEC_PER_SEC = 1000000;

    timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        return false;
    }
    time_t seconds = now.tv_sec + static_cast<time_t>(msec / 1000);
    long usec = now.tv_nsec / 1000 + static_cast<long>(msec % 1000) * 1000;
    // Exactly a million is left as it is, and such a deadline is refused by the wait. Deliberate:
    // callers are built to stand a wait that ends at once.
    while (usec > USEC_PER_SEC) {
        usec -= USEC_PER_SEC;
        ++seconds;
    }
    deadline->tv_sec = seconds;
    deadline->tv_nsec = usec * 1000;
    return true;
}

} // namespace

/// Sleeping on the mutex at once would make the threads that share it alternate, each paying for a
/// switch. Trying a few times with pauses in between lets each of them work in runs.
zor::TimeMutexLock::TimeMutexLock(int stayAwayNsec)
{
    constexpr int TRIES = 6;

    if (Spin::CanHelp()) {
        for (int i = 0; i < TRIES; ++i) {
            if (pthread_mutex_trylock(&TimeMutex) == 0) {
                return;
            }
            for (int pauses = Spin::PausesIn(stayAwayNsec); pauses > 0; --pauses) {
                Spin::Pause();
            }
        }
    }
    pthread_mutex_lock(&TimeMutex);
}

void zor::TimeMutexLock::Unlock()
{
    m_held = false;
    pthread_mutex_unlock(&TimeMutex);
}

/// A thread parked on the condition variable, counted for as long, however its wait ends.
///
/// A wait that ends otherwise than by being woken may have used a signal up that was meant for one
/// of the others: the system allows that of a wait that times out or is cancelled. If there is a
/// unit, one of them is woken then.
class TCSemaphore::State::Parking
{
 public:
    explicit Parking(State* state) : m_state(state) { Count(1); }

    ~Parking()
    {
        Count(-1);
        if (!m_woken) {
            m_state->PassOnLocked();
        }
    }

    Parking(const Parking&) = delete;
    Parking& operator=(const Parking&) = delete;

    void Wait()
    {
        pthread_cond_wait(&m_state->condition, &TimeMutex);
        m_woken = true;
    }

    /// @return whether the wait ended before @p deadline and without an error
    bool WaitUntil(const timespec& deadline)
    {
        m_woken = pthread_cond_timedwait(&m_state->condition, &TimeMutex, &deadline) == 0;
        return m_woken;
    }

 private:
    void Count(int threads)
    {
        m_state->waiters.store(m_state->waiters.load(std::memory_order_relaxed) + threads,
                               std::memory_order_relaxed);
    }

    State* const m_state;
    bool m_woken = false;
};

/// The threads that were parked, or about to wake somebody, at the moment of a fork are not in the
/// child, and what the condition variable knows of them would keep others waiting for them.
void TCSemaphore::State::ForgetBeforeForkLocked()
{
    if (forks == g_forks) {
        return;
    }
    forks = g_forks;
    waiters.store(0, std::memory_order_relaxed);
    holders.store(1, std::memory_order_relaxed);
    InitMonotonicCondition(&condition);
}

void TCSemaphore::State::LetGo()
{
    // Release: the others' use of the block comes before its end. Acquire: for the one that ends
    // it.
    if (holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        pthread_cond_destroy(&condition);
        delete this;
    }
}

void TCSemaphore::State::Watch()
{
    // All relaxed: the mutex decides, and a wrong guess about watching costs a little time only.
    if (count.load(std::memory_order_relaxed) > 0) {
        return;
    }
    zor::Spin::Reconsider();
    // Who does not park is quicker than who is parked and has to be woken, and would take the units
    // for which the other is woken in vain, each time anew.
    if (waiters.load(std::memory_order_relaxed) == 0) {
        patience.Wait(count);
    }
}

void TCSemaphore::State::TakeLocked()
{
    ForgetBeforeForkLocked();
    while (Count() <= 0) {
        Parking(this).Wait();
    }
    AddLocked(-1);
}

bool TCSemaphore::State::TryLocked(unsigned long msec)
{
    if (msec == WAIT_FOR_EVER) {
        TakeLocked();
        return true;
    }
    ForgetBeforeForkLocked();
    timespec deadline;
    bool formed = false;
    while (Count() <= 0) {
        if (!formed && (msec == 0 || !DeadlineAfter(msec, &deadline))) {
            return false;
        }
        const unsigned wakings = wakingsOfAll;
        if (!Parking(this).WaitUntil(deadline)) {
            return false;
        }
        // Whoever was woken only because all were goes on waiting as if it had not been; but for
        // one that parked between the decision to wake all and the waking, which begins anew.
        formed = wakingsOfAll != wakings;
    }
    AddLocked(-1);
    return true;
}

void TCSemaphore::State::TakeUpToLocked(int most)
{
    AddLocked(-std::min(most, std::max(Count(), 0)));
}

TCSemaphore::State::Waking TCSemaphore::State::GiveLocked()
{
    ForgetBeforeForkLocked();
    AddLocked(1);
    const Waking waking = WhomToWakeLocked();
    if (waking != Waking::NOBODY) {
        holders.fetch_add(1, std::memory_order_relaxed); // the semaphore holds it at this moment
        wakingsOfAll += waking == Waking::ALL ? 1 : 0;
    }
    return waking;
}

void TCSemaphore::State::Wake(Waking waking)
{
    patience.EncourageWoken();
    WakeNow(waking);
    LetGo();
}

void TCSemaphore::State::WakeNow(Waking waking)
{
    if (waking == Waking::ALL) {
        pthread_cond_broadcast(&condition);
    } else {
        pthread_cond_signal(&condition);
    }
}

/// Whom to wake for one unit. Needs the mutex.
TCSemaphore::State::Waking TCSemaphore::State::WhomToWakeLocked() const
{
    constexpr int SAFE_WAITERS = 2; // so many the faulty condition variable does not confuse

    const int parked = waiters.load(std::memory_order_relaxed);
    if (parked <= 0) {
        return Waking::NOBODY;
    }
    return g_losesSignals && parked > SAFE_WAITERS ? Waking::ALL : Waking::ONE;
}

/// Wakes another waiter if there is a unit for it. Needs the mutex; the semaphore is in use by the
/// calling thread, so that its state stays.
void TCSemaphore::State::PassOnLocked()
{
    const Waking waking = WhomToWakeLocked();
    if (Count() > 0 && waking != Waking::NOBODY) {
        wakingsOfAll += waking == Waking::ALL ? 1 : 0;
        WakeNow(waking);
    }
}

TCSemaphore::~TCSemaphore()
{
    TCASSERT(FlagCreate() == false);
}

bool TCSemaphore::Create(int count)
{
    TCASSERT(FlagCreate() == false);
    std::unique_ptr<State> state(new (std::nothrow) State(this));
    if (state == nullptr || !InitMonotonicCondition(&state->condition)) {
        return false;
    }
    state->count.store(count, std::memory_order_relaxed);
    state->forks = g_forks; // changes only in a child of fork(), while it has one thread
    m_state = state.release();
    return true;
}

void TCSemaphore::Take()
{
    TCASSERT(FlagCreate() == true);
    m_state->Watch();
    const zor::TimeMutexLock lock;
    m_state->TakeLocked();
}

bool TCSemaphore::Try(unsigned long msec)
{
    TCASSERT(FlagCreate() == true);
    if (msec != 0) {
        m_state->Watch();
    }
    const zor::TimeMutexLock lock;
    return m_state->TryLocked(msec);
}

void TCSemaphore::Give()
{
    TCASSERT(FlagCreate() == true);
    State* const state = m_state;
    zor::TimeMutexLock lock;
    const State::Waking waking = state->GiveLocked();
    lock.Unlock(); // from here on a taker may destroy the semaphore
    if (waking != State::Waking::NOBODY) {
        state->Wake(waking);
    }
}

void TCSemaphore::Destroy()
{
    TCASSERT(FlagCreate() == true);
    State* const state = m_state;
    {
        // The last giver may be inside still; and what others see of the semaphore changes in one
        // piece.
        const zor::TimeMutexLock lock;
        state->ForgetBeforeForkLocked();
        m_state = nullptr;
    }
    state->LetGo();
}

TCMutex::~TCMutex()
{
    if (m_semaphore.FlagCreate()) {
        m_semaphore.Destroy();
    }
}
