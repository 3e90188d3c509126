// Timers among few and many, and alarms.
#include <benchmark/benchmark.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

#include "Alarm.h"
#include "Runtime.h"
#include "Timer.h"
#include "TimersScheduler.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds FAR(3600 * 1000);

/// A scheduler with that many timers that are not due, and one more that is worked on.
class Timers
{
 public:
    explicit Timers(std::int64_t others)
    {
        for (std::int64_t i = 0; i < others; ++i) {
            m_scheduler.CreateTimer(FAR + milliseconds(i), 1, m_task.EventTo());
        }
    }

    std::size_t Create() { return m_scheduler.CreateTimer(FAR, 1, m_task.EventTo()); }
    TCTimersScheduler& operator*() { return m_scheduler; }

 private:
    Runtime m_runtime;
    SilentTask m_task;
    TCTimersScheduler m_scheduler;
};

void TimerCreateDestroy(benchmark::State& state)
{
    Timers timers(state.range(0));
    for (auto _ : state) {
        (*timers).DestroyTimer(timers.Create());
    }
}

void TimerReset(benchmark::State& state)
{
    Timers timers(state.range(0));
    const std::size_t id = timers.Create();
    for (auto _ : state) {
        (*timers).ResetTimer(id, FAR, 1);
    }
}

void TimerPauseResume(benchmark::State& state)
{
    Timers timers(state.range(0));
    const std::size_t id = timers.Create();
    for (auto _ : state) {
        (*timers).PauseTimer(id);
        (*timers).ResumeTimer(id);
    }
}

class FiringTask : public QuietTask
{
 public:
    std::atomic<std::int64_t> handled{0};

 private:
    bool t_OnUser(const TSEvent*) override
    {
        handled.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
};

/// That many timers of one count, all due at about the same time: from when the first is due until
/// the last has been handled. No more than the task's queue holds, so that none is lost.
void TimerFire(benchmark::State& state)
{
    const Runtime runtime;
    Running<FiringTask> task;
    TCTimersScheduler scheduler;
    for (auto _ : state) {
        task.handled.store(0);
        std::vector<std::size_t> ids;
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            ids.push_back(scheduler.CreateTimer(ITimer::INTERVAL_MIN, 1, task.EventTo()));
        }
        while (task.handled.load() == 0) {
            sched_yield();
        }
        const auto begin = std::chrono::steady_clock::now();
        while (task.handled.load() < state.range(0)) {
            sched_yield();
        }
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
        for (const std::size_t id : ids) {
            scheduler.DestroyTimer(id);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

class Bell : public TCAlarm
{
    bool t_OnAlarm(const TSEvent*) override { return true; }
};

/// An alarm has a thread of its own.
void AlarmCreateDestroy(benchmark::State& state)
{
    const Runtime runtime;
    SilentTask task;
    for (auto _ : state) {
        Bell bell;
        if (!bell.Create(&task, 3600 * 1000, 1)) {
            state.SkipWithError("no alarm");
            break;
        }
        bell.Destroy();
    }
}

void AlarmReset(benchmark::State& state)
{
    const Runtime runtime;
    SilentTask task;
    Bell bell;
    if (!bell.Create(&task, 3600 * 1000, 1)) {
        state.SkipWithError("no alarm");
        return;
    }
    for (auto _ : state) {
        bell.Reset(3600 * 1000, 1);
    }
    bell.Destroy();
}

BENCHMARK(TimerFire)->Arg(1)->Arg(200)->Iterations(50)->UseManualTime();
BENCHMARK(AlarmCreateDestroy)->UseRealTime();
BENCHMARK(AlarmReset)->UseRealTime();
BENCHMARK(TimerCreateDestroy)->Arg(1)->Arg(1000)->Arg(100000);
BENCHMARK(TimerReset)->Arg(1)->Arg(1000)->Arg(100000);
BENCHMARK(TimerPauseResume)->Arg(1)->Arg(1000)->Arg(100000);

} // namespace
