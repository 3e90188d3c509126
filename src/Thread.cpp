#include "Thread.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/times.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "SemaphoreState.h"
#include "ZorApiLite.h"
#include "ZorServiceDebugOverlay.h"

namespace {

/// Guards the counts of all semaphores of the process; their condition variables wait on it.
pthread_mutex_t TimeMutex = PTHREAD_MUTEX_INITIALIZER;

constexpr unsigned long WAIT_FOR_EVER = ~0UL;

/// The handle of a thread whose body has returned: only the low 32 bits are set.
constexpr pthread_t ENDED_THREAD = 0xFFFFFFFF;

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
    // Exactly a million is left as it is, and such a deadline is refused by the wait: kept, because
    // callers have come to stand it.
    while (usec > USEC_PER_SEC) {
        usec -= USEC_PER_SEC;
        ++seconds;
    }
    deadline->tv_sec = seconds;
    deadline->tv_nsec = usec * 1000;
    return true;
}

int KernelThreadId()
{
    return static_cast<int>(syscall(SYS_gettid));
}

/// Whether another thread can run while this one watches something. What the process is bound to
/// when it starts counts.
bool HasSeveralProcessors()
{
    cpu_set_t processors;
    CPU_ZERO(&processors);
    return sched_getaffinity(0, sizeof(processors), &processors) == 0 && CPU_COUNT(&processors) > 1;
}

/// False until this file's objects are made: nothing is watched before.
const bool g_severalProcessors = HasSeveralProcessors();

void Relax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield" ::: "memory");
#else
    asm volatile("" ::: "memory");
#endif
}

bool SetNiceness(int kernelId, int priority)
{
    constexpr int NICENESS[] = {-10, 0, 10};
    constexpr int CODES = sizeof(NICENESS) / sizeof(NICENESS[0]);

    if (priority < 0 || priority >= CODES) {
        return false;
    }
    return setpriority(PRIO_PROCESS, static_cast<id_t>(kernelId), NICENESS[priority]) == 0;
}

} // namespace

/// Sleeping on the mutex at once would make the threads that share it alternate, each paying for a
/// switch. Trying a few times with pauses in between lets each of them work in runs.
TimeMutexLock::TimeMutexLock(int pauses)
{
    constexpr int TRIES = 6;

    if (g_severalProcessors) {
        for (int i = 0; i < TRIES; ++i) {
            if (pthread_mutex_trylock(&TimeMutex) == 0) {
                return;
            }
            for (int pause = 0; pause < pauses; ++pause) {
                Relax();
            }
        }
    }
    pthread_mutex_lock(&TimeMutex);
}

