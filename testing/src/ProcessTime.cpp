#include "ProcessTime.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "KnownThread.h"
#include "RealTime.h"
#include "zor/testing/Wait.h"

// The list may be used before the program's constructors and until the process is gone: all of it
// is constant-initialised and never destroyed.

namespace zor::testing::internal {

Seam<int(clockid_t, timespec*)> realClockGettime("clock_gettime");
Seam<int(pthread_cond_t*, pthread_mutex_t*)> realCondWait("pthread_cond_wait");
Seam<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)> realCondClockwait(
    "pthread_cond_clockwait");
Seam<int(pthread_cond_t*)> realCondSignal("pthread_cond_signal");

namespace {

/// One wait. It lives on the waiting thread's stack, and in the list while it lasts.
struct Waiting
{
    const void* key = nullptr;
    Deadline deadline;
    bool notified = false;
    bool timedOut = false;
    pthread_cond_t wake = PTHREAD_COND_INITIALIZER;
    KnownThread* thread = nullptr;
    Waiting* next = nullptr;

    bool IsOver() const { return notified || timedOut; }
};

pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER; ///< guards all that follows but the atomics
Waiting* gFirst = nullptr;                         ///< oldest first
KnownThread* gThreads = nullptr;
pthread_cond_t gRest = PTHREAD_COND_INITIALIZER; ///< a thread has come to rest, or the driver's
                                                 ///< own wait is over
std::string* gUnrest = nullptr;

/// When the time stands, in nanoseconds; 0 while it runs. Written under the lock, read by everybody
/// who reads the clock: acquire and release, so that who sees it run sees the offset that it runs
/// with.
std::atomic<Nanoseconds::rep> gStandsAt{0};
std::atomic<Nanoseconds::rep> gOffset{0}; ///< ahead of the system's clock by so much

thread_local bool tDrives = false;

/// The calling thread as the list knows it. What a thread does after this is gone, in the
/// destructors of other thread-local objects, the list does not see.
struct Self
{
    ~Self();
    KnownThread* thread = nullptr;
};

thread_local Self tSelf;
thread_local bool tGone = false;

void RemoveLocked(KnownThread* thread)
{
    for (KnownThread** at = &gThreads; *at != nullptr; at = &(*at)->next) {
        if (*at == thread) {
            *at = thread->next;
            break;
        }
    }
    delete thread;
    realCondSignal.Real(&gRest);
}

void AddLocked(KnownThread* thread)
{
    thread->next = gThreads;
    gThreads = thread;
}

Self::~Self()
{
    const TimeLock lock;
    tGone = true;
    if (thread != nullptr) {
        RemoveLocked(thread);
    }
}

/// Null if the calling thread is about to be gone.
KnownThread* SelfLocked()
{
    if (tGone) {
        return nullptr;
    }
    if (tSelf.thread == nullptr) { // not created through the program's own pthread_create
        tSelf.thread = new KnownThread;
        tSelf.thread->kernelId = static_cast<pid_t>(syscall(SYS_gettid));
        AddLocked(tSelf.thread);
    }
    return tSelf.thread;
}

timespec ToTimespec(Nanoseconds time)
{
    constexpr Nanoseconds::rep SECOND = 1000 * 1000 * 1000;
    return {static_cast<time_t>(time.count() / SECOND), static_cast<long>(time.count() % SECOND)};
}

void AppendLocked(Waiting* waiting)
{
    Waiting** at = &gFirst;
    while (*at != nullptr) {
        at = &(*at)->next;
    }
    *at = waiting;
}

void UnlinkLocked(Waiting* waiting)
{
    for (Waiting** at = &gFirst; *at != nullptr; at = &(*at)->next) {
        if (*at == waiting) {
            *at = waiting->next;
            return;
        }
    }
}

/// From here on the waiting thread is at work, although it has yet to wake.
void EndLocked(Waiting* waiting, bool* how)
{
    *how = true;
    if (waiting->thread != nullptr) {
        waiting->thread->atWork = true;
        waiting->thread->looksAsleep = 0;
    }
    realCondSignal.Real(&waiting->wake);
    realCondSignal.Real(&gRest);
}

bool IsTimed(const Waiting& waiting)
{
    return waiting.deadline.at && waiting.deadline.clock == EDeadlineClock::PROCESS;
}

/// The wait whose deadline comes first, of several the oldest, and @p last only if all others come
/// later.
Waiting* EarliestLocked(const Waiting* last)
{
    Waiting* earliest = nullptr;
    for (Waiting* waiting = gFirst; waiting != nullptr; waiting = waiting->next) {
        if (!IsTimed(*waiting) || waiting->IsOver()) {
            continue;
        }
        if (earliest == nullptr || *waiting->deadline.at < *earliest->deadline.at ||
            (earliest == last && *waiting->deadline.at == *earliest->deadline.at)) {
            earliest = waiting;
        }
    }
    return earliest;
}

/// Whether every other thread waits for something, and nobody has told it that it has come.
///
/// @param looks  whether some time has passed since the last look at those that seem to work
bool IsAtRestLocked(const KnownThread* self, bool looks)
{
    bool atRest = true;
    for (KnownThread* thread = gThreads; thread != nullptr; thread = thread->next) {
        if (thread == self || !thread->atWork) {
            continue;
        }
        if ((!looks && !thread->SeemedStuck()) || !thread->IsStuckElsewhere()) {
            atRest = false; // the others are looked at all the same: it takes several looks
        }
    }
    return atRest;
}

void NoteUnrestLocked(const KnownThread* self)
{
    if (gUnrest == nullptr) {
        gUnrest = new std::string;
    }
    *gUnrest = "these threads do not come to rest:";
    for (const KnownThread* thread = gThreads; thread != nullptr; thread = thread->next) {
        if (thread != self && thread->atWork && thread->looksAsleep == 0) {
            *gUnrest += " " + thread->Name();
        }
    }
}

/// Waits until all others are at rest, or @p own is over.
void AwaitRestLocked(const Waiting* own, const KnownThread* self)
{
    constexpr Nanoseconds LOOK_AGAIN = std::chrono::milliseconds(1);

    const Nanoseconds end = SystemNow() + DEADLINE;
    bool looks = false;
    while (!own->IsOver() && !IsAtRestLocked(self, looks)) {
        if (SystemNow() > end) {
            NoteUnrestLocked(self);
            return;
        }
        const timespec next = ToTimespec(SystemNow() + LOOK_AGAIN);
        looks = realCondClockwait.Real(&gRest, &gLock, CLOCK_MONOTONIC, &next) == ETIMEDOUT;
    }
}

/// Whether the deadline is one of the system's clock, which nobody drives, and has come.
bool IsPastOnSystem(const Deadline& deadline)
{
    if (!deadline.at || deadline.clock != EDeadlineClock::SYSTEM) {
        return false;
    }
    timespec now = {};
    realClockGettime.Real(CLOCK_REALTIME, &now);
    return std::chrono::seconds(now.tv_sec) + Nanoseconds(now.tv_nsec) >= *deadline.at;
}

/// Moves the time from deadline to deadline until @p own is over. As nothing else moves it, a wait
/// of the driving thread would never end otherwise.
void DriveLocked(Waiting* own)
{
    while (!own->IsOver()) {
        AwaitRestLocked(own, own->thread);
        if (own->IsOver() || IsPastOnSystem(own->deadline)) {
            return;
        }
        Waiting* const next = EarliestLocked(own);
        if (next == nullptr) {
            const timespec later = ToTimespec(SystemNow() + std::chrono::milliseconds(1));
            realCondClockwait.Real(&gRest, &gLock, CLOCK_MONOTONIC, &later);
            continue;
        }
        if (*next->deadline.at > Now()) {
            gStandsAt.store(next->deadline.at->count(), std::memory_order_release);
        }
        EndLocked(next, &next->timedOut);
    }
}

/// Parks until @p own is over; while the time runs this thread itself sees its deadline come.
void ParkLocked(Waiting* own)
{
    while (!own->IsOver()) {
        const bool onSystem = own->deadline.clock == EDeadlineClock::SYSTEM;
        if (!own->deadline.at || (Stands() && !onSystem)) {
            realCondWait.Real(&own->wake, &gLock);
            continue;
        }
        const timespec end =
            ToTimespec(onSystem ? *own->deadline.at : *own->deadline.at - Offset());
        const int result = realCondClockwait.Real(
            &own->wake, &gLock, onSystem ? CLOCK_REALTIME : CLOCK_MONOTONIC, &end);
        if (result == ETIMEDOUT && !own->IsOver() && (onSystem || !Stands())) {
            EndLocked(own, &own->timedOut);
        }
    }
}

/// Has the waits with a deadline look anew what that means.
void ReviseWaitsLocked()
{
    for (Waiting* waiting = gFirst; waiting != nullptr; waiting = waiting->next) {
        realCondSignal.Real(&waiting->wake);
    }
}

/// Keeps a wait in the list for a scope, which the thread may also leave by being cancelled. Needs
/// the lock.
class ListEntry
{
 public:
    explicit ListEntry(Waiting* waiting) : m_waiting(waiting)
    {
        AppendLocked(m_waiting);
        SetAtWork(false);
        realCondSignal.Real(&gRest);
    }

