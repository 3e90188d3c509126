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

    /// Critical sections since the last call.
    int Sections() { return std::exchange(m_sections, 0); }

    TCQueue m_queue;

 private:
    int m_sections = 0;
    Takeover<int(pthread_mutex_t*)> m_trylock;
};

TEST_F(QueueSectionTest, PutIsOneIfTheQueueIsFree)
{
    TSEvent event;
    for (const bool priority : {false, true}) {
        Sections();
        EXPECT_TRUE(m_queue.Put(&event, priority));
        EXPECT_EQ(Sections(), 1);
    }
}

TEST_F(QueueSectionTest, GetIsOneIfTheQueueIsFree)
{
    TSEvent event;
    EXPECT_TRUE(m_queue.Put(&event, false));
    EXPECT_TRUE(m_queue.Put(&event, false));
    Sections();
    EXPECT_TRUE(m_queue.GetSync(&event, 1000, false));
    EXPECT_EQ(Sections(), 1);
    EXPECT_TRUE(m_queue.GetSyncQData(&event, false));
    EXPECT_EQ(Sections(), 1);
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
