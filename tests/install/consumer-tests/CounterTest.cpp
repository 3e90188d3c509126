#include <gtest/gtest.h>

#include <chrono>

#include "Alarm.h"
#include "Task.h"
#include "dlog.h"
#include "zor/testing/Testing.h"

class Counter : public TCTask
{
 public:
    bool t_OnUser(const TSEvent* event) override
    {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "CONSUMER", "handling %u", event->param1);
        TCASSERT(event->param1 != 0);
        return true;
    }
};

class CounterTest : public ::testing::Test
{
 protected:
    CounterTest() { EXPECT_TRUE(m_counter.Create("Counter", 1000, 65536, 0)); }

    ~CounterTest() override
    {
        Send(TCTask::EVENT_EXIT, 0, false);
        m_counter.Destroy();
    }

    void Send(unsigned long type, unsigned int number, bool wait)
    {
        TSEvent event;
        event.receiver = &m_counter;
        event.type = type;
        event.param1 = number;
        EXPECT_TRUE(TCTask::Send(&event, wait, false));
    }

    zor::testing::Clock m_clock;
    zor::testing::Recording<Counter> m_counter;
};

TEST_F(CounterTest, LogsWhatItHandles)
{
    Send(TCTask::EVENT_USER, 7, true);
    EXPECT_EQ(zor::testing::PlatformLog::Count("handling 7"), 1U);
}

TEST_F(CounterTest, AssertsThatItCountsSomething)
{
    EXPECT_ZOR_ASSERT(Send(TCTask::EVENT_USER, 0, true), "event->param1 != 0");
}

TEST_F(CounterTest, IsIdleOnceASecond)
{
    m_clock.Advance(std::chrono::hours(1));
    EXPECT_EQ(m_counter.IdleTurns(), 3600U);
}
