#include "Supervisor.h"

#include <sys/syscall.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <type_traits>
#include <utility>

#include "StuckThread.h"
#include "dlog.h"

namespace zorhost {
namespace {

constexpr char TAG[] = "ZOR_WATCHDOG";
constexpr long NSEC_PER_USEC = 1000;
constexpr long NSEC_PER_MSEC = 1000 * NSEC_PER_USEC;
constexpr long NSEC_PER_SEC = 1000 * NSEC_PER_MSEC;

/// Thirty years; sums of time-outs and times stay far from overflow.
constexpr unsigned long MAX_TIMEOUT_SEC = 1000 * 1000 * 1000;

/// A monitor that oversleeps by more than this did not run, and nor did the others. A shorter
/// standstill makes nobody late who notifies twice in his time-out.
constexpr long STANDSTILL_NSEC = NSEC_PER_SEC / 2;

/// The monitor looks at least so often: only short sleeps show a standstill soon enough.
constexpr long LONGEST_SLEEP_NSEC = NSEC_PER_SEC / 4;

/// Plain data: still good in destructors of other thread-local objects.
thread_local TSWatched* t_self = nullptr;
thread_local bool t_ended = false;

long Now()
{
    struct timespec now = {};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return now.tv_sec * NSEC_PER_SEC + now.tv_nsec;
}

void InitMonotonicCond(pthread_cond_t* cond)
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(cond, &attributes);
    pthread_condattr_destroy(&attributes);
}

bool ReadAborts()
{
    const char* value = getenv("ZOR_WATCHDOG");
    if (value == nullptr || *value == '\0' || strcmp(value, "log") == 0) {
        return false;
    }
    if (strcmp(value, "abort") == 0) {
        return true;
    }
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, TAG,
                 "ZOR_WATCHDOG: '%s' is none of log, abort; a hung thread is logged", value);
    return false;
}

/// Half of the interval in which systemd wants to hear of this process; 0 if it does not.
long ReadKeepAliveNsec()
{
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) <= 0) {
        return 0;
    }
    const uint64_t longest = MAX_TIMEOUT_SEC * NSEC_PER_SEC / NSEC_PER_USEC;
    return std::max(static_cast<long>(std::min(usec / 2, longest)) * NSEC_PER_USEC, NSEC_PER_MSEC);
}

} // namespace

/// Ends the supervision of a thread with the thread.
struct TCSupervisor::TSThreadEnd
{
    ~TSThreadEnd()
    {
        t_ended = true;
        if (t_self != nullptr) {
            Instance().Remove(t_self);
        }
    }
};

TCSupervisor& TCSupervisor::Instance()
{
    // Made by the loader and never destroyed: there is no moment at which a fork, an early
    // registration or a late sign of life finds it half made or gone.
    static TCSupervisor instance;
    static_assert(std::is_trivially_destructible_v<TCSupervisor>);
    return instance;
}

[[maybe_unused]] const int TCSupervisor::m_forkHandlers =
    pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);

void TCSupervisor::BeforeFork()
{
    Instance().m_lock.lock();
}

void TCSupervisor::AfterForkInParent()
{
    Instance().m_lock.unlock();
}

void TCSupervisor::AfterForkInChild()
{
    TCSupervisor& self = Instance();
    while (self.m_first != nullptr) {
        delete std::exchange(self.m_first, self.m_first->next);
    }
    t_self = nullptr;
    self.m_monitorRuns = false;
    self.m_lock.unlock();
}

int TCSupervisor::Register(unsigned long seconds)
{
    if (seconds == 0) {
        return EINVAL;
    }
    if (t_ended) {
        return ESRCH;
    }
    const std::lock_guard<std::mutex> lock(m_lock);
    if (const int error = StartMonitorLocked()) {
        return error;
    }
    TSWatched* self = t_self != nullptr ? t_self : AddSelfLocked();
    if (self == nullptr) {
        return ENOMEM;
    }
    self->timeoutNsec = static_cast<long>(std::min(seconds, MAX_TIMEOUT_SEC)) * NSEC_PER_SEC;
    // Relaxed: the monitor takes it under the lock or later, and nothing else hangs on it.
    self->notifiedNsec.store(Now(), std::memory_order_relaxed);
    m_changed = true;
    pthread_cond_signal(&m_changedCond);
    return 0;
}

int TCSupervisor::Notify()
{
    if (t_self == nullptr) {
        return ENOENT;
    }
    // Relaxed: the time itself is the whole message.
    t_self->notifiedNsec.store(Now(), std::memory_order_relaxed);
    return 0;
}

TSWatched* TCSupervisor::AddSelfLocked()
{
    static thread_local TSThreadEnd end;
    static_cast<void>(end);
    auto* self = new (std::nothrow) TSWatched;
    if (self == nullptr) {
        return nullptr;
    }
    self->thread = pthread_self();
    self->tid = gettid();
    self->next = m_first;
    m_first = self;
    t_self = self;
    return self;
}

void TCSupervisor::Remove(TSWatched* watched)
{
    const std::lock_guard<std::mutex> lock(m_lock);
    TSWatched** link = &m_first;
    while (*link != watched) {
        link = &(*link)->next;
    }
    *link = watched->next;
    t_self = nullptr;
    delete watched;
}

int TCSupervisor::StartMonitorLocked()
{
    if (m_monitorRuns) {
        return 0;
    }
    // Anew in the child of a fork too: traces of the parent's waiting monitor are nobody's there.
    InitMonotonicCond(&m_changedCond);
    // The monitor is born with every signal blocked: handlers belong to the application's threads.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const int error = pthread_create(&thread, &attributes, MonitorMain, this);
    pthread_attr_destroy(&attributes);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    m_monitorRuns = error == 0;
    return error;
}