    ~ListEntry()
    {
        UnlinkLocked(m_waiting);
        SetAtWork(true);
    }

    ListEntry(const ListEntry&) = delete;
    ListEntry& operator=(const ListEntry&) = delete;

 private:
    void SetAtWork(bool atWork)
    {
        if (m_waiting->thread != nullptr) {
            m_waiting->thread->atWork = atWork;
        }
    }

    Waiting* const m_waiting;
};

/// @param drives  the driver's own step: its deadline may be now, and has to be driven to
EWake WaitAsLocked(const void* key, const Deadline& deadline, bool drives)
{
    Waiting own;
    own.key = key;
    own.deadline = deadline;
    own.thread = SelfLocked();
    if (IsTimed(own) && *deadline.at <= Now() && !drives) {
        return EWake::TIMED_OUT;
    }
    const ListEntry entry(&own);
    if (DrivesTime()) {
        DriveLocked(&own);
    } else {
        ParkLocked(&own);
    }
    return own.notified ? EWake::NOTIFIED : EWake::TIMED_OUT;
}

/// Of a child only the thread that forked is there, and the lock may have been another's. It cannot
/// be taken before a fork: those who hold it wait for it with mutexes held that others take then.
const bool gForksCleanly = [] {
    return pthread_atfork(nullptr, nullptr, [] {
               gLock = PTHREAD_MUTEX_INITIALIZER;
               gRest = PTHREAD_COND_INITIALIZER;
               gFirst = nullptr;
               gThreads = nullptr;
               tSelf.thread = nullptr;
           }) == 0;
}();

/// What RunThread() is given.
struct Prepared
{
    void* (*entry)(void*);
    void* argument;
    KnownThread* thread;
};

} // namespace

