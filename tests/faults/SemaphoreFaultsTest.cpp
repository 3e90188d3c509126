#include <atomic>
#include <cerrno>
#include <thread>

#include "AllocationSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "FaultCase.h"
#include "Thread.h"
#include "Wait.h"

namespace {

using namespace zortest;

constexpr unsigned long LONG_WAIT_MSEC = 600 * 1000;

/// A semaphore, and what shows that it is as if nothing had happened.
class SemaphoreFaultsTest : public ::testing::Test
{
 protected:
    ~SemaphoreFaultsTest() override
    {
        if (m_semaphore.FlagCreate()) {
            m_semaphore.Destroy();
        }
    }

    /// The first Create() fails, and the next one works.
    void ExpectCreateFailsOnce()
    {
        EXPECT_FALSE(m_semaphore.Create(1));
        EXPECT_FALSE(m_semaphore.FlagCreate());
        EXPECT_TRUE(m_semaphore.Create(1));
        ExpectUnits(1);
    }

    /// The semaphore has that many units, for every thread.
    void ExpectUnits(int units)
    {
        OnAnotherThread([&] {
            for (int i = 0; i < units; ++i) {
                EXPECT_TRUE(m_semaphore.Try(0)) << i;
            }
            EXPECT_FALSE(m_semaphore.Try(0));
        });
    }

    TCSemaphore m_semaphore;
};

TEST_F(SemaphoreFaultsTest, WithoutMemoryCreateFails)
{
    const FaultCase fault("operator new (nothrow)", "TCSemaphore::Create",
                          "`Create()` is false, nothing is made, and it works the next time");
    const FailingCall noMemory(nothrowNewSeam, nullptr);
    ExpectCreateFailsOnce();
}

TEST_F(SemaphoreFaultsTest, WithoutAttributesCreateFails)
{
    const FaultCase fault("pthread_condattr_init", "TCSemaphore::Create",
                          "`Create()` is false, nothing is made, and it works the next time");
    const FailingCall refused(condattrInitSeam, ENOMEM);
    ExpectCreateFailsOnce();
}

TEST_F(SemaphoreFaultsTest, WithoutTheMonotonicClockCreateFails)
{
    const FaultCase fault("pthread_condattr_setclock", "TCSemaphore::Create",
                          "`Create()` is false, nothing is made, and it works the next time");
    const FailingCall refused(condattrSetclockSeam, EINVAL);
    ExpectCreateFailsOnce();
}

TEST_F(SemaphoreFaultsTest, WithoutAConditionCreateFails)
{
    const FaultCase fault("pthread_cond_init", "TCSemaphore::Create",
                          "`Create()` is false, nothing is made, and it works the next time");
    const FailingCall refused(condInitSeam, EAGAIN);
    ExpectCreateFailsOnce();
}

TEST_F(SemaphoreFaultsTest, WaitWithoutAClockIsATimeOut)
{
    const FaultCase fault("clock_gettime", "TCSemaphore::Try",
                          "`Try()` is false at once, as after its time; the count is kept");
    ASSERT_TRUE(m_semaphore.Create(0));
    {
        const FailingCall noClock(clockGettimeSeam, -1, 0, From::HERE, EINVAL);
        EXPECT_FALSE(m_semaphore.Try(LONG_WAIT_MSEC));
        EXPECT_EQ(noClock.Failed(), 1);
    }
    m_semaphore.Give();
    ExpectUnits(1);
}

TEST_F(SemaphoreFaultsTest, RefusedWaitIsATimeOut)
{
    const FaultCase fault("pthread_cond_timedwait", "TCSemaphore::Try",
                          "`Try()` is false at once, as after its time; the count is kept");
    ASSERT_TRUE(m_semaphore.Create(0));
    {
        const FailingCall refused(condTimedwaitSeam, EINVAL);
        EXPECT_FALSE(m_semaphore.Try(LONG_WAIT_MSEC));
    }
    m_semaphore.Give();
    ExpectUnits(1);
}

TEST_F(SemaphoreFaultsTest, RefusedWaitWithoutLimitIsBegunAgain)
{
    const FaultCase fault("pthread_cond_wait", "TCSemaphore::Take",
                          "the wait is begun again; nothing is taken before there is a unit");
    ASSERT_TRUE(m_semaphore.Create(0));
    std::atomic<bool> taken{false};
    const FailingCall refused(condWaitSeam, EINVAL, 0, From::ANYWHERE);
    std::thread taker([&] {
        m_semaphore.Take();
        taken = true;
    });
    EXPECT_TRUE(Eventually([&] { return refused.Calls() >= 2; }));
    EXPECT_FALSE(taken);
    m_semaphore.Give();
    taker.join();
    EXPECT_TRUE(taken);
    ExpectUnits(0);
}

TEST(MutexFaultsTest, WithoutItsSemaphoreCreateFails)
{
    const FaultCase fault("operator new (nothrow)", "TCMutex::Create",
                          "`Create()` is false and the mutex is not created");
    TCMutex mutex;
    {
        const FailingCall noMemory(nothrowNewSeam, nullptr);
        EXPECT_FALSE(mutex.Create());
    }
    EXPECT_FALSE(mutex.FlagCreate());
    ASSERT_TRUE(mutex.Create());
    OnAnotherThread([&] {
        mutex.Lock();
        mutex.Unlock();
    });
    mutex.Destroy();
}

} // namespace
