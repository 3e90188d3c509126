// Semaphore and mutex, alone and contended.
#include "Thread.h"

#include <benchmark/benchmark.h>

#include <cstdlib>

namespace {

TCSemaphore g_semaphore;
TCMutex g_mutex;

void CreateSemaphore(const benchmark::State&)
{
    if (!g_semaphore.Create(0)) {
        std::abort();
    }
}

void DestroySemaphore(const benchmark::State&)
{
    g_semaphore.Destroy();
}

void CreateMutex(const benchmark::State&)
{
    if (!g_mutex.Create()) {
        std::abort();
    }
}

void DestroyMutex(const benchmark::State&)
{
    g_mutex.Destroy();
}

/// Every thread gives before it takes, so nobody waits for long.
void SemaphoreGiveTake(benchmark::State& state)
{
    for (auto _ : state) {
        g_semaphore.Give();
        g_semaphore.Take();
    }
    state.SetItemsProcessed(state.iterations());
}

void SemaphorePoll(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(g_semaphore.Try(0));
    }
}

void SemaphoreCreateDestroy(benchmark::State& state)
{
    for (auto _ : state) {
        TCSemaphore semaphore;
        if (!semaphore.Create(0)) {
            state.SkipWithError("no semaphore");
            break;
        }
        semaphore.Destroy();
    }
}

void MutexLockUnlock(benchmark::State& state)
{
    for (auto _ : state) {
        g_mutex.Lock();
        g_mutex.Unlock();
    }
    state.SetItemsProcessed(state.iterations());
}

void MutexNested(benchmark::State& state)
{
    g_mutex.Lock();
    for (auto _ : state) {
        g_mutex.Lock();
        g_mutex.Unlock();
    }
    g_mutex.Unlock();
}

BENCHMARK(SemaphoreGiveTake)
    ->Setup(CreateSemaphore)
    ->Teardown(DestroySemaphore)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();
BENCHMARK(SemaphorePoll)->Setup(CreateSemaphore)->Teardown(DestroySemaphore);
BENCHMARK(SemaphoreCreateDestroy);
BENCHMARK(MutexLockUnlock)
    ->Setup(CreateMutex)
    ->Teardown(DestroyMutex)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();
BENCHMARK(MutexNested)->Setup(CreateMutex)->Teardown(DestroyMutex);

} // namespace
