#include <dirent.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "Growth.h"
#include "Runtime.h"
#include "Timer.h"
#include "TimersScheduler.h"

namespace {

using growth::Stopwatch;
using growth::Times;
using std::chrono::milliseconds;

constexpr milliseconds FAR(3600 * 1000);
constexpr int BATCH = 100;
constexpr int ROUNDS = 20;

/// Nanoseconds that the scheduler's thread has used, which sleeps: what runs is not counted yet.
/// Negative while the thread has no name yet.
double SchedulerTime()
{
    double nsec = -1;
    DIR* const threads = opendir("/proc/self/task");
    if (threads == nullptr) {
        std::abort();
    }
    while (const dirent* const entry = readdir(threads)) {
        const std::string folder = std::string("/proc/self/task/") + entry->d_name;
        std::string name;
        std::getline(std::ifstream(folder + "/comm"), name);
        if (name == "TimersScheduler") {
            std::ifstream(folder + "/schedstat") >> nsec;
        }
    }
    closedir(threads);
    return nsec;
}

/// Knows when the first and the last firing of a batch have come.
class Target : public QuietTask
{
 public:
    std::atomic<int> handled{0};
    double first = 0; ///< published by the count, as is the next one
    double last = 0;

 private:
    bool t_OnUser(const TSEvent*) override
    {
        const double now = growth::Now(CLOCK_MONOTONIC);
        const int before = handled.load(std::memory_order_relaxed);
        (before == 0 ? first : last) = now;
        handled.store(before + 1, std::memory_order_release);
        return true;
    }
};

class Timers
{
 public:
    explicit Timers(long others) : m_others(others)
    {
        for (long i = 0; i < others; ++i) {
            m_scheduler.CreateTimer(FAR + milliseconds(i), 1, m_target.EventTo());
        }
        MeasureCreateAndDestroy(nullptr, nullptr); // makes the slots that are used again
        for (int i = 0; SchedulerTime() < 0; ++i) {
            if (i == 10000) {
                std::abort(); // the thread has another name, or the kernel keeps no such account
            }
            TCTimeWrapper::Sleep(1);
        }
    }

    /// Timers due anywhere between the others, destroyed in another order than made.
    void MeasureCreateAndDestroy(Times* created, Times* destroyed)
    {
        std::uniform_int_distribution<long> place(0, m_others);
        std::vector<milliseconds> intervals(BATCH);
        for (milliseconds& interval : intervals) {
            interval = FAR + milliseconds(place(m_random));
        }
        std::vector<std::size_t> ids;
        ids.reserve(BATCH);
        const TSEvent event = m_target.EventTo();
        const Stopwatch creating;
        for (const milliseconds interval : intervals) {
            ids.push_back(m_scheduler.CreateTimer(interval, 1, event));
        }
        if (created != nullptr) {
            created->Add(creating, BATCH);
        }
        std::shuffle(ids.begin(), ids.end(), m_random);
        const Stopwatch destroying;
        for (const std::size_t id : ids) {
            m_scheduler.DestroyTimer(id);
        }
        if (destroyed != nullptr) {
            destroyed->Add(destroying, BATCH);
        }
    }

    /// A batch that is due at about the same time, no more than the task's queue holds.
    void MeasureFire(Times* fired)
    {
        m_target.handled.store(0);
        std::vector<std::size_t> ids;
        for (int i = 0; i < BATCH; ++i) {
            ids.push_back(m_scheduler.CreateTimer(SOON, 1, m_target.EventTo()));
        }
        const double processor = SchedulerTime();
        while (m_target.handled.load(std::memory_order_acquire) < BATCH) {
            TCTimeWrapper::Sleep(1);
        }
        TCTimeWrapper::Sleep(1); // the scheduler's thread goes to sleep
        fired->Add((m_target.last - m_target.first) / (BATCH - 1),
                   (SchedulerTime() - processor) / BATCH);
        for (const std::size_t id : ids) {
            m_scheduler.DestroyTimer(id);
        }
    }

 private:
    /// Time enough to make a batch before the first of it is due.
    static constexpr milliseconds SOON{25};

    const long m_others;
    std::mt19937 m_random{1};
    Runtime m_runtime;
    Running<Target> m_target;
    TCTimersScheduler m_scheduler;
};

} // namespace

void growth::MeasureTimers(long others)
{
    Timers timers(others);
    Times created;
    Times fired;
    Times destroyed;
    for (int round = 0; round < ROUNDS; ++round) {
        timers.MeasureCreateAndDestroy(&created, &destroyed);
    }
    for (int round = 0; round < ROUNDS; ++round) {
        timers.MeasureFire(&fired);
    }
    created.Print("timer_create", others);
    fired.Print("timer_fire", others);
    destroyed.Print("timer_destroy", others);
}
