#pragma once

#include <poll.h>
#include <pthread.h>
#include <sys/types.h>

#include <csignal>
#include <cstdint>

#include "../Report.h"

/// Lets exactly one thread of the process run at a time.
///
/// Every thread has a baton. The thread that has the turn is the only one that touches the state of
/// the simulation, so none of it is locked. It gives the turn away in Step() and Block() only:
///
///     thread A (has the turn)                 thread B (parked on its baton)
///     ------------------------------------------------------------------------
///     Step(): count, hash, decide: B
///     B.baton = 1, wake B                     baton seen: B has the turn
///     park on A.baton                         ...
namespace zorsim {

enum class ThreadState : std::uint32_t
{
    FREE,
    RUNNABLE,
    WAITING,
    ENDED
};

enum class Woken
{
    BY_OTHER,
    BY_DEADLINE,
    BY_SIGNAL
};

struct Thread
{
    int baton;
    std::uint32_t id;
    ThreadState state;
    std::uint32_t runIndex; ///< where it stands among the runnable
    pthread_t handle;
    pid_t tid;
    bool isMain;
    bool isDetached;
    bool isJoining; ///< another thread is in the midst of joining it
    char name[NAME_SIZE];

    void* (*start)(void*);
    void* argument;
    int endRounds;

    Operation operation; ///< what it does or waits for
    const void* object;
    std::int64_t deadline;
    std::int64_t since;
    const void* caller;
    Woken woken;
    pollfd* files; ///< what it waits for outside of the process, if it does
    nfds_t fileCount;
    bool waitsOutside;
    std::uint32_t futexBits;

    std::int64_t priority;
    std::int64_t cpuNsec;
    sigset_t pendingSignals; ///< sent by threads of this process, to be raised at its next turn
    bool hasPendingSignals;
};

extern Report* g_report;
extern std::int64_t g_now; ///< monotonic, nanoseconds

/// The calling thread; null if calls are to go to libc: in the child of a fork, while the library
/// itself is at work, and without a driver.
Thread* Self();

/// While one exists, what the calling thread calls goes to libc.
class Aside
{
 public:
    Aside();
    ~Aside();
    Aside(const Aside&) = delete;
    Aside& operator=(const Aside&) = delete;

 private:
    Thread* m_self;
};

/// A choice point: the thread does @p operation now, and another may go first.
void Step(Thread* self, Operation operation, const void* object, const void* caller);

/// Waits until Wake(), @p deadline (monotonic) or a signal. The caller looks again at what it waits
/// for.
Woken Block(Thread* self, Operation operation, const void* object, std::int64_t deadline);

/// Waits likewise, and also until one of the files is ready or (without files) a child has ended or
/// a signal is there; at most one of these is asked about, by @p operation.
Woken BlockOutside(Thread* self, Operation operation, pollfd* files, nfds_t count,
                   std::int64_t deadline);

void Wake(Thread* thread);
void WakeAll(const void* object);

/// Lets time pass, which may wake threads.
void Tick(Thread* self, std::int64_t nsec);

/// Tells the driver what was found, and ends the process.
[[noreturn]] void Found(Finding finding, const char* text);

/// Names something that is used and not simulated; Unsupported() ends the process.
void Note(const char* what);
[[noreturn]] void Unsupported(const char* what);

/// Unless called again within @p nsec of virtual time the program is found to make no progress.
void ExpectProgress(std::int64_t nsec);

Thread* NewThread();
Thread* FindThread(pthread_t handle);
Thread* ThreadById(std::uint32_t id);
std::uint32_t ThreadCount(); ///< of slots that were ever used
Thread* ThreadAt(std::uint32_t slot);
void FreeThread(Thread* thread);

/// A new thread's first turn; and the last one of a thread that has nothing more to do. False if
/// there is no other thread: the process ends with this one.
void AwaitFirstTurn(Thread* self);
bool EndTurns(Thread* self);

void MakeSelf(Thread* self);

/// The operation may have made files ready.
void FilesChanged();

} // namespace zorsim

#define ZOR_SIM_CALLER __builtin_return_address(0)
