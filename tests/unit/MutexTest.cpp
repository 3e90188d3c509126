#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include "AllocationSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "Layout.h"
#include "Thread.h"
#include "Wait.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::size_t OWNER_OFFSET = 24;
constexpr std::size_t DEPTH_OFFSET = 32;

/// A created mutex, and a thread that wants it.
class MutexTest : public ::testing::Test
{
 protected:
    MutexTest() { EXPECT_TRUE(m_mutex.Create()); }

    ~MutexTest() override
    {
        if (m_contender.joinable()) {
            m_contender.join();
        }
    }

    /// Starts a thread that locks and unlocks the mutex.
    void StartContender()
    {
        m_contender = std::thread([this] {
            m_mutex.Lock();
            m_entered = true;
            m_mutex.Unlock();
        });
    }

    /// Whether the contender had to wait. Only then is it certain that the mutex was held.
    bool ContenderWaits()
    {
        return Eventually([this] { return m_watch.WaitedFor(0); }) && !m_entered;
    }

    bool ContenderEnters()
    {
        return Eventually([this] { return m_entered.load(); });
    }

    ConditionWatch m_watch;
    TCMutex m_mutex;
    std::atomic<bool> m_entered{false};
    std::thread m_contender;
};

TEST_F(MutexTest, IsCreatedFromCreateToDestroy)
{
    TCMutex mutex;
    EXPECT_FALSE(mutex.FlagCreate());
    EXPECT_TRUE(mutex.Create());
    EXPECT_TRUE(mutex.FlagCreate());
    mutex.Destroy();
    EXPECT_FALSE(mutex.FlagCreate());
}

TEST_F(MutexTest, CreateFailsWithoutMemory)
{
    TCMutex mutex;
    {
        const FailingAllocation noMemory(0);
        EXPECT_FALSE(mutex.Create());
    }
    EXPECT_FALSE(mutex.FlagCreate());
    EXPECT_TRUE(mutex.Create());
}

TEST_F(MutexTest, IsFreeAfterCreate)
{
    StartContender();
    EXPECT_TRUE(ContenderEnters());
    EXPECT_FALSE(m_watch.WaitedFor(0));
}

TEST_F(MutexTest, OtherThreadWaitsWhileItIsHeld)
{
    m_mutex.Lock();
    StartContender();
    EXPECT_TRUE(ContenderWaits());
    m_mutex.Unlock();
    EXPECT_TRUE(ContenderEnters());
}

TEST_F(MutexTest, LockedTwiceAndUnlockedOnceItIsHeld)
{
    m_mutex.Lock();
    m_mutex.Lock();
    m_mutex.Unlock();
    StartContender();
    EXPECT_TRUE(ContenderWaits());
    m_mutex.Unlock();
    EXPECT_TRUE(ContenderEnters());
}

TEST_F(MutexTest, SecondUnlockReleasesIt)
{
    m_mutex.Lock();
    m_mutex.Lock();
    m_mutex.Unlock();
    m_mutex.Unlock();
    StartContender();
    EXPECT_TRUE(ContenderEnters());
    EXPECT_FALSE(m_watch.WaitedFor(0));
}

TEST_F(MutexTest, HolderNeverBlocks)
{
    constexpr int NESTED = 1000;
    for (int i = 0; i < NESTED; ++i) {
        m_mutex.Lock();
    }
    EXPECT_FALSE(m_watch.WaitedFor(0));
    EXPECT_EQ(FieldAt<int>(m_mutex, DEPTH_OFFSET), NESTED);
    for (int i = 0; i < NESTED; ++i) {
        m_mutex.Unlock();
    }
    StartContender();
    EXPECT_TRUE(ContenderEnters());
}

TEST_F(MutexTest, UnlockByAnotherThreadChangesNothingAndSaysNothing)
{
    m_mutex.Lock();
    EXPECT_THAT(AssertionsOf([this] { std::thread([this] { m_mutex.Unlock(); }).join(); }),
                IsEmpty());
    EXPECT_EQ(FieldAt<pthread_t>(m_mutex, OWNER_OFFSET), pthread_self());
    StartContender();
    EXPECT_TRUE(ContenderWaits());
    m_mutex.Unlock();
    EXPECT_TRUE(ContenderEnters());
}

TEST_F(MutexTest, UnlockOfAFreeMutexChangesNothing)
{
    EXPECT_THAT(AssertionsOf([this] { m_mutex.Unlock(); }), IsEmpty());
    m_mutex.Lock();
    StartContender();
    EXPECT_TRUE(ContenderWaits()); // an extra unit would have let it in
    m_mutex.Unlock();
}

