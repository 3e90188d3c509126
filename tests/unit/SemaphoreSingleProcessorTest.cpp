#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "ConditionSeams.h"
#include "MutexSeams.h"
#include "Thread.h"

namespace {

/// How many processors the process may use. The library asks when it is loaded, and now and then.
std::atomic<int> g_processors{1};

} // namespace

extern "C" int sched_getaffinity(pid_t /*process*/, size_t size, cpu_set_t* processors) noexcept
{
    CPU_ZERO_S(size, processors);
    for (int i = 0; i < g_processors; ++i) {
        CPU_SET_S(i, size, processors);
    }
    return 0;
}

namespace {

using namespace zortest;

/// Where no other thread can run meanwhile, trying again and watching would only take time.
TEST(SemaphoreSingleProcessorTest, MutexIsTakenWithoutTrying)
{
    std::atomic<int> tries{0};
    const Takeover trylock(mutexTrylockSeam, [&tries](pthread_mutex_t* mutex) {
        ++tries;
        return mutexTrylockSeam.Real(mutex);
    });
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    semaphore.Give();
    semaphore.Take();
    EXPECT_FALSE(semaphore.Try(0));
    EXPECT_FALSE(semaphore.Try(1));
    semaphore.Destroy();
    EXPECT_EQ(tries, 0);
}

TEST(SemaphoreSingleProcessorTest, UnitsGoToAndFroAllTheSame)
{
    constexpr int ROUNDS = 1000;
    TCSemaphore there;
    TCSemaphore back;
    ASSERT_TRUE(there.Create(0));
    ASSERT_TRUE(back.Create(0));
    std::thread other([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            there.Take();
            back.Give();
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        there.Give();
        back.Take();
    }
    other.join();
    EXPECT_FALSE(there.Try(0));
    EXPECT_FALSE(back.Try(0));
    there.Destroy();
    back.Destroy();
}

/// The processors of a process may change, and with them what is worth trying.
TEST(SemaphoreSingleProcessorTest, SecondProcessorIsNoticedAfterAThousandWaits)
{
    constexpr int WAITS = 2 * 1024;

    std::atomic<int> tries{0};
    const Takeover trylock(mutexTrylockSeam, [&tries](pthread_mutex_t* mutex) {
        ++tries;
        return mutexTrylockSeam.Real(mutex);
    });
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    const Takeover wait(condTimedwaitSeam, [](pthread_cond_t*, pthread_mutex_t*, const timespec*) {
        return ETIMEDOUT;
    });
    g_processors = 2;
    for (int i = 0; i < WAITS; ++i) {
        EXPECT_FALSE(semaphore.Try(1));
    }
    EXPECT_GT(tries, 0);
    g_processors = 1;
    for (int i = 0; i < WAITS; ++i) {
        EXPECT_FALSE(semaphore.Try(1));
    }
    tries = 0;
    semaphore.Give();
    EXPECT_EQ(tries, 0);
    semaphore.Destroy();
}

} // namespace
