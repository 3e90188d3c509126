#include <gtest/gtest.h>

#include <pthread.h>

#include <utility>

#include "MutexSeams.h"
#include "Queue.h"

namespace {

using namespace zortest;

/// How often the process-wide mutex is taken.
class QueueSectionTest : public ::testing::Test
{
 protected:
    QueueSectionTest()
        : m_trylock(mutexTrylockSeam, [this](pthread_mutex_t* mutex) {
              ++m_sections;
              return mutexTrylockSeam.Real(mutex);
          })
    {
        EXPECT_TRUE(m_queue.Create());
    }

    ~QueueSectionTest() override { m_queue.Destroy(); }

    /// A put that is the first to use a page of the ring takes the queue's lock.
    void UseAllMemory()
    {
        TSEvent event;
        while (m_queue.Put(&event, false) || m_queue.Put(&event, true)) {
        }
        while (m_queue.GetSync(&event, 0, false)) {
        }
    }

    /// Critical sections since the last call.
    int Sections() { return std::exchange(m_sections, 0); }

    TCQueue m_queue;

 private:
    int m_sections = 0;
    Takeover<int(pthread_mutex_t*)> m_trylock;
};

TEST_F(QueueSectionTest, PutIsOneIfTheQueueIsFreeAndItsMemoryInUse)
{
    TSEvent event;
    UseAllMemory();
    for (const bool priority : {false, true}) {
        Sections();
        EXPECT_TRUE(m_queue.Put(&event, priority));
        EXPECT_EQ(Sections(), 1);
    }
}

TEST_F(QueueSectionTest, GetIsOneIfTheQueueIsFree)
{
    TSEvent event;
    UseAllMemory();
    EXPECT_TRUE(m_queue.Put(&event, false));
    EXPECT_TRUE(m_queue.Put(&event, false));
    Sections();
    EXPECT_TRUE(m_queue.GetSync(&event, 1000, false));
    EXPECT_EQ(Sections(), 1);
    EXPECT_TRUE(m_queue.GetSyncQData(&event, false));
    EXPECT_EQ(Sections(), 1);
}

TEST_F(QueueSectionTest, DeletionIsAFewHoweverManyEventsGo)
{
    constexpr int EVENTS = 200;

    TSEvent event;
    for (int i = 0; i < EVENTS; ++i) {
        ASSERT_TRUE(m_queue.Put(&event, false));
    }
    Sections();
    unsigned int deleted = 0;
    EXPECT_TRUE(m_queue.Delete(nullptr, &deleted));
    EXPECT_EQ(deleted, 200u);
    EXPECT_EQ(Sections(), 3); // its lock, the units, its lock
    EXPECT_FALSE(m_queue.Try(0));
}

/// Gets that leave the semaphore alone let it run ahead.
TEST_F(QueueSectionTest, UnitsWithoutEventsAreTakenInOneGoByAGetThatFindsNothing)
{
    constexpr int EVENTS = 1000;

    TSEvent event;
    for (int i = 0; i < EVENTS; ++i) {
        ASSERT_TRUE(m_queue.Put(&event, false));
        ASSERT_TRUE(m_queue.GetQData(&event));
    }
    Sections();
    EXPECT_FALSE(m_queue.GetSync(&event, 0, false));
    EXPECT_EQ(Sections(), 2);
    EXPECT_FALSE(m_queue.Try(0));
}

/// A consumer that never waits would have them overflow after weeks.
TEST_F(QueueSectionTest, UnitsWithoutEventsDoNotGrowForEver)
{
    constexpr int MANY = (1 << 20) + 1;

    TSEvent event;
    UseAllMemory();
    for (int i = 0; i < MANY; ++i) {
        m_queue.Give();
    }
    ASSERT_TRUE(m_queue.Put(&event, false));
    EXPECT_TRUE(m_queue.GetSync(&event, 0, false));
    EXPECT_FALSE(m_queue.Try(0));
}

TEST_F(QueueSectionTest, UnitsGivenByHandStayBesideAnEvent)
{
    TSEvent event;
    m_queue.Give();
    m_queue.Give();
    ASSERT_TRUE(m_queue.Put(&event, false));
    EXPECT_TRUE(m_queue.Try(0));
    EXPECT_TRUE(m_queue.Try(0));
    EXPECT_TRUE(m_queue.Try(0));
    EXPECT_FALSE(m_queue.Try(0));
}

TEST_F(QueueSectionTest, HolderOfTheLockPutsAndGetsAllTheSame)
{
    TSEvent event;
    event.param1 = 7;
    m_queue.Lock();
    EXPECT_TRUE(m_queue.Put(&event, false));
    event.param1 = 0;
    EXPECT_TRUE(m_queue.GetSync(&event, 1000, false));
    m_queue.Unlock();
    EXPECT_EQ(event.param1, 7u);
}

} // namespace