void* TCSupervisor::MonitorMain(void* supervisor)
{
    pthread_setname_np(pthread_self(), "zor-watchdog");
    static_cast<TCSupervisor*>(supervisor)->Monitor();
}

void TCSupervisor::Monitor()
{
    m_aborts = ReadAborts();
    // Before any sign of life: systemd counts its watchdog's time from the end of the start.
    if (!std::exchange(m_saidReady, true)) {
        TellServiceManager("READY=1");
    }
    m_keepAliveNsec = ReadKeepAliveNsec();
    m_nextKeepAliveNsec = Now();
    std::unique_lock<std::mutex> lock(m_lock);
    long plannedNsec = Now();
    // A standstill before this moment could not have been noticed.
    m_resumedNsec = plannedNsec;
    for (;;) {
        const long nowNsec = Now();
        if (nowNsec - plannedNsec > STANDSTILL_NSEC) {
            m_resumedNsec = nowNsec;
        }
        TSMiss miss;
        if (TakeMissLocked(nowNsec, &miss)) {
            lock.unlock();
            Report(miss);
        } else if (TakeKeepAliveLocked(nowNsec)) {
            // A full socket blocks; registrations and ending threads must not wait for that.
            lock.unlock();
            TellServiceManager("WATCHDOG=1");
        } else {
            plannedNsec = NextLookLocked(nowNsec);
            WaitLocked(plannedNsec);
            continue;
        }
        lock.lock();
        plannedNsec = nowNsec; // a standstill in the foreign code counts too
    }
}

long TCSupervisor::DeadlineLocked(const TSWatched& watched, long notifiedNsec) const
{
    return std::max(notifiedNsec, m_resumedNsec) + watched.timeoutNsec;
}

bool TCSupervisor::TakeMissLocked(long nowNsec, TSMiss* miss)
{
    for (TSWatched* watched = m_first; watched != nullptr; watched = watched->next) {
        const long notifiedNsec = watched->notifiedNsec.load(std::memory_order_relaxed);
        const long lateNsec = nowNsec - DeadlineLocked(*watched, notifiedNsec);
        if (notifiedNsec == watched->reportedNsec || lateNsec < 0) {
            continue;
        }
        watched->reportedNsec = notifiedNsec;
        // The handle is good: a thread that ends waits for the lock to take itself off the list.
        if (pthread_getname_np(watched->thread, miss->name, sizeof(miss->name)) != 0) {
            miss->name[0] = '\0';
        }
        pthread_getcpuclockid(watched->thread, &miss->cpuClock);
        miss->tid = watched->tid;
        miss->timeoutNsec = watched->timeoutNsec;
        miss->lateNsec = lateNsec;
        return true;
    }
    return false;
}

bool TCSupervisor::TakeKeepAliveLocked(long nowNsec)
{
    if (m_keepAliveNsec == 0 || nowNsec < m_nextKeepAliveNsec) {
        return false;
    }
    m_nextKeepAliveNsec = nowNsec + m_keepAliveNsec;
    // Who is late was reported before: TakeMissLocked() found nobody new.
    for (const TSWatched* watched = m_first; watched != nullptr; watched = watched->next) {
        if (watched->notifiedNsec.load(std::memory_order_relaxed) == watched->reportedNsec) {
            return false;
        }
    }
    return true;
}

long TCSupervisor::NextLookLocked(long nowNsec) const
{
    long next = nowNsec + LONGEST_SLEEP_NSEC;
    if (m_keepAliveNsec != 0) {
        next = std::min(next, m_nextKeepAliveNsec);
    }
    for (const TSWatched* watched = m_first; watched != nullptr; watched = watched->next) {
        // A reported thread that comes back has a whole time-out, longer than any sleep.
        const long notifiedNsec = watched->notifiedNsec.load(std::memory_order_relaxed);
        if (notifiedNsec != watched->reportedNsec) {
            next = std::min(next, DeadlineLocked(*watched, notifiedNsec));
        }
    }
    return next;
}

void TCSupervisor::WaitLocked(long untilNsec)
{
    struct timespec until = {};
    until.tv_sec = untilNsec / NSEC_PER_SEC;
    until.tv_nsec = untilNsec % NSEC_PER_SEC;
    while (!m_changed &&
           pthread_cond_timedwait(&m_changedCond, m_lock.native_handle(), &until) == 0) {
    }
    m_changed = false;
}

void TCSupervisor::TellServiceManager(const char* state)
{
    const int result = sd_notify(0, state);
    if (result < 0 && !m_tellingFailed) {
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, TAG,
                     "NOTIFY_SOCKET: systemd cannot be told that this process lives: %s",
                     strerror(-result));
    }
    m_tellingFailed = result < 0;
}

void TCSupervisor::Report(const TSMiss& miss) const
{
    LogStuckThread(miss.name, miss.tid, miss.cpuClock);
    __dlog_print(LOG_ID_MAIN, m_aborts ? DLOG_FATAL : DLOG_ERROR, TAG,
                 "thread '%s' (%d) hangs: no sign of life within %ld ms, %ld ms late%s", miss.name,
                 static_cast<int>(miss.tid), miss.timeoutNsec / NSEC_PER_MSEC,
                 miss.lateNsec / NSEC_PER_MSEC, m_aborts ? "; aborting" : "");
    if (m_aborts) {
        abort();
    }
}

} // namespace zorhost
