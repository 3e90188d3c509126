#include "Scheduler.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "KernelFutex.h"
#include "Outside.h"
#include "Real.h"
#include "Setup.h"
#include "Strategy.h"
#include "Trace.h"

namespace zorsim {

Report* g_report;
std::int64_t g_now = 1000 * NSEC_PER_SEC;

namespace {

constexpr std::uint32_t MAX_THREADS = 8192;
/// A step takes time, or a thread that is always busy would keep all deadlines from coming.
constexpr std::int64_t STEP_NSEC = 100;
constexpr std::uint32_t FILES_EVERY = 64; ///< steps after which ready files are looked for anyway

Thread g_threads[MAX_THREADS];
std::uint32_t g_slots;
std::uint32_t g_freeSlots[MAX_THREADS];
std::uint32_t g_freeCount;
std::uint32_t g_lastId;
Thread* g_runnable[MAX_THREADS];
std::uint32_t g_runnableCount;
std::uint32_t g_outsideCount;
std::int64_t g_earliest = NEVER; ///< no deadline is before it
std::int64_t g_progressBy = NEVER;
bool g_filesChanged;
bool g_isPassive;
Thread* g_ended; ///< has given its last turn away, but may not be gone yet

thread_local Thread* t_self __attribute__((tls_model("initial-exec")));

void GiveTurn(Thread* thread)
{
    __atomic_store_n(&thread->baton, 1, __ATOMIC_RELEASE);
    Futex(&thread->baton, FUTEX_WAKE_PRIVATE, 1);
}

/// Waits until the thread that ended before has left nothing behind: its memory is given back on
/// its own way out, and would be found used at some times and free at others.
void AwaitRealEnd()
{
    Thread* const ended = g_ended;
    if (ended == nullptr) {
        return;
    }
    g_ended = nullptr;
    if (ended->isMain) {
        return; // stays as long as the process
    }
    if (ended->isDetached) {
        ZOR_SIM_REAL(pthread_join)(ended->handle, nullptr);
        FreeThread(ended);
        return;
    }
    while (ZOR_SIM_REAL(syscall)(SYS_tgkill, getpid(), ended->tid, 0) == 0) {
        ZOR_SIM_REAL(sched_yield)();
    }
}

void Park(Thread* self)
{
    const int before = errno;
    while (__atomic_load_n(&self->baton, __ATOMIC_ACQUIRE) == 0) {
        Futex(&self->baton, FUTEX_WAIT_PRIVATE, 0);
    }
    self->baton = 0;
    AwaitRealEnd();
    errno = before;
}

void AddRunnable(Thread* thread)
{
    thread->state = ThreadState::RUNNABLE;
    thread->runIndex = g_runnableCount;
    g_runnable[g_runnableCount++] = thread;
}

void RemoveRunnable(Thread* thread, ThreadState state)
{
    thread->state = state;
    Thread* const last = g_runnable[--g_runnableCount];
    g_runnable[thread->runIndex] = last;
    last->runIndex = thread->runIndex;
}

void WakeBy(Thread* thread, Woken woken)
{
    thread->woken = woken;
    g_outsideCount -= thread->waitsOutside ? 1 : 0;
    thread->waitsOutside = false;
    AddRunnable(thread);
}

/// Wakes whoever's deadline has come, and notes which is the next.
void Expire()
{
    if (g_now >= g_progressBy) {
        Found(Finding::NO_PROGRESS, "the expected progress was not made");
    }
    g_earliest = g_progressBy;
    for (std::uint32_t i = 0; i < g_slots; ++i) {
        Thread* const thread = &g_threads[i];
        if (thread->state != ThreadState::WAITING) {
            continue;
        }
        if (thread->deadline <= g_now) {
            WakeBy(thread, Woken::BY_DEADLINE);
        } else if (thread->deadline < g_earliest) {
            g_earliest = thread->deadline;
        }
    }
    const std::int64_t timer = ExpireTimers();
    g_earliest = timer < g_earliest ? timer : g_earliest;
}

/// A daemon that keeps itself busy is no sign that nobody waits in vain.
void CheckEndless()
{
    const std::int64_t most = g_report->settings.endlessNsec;
    for (std::uint32_t i = 0; most != 0 && i < g_slots; ++i) {
        const Thread& thread = g_threads[i];
        if (thread.state == ThreadState::WAITING && thread.deadline == NEVER &&
            !thread.waitsOutside && thread.operation != Operation::JOIN &&
            g_now - thread.since >= most) {
            char text[64] = "thread ";
            strncat(text, thread.name, NAME_SIZE);
            strcat(text, " waits without a deadline and in vain");
            Found(Finding::ENDLESS_WAIT, text);
        }
    }
}

void SetNow(std::int64_t now)
{
    g_now = now;
    g_report->nowNsec = now;
    if (now >= g_earliest) {
        Expire();
    }
}

bool WakeOutside(bool mayStand)
{
    g_filesChanged = false;
    bool woken = false;
    for (std::uint32_t i = 0; g_outsideCount > 0 && i < g_slots; ++i) {
        Thread* const thread = &g_threads[i];
        if (thread->state == ThreadState::WAITING && thread->waitsOutside &&
            IsReadyOutside(thread, mayStand)) {
            WakeBy(thread, Woken::BY_OTHER);
            woken = true;
        }
    }
    return woken;
}

/// Nobody can run: something outside of the process comes first if it can be waited for, then the
/// clock jumps.
void WakeSomebody()
{
    while (g_runnableCount == 0) {
        if (g_outsideCount > 0 && (WakeOutside(false) || (HasChildren() && WakeOutside(true)))) {
            return;
        }
        if (g_runnableCount > 0) {
            return; // by a signal
        }
        if (g_earliest != NEVER) {
            SetNow(g_earliest > g_now ? g_earliest : g_now);
            CheckEndless();
            continue;
        }
        if (g_outsideCount == 0) {
            Found(Finding::DEADLOCK, "every thread waits, and none of them for a moment in time");
        }
        AwaitOutside();
    }
}

Thread* ChooseNext(Thread* self)
{
    if (g_outsideCount > 0 && (g_filesChanged || g_report->steps % FILES_EVERY == 0)) {
        WakeOutside(false);
    }
    if (g_runnableCount == 0) {
        WakeSomebody();
    }
    if (const std::int64_t most = g_report->settings.stallNsec;
        most > 0 && g_earliest <= g_now + most && DecideStall()) {
        SetNow(g_earliest);
    }
    return DecideThread(self, g_runnable, g_runnableCount);
}

void Announce(const Thread* thread)
{
    g_report->current = thread->id;
    memcpy(g_report->currentName, thread->name, NAME_SIZE);
}

void Switch(Thread* self)
{
    Thread* const next = ChooseNext(self->state == ThreadState::RUNNABLE ? self : nullptr);
    if (next != self) {
        Announce(next);
        GiveTurn(next);
        Park(self);
    }
}

void RaiseSignals(Thread* self)
{
    if (self->hasPendingSignals) {
        RaisePending(self);
    }
}

void Hash(std::uint64_t value)
{
    g_report->hash = (g_report->hash ^ value) * 0x100000001b3;
    g_report->hash ^= g_report->hash >> 29;
}

void Count(Thread* self, Operation operation, const void* object, const void* caller)
{
    self->operation = operation;
    self->object = object;
    self->caller = caller;
    if (++g_report->steps > g_report->settings.maxSteps) {
        Found(Finding::STEPS, "the run takes more steps than --steps allows");
    }
    Tick(self, STEP_NSEC);
    Hash(self->id * 64 + static_cast<std::uint32_t>(operation));
    Hash(static_cast<std::uint64_t>(g_now));
    if (g_report->settings.records != 0) {
        AddRecord(self, operation, object, nullptr);
    }
}

Woken Wait(Thread* self, Operation operation, const void* object, std::int64_t deadline)
{
    self->operation = operation;
    self->object = object;
    self->deadline = deadline;
    self->since = g_now;
    self->woken = Woken::BY_OTHER;
    if (deadline <= g_now) {
        return Woken::BY_DEADLINE;
    }
    RemoveRunnable(self, ThreadState::WAITING);
    g_earliest = deadline < g_earliest ? deadline : g_earliest;
    Switch(self);
    self->deadline = NEVER;
    const Woken woken = self->woken; // a handler may wait too
    RaiseSignals(self);
    return woken;
}

/// The child of a fork has one thread, and nobody to take turns with.
void InChild()
{
    g_isPassive = true;
}

__attribute__((constructor)) void Begin()
{
    g_report = MapReport();
    if (g_report == nullptr) {
        return;
    }
    g_report->hash = 0xcbf29ce484222325;
    g_report->nowNsec = g_now;
    InitStrategy();
    Thread* const main = NewThread();
    main->handle = pthread_self();
    main->tid = getpid();
    main->isMain = true;
    strcpy(main->name, "main");
    MakeSelf(main);
    pthread_atfork(nullptr, nullptr, InChild);
    g_report->started = 1;
    Announce(main);
}

} // namespace

Thread* Self()
{
    return g_isPassive ? nullptr : t_self;
}

Aside::Aside() : m_self(t_self)
{
    t_self = nullptr;
}

Aside::~Aside()
{
    t_self = m_self;
}

void Step(Thread* self, Operation operation, const void* object, const void* caller)
{
    Count(self, operation, object, caller);
    if (operation == Operation::YIELD || operation == Operation::CLOCK) {
        Tick(self, 1000);
        if (operation == Operation::YIELD) {
            Demote(self);
        }
    }
    Switch(self);
    RaiseSignals(self);
}

Woken Block(Thread* self, Operation operation, const void* object, std::int64_t deadline)
{
    return Wait(self, operation, object, deadline);
}

Woken BlockOutside(Thread* self, Operation operation, pollfd* files, nfds_t count,
                   std::int64_t deadline)
{
    self->files = files;
    self->fileCount = count;
    self->waitsOutside = true;
    ++g_outsideCount;
    if (HasChildren()) {
        self->operation = operation;
        if (IsReadyOutside(self, true)) { // the process stands while a child runs
            self->waitsOutside = false;
            --g_outsideCount;
            return Woken::BY_OTHER;
        }
    }
    const Woken woken = Wait(self, operation, nullptr, deadline);
    if (self->waitsOutside) {
        self->waitsOutside = false;
        --g_outsideCount;
    }
    return woken;
}

void Wake(Thread* thread)
{
    if (thread->state == ThreadState::WAITING) {
        WakeBy(thread, Woken::BY_OTHER);
    }
}

void WakeAll(const void* object)
{
    for (std::uint32_t i = 0; i < g_slots; ++i) {
        if (g_threads[i].state == ThreadState::WAITING && g_threads[i].object == object) {
            WakeBy(&g_threads[i], Woken::BY_OTHER);
        }
    }
}

void Tick(Thread* self, std::int64_t nsec)
{
    self->cpuNsec += nsec;
    SetNow(g_now + nsec);
}

void Found(Finding finding, const char* text)
{
    const Aside aside;
    g_report->finding = finding;
    strncpy(g_report->text, text, sizeof(g_report->text) - 1);
    ShowThreads();
    if (g_report->settings.trap != 0) {
        raise(SIGTRAP);
    }
    ZOR_SIM_REAL(_exit)(FOUND_STATUS);
    __builtin_unreachable();
}

void ExpectProgress(std::int64_t nsec)
{
    g_progressBy = nsec > 0 ? g_now + nsec : NEVER;
    g_earliest = g_progressBy < g_earliest ? g_progressBy : g_earliest;
}

Thread* NewThread()
{
    if (g_freeCount == 0 && g_slots == MAX_THREADS) {
        Unsupported("more than 8192 threads at a time");
    }
    Thread* const thread = &g_threads[g_freeCount > 0 ? g_freeSlots[--g_freeCount] : g_slots++];
    memset(static_cast<void*>(thread), 0, sizeof(*thread));
    thread->id = ++g_lastId;
    thread->deadline = NEVER;
    thread->operation = Operation::START;
    thread->priority = NewPriority();
    g_report->threads = g_lastId;
    AddRunnable(thread);
    return thread;
}

void FreeThread(Thread* thread)
{
    if (thread->state == ThreadState::RUNNABLE) {
        RemoveRunnable(thread, ThreadState::FREE);
    }
    thread->state = ThreadState::FREE;
    thread->object = nullptr;
    g_freeSlots[g_freeCount++] = static_cast<std::uint32_t>(thread - g_threads);
}

std::uint32_t ThreadCount()
{
    return g_slots;
}

Thread* ThreadAt(std::uint32_t slot)
{
    return &g_threads[slot];
}

void MakeSelf(Thread* self)
{
    t_self = self;
}

void AwaitFirstTurn(Thread* self)
{
    Park(self);
    Count(self, Operation::START, nullptr, nullptr);
    RaiseSignals(self);
}

bool EndTurns(Thread* self)
{
    bool isLast = true;
    for (std::uint32_t i = 0; i < g_slots; ++i) {
        const ThreadState state = g_threads[i].state;
        isLast = isLast && (&g_threads[i] == self || state == ThreadState::FREE ||
                            state == ThreadState::ENDED);
    }
    if (isLast) {
        return false;
    }
    Count(self, Operation::END, nullptr, nullptr);
    RemoveRunnable(self, ThreadState::ENDED);
    WakeAll(self);
    Thread* const next = ChooseNext(nullptr);
    Announce(next);
    g_ended = self;
    t_self = nullptr;
    GiveTurn(next);
    return true;
}

void ExpectTimer(std::int64_t due)
{
    g_earliest = due < g_earliest ? due : g_earliest;
}

void Interrupt(Thread* thread, bool endsWait)
{
    if (thread->state == ThreadState::WAITING) {
        WakeBy(thread, endsWait ? Woken::BY_SIGNAL : Woken::BY_OTHER);
    }
}

void FilesChanged()
{
    g_filesChanged = true;
}

} // namespace zorsim
