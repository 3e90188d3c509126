#include "Workloads.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>
#include <vector>

#include "Held.h"
#include "Pairs.h"
#include "Queue.h"

namespace {

using Clock = std::chrono::steady_clock;

double NsecSince(Clock::time_point begin)
{
    return std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
}

/// Prints what has been recorded for so many operations.
void PrintSections(const char* figure, long operations)
{
    const held::Tally sum = held::Sum();
    const auto sections = static_cast<double>(sum.sections);
    const auto all = sections + static_cast<double>(sum.longSections);
    const double heldNsec = std::max(
        0.0, static_cast<double>(sum.ticks) * held::NsecPerTick() / sections - held::EmptyNsec());
    std::printf("{\"figure\": \"%s\", \"held_ns\": %.2f, \"sections\": %.4f, \"long\": %llu}\n",
                figure, heldNsec, all / static_cast<double>(operations),
                static_cast<unsigned long long>(sum.longSections));
}

template <typename Operation, typename Counterpart>
void MeasureOperation(const char* figure, const Operation& operation,
                      const Counterpart& counterpart)
{
    constexpr int ROUNDS = 200;
    constexpr int BATCH = 200; // less than a queue's room

    held::Reset();
    for (int round = 0; round < ROUNDS; ++round) {
        held::Start();
        for (int i = 0; i < BATCH; ++i) {
            operation();
        }
        held::Stop();
        for (int i = 0; i < BATCH; ++i) {
            counterpart();
        }
    }
    PrintSections(figure, static_cast<long>(ROUNDS) * BATCH);
}

/// Computes for a given time, which does not pass while others have the processor.
class Work
{
 public:
    explicit Work(long nsec)
    {
        constexpr long ROUNDS = 100000;
        double least = 1e12;
        for (int i = 0; i < 10; ++i) {
            const auto begin = Clock::now();
            Compute(ROUNDS);
            least = std::min(least, NsecSince(begin));
        }
        m_rounds = static_cast<long>(static_cast<double>(nsec) * ROUNDS / least);
        for (int i = 0; i < ROUNDS / 100; ++i) {
            const double begin = ThreadTime();
            m_clockNsec = std::min(m_clockNsec, ThreadTime() - begin);
        }
    }

    void Do() const { Compute(m_rounds); }

    /// Does it, and returns the processor time that it has taken: beside other work on the machine
    /// that is not what it took when it was tried out.
    double DoTimed() const
    {
        const double begin = ThreadTime();
        Do();
        return std::max(0.0, ThreadTime() - begin - m_clockNsec);
    }

 private:
    static double ThreadTime()
    {
        timespec time = {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
    }

    static void Compute(long rounds)
    {
        std::uint64_t value = 1;
        for (long i = 0; i < rounds; ++i) {
            value = value * 6364136223846793005U + 1;
            asm volatile("" : "+r"(value));
        }
    }

    long m_rounds = 0;
    double m_clockNsec = 1e9; ///< between two looks at the thread's clock
};

/// A handler's work, of which now and then the time is taken.
struct TimedWork
{
    const Work* work;
    double nsec = 0;
    long timed = 0;

    void operator()(std::uint32_t left)
    {
        constexpr std::uint32_t TIMED = 64; // one of so many

        if (left % TIMED == 0) {
            nsec += work->DoTimed();
            ++timed;
        } else {
            work->Do();
        }
    }
};

/// What a handler took, of those whose time has been taken.
double HandlerNsec(const Pairs<TimedWork>& pairs)
{
    double nsec = 0;
    long timed = 0;
    for (const auto& player : pairs.Players()) {
        nsec += player->OwnWork().nsec;
        timed += player->OwnWork().timed;
    }
    return timed == 0 ? 0 : nsec / static_cast<double>(timed);
}

void Pin(int processor)
{
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(processor, &processors);
    pthread_setaffinity_np(pthread_self(), sizeof(processors), &processors);
}

/// The processors that the process may use.
std::vector<int> Processors()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof(set), &set);
    std::vector<int> processors;
    for (int i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(i, &set)) {
            processors.push_back(i);
        }
    }
    return processors;
}

} // namespace

