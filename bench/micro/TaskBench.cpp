// Sends to a task: asynchronous, synchronous, priority, and through the trap points.
#include <benchmark/benchmark.h>
#include <sched.h>

#include <cstdlib>

#include "Runtime.h"
#include "ht.h"

namespace {

void SendAsynchronous(benchmark::State& state, bool priority)
{
    const Runtime runtime;
    SilentTask task;
    TSEvent event = task.EventTo();
    for (auto _ : state) {
        while (!TCTask::Send(&event, false, priority)) {
            sched_yield(); // the task is behind
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void SendSynchronous(benchmark::State& state)
{
    const Runtime runtime;
    SilentTask task;
    TSEvent event = task.EventTo();
    for (auto _ : state) {
        TCTask::Send(&event, true, false);
    }
}

/// Run with ZOR_RECORD=PATH to measure it with recording on.
void SendFlagged(benchmark::State& state)
{
    const Runtime runtime;
    SilentTask task;
    TSEvent event = task.EventTo();
    event.flag = true;
    for (auto _ : state) {
        while (!TCTask::Send(&event, false, false)) {
            sched_yield();
        }
    }
    state.SetLabel(TIStorageManagerState::enabled.load() ? "recording on" : "recording off");
    state.SetItemsProcessed(state.iterations());
}

void TaskCreateDestroy(benchmark::State& state)
{
    const Runtime runtime;
    for (auto _ : state) {
        const SilentTask task;
    }
}

BENCHMARK_CAPTURE(SendAsynchronous, normal, false)->UseRealTime();
BENCHMARK_CAPTURE(SendAsynchronous, priority, true)->UseRealTime();
BENCHMARK(SendSynchronous)->UseRealTime();
BENCHMARK(SendFlagged)->UseRealTime();
BENCHMARK(TaskCreateDestroy)->UseRealTime();

} // namespace
