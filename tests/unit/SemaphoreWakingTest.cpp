#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "ConditionSeams.h"
#include "Thread.h"
#include "Wait.h"

/// The C library that the library finds when it is loaded: one whose condition variables may lose a
/// signal among three waiters, or one that has been repaired.
extern "C" const char* gnu_get_libc_version() noexcept
{
    return ZOR_TEST_LIBC_VERSION;
}

namespace {

using namespace zortest;

const bool LOSES_SIGNALS = std::string(ZOR_TEST_LIBC_VERSION) == "2.36";

/// A semaphore that threads are parked at.
class SemaphoreWakingTest : public ::testing::Test
{
 protected:
    SemaphoreWakingTest()
        : m_wait(condWaitSeam, [this](pthread_cond_t* condition, pthread_mutex_t* mutex) {
              ++m_waits; // under the mutex: whoever gives later finds it parked
              return condWaitSeam.Real(condition, mutex);
          })
    {
        EXPECT_TRUE(m_semaphore.Create(0));
    }

    ~SemaphoreWakingTest() override
    {
        for (std::thread& taker : m_takers) {
            taker.join();
        }
        m_semaphore.Destroy();
    }

    /// Starts a thread that takes a unit and waits until it is parked.
    void ParkTaker()
    {
        const int waits = m_waits;
        m_takers.emplace_back([this] {
            m_semaphore.Take();
            ++m_taken;
        });
        ASSERT_TRUE(Eventually([&] { return m_waits > waits; }));
    }

    TCSemaphore m_semaphore;
    std::atomic<int> m_waits{0};
    std::atomic<int> m_taken{0};

 private:
    std::vector<std::thread> m_takers;
    Takeover<int(pthread_cond_t*, pthread_mutex_t*)> m_wait;
};

TEST_F(SemaphoreWakingTest, TimeOutThatUsedASignalUpWakesAnotherWaiter)
{
    ParkTaker();
    const Takeover wait(
        condTimedwaitSeam, [&](pthread_cond_t*, pthread_mutex_t* mutex, const timespec*) {
            pthread_mutex_unlock(mutex);
            {
                // The signal goes to this wait, which ends by its deadline.
                const Takeover lost(condSignalSeam, [](pthread_cond_t*) { return 0; });
                m_semaphore.Give();
            }
            pthread_mutex_lock(mutex);
            return ETIMEDOUT;
        });
    EXPECT_FALSE(m_semaphore.Try(1000));
    EXPECT_TRUE(Eventually([this] { return m_taken == 1; }));
    m_semaphore.Give(); // for the parked one, should it be parked still
}

TEST_F(SemaphoreWakingTest, TimeOutWithoutAUnitWakesNobody)
{
    ParkTaker();
    std::atomic<int> signals{0};
    const Takeover signal(condSignalSeam, [&signals](pthread_cond_t* condition) {
        ++signals;
        return condSignalSeam.Real(condition);
    });
    EXPECT_FALSE(m_semaphore.Try(1));
    EXPECT_EQ(signals, 0);
    m_semaphore.Give();
    EXPECT_EQ(signals, 1);
}

/// A signal to one of three waiters is what may be lost; to wake all of them cannot be.
TEST_F(SemaphoreWakingTest, AllAreWokenWhereASignalMayBeLostAmongThree)
{
    std::atomic<int> broadcasts{0};
    const Takeover broadcast(condBroadcastSeam, [&broadcasts](pthread_cond_t* condition) {
        ++broadcasts;
        return condBroadcastSeam.Real(condition);
    });
    ParkTaker();
    ParkTaker();
    m_semaphore.Give();
    EXPECT_TRUE(Eventually([this] { return m_taken == 1; }));
    EXPECT_EQ(broadcasts, 0);
    ParkTaker();
    ParkTaker();
    m_semaphore.Give();
    EXPECT_EQ(broadcasts, LOSES_SIGNALS ? 1 : 0);
    EXPECT_TRUE(Eventually([this] { return m_taken == 2; }));
    m_semaphore.Give();
    m_semaphore.Give();
    EXPECT_TRUE(Eventually([this] { return m_taken == 4; }));
}

/// Or a wait for a second would begin anew with each unit that somebody else takes, and never end.
TEST_F(SemaphoreWakingTest, WhoIsWokenBecauseAllAreKeepsItsDeadline)
{
    if (!LOSES_SIGNALS) {
        GTEST_SKIP() << "only where all are woken";
    }
    ParkTaker();
    ParkTaker();
    std::vector<time_t> deadlines;
    time_t now = 100;
    const Takeover clock(clockGettimeSeam, [&now](clockid_t, timespec* time) {
        *time = {now++, 0};
        return 0;
    });
    const Takeover wait(
        condTimedwaitSeam, [&](pthread_cond_t*, pthread_mutex_t* mutex, const timespec* deadline) {
            deadlines.push_back(deadline->tv_sec);
            if (deadlines.size() > 2) {
                return ETIMEDOUT;
            }
            if (deadlines.size() == 1) {
                pthread_mutex_unlock(mutex);
                m_semaphore.Give();
                while (m_taken == 0) {
                    std::this_thread::yield();
                }
                pthread_mutex_lock(mutex);
            }
            return 0; // the first time because all were woken, the second time for no reason
        });
    EXPECT_FALSE(m_semaphore.Try(1000));
    ASSERT_EQ(deadlines.size(), 3u);
    EXPECT_EQ(deadlines[1], deadlines[0]);
    EXPECT_GT(deadlines[2], deadlines[1]);
    m_semaphore.Give();
}

/// Many waiters on one mutex and on one semaphore, of which some give up now and then: no unit is
/// lost, and nobody sleeps beside one.
TEST(SemaphoreWakingStressTest, ManyWaitersOnOneMutexAndOneSemaphoreAllGetTheirs)
{
    constexpr int THREADS = 8;
    constexpr int ROUNDS = 2000;

    TCSemaphore semaphore;
    TCMutex mutex;
    ASSERT_TRUE(semaphore.Create(2));
    ASSERT_TRUE(mutex.Create());
    int counted = 0; // guarded by the mutex
    std::atomic<int> inside{0};
    Gate done(THREADS);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < ROUNDS; ++round) {
                if (i % 2 == 0) {
                    semaphore.Take();
                } else {
                    while (!semaphore.Try(1)) {
                    }
                }
                EXPECT_LE(++inside, 2);
                --inside;
                semaphore.Give();
                mutex.Lock();
                ++counted;
                mutex.Unlock();
            }
            done.Pass();
        });
    }
    ASSERT_TRUE(done.Wait());
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counted, THREADS * ROUNDS);
    EXPECT_TRUE(semaphore.Try(0));
    EXPECT_TRUE(semaphore.Try(0));
    EXPECT_FALSE(semaphore.Try(0));
    semaphore.Destroy();
    mutex.Destroy();
}

} // namespace
