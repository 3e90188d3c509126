#include "Spin.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <ctime>

namespace {

/// What is assumed of a pause while none has been measured.
constexpr std::int64_t USUAL_PAUSE_PSEC = 40000;

/// Relaxed all of them: a stale value costs a little time and nothing else.
std::atomic<int> g_processors{1};
std::atomic<std::int64_t> g_pausePsec{USUAL_PAUSE_PSEC};

int CountProcessors()
{
    cpu_set_t processors;
    CPU_ZERO(&processors);
    return sched_getaffinity(0, sizeof(processors), &processors) == 0 ? CPU_COUNT(&processors) : 1;
}

std::int64_t Read(clockid_t clock)
{
    constexpr std::uint64_t NSEC_PER_SEC = 1000000000;

    timespec time = {};
    clock_gettime(clock, &time);
    // Unsigned: a clock that a program has taken over may say anything.
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(time.tv_sec) * NSEC_PER_SEC +
                                     static_cast<std::uint64_t>(time.tv_nsec));
}

/// Nanoseconds that so many pauses take, and two readings of the clock.
std::int64_t Pass(int pauses)
{
    const std::int64_t begin = zor::Spin::Now();
    for (int i = 0; i < pauses; ++i) {
        zor::Spin::Pause();
    }
    return zor::Spin::Now() - begin;
}

/// The shortest of some rounds: others may have been interrupted, on a busy machine now and then
/// two in a row.
std::int64_t PassAtBest(int pauses)
{
    constexpr int ROUNDS = 4;

    std::int64_t nsec = Pass(pauses);
    for (int round = 1; round < ROUNDS; ++round) {
        nsec = std::min(nsec, Pass(pauses));
    }
    return nsec;
}

/// Picoseconds that a pause takes. As many are measured at once as make the readings of the clock
/// count for little. Takes about forty microseconds.
std::int64_t MeasurePause()
{
    constexpr std::int64_t LONG_NSEC = 5000;
    constexpr int LEAST_PAUSES = 64;
    constexpr int MOST_PAUSES = 4096;
    constexpr std::int64_t LEAST_PSEC = 500; // less is the clock's doing

    int pauses = LEAST_PAUSES;
    Pass(pauses); // brings in what the others need
    std::int64_t nsec = PassAtBest(pauses);
    while (nsec > 0 && nsec < LONG_NSEC && pauses < MOST_PAUSES) {
        pauses *= 2;
        nsec = PassAtBest(pauses);
    }
    const std::int64_t psec = nsec * 1000 / pauses;
    return psec < LEAST_PSEC ? USUAL_PAUSE_PSEC : psec;
}

/// At load; before, nothing is waited for.
const bool g_measured = [] {
    g_pausePsec.store(MeasurePause(), std::memory_order_relaxed);
    g_processors.store(CountProcessors(), std::memory_order_relaxed);
    return true;
}();

} // namespace

std::int64_t zor::Spin::Now()
{
    return Read(CLOCK_MONOTONIC);
}

std::int64_t zor::Spin::Used()
{
    return Read(CLOCK_PROCESS_CPUTIME_ID);
}

int zor::Spin::PausesIn(int nsec)
{
    const std::int64_t psec = static_cast<std::int64_t>(nsec) * 1000;
    return static_cast<int>(
        std::max<std::int64_t>(1, psec / g_pausePsec.load(std::memory_order_relaxed)));
}

int zor::Spin::Processors()
{
    return g_processors.load(std::memory_order_relaxed);
}

void zor::Spin::Reconsider()
{
    constexpr unsigned CALLS = 1024;

    static thread_local unsigned t_calls = 0;
    if (++t_calls % CALLS == 0) {
        g_processors.store(CountProcessors(), std::memory_order_relaxed);
    }
}
