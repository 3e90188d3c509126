#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>

#include "CancelledThread.h"
#include "ConditionSeams.h"
#include "Queue.h"
#include "Thread.h"
#include "Wait.h"

namespace {

using namespace zortest;

/// The waits that have begun, so that a test knows that a thread is parked.
class SemaphoreCancelTest : public ::testing::Test
{
 protected:
    SemaphoreCancelTest()
        : m_wait(condWaitSeam, [this](pthread_cond_t* condition, pthread_mutex_t* mutex) {
              ++m_waits;
              return condWaitSeam.Real(condition, mutex);
          })
    {}

    std::atomic<int> m_waits{0};

 private:
    Takeover<int(pthread_cond_t*, pthread_mutex_t*)> m_wait;
};

TEST_F(SemaphoreCancelTest, CancelledWaiterIsNoWaiterAnyMore)
{
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    auto body = [&semaphore] { semaphore.Take(); };
    CancelledThread thread(&body);
    ASSERT_TRUE(Eventually([this] { return m_waits == 1; }));
    thread.Cancel();
    EXPECT_TRUE(thread.Join());

    int signals = 0;
    const Takeover signal(condSignalSeam, [&signals](pthread_cond_t* condition) {
        ++signals;
        return condSignalSeam.Real(condition);
    });
    semaphore.Give();
    EXPECT_EQ(signals, 0);
    EXPECT_TRUE(semaphore.Try(0));
    semaphore.Destroy();
}

/// The queued event points to the sender's stack.
TEST_F(SemaphoreCancelTest, SynchronousSenderIsCancelledOnlyWhenItHasItsReply)
{
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    std::atomic<bool> returned{false};
    auto body = [&] {
        TSEvent event;
        queue.PutSync(&event, true, false);
        returned = true;
    };
    CancelledThread thread(&body);
    ASSERT_TRUE(Eventually([this] { return m_waits == 1; }));
    thread.Cancel();
    TSEvent event;
    ASSERT_TRUE(queue.GetSync(&event, 0, false));
    ASSERT_NE(event.sync, nullptr);
    EXPECT_FALSE(returned);
    event.sync->Give();
    EXPECT_TRUE(thread.Join());
    EXPECT_TRUE(returned);
    queue.Destroy();
}

} // namespace
