#include "Supervisor.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
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

/// What ZOR_WATCHDOG says; empty if it is not set.
const char* ModeText()
{
    const char* value = getenv("ZOR_WATCHDOG");
    return value == nullptr ? "" : value;
}

/// What will keep an abort from leaving a core; null if nothing is known that does.
const char* NoCoreReason()
{
    char pattern[2] = "";
    const int file = open("/proc/sys/kernel/core_pattern", O_RDONLY | O_CLOEXEC);
    if (file >= 0) {
        static_cast<void>(!read(file, pattern, 1)); // an unknown pattern is taken for a file's name
        close(file);
    }
    struct rlimit limit = {};
    // A program that takes cores gets them whatever the limit is.
    if (pattern[0] != '|' && getrlimit(RLIMIT_CORE, &limit) == 0 && limit.rlim_cur == 0) {
        return "the limit of its size is 0 (ulimit -c unlimited, or LimitCORE=infinity)";
    }
    if (prctl(PR_GET_DUMPABLE) == 0) {
        return "the process is not dumpable (PR_SET_DUMPABLE)";
    }
    return nullptr;
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

[[maybe_unused]] const int TCSupervisor::m_forkHandlers = [] {
    const int error = pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
    StartWithProcess();
    return error;
}();

/// systemd counts from the start of the process, whenever that comes to supervise its first thread.
/// A monitor that cannot be started now is asked for again by the first registration.
void TCSupervisor::StartWithProcess()
{
    if (ReadKeepAliveNsec() != 0) {
        TCSupervisor& self = Instance();
        const std::lock_guard<std::mutex> lock(self.m_lock);
        self.StartMonitorLocked();
    }
}

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
    // The environment is read by the thread that starts the monitor: one that starts with the
    // process would read it while the program begins, and may set it.
    const char* const mode = ModeText();
    m_aborts = strcmp(mode, "abort") == 0;
    const bool known = m_aborts || *mode == '\0' || strcmp(mode, "log") == 0;
    snprintf(m_unknownMode, sizeof(m_unknownMode), "%s", known ? "" : mode);
    m_keepAliveNsec = ReadKeepAliveNsec();
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
    SayWhatIsWrong();
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
        TSReturn back;
        if (TakeReturnLocked(&back)) {
            lock.unlock();
            ReportReturn(back);
        } else if (TakeMissLocked(nowNsec, &miss)) {
            lock.unlock();
            Report(miss);
        } else if (TakeReadyLocked()) {
            lock.unlock();
            TellServiceManager("READY=1");
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

/// The handle is good: a thread that ends waits for the lock to take itself off the list.
void TCSupervisor::CopyNameLocked(const TSWatched& watched, char (&name)[NAME_SIZE])
{
    if (pthread_getname_np(watched.thread, name, sizeof(name)) != 0) {
        name[0] = '\0';
    }
}

void TCSupervisor::SayWhatIsWrong() const
{
    if (m_unknownMode[0] != '\0') {
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, TAG,
                     "ZOR_WATCHDOG: '%s' is none of log, abort; a hung thread is logged",
                     m_unknownMode);
    }
    const char* const noCore = m_aborts ? NoCoreReason() : nullptr;
    if (noCore != nullptr) {
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, TAG, "ZOR_WATCHDOG: abort will leave no core: %s",
                     noCore);
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
        CopyNameLocked(*watched, miss->name);
        pthread_getcpuclockid(watched->thread, &miss->cpuClock);
        miss->tid = watched->tid;
        miss->timeoutNsec = watched->timeoutNsec;
        miss->lateNsec = lateNsec;
        return true;
    }
    return false;
}

bool TCSupervisor::TakeReturnLocked(TSReturn* back)
{
    for (TSWatched* watched = m_first; watched != nullptr; watched = watched->next) {
        const long notifiedNsec = watched->notifiedNsec.load(std::memory_order_relaxed);
        if (watched->reportedNsec == -1 || notifiedNsec == watched->reportedNsec) {
            continue;
        }
        CopyNameLocked(*watched, back->name);
        back->tid = watched->tid;
        back->silentNsec = notifiedNsec - watched->reportedNsec;
        watched->reportedNsec = -1;
        return true;
    }
    return false;
}

/// Whether the first supervised thread has come, which nobody was told yet.
bool TCSupervisor::TakeReadyLocked()
{
    return m_first != nullptr && !std::exchange(m_saidReady, true);
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
    const char* const noCore = m_aborts ? NoCoreReason() : nullptr;
    __dlog_print(LOG_ID_MAIN, m_aborts ? DLOG_FATAL : DLOG_ERROR, TAG,
                 "thread '%s' (%d) hangs: no sign of life within %ld ms, %ld ms late%s%s%s",
                 miss.name, static_cast<int>(miss.tid), miss.timeoutNsec / NSEC_PER_MSEC,
                 miss.lateNsec / NSEC_PER_MSEC, m_aborts ? "; aborting" : "",
                 noCore != nullptr ? " without a core: " : "", noCore != nullptr ? noCore : "");
    if (m_aborts) {
        abort();
    }
}

void TCSupervisor::ReportReturn(const TSReturn& back)
{
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, TAG, "'%s' (%d) lives again after %ld.%ld s", back.name,
                 static_cast<int>(back.tid), back.silentNsec / NSEC_PER_SEC,
                 back.silentNsec % NSEC_PER_SEC / (NSEC_PER_SEC / 10));
}

} // namespace zorhost
