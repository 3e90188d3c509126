#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "Task.h"
#include "Timer.h"
#include "ZorServiceDebugOverlay.h"
#include "zor/testing/Testing.h"

namespace {

constexpr unsigned int IDLE_MSEC = 1000;
constexpr unsigned long STACK_SIZE = 256UL * 1024;
constexpr unsigned long WATCHDOG_SECONDS = 5;
constexpr std::chrono::minutes SAMPLE_INTERVAL{1};

class Meter : public TCTask
{
 public:
    static constexpr unsigned long EVENT_TUNE = 100;

    bool Start() { return Create("Meter", IDLE_MSEC, STACK_SIZE, WATCHDOG_SECONDS); }

    void Tune(unsigned int channel) { Tell(EVENT_TUNE, channel); }

    void End()
    {
        Tell(EVENT_EXIT, 0);
        Destroy();
    }

    bool t_OnEvent(const TSEvent* event) override
    {
        if (event->type != EVENT_TUNE) {
            return TCTask::t_OnEvent(event);
        }
        TCASSERT(event->param1 != 0);
        m_channel = event->param1;
        return true;
    }

 private:
    class Sampler : public ITimerListener
    {
     public:
        explicit Sampler(Meter* meter) : m_meter(meter) {}

        bool OnTimer(const TSEvent* /*event*/, void* /*userData*/) override
        {
            ZOR_LOG_TAGGED("METER", false, DLOG_INFO, "channel %u", m_meter->m_channel);
            return true;
        }

     private:
        Meter* m_meter; ///< outlives the timer, and so this
    };

    bool t_Create() override
    {
        ITimer::TimerHandlerParams params;
        params.task = this;
        params.listener = std::make_shared<Sampler>(this);
        m_timer = TCTimer(params);
        m_timer.Restart(SAMPLE_INTERVAL, ITimer::INFINITE_FIRE);
        return true;
    }

    bool t_OnExit(const TSEvent* event) override
    {
        m_timer = TCTimer();
        return TCTask::t_OnExit(event);
    }

    void Tell(unsigned long type, unsigned int channel)
    {
        TSEvent event;
        event.receiver = this;
        event.type = type;
        event.param1 = channel;
        Send(&event, false, false);
    }

    TCTimer m_timer;
    unsigned int m_channel = 0; ///< only the meter's thread; 0 while it is not tuned
};

class MeterTest : public ::testing::Test
{
 protected:
    MeterTest() { EXPECT_TRUE(m_meter.Start()); }
    ~MeterTest() override { m_meter.End(); }

    zor::testing::Recording<Meter> m_meter;
};

TEST_F(MeterTest, HandlesWhatItIsTold)
{
    m_meter.Tune(21);
    m_meter.Tune(22);
    ASSERT_TRUE(m_meter.AwaitHandled(2));
    EXPECT_EQ(m_meter.Handled()[0].param1, 21U);
    EXPECT_EQ(m_meter.Handled()[1].param1, 22U);
}

TEST_F(MeterTest, ChannelZeroIsAMisuse)
{
    EXPECT_ZOR_ASSERT(m_meter.Tune(0); m_meter.AwaitHandled(1), "event->param1 != 0");
}

class MeterTimeTest : public ::testing::Test
{
 protected:
    MeterTimeTest() { EXPECT_TRUE(m_meter.Start()); }
    ~MeterTimeTest() override { m_meter.End(); }

    zor::testing::Clock m_clock; ///< before the meter, which is to live in its time
    zor::testing::Recording<Meter> m_meter;
};

TEST_F(MeterTimeTest, SamplesOnceAMinute)
{
    m_meter.Tune(21);
    m_clock.Advance(std::chrono::hours(1));
    EXPECT_EQ(zor::testing::PlatformLog::Count("channel 21"), 60U);
}

TEST_F(MeterTimeTest, TellsTheWatchdogThatItLives)
{
    m_clock.Advance(std::chrono::minutes(1));
    ASSERT_EQ(zor::testing::Watchdog::Registrations().size(), 1U);
    EXPECT_EQ(zor::testing::Watchdog::Registrations()[0].seconds, WATCHDOG_SECONDS);
    EXPECT_GE(zor::testing::Watchdog::Notifications("Meter"), 29U);
}

} // namespace
