#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "ConditionSeams.h"
#include "HabitOf.h"
#include "MutexSeams.h"
#include "Thread.h"
#include "Wait.h"

namespace {

using namespace zortest;

/// A semaphore where two processors are to be had, and how often the mutex behind it is tried.
class SemaphoreSeveralProcessorsTest : public ::testing::Test
{
 protected:
    SemaphoreSeveralProcessorsTest() { EXPECT_TRUE(m_semaphore.Create(0)); }
    ~SemaphoreSeveralProcessorsTest() override { m_semaphore.Destroy(); }

    TCSemaphore m_semaphore;
    std::atomic<int> m_tries{0};
};

TEST_F(SemaphoreSeveralProcessorsTest, FreeMutexIsTakenAtTheFirstTry)
{
    const Takeover trylock(mutexTrylockSeam, [this](pthread_mutex_t* mutex) {
        ++m_tries;
        return mutexTrylockSeam.Real(mutex);
    });
    m_semaphore.Give();
    EXPECT_EQ(m_tries, 1);
    m_semaphore.Take();
    EXPECT_EQ(m_tries, 2);
    EXPECT_FALSE(m_semaphore.Try(0));
    EXPECT_EQ(m_tries, 3);
}

/// Sleeping on it at once would make threads that share it alternate.
TEST_F(SemaphoreSeveralProcessorsTest, MutexThatStaysTakenIsTriedSixTimesBeforeTheThreadSleepsOnIt)
{
    int triesBeforeTheLock = -1;
    const Takeover trylock(mutexTrylockSeam, [this](pthread_mutex_t*) {
        ++m_tries;
        return EBUSY;
    });
    const Takeover lock(mutexLockSeam, [&](pthread_mutex_t* mutex) {
        triesBeforeTheLock = m_tries;
        return mutexLockSeam.Real(mutex);
    });
    m_semaphore.Give();
    EXPECT_EQ(m_tries, 6);
    EXPECT_EQ(triesBeforeTheLock, 6);
}

/// How many waits have asked whether they should watch, which they do unless they must not: here
/// no yield brings a unit, and no watch has been a probe.
unsigned WaitsThatMayWatch(const TCSemaphore& semaphore)
{
    return HabitOf(semaphore).skipped;
}

/// It would take the units that the parked one is woken for.
TEST_F(SemaphoreSeveralProcessorsTest, NobodyWatchesBesideAParkedThread)
{
    std::atomic<int> waits{0};
    const Takeover wait(condWaitSeam, [&waits](pthread_cond_t* condition, pthread_mutex_t* mutex) {
        ++waits;
        return condWaitSeam.Real(condition, mutex);
    });
    EXPECT_FALSE(m_semaphore.Try(1));
    const unsigned before = WaitsThatMayWatch(m_semaphore);
    EXPECT_EQ(before, 1u);
    std::thread parked([this] { m_semaphore.Take(); });
    ASSERT_TRUE(Eventually([&waits] { return waits == 1; }));
    EXPECT_EQ(WaitsThatMayWatch(m_semaphore), before + 1); // the parked one's
    EXPECT_FALSE(m_semaphore.Try(1));
    EXPECT_EQ(WaitsThatMayWatch(m_semaphore), before + 1);
    m_semaphore.Give();
    parked.join();
    EXPECT_FALSE(m_semaphore.Try(1));
    EXPECT_EQ(WaitsThatMayWatch(m_semaphore), before + 2);
}

} // namespace
