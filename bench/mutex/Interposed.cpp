#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "Held.h"
#include "Thread.h"
#include "Ticks.h"

namespace {

constexpr int MOST_THREADS = 1024;

struct alignas(64) Place
{
    held::Tally tally; ///< the thread's that has it
};

Place g_places[MOST_THREADS];
std::atomic<int> g_placesTaken{0};

std::atomic<pthread_mutex_t*> g_watched{nullptr};
std::atomic<bool> g_records{false};
std::uint64_t g_longTicks = ~UINT64_C(0);

thread_local held::Tally* t_tally = nullptr;
thread_local std::uint64_t t_begin = 0; ///< 0 while the thread is in no section
thread_local bool t_learns = false;

held::Tally& OwnTally()
{
    if (t_tally == nullptr) {
        const int place = g_placesTaken.fetch_add(1, std::memory_order_relaxed);
        if (place >= MOST_THREADS) {
            std::abort();
        }
        t_tally = &g_places[place].tally;
    }
    return *t_tally;
}

inline void Begin()
{
    t_begin = Ticks();
}

inline void End()
{
    const std::uint64_t end = Ticks();
    if (t_begin == 0) {
        return; // began before the recording did
    }
    const std::uint64_t ticks = end - t_begin;
    t_begin = 0;
    held::Tally& tally = OwnTally();
    if (ticks > g_longTicks) {
        ++tally.longSections;
    } else {
        ++tally.sections;
        tally.ticks += ticks;
    }
}

bool IsRecorded(const pthread_mutex_t* mutex)
{
    return g_records.load(std::memory_order_relaxed) &&
           mutex == g_watched.load(std::memory_order_relaxed);
}

/// The thread has the mutex.
inline void Locked(pthread_mutex_t* mutex)
{
    if (t_learns) {
        g_watched.store(mutex, std::memory_order_relaxed);
    }
    if (IsRecorded(mutex)) {
        Begin();
    }
}

/// The thread is about to give the mutex.
inline void Unlocks(const pthread_mutex_t* mutex)
{
    if (IsRecorded(mutex)) {
        End();
    }
}

template <typename Function>
Function* Real(Function* /*ours*/, const char* name)
{
    auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    if (real == nullptr) {
        std::abort();
    }
    return real;
}

double Now()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

double MeasureTick()
{
    const double begin = Now();
    const std::uint64_t ticks = Ticks();
    while (Now() - begin < 2e7) {
    }
    const double passed = Now() - begin;
    return passed / static_cast<double>(Ticks() - ticks);
}

template <typename Round>
double LeastOf(int rounds, const Round& round)
{
    double least = round();
    for (int i = 1; i < rounds; ++i) {
        least = std::min(least, round());
    }
    return least;
}

double g_nsecPerTick = 0;
double g_emptyNsec = 0;

} // namespace

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static auto* const real = Real(&pthread_mutex_lock, "pthread_mutex_lock");
    const int error = real(mutex);
    if (error == 0) {
        Locked(mutex);
    }
    return error;
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept
{
    static auto* const real = Real(&pthread_mutex_trylock, "pthread_mutex_trylock");
    const int error = real(mutex);
    if (error == 0) {
        Locked(mutex);
    }
    return error;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    static auto* const real = Real(&pthread_mutex_unlock, "pthread_mutex_unlock");
    Unlocks(mutex);
    return real(mutex);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    static auto* const real = Real(&pthread_cond_wait, "pthread_cond_wait");
    Unlocks(mutex);
    const int error = real(condition, mutex);
    Locked(mutex);
    return error;
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                           const timespec* deadline)
{
    static auto* const real = Real(&pthread_cond_timedwait, "pthread_cond_timedwait");
    Unlocks(mutex);
    const int error = real(condition, mutex, deadline);
    Locked(mutex);
    return error;
}

} // extern "C"

void held::Prepare()
{
    TCSemaphore semaphore;
    if (!semaphore.Create(0)) {
        std::abort();
    }
    t_learns = true;
    semaphore.Give();
    t_learns = false;
    semaphore.Destroy();
    if (g_watched.load() == nullptr) {
        std::abort(); // the runtime does not lock by the functions defined here
    }
    g_nsecPerTick = MeasureTick();
    g_longTicks = static_cast<std::uint64_t>(LONG_NSEC / g_nsecPerTick);
    constexpr int SECTIONS = 10000;
    g_emptyNsec = LeastOf(20, [] {
        Reset();
        for (int i = 0; i < SECTIONS; ++i) {
            Begin();
            End();
        }
        return static_cast<double>(Sum().ticks) * g_nsecPerTick / SECTIONS;
    });
    Reset();
}

void held::Start()
{
    g_records.store(true, std::memory_order_relaxed);
}

void held::Stop()
{
    g_records.store(false, std::memory_order_relaxed);
}

void held::Reset()
{
    for (Place& place : g_places) {
        place.tally = Tally();
    }
}

held::Tally held::Sum()
{
    Tally sum;
    for (const Place& place : g_places) {
        sum.sections += place.tally.sections;
        sum.ticks += place.tally.ticks;
        sum.longSections += place.tally.longSections;
    }
    return sum;
}

double held::NsecPerTick()
{
    return g_nsecPerTick;
}

double held::EmptyNsec()
{
    return g_emptyNsec;
}

double held::LockUnlockNsec()
{
    constexpr int TIMES = 100000;
    static auto* const lock = Real(&pthread_mutex_lock, "pthread_mutex_lock");
    static auto* const unlock = Real(&pthread_mutex_unlock, "pthread_mutex_unlock");

    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    return LeastOf(20, [&mutex] {
        const double begin = Now();
        for (int i = 0; i < TIMES; ++i) {
            lock(&mutex);
            unlock(&mutex);
        }
        return (Now() - begin) / TIMES;
    });
}
