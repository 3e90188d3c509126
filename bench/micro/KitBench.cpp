// What typed messages cost beside events that are filled by hand.
#include <benchmark/benchmark.h>

#include <time.h>

#include <chrono>
#include <cstdlib>

#include "Runtime.h"
#include "zor/Task.h"

namespace {

struct Tune
{
    int channel;
};

struct Large
{
    unsigned char bytes[64];
};

class Tuner : public zor::Task<Tuner, Tune, Large>
{
 public:
    Tuner()
    {
        if (!Create("tuner", ~0U, 1 << 20, 0)) {
            std::abort();
        }
    }
    ~Tuner() override { End(); }

 private:
    friend zor::Access;

    int On(const Tune& tune) { return tune.channel; }
    void On(const Large& /*message*/) {}

    bool t_OnUser(const TSEvent* /*event*/) override { return true; }
};

/// Keeps a task in a handler while it lives, asleep.
class Busy
{
 public:
    explicit Busy(Tuner* tuner)
    {
        if (!m_entered.Create(0) || !m_released.Create(0)) {
            std::abort();
        }
        tuner->Run([this] {
            m_entered.Give();
            m_released.Take();
            m_entered.Give();
        });
        m_entered.Take();
    }

    ~Busy()
    {
        m_released.Give();
        m_entered.Take();
        m_released.Destroy();
        m_entered.Destroy();
    }

    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

 private:
    TCSemaphore m_entered;
    TCSemaphore m_released;
};

/// Processor time of the calling thread, in seconds.
double ProcessorTime()
{
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

constexpr int BATCH = 200; // less than a queue's room

/// Posts to a task that does not handle it meanwhile, BATCH at a time; then empties its queue. The
/// time is that of one post, on a processor: other work on the machine does not count.
template <typename Send>
void PostToBusyTask(benchmark::State& state, const Send& send)
{
    const Runtime runtime;
    Tuner tuner;
    const Busy busy(&tuner);
    for (auto _ : state) {
        const double begin = ProcessorTime();
        for (int i = 0; i < BATCH; ++i) {
            send(tuner, i);
        }
        state.SetIterationTime((ProcessorTime() - begin) / BATCH);
        tuner.Delete(static_cast<TCHandler*>(&tuner), nullptr);
    }
}

/// An event that is made, filled and sent, as an application without the kit does it.
void PostByHand(benchmark::State& state)
{
    PostToBusyTask(state, [](Tuner& tuner, int i) {
        TSEvent event;
        event.receiver = &tuner;
        event.type = TCTask::EVENT_USER;
        event.param1 = static_cast<std::uint32_t>(i);
        benchmark::DoNotOptimize(TCTask::Send(&event, false, false));
    });
}

void PostSmallMessage(benchmark::State& state)
{
    PostToBusyTask(state,
                   [](Tuner& tuner, int i) { benchmark::DoNotOptimize(tuner.Post(Tune{i})); });
}

/// setWrappedData() allocates twice.
void PostAttachmentByHand(benchmark::State& state)
{
    PostToBusyTask(state, [](Tuner& tuner, int) {
        TSEvent event;
        event.receiver = &tuner;
        event.type = TCTask::EVENT_USER;
        event.setWrappedData(Large{});
        benchmark::DoNotOptimize(TCTask::Send(&event, false, false));
    });
}

void PostLargeMessage(benchmark::State& state)
{
    PostToBusyTask(state, [](Tuner& tuner, int) { benchmark::DoNotOptimize(tuner.Post(Large{})); });
}

void SendSynchronous(benchmark::State& state)
{
    const Runtime runtime;
    Tuner tuner;
    TSEvent event;
    event.receiver = &tuner;
    event.type = TCTask::EVENT_USER;
    for (auto _ : state) {
        TCTask::Send(&event, true, false);
    }
}

void Ask(benchmark::State& state)
{
    const Runtime runtime;
    Tuner tuner;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tuner.Ask(Tune{7}, std::chrono::seconds(60)));
    }
}

void RunAndWait(benchmark::State& state)
{
    const Runtime runtime;
    Tuner tuner;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tuner.Run([] { return 7; }, std::chrono::seconds(60)));
    }
}

BENCHMARK(PostByHand)->UseManualTime()->Iterations(2000);
BENCHMARK(PostSmallMessage)->UseManualTime()->Iterations(2000);
BENCHMARK(PostAttachmentByHand)->UseManualTime()->Iterations(2000);
BENCHMARK(PostLargeMessage)->UseManualTime()->Iterations(2000);
BENCHMARK(SendSynchronous)->UseRealTime();
BENCHMARK(Ask)->UseRealTime();
BENCHMARK(RunAndWait)->UseRealTime();

} // namespace
