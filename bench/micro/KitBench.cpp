// What typed messages cost beside events that are filled by hand.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <vector>

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

/// Keeps a task busy while it lives, so that the sender's own cost shows.
class Busy
{
 public:
    explicit Busy(Tuner* tuner) : m_entered(0)
    {
        tuner->Run([this] {
            m_entered.store(1);
            while (m_entered.load() == 1) {
            }
        });
        while (m_entered.load() == 0) {
        }
    }
    ~Busy() { m_entered.store(2); }

 private:
    std::atomic<int> m_entered;
};

constexpr int BATCH = 200; // less than a queue's room

/// Posts to a task that does not handle them meanwhile, BATCH at a time; then empties its queue.
template <typename Send>
void PostToBusyTask(benchmark::State& state, const Send& send)
{
    const Runtime runtime;
    Tuner tuner;
    {
        const Busy busy(&tuner);
        for (auto _ : state) {
            const auto begin = std::chrono::steady_clock::now();
            for (int i = 0; i < BATCH; ++i) {
                send(tuner, i);
            }
            const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
            state.SetIterationTime(took.count() / BATCH);
            tuner.Delete(static_cast<TCHandler*>(&tuner), nullptr);
        }
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

BENCHMARK(PostByHand)->UseManualTime();
BENCHMARK(PostSmallMessage)->UseManualTime();
BENCHMARK(PostAttachmentByHand)->UseManualTime();
BENCHMARK(PostLargeMessage)->UseManualTime();
BENCHMARK(SendSynchronous)->UseRealTime();
BENCHMARK(Ask)->UseRealTime();
BENCHMARK(RunAndWait)->UseRealTime();

} // namespace
