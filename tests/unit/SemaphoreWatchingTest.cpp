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
#ifdef ZOR_TEST_EMULATED
    GTEST_SKIP() << "it has not come to an end emulated; why is not known";
#endif
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
    // A watch may be in vain where this thread, or the other, is kept from its processor.
    const bool encouraged = Eventually([&] {
        TCSemaphore parkedOn;
        EXPECT_TRUE(parkedOn.Create(0));
        // A waiter heeds it the more rarely the longer nothing has paid off.
        for (unsigned i = 1; i < zor::Habit::FIRST_INTERVAL / zor::Habit::LEAST_INTERVAL; ++i) {
            EXPECT_FALSE(parkedOn.Try(1));
        }
        for (unsigned i = 0; i < 2 * zor::Habit::FIRST_INTERVAL; ++i) {
            wanted = true;
            watched.Take();
        }
        const int before = waits;
        std::thread parked([&parkedOn] { parkedOn.Take(); });
        EXPECT_TRUE(Eventually([&] { return waits > before; }));
        wanted = true;
        watched.Take();
        parkedOn.Give();
        parked.join();
        const bool probes = HabitOf(parkedOn).credit == zor::Habit::RESCUE;
        parkedOn.Destroy();
        return probes;
    });
    EXPECT_TRUE(encouraged);
    ends = true;
    answering.join();
    watched.Destroy();
}

} // namespace
