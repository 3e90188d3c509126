#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <thread>

#include "MutexSeams.h"
#include "Thread.h"

/// One processor is all that the process may use. The library asks when it is loaded.
extern "C" int sched_getaffinity(pid_t /*process*/, size_t size, cpu_set_t* processors) noexcept
{
    CPU_ZERO_S(size, processors);
    CPU_SET_S(0, size, processors);
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

} // namespace