void workloads::MeasureOperations()
{
    std::printf("{\"figure\": \"clock\", \"ns\": %.2f}\n", held::EmptyNsec());
    std::printf("{\"figure\": \"lock_unlock\", \"ns\": %.2f}\n", held::LockUnlockNsec());

    TCQueue queue;
    TCSemaphore semaphore;
    if (!queue.Create() || !semaphore.Create(0)) {
        std::abort();
    }
    TSEvent event;
    event.receiver = reinterpret_cast<TCHandler*>(64); // nobody handles it
    TSEvent taken;
    const auto put = [&] { queue.Put(&event, false); };
    const auto get = [&] { queue.Get(&taken, 0UL); };
    for (int i = 0; i < 2; ++i) { // once for the pages
        held::Reset();
        for (int k = 0; k < 240; ++k) {
            put();
        }
        for (int k = 0; k < 240; ++k) {
            get();
        }
    }
    MeasureOperation("put", put, get);
    const auto give = [&] { semaphore.Give(); };
    const auto take = [&] { semaphore.Take(); };
    MeasureOperation("give", give, take);
    // The other way round: the counterpart comes first.
    for (int k = 0; k < 200; ++k) {
        put();
        give();
    }
    MeasureOperation("get", get, put);
    MeasureOperation("take", take, give);
    semaphore.Destroy();
    queue.Destroy();
}

void workloads::MeasureHandover()
{
    constexpr std::uint32_t TRIPS = 1000; // there and back
    constexpr std::uint32_t ROUNDS = 500; // the median counts: in some a thread has no processor

    const std::vector<int> processors = Processors();
    if (processors.size() < 2) {
        return;
    }
    struct alignas(64) Turn
    {
        std::atomic<std::uint32_t> number{0};
    };
    static Turn
        turn; // one line, as the mutex is: even numbers are one side's, odd ones the other's
    const auto play = [&](std::uint32_t begin) {
        for (std::uint32_t i = begin; i < begin + 2 * TRIPS; i += 2) {
            while (turn.number.load(std::memory_order_acquire) != i) {
            }
            turn.number.store(i + 1, std::memory_order_release);
        }
    };
    std::thread other([&] {
        Pin(processors[1]);
        for (std::uint32_t round = 0; round < ROUNDS; ++round) {
            play(2 * TRIPS * round + 1);
        }
    });
    std::vector<double> nsec;
    std::thread one([&] {
        Pin(processors[0]);
        for (std::uint32_t round = 0; round < ROUNDS; ++round) {
            const auto begin = Clock::now();
            play(2 * TRIPS * round);
            nsec.push_back(NsecSince(begin) / (2.0 * TRIPS));
        }
    });
    one.join();
    other.join();
    std::nth_element(nsec.begin(), nsec.begin() + ROUNDS / 2, nsec.end());
    std::printf("{\"figure\": \"handover\", \"ns\": %.2f}\n", nsec[ROUNDS / 2]);
}

void workloads::MeasurePairs(long pairs, long hops, long handlerNsec, bool records)
{
    const Work work(handlerNsec);
    Pairs<TimedWork> table(pairs, TimedWork{&work});
    table.Play(100);
    if (records) {
        held::Start();
    }
    const auto begin = Clock::now();
    table.Play(hops / pairs);
    const double nsec = NsecSince(begin);
    held::Stop();
    const long made = hops / pairs * pairs;
    if (records) {
        PrintSections("recorded", made);
        return;
    }
    std::printf("{\"figure\": \"hops\", \"rate\": %.1f, \"handler_ns\": %.1f}\n",
                static_cast<double>(made) * 1e9 / nsec, HandlerNsec(table));
}

void workloads::MeasureCalls(long calls)
{
    const Runtime runtime;
    SilentTask task;
    TSEvent event = task.EventTo();
    TCTask::Send(&event, true, false);
    held::Start();
    for (long i = 0; i < calls; ++i) {
        if (!TCTask::Send(&event, true, false)) {
            std::abort();
        }
    }
    held::Stop();
    PrintSections("call", calls);
}