void TimeMutexLock::Unlock()
{
    m_held = false;
    pthread_mutex_unlock(&TimeMutex);
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

/// For how many looks at the count, a pause apart, a wait watches it; 0 when it is to park at once.
int TCSemaphore::State::LooksAllowed()
{
    constexpr int LOOKS = 400;
    // Two threads that answer each other must both watch, or each finds the other asleep. A probe
    // is long enough to see the answer of one that has to be woken first.
    constexpr int PROBE_LOOKS = 8 * LOOKS;

    if (habit.credit.load(std::memory_order_relaxed) > 0) {
        return LOOKS;
    }
    const unsigned skipped = habit.skipped.fetch_add(1, std::memory_order_relaxed) + 1;
    return skipped % habit.interval.load(std::memory_order_relaxed) == 0 ? PROBE_LOOKS : 0;
}

void TCSemaphore::State::Watch()
{
    // All relaxed: the mutex decides, and a wrong guess about watching costs a little time only.
    if (count.load(std::memory_order_relaxed) > 0 || !g_severalProcessors) {
        return;
    }
    const int looks = LooksAllowed();
    for (int look = 0; look < looks; ++look) {
        Relax();
        if (count.load(std::memory_order_relaxed) > 0) {
            habit.Paid();
            return;
        }
    }
    if (looks > 0) {
        habit.Failed();
    }
}

void TCSemaphore::State::TakeLocked()
{
    while (Count() <= 0) {
        ++waiters;
        pthread_cond_wait(&condition, &TimeMutex);
        --waiters;
    }
    AddLocked(-1);
}

bool TCSemaphore::State::TryLocked(unsigned long msec)
{
    if (msec == WAIT_FOR_EVER) {
        TakeLocked();
        return true;
    }
    while (Count() <= 0) {
        timespec deadline;
        if (msec == 0 || !DeadlineAfter(msec, &deadline)) {
            return false;
        }
        ++waiters;
        const int result = pthread_cond_timedwait(&condition, &TimeMutex, &deadline);
        --waiters;
        if (result != 0) {
            return false;
        }
    }
    AddLocked(-1);
    return true;
}

bool TCSemaphore::State::GiveLocked()
{
    AddLocked(1);
    if (waiters == 0) {
        return false;
    }
    holders.fetch_add(1, std::memory_order_relaxed); // the semaphore holds it at this moment
    return true;
}

void TCSemaphore::State::Wake()
{
    pthread_cond_signal(&condition);
    LetGo();
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
    m_state = state.release();
    return true;
}

void TCSemaphore::Take()
{
    TCASSERT(FlagCreate() == true);
    m_state->Watch();
    const TimeMutexLock lock;
    m_state->TakeLocked();
}

bool TCSemaphore::Try(unsigned long msec)
{
    TCASSERT(FlagCreate() == true);
    if (msec != 0) {
        m_state->Watch();
    }
    const TimeMutexLock lock;
    return m_state->TryLocked(msec);
}

void TCSemaphore::Give()
{
    TCASSERT(FlagCreate() == true);
    State* const state = m_state;
    TimeMutexLock lock;
    const bool wakes = state->GiveLocked();
    lock.Unlock(); // from here on a taker may destroy the semaphore
    if (wakes) {
        state->Wake();
    }
}

void TCSemaphore::Destroy()
{
    TCASSERT(FlagCreate() == true);
    State* const state = m_state;
    {
        // The last giver may be inside still; and what others see of the semaphore changes in one
        // piece.
        const TimeMutexLock lock;
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

/// The entry of every thread: the body runs between the two gates.
///
///   creator: pthread_create -- store handle -- give start gate
///   thread:      (starts) ------------------------- take start gate -- t_Main -- give exit gate
///   destroyer:                                              take exit gate -----------+-- release
///
/// Without the start gate the body could ask for Id() before the creator has stored the handle.
void* _Process(void* thread)
{
    auto* self = static_cast<TCThread*>(thread);
    self->m_startGate.Take();
    self->m_kernelId.store(KernelThreadId(), std::memory_order_relaxed);
    self->m_pidSync.Give();
    if (self->m_name[0] != '\0') {
        prctl(PR_SET_NAME, self->m_name);
    }
    self->t_Main();
    self->m_thread.store(ENDED_THREAD, std::memory_order_release);
    self->m_exitGate.Give();
    return nullptr;
}

TCThread::~TCThread()
{
    TCASSERT(FlagCreate() == false);
}

bool TCThread::Create(const char* threadname, unsigned long stackSize)
{
    TCASSERT(FlagCreate() == false);
    TCASSERT(threadname != NULL);
    if (!CreateGates()) {
        return false;
    }
    memset(m_name, 0, sizeof(m_name));
    strncpy(m_name, threadname, sizeof(m_name) - 1);
    m_kernelId.store(NO_KERNEL_ID, std::memory_order_relaxed);
    if (!m_pidSync.Create(0)) {
        m_startGate.Destroy();
        m_exitGate.Destroy();
        ZOR_LOG(true, DLOG_FATAL, "[QLN]: ERROR: TCThread::Create() : m_pidSync Create Error");
        return false;
    }
    return Start(stackSize);
}

bool TCThread::CreateGates()
{
    if (!m_startGate.Create(0)) {
        return false;
    }
    if (!m_exitGate.Create(0)) {
        m_startGate.Destroy();
        return false;
    }
    return true;
}

bool TCThread::Start(unsigned long stackSize)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    // A size below the system's minimum is refused here and the thread gets the default.
    pthread_attr_setstacksize(&attributes, stackSize);

    pthread_t handle = 0;
    const int error = pthread_create(&handle, &attributes, _Process, this);
    if (error == 0) {
        m_thread.store(handle, std::memory_order_relaxed);
        pthread_attr_destroy(&attributes);
        m_startGate.Give();
        return true;
    }

    pthread_attr_destroy(&attributes);
    TCASSERT_MSG(0, "TCThread not created: errno = %d\n", error);
    m_startGate.Destroy();
    m_exitGate.Destroy();
    // m_pidSync stays created: whoever destroys this object is told of the thread that never was.
    return false;
}

void TCThread::Destroy()
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(TCThreadSelf::Id() != Id());
    if (TCThreadSelf::Id() == Id()) {
        TCDebug::Print("Assert Error : Current Thread can't destroy itself\n");
        m_pidSync.Destroy();
        return;
    }
    m_exitGate.Take();
    m_startGate.Destroy();
    m_exitGate.Destroy();
    m_pidSync.Destroy();
}

bool TCThread::SetPriority(int priority)
{
    TCASSERT(FlagCreate() == true);
    if (m_kernelId.load(std::memory_order_relaxed) == NO_KERNEL_ID) {
        m_pidSync.Take();
        m_pidSync.Give(); // for the next one who asks before the thread has started
    }
    return SetNiceness(m_kernelId.load(std::memory_order_relaxed), priority);
}

bool TCThread::HasEnded() const
{
    // Acquired: what the body did is seen by whoever acts on its end.
    return m_thread.load(std::memory_order_acquire) == ENDED_THREAD;
}

pthread_t TCThread::Id() const
{
    TCASSERT(FlagCreate() == true);
    return m_thread.load(std::memory_order_relaxed);
}

pthread_t TCThreadSelf::Id()
{
    return pthread_self();
}

bool TCThreadSelf::SetPriority(int priority)
{
    return SetNiceness(KernelThreadId(), priority);
}

void TCTimeWrapper::Sleep(unsigned long msec)
{
    ZorApiLite::LiteUtility::SleepMs(msec);
}

unsigned long TCTimeWrapper::Tick()
{
    const clock_t ticks = times(NULL);
    if (ticks == static_cast<clock_t>(-1)) {
        TCDebug::Print("QLN Warning: times() return error(-1).\n");
        return ~0UL;
    }
    // The division comes first, so that the result moves in whole ticks.
    return static_cast<unsigned long>(1000 / sysconf(_SC_CLK_TCK)) *
           static_cast<unsigned long>(ticks);
}
