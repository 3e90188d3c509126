#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <cerrno>

#include "MutexSeams.h"
#include "Thread.h"

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

} // namespace
