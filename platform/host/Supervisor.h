#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <mutex>

namespace zorhost {

constexpr std::size_t NAME_SIZE = 16; ///< of a thread's name, as the kernel keeps it

/// A thread under supervision. Made by that thread, owned by the supervisor.
struct TSWatched
{
    // Fixed after creation.
    pthread_t thread = 0;
    pid_t tid = 0;

    // Guarded by the supervisor's lock.
    TSWatched* next = nullptr;
    long timeoutNsec = 0;
    long reportedNsec = -1; ///< the sign of life after which the next was reported missing; or -1

    // Synchronised in itself: stored by its thread, loaded by the monitor.
    std::atomic<long> notifiedNsec{0}; ///< the last sign of life
};

/// What there is to say about a thread that missed its time-out.
struct TSMiss
{
    char name[NAME_SIZE];
    pid_t tid;
    clockid_t cpuClock;
    long timeoutNsec;
    long lateNsec;
};

/// What there is to say about a thread that lives again after it was reported.
struct TSReturn
{
    char name[NAME_SIZE];
    pid_t tid;
    long silentNsec; ///< between the sign of life that was the last one and the next
};

/// Watches threads that have promised signs of life and reports those that keep silent.
///
/// One monitor thread, "zor-watchdog", is started by the first registration and runs until the
/// process is gone. A thread that misses its time-out is reported through the platform log, once
/// for each silence, after its stack and whether it spins or is blocked; and once more when it
/// lives again. ZOR_WATCHDOG in the environment says what follows a report: `log` nothing (the
/// default), `abort` the end of the process. What would keep that end from leaving a core is said
/// when the monitor starts, and again with the report.
///
/// systemd, where it listens (NOTIFY_SOCKET), is sent READY=1 by the monitor when the first
/// supervised thread has begun its work; nothing is known here of others that are to come. Under
/// systemd's watchdog the monitor starts with the process, for a service need not have supervised
/// threads soon, or ever, and sends WATCHDOG=1 at half of the service's interval for as long as
/// every supervised thread is in time.
///
/// The time in which the whole process did not run (stopped by a debugger, say) is nobody's
/// silence: the monitor notices it by its own oversleeping, and every thread gets its whole
/// time-out from then on.
///
/// The child of a fork starts without supervision: it has neither the monitor nor the threads. The
/// thread that forked must register again there. It does not say again that the service is ready.
///
/// Time is the system's monotonic clock, asked from the kernel itself: a program that stands in for
/// clock_gettime() in order to make time of its own does not change what a second of silence is.
class TCSupervisor
{
 public:
    /// The one supervisor. It is there from the start to the end of the process.
    static TCSupervisor& Instance();

    /// Puts the calling thread under supervision or replaces its time-out.
    ///
    /// @return 0; EINVAL for no seconds; ESRCH for a thread that has begun to end; ENOMEM; or the
    ///         error that kept the monitor from starting
    int Register(unsigned long seconds);

    /// A sign of life of the calling thread. Takes no lock.
    ///
    /// @return 0, or ENOENT if the thread is not under supervision
    static int Notify();

    TCSupervisor(const TCSupervisor&) = delete;
    TCSupervisor& operator=(const TCSupervisor&) = delete;

 private:
    struct TSThreadEnd;

    constexpr TCSupervisor() = default;

    static void BeforeFork();
    static void AfterForkInParent();
    static void AfterForkInChild();
    static void StartWithProcess();
    static const int m_forkHandlers;

    TSWatched* AddSelfLocked();
    void Remove(TSWatched* watched);

    int StartMonitorLocked();

    static void* MonitorMain(void* supervisor);
    [[noreturn]] void Monitor();
    void SayWhatIsWrong() const;

    // m_lock is held.
    static void CopyNameLocked(const TSWatched& watched, char (&name)[NAME_SIZE]);
    long DeadlineLocked(const TSWatched& watched, long notifiedNsec) const;
    bool TakeMissLocked(long nowNsec, TSMiss* miss);
    bool TakeReturnLocked(TSReturn* back);
    bool TakeReadyLocked();
    bool TakeKeepAliveLocked(long nowNsec);
    long NextLookLocked(long nowNsec) const;
    void WaitLocked(long untilNsec);

    /// Sends @p state if systemd listens. Says in the log, once until it works again, that systemd
    /// could not be told.
    void TellServiceManager(const char* state);

    void Report(const TSMiss& miss) const;
    static void ReportReturn(const TSReturn& back);

    // Guards everything below that says so. Held across fork(). No foreign code runs under it: a
    // miss is reported after it was released.
    std::mutex m_lock;

    // Guarded by m_lock.
    pthread_cond_t m_changedCond = {}; ///< counts on CLOCK_MONOTONIC; initialised with the monitor
    bool m_changed = false;            ///< something that the monitor's wait was computed from
    bool m_monitorRuns = false;
    TSWatched* m_first = nullptr;

    // Fixed before the monitor starts.
    long m_keepAliveNsec = 0;    ///< interval of WATCHDOG=1; 0 if nobody wants it
    bool m_aborts = false;       ///< what follows a report
    char m_unknownMode[32] = ""; ///< what ZOR_WATCHDOG says if it is nothing known

    // Only the monitor.
    long m_resumedNsec = 0; ///< when the process last went on after a standstill
    long m_nextKeepAliveNsec = 0;
    bool m_tellingFailed = false; ///< the last time
    bool m_saidReady = false;     ///< by this process, or by the one it was forked from before that
};

} // namespace zorhost
