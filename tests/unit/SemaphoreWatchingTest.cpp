#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <climits>
#include <thread>

#include "ConditionSeams.h"
#include "HabitOf.h"
#include "Thread.h"
#include "Wait.h"

/// Yields would mostly bring the unit before anything is watched.
extern "C" int sched_yield() noexcept
{
    return 0;
}

namespace {

using namespace zortest;

/// Two threads, of which one gives when the other wants a unit.
class SemaphoreWatchingTest : public ::testing::Test
{
 protected:
    void SetUp() override
    {
        cpu_set_t processors;
        CPU_ZERO(&processors);
        ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof(processors), &processors), 0);
        if (CPU_COUNT(&processors) < 2) {
            GTEST_SKIP() << "two threads must run at once";
        }
        ASSERT_TRUE(m_watched.Create(0));
        m_answering = std::thread([this] {
            while (!m_ends) {
                if (m_wanted.exchange(false)) {
                    m_watched.Give();
                }
            }
        });
    }

    void TearDown() override
    {
        m_ends = true;
        if (m_answering.joinable()) {
            m_answering.join();
            m_watched.Destroy();
        }
    }

    /// What a thread that is parked has learnt from being woken by one whose last wait has watched
    /// in time, with so much credit before and so much behind it.
    int CreditOfAWoken(int before, int behind)
    {
        int learnt = INT_MIN;
        // A watch may be in vain where this thread, or the other, is kept from its processor.
        EXPECT_TRUE(Eventually([&] {
            TCSemaphore parkedOn;
            EXPECT_TRUE(parkedOn.Create(0));
            HabitOf(parkedOn).skipped = zor::Habit::FIRST_INTERVAL / zor::Habit::HEEDED;
            const int waits = m_waits;
            std::thread parked([&parkedOn] { parkedOn.Take(); });
            EXPECT_TRUE(Eventually([&] { return m_waits > waits; }));
            HabitOf(m_watched).credit = before; // stays if the unit comes before the watch
            m_wanted = true;
            m_watched.Take();
            const bool watched = HabitOf(m_watched).credit == behind;
            parkedOn.Give();
            parked.join();
            learnt = HabitOf(parkedOn).credit;
            parkedOn.Destroy();
            return watched;
        }));
        return learnt;
    }

 private:
    TCSemaphore m_watched;
    std::atomic<bool> m_wanted{false};
    std::atomic<bool> m_ends{false};
    std::atomic<int> m_waits{0};
    const Takeover<int(pthread_cond_t*, pthread_mutex_t*)> m_wait{
        condWaitSeam, [this](pthread_cond_t* condition, pthread_mutex_t* mutex) {
            ++m_waits;
            return condWaitSeam.Real(condition, mutex);
        }};
    std::thread m_answering;
};

/// Two threads that answer each other gain only if both watch, and would not meet by chance.
TEST_F(SemaphoreWatchingTest, WhoIsWokenBehindAProbeThatPaidOffProbesTheNextTime)
{
    EXPECT_EQ(CreditOfAWoken(zor::Habit::RESCUE, zor::Habit::PROBED), zor::Habit::RESCUE);
}

TEST_F(SemaphoreWatchingTest, WhoIsWokenByOneThatWatchesAsUsualLearnsNothing)
{
    EXPECT_EQ(CreditOfAWoken(1, 2), 0);
}

} // namespace
