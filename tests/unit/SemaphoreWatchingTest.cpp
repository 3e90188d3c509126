#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <thread>

#include "ConditionSeams.h"
#include "HabitOf.h"
#include "Thread.h"
#include "Wait.h"

/// Yields would mostly bring the unit before anything is watched.
extern "C" int sched_yield() noexcept
{
    return 0;
}

namespace {

using namespace zortest;

/// Two threads that answer each other gain only if both watch: the one that had to be woken learns
/// that the other one watches.
TEST(SemaphoreWatchingTest, WhoIsWokenByAWatcherProbesTheNextTime)
{
    cpu_set_t processors;
    CPU_ZERO(&processors);
    ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof(processors), &processors), 0);
    if (CPU_COUNT(&processors) < 2) {
        GTEST_SKIP() << "two threads must run at once";
    }
    TCSemaphore watched;
    ASSERT_TRUE(watched.Create(0));
    std::atomic<bool> wanted{false};
    std::atomic<bool> ends{false};
    std::thread answering([&] {
        while (!ends) {
            if (wanted.exchange(false)) {
                watched.Give();
            }
        }
    });
    std::atomic<int> waits{0};
    const Takeover wait(condWaitSeam, [&waits](pthread_cond_t* condition, pthread_mutex_t* mutex) {
        ++waits;
        return condWaitSeam.Real(condition, mutex);
    });
    const auto watchForLong = [&] {
        HabitOf(watched).credit = zor::Habit::RESCUE; // stays if the unit comes before the watch
        wanted = true;
        watched.Take();
        return HabitOf(watched).credit.load();
    };
    // A watch may be in vain where this thread, or the other, is kept from its processor.
    const bool encouraged = Eventually([&] {
        TCSemaphore parkedOn;
        EXPECT_TRUE(parkedOn.Create(0));
        const int before = waits;
        std::thread parked([&parkedOn] { parkedOn.Take(); });
        EXPECT_TRUE(Eventually([&] { return waits > before; }));
        const int watching = watchForLong();
        parkedOn.Give();
        parked.join();
        const bool probes = HabitOf(parkedOn).credit == zor::Habit::RESCUE;
        if (watching != zor::Habit::RESCUE) {
            EXPECT_EQ(probes, watching == zor::Habit::PROBED);
        }
        parkedOn.Destroy();
        return watching == zor::Habit::PROBED;
    });
    EXPECT_TRUE(encouraged);
    ends = true;
    answering.join();
    watched.Destroy();
}

} // namespace
