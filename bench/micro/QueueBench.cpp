// Puts and gets: alone and from several producers, with short and long names, with attachments;
// searching and deleting in full queues.
#include "Queue.h"

#include <benchmark/benchmark.h>

#include <cstdlib>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "Handler.h"
#include "TCDebugPrint.h"

namespace {

constexpr char SHORT_NAME[] = "app00001";
constexpr char LONG_NAME[] = "an application with a name beyond what a string keeps in itself";
constexpr int FULL = 240;

class CreatedQueue : public TCQueue
{
 public:
    CreatedQueue()
    {
        if (!Create()) {
            std::abort();
        }
    }
    ~CreatedQueue() override { Destroy(); }
};

/// Where events are addressed to; nothing here handles them.
TCHandler* Receiver(std::uintptr_t number)
{
    return reinterpret_cast<TCHandler*>(number * 64);
}

void PutGet(benchmark::State& state, const char* name, bool attached)
{
    TCDebugPrintZOR::GetInstance()->SetAppName(name);
    CreatedQueue queue;
    TSEvent event;
    event.receiver = Receiver(1);
    if (attached) {
        event.setWrappedData(std::uint64_t{7});
    }
    for (auto _ : state) {
        TSEvent taken;
        queue.Put(&event, false);
        queue.Get(&taken, 0UL);
        benchmark::DoNotOptimize(taken.type);
    }
    state.SetItemsProcessed(state.iterations());
    TCDebugPrintZOR::GetInstance()->SetAppName("");
}

/// The given number of producers against one consumer, which is what is measured.
void Stream(benchmark::State& state)
{
    CreatedQueue queue;
    std::atomic<bool> ends{false};
    std::vector<std::thread> producers;
    for (int i = 0; i < state.range(0); ++i) {
        producers.emplace_back([&] {
            TCDebugPrintZOR::GetInstance()->SetAppName(SHORT_NAME);
            TSEvent event;
            event.receiver = Receiver(1);
            while (!ends.load(std::memory_order_relaxed)) {
                if (!queue.Put(&event, false)) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (auto _ : state) {
        TSEvent taken;
        queue.GetSync(&taken, ~0UL, false);
        benchmark::DoNotOptimize(taken.type);
    }
    state.SetItemsProcessed(state.iterations());
    ends.store(true);
    for (std::thread& producer : producers) {
        producer.join();
    }
}

void Fill(TCQueue* queue)
{
    for (int i = 0; i < FULL; ++i) {
        TSEvent event;
        event.receiver = Receiver(1);
        event.type = static_cast<unsigned long>(i);
        queue->Put(&event, false);
    }
}

void FindInFullQueue(benchmark::State& state)
{
    CreatedQueue queue;
    Fill(&queue);
    for (auto _ : state) {
        unsigned int found = 0;
        queue.Find(Receiver(1), &found);
        benchmark::DoNotOptimize(found);
    }
}

void DeleteNothingFromFullQueue(benchmark::State& state)
{
    CreatedQueue queue;
    Fill(&queue);
    for (auto _ : state) {
        benchmark::DoNotOptimize(queue.Delete(Receiver(2), nullptr));
    }
}

void DeleteOneFromFullQueue(benchmark::State& state)
{
    CreatedQueue queue;
    Fill(&queue);
    TSEvent event;
    event.receiver = Receiver(2);
    for (auto _ : state) {
        queue.Put(&event, true);
        benchmark::DoNotOptimize(queue.Delete(Receiver(2), nullptr));
    }
}

BENCHMARK_CAPTURE(PutGet, short_name, SHORT_NAME, false);
BENCHMARK_CAPTURE(PutGet, long_name, LONG_NAME, false);
BENCHMARK_CAPTURE(PutGet, attachment, SHORT_NAME, true);
BENCHMARK(Stream)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(FindInFullQueue);
BENCHMARK(DeleteNothingFromFullQueue);
BENCHMARK(DeleteOneFromFullQueue);

} // namespace