TEST_F(MutexTest, OneUnlockTooManyChangesNothing)
{
    m_mutex.Lock();
    m_mutex.Unlock();
    m_mutex.Unlock();
    m_mutex.Lock();
    StartContender();
    EXPECT_TRUE(ContenderWaits());
    m_mutex.Unlock();
}

TEST_F(MutexTest, DestroyDoesNotAskWhetherItIsHeld)
{
    m_mutex.Lock();
    EXPECT_THAT(AssertionsOf([this] { m_mutex.Destroy(); }), IsEmpty());
    EXPECT_FALSE(m_mutex.FlagCreate());
}

TEST_F(MutexTest, CreateForgetsTheFormerHolder)
{
    m_mutex.Lock();
    m_mutex.Destroy();
    ASSERT_TRUE(m_mutex.Create());
    EXPECT_EQ(FieldAt<pthread_t>(m_mutex, OWNER_OFFSET), 0u);
    StartContender();
    EXPECT_TRUE(ContenderEnters());
}

TEST_F(MutexTest, DestructorDestroysAMutexThatIsStillCreated)
{
    auto mutex = std::make_unique<TCMutex>();
    ASSERT_TRUE(mutex->Create());
    EXPECT_THAT(m_watch.Destroyed(), IsEmpty());
    EXPECT_THAT(AssertionsOf([&] { mutex.reset(); }), IsEmpty());
    EXPECT_THAT(m_watch.Destroyed(), ElementsAre(1)); // 0 is the fixture's
}

TEST_F(MutexTest, DestructorDestroysAHeldMutex)
{
    auto mutex = std::make_unique<TCMutex>();
    ASSERT_TRUE(mutex->Create());
    mutex->Lock();
    EXPECT_THAT(AssertionsOf([&] { mutex.reset(); }), IsEmpty());
    EXPECT_THAT(m_watch.Destroyed(), ElementsAre(1));
}

TEST_F(MutexTest, DestructorLeavesAMutexThatIsNotCreated)
{
    EXPECT_THAT(AssertionsOf([] { TCMutex mutex; }), IsEmpty());
    EXPECT_THAT(m_watch.Destroyed(), IsEmpty());
}

TEST_F(MutexTest, ExcludesEightThreadsFromEachOther)
{
    constexpr int THREADS = 8;
    constexpr int ROUNDS = 20000;
    int counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                m_mutex.Lock();
                m_mutex.Lock();
                ++counter;
                m_mutex.Unlock();
                ++counter;
                m_mutex.Unlock();
                m_mutex.Unlock(); // not held any more, so ignored
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, 2 * THREADS * ROUNDS);
}

using MutexDeathTest = MutexTest;

TEST_F(MutexDeathTest, OperationsBeforeCreateAssert)
{
    TCMutex mutex;
    EXPECT_ASSERT_DEATH(mutex.Lock(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(mutex.Unlock(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(mutex.Destroy(), "FlagCreate() == true");
}

TEST_F(MutexDeathTest, SecondCreateAsserts)
{
    EXPECT_ASSERT_DEATH(m_mutex.Create(), "FlagCreate() == false");
}

TEST_F(MutexTest, UnlockOfAMutexThatIsNotCreatedGoesOnInARelease)
{
    TCMutex mutex;
    EXPECT_THAT(AssertionsOf([&] { mutex.Unlock(); }), ElementsAre("FlagCreate() == true"));
}

TEST(MutexLayoutTest, FieldsAndOperationsAreInOrder)
{
    static_assert(sizeof(TCMutex) == 40);
    static_assert(std::has_virtual_destructor_v<TCMutex>);
    EXPECT_EQ(SlotOf(&TCMutex::Destroy), 2u);

    TCMutex mutex;
    EXPECT_EQ(FieldAt<void*>(mutex, 16), nullptr); // the semaphore's state
    EXPECT_EQ(FieldAt<pthread_t>(mutex, OWNER_OFFSET), 0u);
    ASSERT_TRUE(mutex.Create());
    EXPECT_NE(FieldAt<void*>(mutex, 16), nullptr);
    mutex.Lock();
    mutex.Lock();
    EXPECT_EQ(FieldAt<pthread_t>(mutex, OWNER_OFFSET), pthread_self());
    EXPECT_EQ(FieldAt<int>(mutex, DEPTH_OFFSET), 2);
    mutex.Unlock();
    EXPECT_EQ(FieldAt<int>(mutex, DEPTH_OFFSET), 1);
    mutex.Unlock();
    EXPECT_EQ(FieldAt<pthread_t>(mutex, OWNER_OFFSET), 0u);
}

} // namespace
