#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cerrno>

#include "MutexSeams.h"
#include "Thread.h"

/// Two processors, whatever the machine has. The library asks when it is loaded, for this process.
extern "C" int sched_getaffinity(pid_t process, size_t size, cpu_set_t* processors) noexcept
{
    if (process != 0) {
        errno = ESRCH;
        return -1;
    }
    CPU_ZERO_S(size, processors);
    CPU_SET_S(0, size, processors);
    CPU_SET_S(1, size, processors);
    return 0;
}

namespace {

using namespace zortest;

/// A semaphore, and how often the mutex behind it is tried.
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