TimeLock::TimeLock()
{
    pthread_mutex_lock(&gLock);
}

TimeLock::~TimeLock()
{
    pthread_mutex_unlock(&gLock);
}

Nanoseconds SystemNow()
{
    timespec now = {};
    realClockGettime.Real(CLOCK_MONOTONIC, &now);
    return std::chrono::seconds(now.tv_sec) + Nanoseconds(now.tv_nsec);
}

Nanoseconds Offset()
{
    return Nanoseconds(gOffset.load(std::memory_order_acquire));
}

Nanoseconds Now()
{
    const Nanoseconds::rep stands = gStandsAt.load(std::memory_order_acquire);
    return stands != 0 ? Nanoseconds(stands) : SystemNow() + Offset();
}

bool Stands()
{
    return gStandsAt.load(std::memory_order_acquire) != 0;
}

bool DrivesTime()
{
    return tDrives;
}

EWake WaitLocked(const void* key, const Deadline& deadline)
{
    return WaitAsLocked(key, deadline, false);
}

int NotifyLocked(const void* key, int count)
{
    int woken = 0;
    for (Waiting* waiting = gFirst; waiting != nullptr && woken < count; waiting = waiting->next) {
        if (waiting->key == key && !waiting->IsOver()) {
            EndLocked(waiting, &waiting->notified);
            ++woken;
        }
    }
    return woken;
}

void Sleep(Nanoseconds time, const std::atomic<bool>* hurry)
{
    const TimeLock lock;
    const Deadline end{Now() + time, EDeadlineClock::PROCESS};
    while (hurry == nullptr || !hurry->load()) {
        if (WaitLocked(hurry, end) == EWake::TIMED_OUT) {
            return;
        }
    }
}

void EndSleeps(const std::atomic<bool>* hurry)
{
    constexpr int ALL = 1 << 20;

    const TimeLock lock;
    NotifyLocked(hurry, ALL);
}

bool Stop()
{
    constexpr Nanoseconds GRID = std::chrono::milliseconds(1);
    constexpr Nanoseconds OFF_THE_GRID = std::chrono::microseconds(500);

    const TimeLock lock;
    if (Stands()) {
        return false;
    }
    SelfLocked();
    // Ahead of every reading so far; and not at a whole millisecond, or the waits of semaphores
    // that end at a whole second, which the system refuses, would be common instead of rare.
    const Nanoseconds now = Now();
    const Nanoseconds stands = now - now % GRID + 2 * GRID + OFF_THE_GRID;
    gStandsAt.store(stands.count(), std::memory_order_release);
    tDrives = true;
    ReviseWaitsLocked();
    return true;
}

void Go()
{
    const TimeLock lock;
    gOffset.store(gStandsAt.load(std::memory_order_acquire) - SystemNow().count(),
                  std::memory_order_release);
    gStandsAt.store(0, std::memory_order_release);
    tDrives = false;
    ReviseWaitsLocked();
}

void DriveFor(Nanoseconds time)
{
    const TimeLock lock;
    WaitAsLocked(nullptr, {Now() + time, EDeadlineClock::PROCESS}, true);
}

std::string TakeUnrest()
{
    const TimeLock lock;
    return gUnrest == nullptr ? "" : std::exchange(*gUnrest, "");
}

std::optional<Nanoseconds> EarliestDeadline()
{
    const TimeLock lock;
    const Waiting* const earliest = EarliestLocked(nullptr);
    return earliest == nullptr ? std::nullopt : earliest->deadline.at;
}

void* PrepareThread(void* (*entry)(void*), void* argument)
{
    auto* const prepared = new Prepared{entry, argument, new KnownThread};
    const TimeLock lock;
    AddLocked(prepared->thread);
    return prepared;
}

void ForgetThread(void* prepared)
{
    auto* const forgotten = static_cast<Prepared*>(prepared);
    const TimeLock lock;
    RemoveLocked(forgotten->thread);
    delete forgotten;
}

void* RunThread(void* prepared)
{
    const Prepared run = *static_cast<Prepared*>(prepared);
    delete static_cast<Prepared*>(prepared);
    {
        const TimeLock lock;
        tSelf.thread = run.thread;
        run.thread->kernelId = static_cast<pid_t>(syscall(SYS_gettid));
    }
    return run.entry(run.argument);
}

} // namespace zor::testing::internal
