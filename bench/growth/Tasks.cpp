#include <semaphore.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "Debug.h"
#include "Growth.h"
#include "Runtime.h"

namespace {

using growth::Stopwatch;
using growth::Times;

constexpr unsigned long STACK = 1 << 20;
constexpr int MEASURED = 10; // tasks before the one whose number is asked for

void Wait(sem_t* semaphore)
{
    while (sem_wait(semaphore) != 0) {
    }
}

/// One of the many; can be held in its handler.
class Worker : public TCTask
{
 public:
    enum Kind : std::uint32_t
    {
        WORK,
        HOLD,
    };

    Worker()
    {
        sem_init(&m_reached, 0, 0);
        sem_init(&m_released, 0, 0);
    }
    ~Worker() override
    {
        sem_destroy(&m_reached);
        sem_destroy(&m_released);
    }

    bool Begin() { return Create("worker", ~0U, STACK, 0); }
    void WaitUntilReached() { Wait(&m_reached); }
    void Release() { sem_post(&m_released); }

    /// Nothing else is queued, so that there is room for it.
    bool Post(unsigned long type, Kind kind = WORK)
    {
        TSEvent event;
        event.receiver = this;
        event.type = type;
        event.param1 = kind;
        return Send(&event, false, false);
    }

    void End()
    {
        if (!Post(EVENT_EXIT)) {
            std::abort();
        }
        Destroy();
    }

 private:
    bool t_Create() override
    {
        sem_post(&m_reached);
        return true;
    }

    bool t_OnUser(const TSEvent* event) override
    {
        if (event->param1 == HOLD) {
            sem_post(&m_reached);
            Wait(&m_released);
        }
        return true;
    }

    sem_t m_reached; ///< the thread runs, or is held
    sem_t m_released;
};

/// While it lives, a thread that cannot be had is no failure, though assertions tell of it when it
/// is asked for and when its task is destroyed.
class Refusable
{
 public:
    Refusable()
    {
        test::TSCustomAssert::callback = [](const char*, unsigned long) {};
    }
    ~Refusable() { test::TSCustomAssert::callback = nullptr; }

    Refusable(const Refusable&) = delete;
    Refusable& operator=(const Refusable&) = delete;
};

class Crowd
{
 public:
    ~Crowd() { ShrinkTo(0, nullptr); }

    long Size() const { return static_cast<long>(m_workers.size()); }

    /// @return false if the system allows no more
    bool GrowBy(long workers, Times* times)
    {
        for (long i = 0; i < workers; ++i) {
            const Refusable refusable;
            auto worker = std::make_unique<Worker>();
            const Stopwatch watch;
            if (!worker->Begin()) {
                return false;
            }
            if (times != nullptr) {
                times->Add(watch);
            }
            worker->WaitUntilReached(); // nobody still starts while the next one is measured
            m_workers.push_back(std::move(worker));
        }
        return true;
    }

    void ShrinkTo(long size, Times* times)
    {
        while (Size() > size) {
            const Stopwatch watch;
            m_workers.back()->End();
            if (times != nullptr) {
                times->Add(watch);
            }
            m_workers.pop_back();
        }
    }

    /// Sends to the last one, which is held.
    void MeasureSends()
    {
        constexpr int ROUNDS = 50;
        constexpr int BATCH = 200; // less than a queue's room

        Worker& worker = *m_workers.back();
        Times times;
        for (int round = 0; round < ROUNDS; ++round) {
            worker.Post(TCTask::EVENT_USER, Worker::HOLD);
            worker.WaitUntilReached();
            TSEvent event;
            event.receiver = &worker;
            event.type = TCTask::EVENT_USER;
            event.param1 = Worker::WORK;
            const Stopwatch watch;
            for (int i = 0; i < BATCH; ++i) {
                if (!TCTask::Send(&event, false, false)) {
                    std::abort();
                }
            }
            times.Add(watch, BATCH);
            worker.Delete(static_cast<TCHandler*>(&worker), nullptr);
            worker.Release();
        }
        times.Print("send", Size());
    }

 private:
    std::vector<std::unique_ptr<Worker>> m_workers;
};

} // namespace

void growth::MeasureTasks(const long* sizes, int count)
{
    const Runtime runtime;
    Crowd crowd;
    std::vector<long> reached;
    for (int i = 0; i < count; ++i) {
        const long before = std::max(crowd.Size(), sizes[i] - MEASURED);
        Times times;
        const bool grown = crowd.GrowBy(before - crowd.Size(), nullptr) &&
                           crowd.GrowBy(sizes[i] - crowd.Size(), &times);
        if (!grown) {
            std::printf("{\"step\": \"limit\", \"size\": %ld, \"wall_ns\": 0, \"cpu_ns\": 0}\n",
                        crowd.Size());
            break;
        }
        times.Print("task_create", sizes[i]);
        crowd.MeasureSends();
        reached.push_back(sizes[i]);
    }
    for (; !reached.empty(); reached.pop_back()) {
        crowd.ShrinkTo(reached.back(), nullptr);
        Times times;
        crowd.ShrinkTo(reached.back() - std::min<long>(MEASURED, reached.back()), &times);
        times.Print("task_destroy", reached.back());
    }
}
