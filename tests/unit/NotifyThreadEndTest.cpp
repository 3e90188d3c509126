#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "ConditionSeams.h"
#include "EventNotifyThread.h"
#include "Queue.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;

/// A notify thread between a queue and a semaphore, both of the test's.
class NotifyThreadEndTest : public ::testing::Test
{
 protected:
    using WaitHook = int(pthread_cond_t*, pthread_mutex_t*, const timespec*);

    NotifyThreadEndTest()
        : m_wait(condTimedwaitSeam, [this](pthread_cond_t* condition, pthread_mutex_t* mutex,
                                           const timespec* deadline) {
              ++m_waits;
              return condTimedwaitSeam.Real(condition, mutex, deadline);
          })
    {
        EXPECT_TRUE(m_queue.Create());
        EXPECT_TRUE(m_target.Create(0));
        EXPECT_TRUE(m_thread.Create("notify", &m_queue, &m_target, LONG_WAIT_MSEC));
    }

    ~NotifyThreadEndTest() override
    {
        m_target.Destroy();
        m_queue.Destroy();
    }

    /// Queues an event that nobody takes, has its unit forwarded and the thread parked again.
    void ForwardOne()
    {
        ASSERT_TRUE(Eventually([this] { return m_waits == 1; }));
        TSEvent event;
        ASSERT_TRUE(m_queue.Put(&event, false));
        ASSERT_TRUE(Eventually([this] { return m_target.Try(0); }));
        ASSERT_TRUE(Eventually([this] { return m_waits == 2; }));
    }

    std::atomic<int> m_waits{0}; ///< of the thread
    TCQueue m_queue;
    TCSemaphore m_target;
    TCEventNotifyThread m_thread;

 private:
    Takeover<WaitHook> m_wait;
};

/// A deletion takes as many units as it has removed events, also one that was given for something
/// else.
TEST_F(NotifyThreadEndTest, EndsThoughEventsAreDeletedAtThatMoment)
{
    ForwardOne();
    if (HasFatalFailure()) {
        return;
    }
    std::unique_ptr<Caller> deleter;
    std::atomic<int> signals{0};
    const Takeover signal(condSignalSeam, [&](pthread_cond_t* condition) {
        if (signals++ == 0) { // the thread is about to be woken for its end
            deleter =
                std::make_unique<Caller>([this] { EXPECT_TRUE(m_queue.Delete(nullptr, nullptr)); });
            deleter->Blocks();
        }
        return condSignalSeam.Real(condition);
    });
    {
        Caller destroyer([this] { m_thread.Destroy(); });
        EXPECT_TRUE(Eventually([&] { return destroyer.IsDone(); }));
        if (!destroyer.IsDone()) {
            m_queue.Give();
        }
    }
    ASSERT_NE(deleter, nullptr);
    deleter->Join();
    EXPECT_EQ(m_queue.Size(), 0u);
}

} // namespace
