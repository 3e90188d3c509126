#include <gmock/gmock.h>

#include "KitSupport.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;

constexpr std::chrono::milliseconds INTERVAL(10);

class TimingTest : public KitTest
{
 protected:
    /// Has @p function run on the tuner's thread.
    template <typename Function>
    void OnTuner(Function function)
    {
        ASSERT_TRUE(m_tuner.Run(std::move(function), LONG));
    }
};

TEST_F(TimingTest, TimerCallsOnTheTasksThreadAsOftenAsItWasToldTo)
{
    std::atomic<pthread_t> calledOn{0};
    Trace trace;
    const zor::Timer timer = m_tuner.Every(
        INTERVAL,
        [&](const zor::Firing& firing) {
            calledOn = pthread_self();
            trace.Add(std::to_string(firing.index) + " of " + std::to_string(firing.count));
        },
        3);
    ASSERT_TRUE(timer);
    ASSERT_TRUE(trace.WaitFor(3));
    EXPECT_THAT(trace.Get(), ElementsAre("0 of 3", "1 of 3", "2 of 3"));
    EXPECT_EQ(calledOn, m_tuner.Id());
}

TEST_F(TimingTest, AfterCallsOnce)
{
    Gate called;
    const zor::Timer timer = m_tuner.After(INTERVAL, [&] { called.Pass(); });
    EXPECT_TRUE(called.Wait());
}

TEST_F(TimingTest, MadeTimerWaitsForItsRestartAndIsPausedAndResumed)
{
    std::atomic<int> calls{0};
    zor::Timer timer = m_tuner.MakeTimer([&] { ++calls; });
    EXPECT_TRUE(timer.Restart(LONG));
    EXPECT_TRUE(timer.Pause());
    EXPECT_FALSE(timer.Pause()) << "it is paused";
    EXPECT_TRUE(timer.Resume());
    EXPECT_TRUE(timer.Restart(INTERVAL, 1));
    EXPECT_TRUE(Eventually([&] { return calls == 1; }));
    timer.Cancel();
    EXPECT_FALSE(timer);
    EXPECT_FALSE(timer.Restart(INTERVAL));
    EXPECT_FALSE(timer.Resume());
}

TEST_F(TimingTest, NothingIsCalledAfterTheEndOnTheTasksThread)
{
    // The firings are queued by then, behind the lambda that destroys the timer.
    for (const bool isAlarm : {false, true}) {
        int calls = 0;
        OnTuner([&](Tuner& tuner) {
            zor::Timer timer;
            zor::Alarm alarm;
            const auto count = [&] { ++calls; };
            if (isAlarm) {
                alarm = tuner.AlarmEvery(INTERVAL, count);
            } else {
                timer = tuner.Every(INTERVAL, count);
            }
            EXPECT_TRUE(Eventually([&] { return tuner.Size() >= 2; }));
        });
        ASSERT_TRUE(Flush(&m_tuner));
        OnTuner([&] { EXPECT_EQ(calls, 0); });
    }
}

TEST_F(TimingTest, TimerMayEndInItsOwnLambda)
{
    zor::Timer timer;
    zor::Alarm alarm;
    int calls = 0;
    Gate called(2);
    OnTuner([&](Tuner& tuner) {
        timer = tuner.Every(INTERVAL, [&, big = std::string(100, 'x')] {
            timer.Cancel();
            calls += big.size() == 100 ? 1 : 0; // what it captured is still there
            called.Pass();
        });
        alarm = tuner.AlarmEvery(INTERVAL, [&, big = std::string(100, 'x')] {
            alarm = zor::Alarm();
            calls += big.size() == 100 ? 1 : 0;
            called.Pass();
        });
    });
    ASSERT_TRUE(called.Wait());
    ASSERT_TRUE(Flush(&m_tuner));
    OnTuner([&] { EXPECT_EQ(calls, 2); });
}

/// The one call that is under way goes on, and is the last.
TEST_F(TimingTest, OnAnotherThreadAtMostTheCallUnderWayGoesOn)
{
    for (const bool isAlarm : {false, true}) {
        std::atomic<int> calls{0};
        Gate entered;
        Gate release;
        const auto slow = [&] {
            ++calls;
            entered.Pass();
            EXPECT_TRUE(release.Wait());
        };
        zor::Timer timer;
        zor::Alarm alarm;
        if (isAlarm) {
            alarm = m_tuner.AlarmEvery(INTERVAL, slow);
        } else {
            timer = m_tuner.Every(INTERVAL, slow);
        }
        ASSERT_TRUE(entered.Wait());
        ASSERT_TRUE(Eventually([&] { return m_tuner.Size() >= 1; })) << "the next is queued";
        timer.Cancel();
        alarm.Cancel();
        release.Pass();
        ASSERT_TRUE(Flush(&m_tuner));
        EXPECT_EQ(calls, 1);
    }
}

TEST_F(TimingTest, WhatTheLambdaCapturedIsFreedOnTheTasksThread)
{
    for (const bool isAlarm : {false, true}) {
        std::atomic<pthread_t> freedOn{0};
        auto probe = std::make_unique<ReleaseProbe>(&freedOn);
        {
            zor::Timer timer;
            zor::Alarm alarm;
            auto lambda = [probe = std::move(probe)] {};
            if (isAlarm) {
                alarm = m_tuner.AlarmEvery(LONG, std::move(lambda));
            } else {
                timer = m_tuner.Every(LONG, std::move(lambda));
            }
            EXPECT_EQ(freedOn, 0U);
        }
        EXPECT_TRUE(Eventually([&] { return freedOn != 0; }));
        EXPECT_EQ(freedOn, m_tuner.Id());
    }
}

TEST_F(TimingTest, TaskEndsItsTimersItself)
{
    auto tuner = std::make_unique<Tuner>();
    ASSERT_TRUE(tuner->Start("Short"));
    std::atomic<int> calls{0};
    zor::Timer timer = tuner->Every(INTERVAL, [&] { ++calls; });
    zor::Alarm alarm = tuner->AlarmEvery(INTERVAL, [&] { ++calls; });
    EXPECT_TRUE(Eventually([&] { return calls > 1; }));
    tuner->End();
    const int callsByThen = calls;
    EXPECT_TRUE(timer) << "a handle";
    EXPECT_FALSE(timer.Restart(INTERVAL)) << "of a timer that has ended";
    EXPECT_FALSE(alarm.Reset(INTERVAL));
    tuner.reset();
    timer.Cancel();
    alarm.Cancel();
    EXPECT_EQ(calls, callsByThen);
}

TEST_F(TimingTest, NoTimerOfATaskThatIsNotThere)
{
    Tuner idle;
    EXPECT_FALSE(idle.Every(INTERVAL, [] {}));
    EXPECT_FALSE(idle.AlarmEvery(INTERVAL, [] {}));
    m_tuner.End();
    EXPECT_FALSE(m_tuner.After(INTERVAL, [] {}));
}

TEST_F(TimingTest, HookOfTheEndGetsNoTimerThatWouldOutliveIt)
{
    std::atomic<bool> called{false};
    m_tuner.onDestroy = [&] {
        // It may be made, but its task handles nothing any more.
        const zor::Timer timer = m_tuner.After(INTERVAL, [&] { called = true; });
    };
    m_tuner.End();
    EXPECT_FALSE(called);
}

TEST_F(TimingTest, TimersAreMovedAndReplaced)
{
    std::atomic<int> first{0};
    std::atomic<int> second{0};
    zor::Timer timer = m_tuner.Every(INTERVAL, [&] { ++first; });
    zor::Timer moved = std::move(timer);
    EXPECT_TRUE(Eventually([&] { return first > 0; }));
    OnTuner([&](Tuner& tuner) {
        moved = tuner.Every(INTERVAL, [&] { ++second; });
        first = 0;
    });
    EXPECT_TRUE(Eventually([&] { return second > 0; }));
    EXPECT_EQ(first, 0);
}

TEST_F(TimingTest, AlarmIsReset)
{
    std::atomic<int> calls{0};
    zor::Alarm alarm = m_tuner.AlarmEvery(LONG, [&] { ++calls; });
    EXPECT_TRUE(alarm.Reset(INTERVAL, 2));
    EXPECT_TRUE(Eventually([&] { return calls == 2; }));
}

/// The runtime's alarm goes on saying what it was set to before it ran out.
TEST_F(TimingTest, AlarmThatHasRunOutSaysTheCountThatItIsResetTo)
{
    Trace trace;
    zor::Alarm alarm = m_tuner.AlarmEvery(
        10ms,
        [&](const zor::Firing& firing) {
            trace.Add(std::to_string(firing.index) + " of " + std::to_string(firing.count));
        },
        1);
    ASSERT_TRUE(trace.WaitFor(1));
    std::this_thread::sleep_for(SHORT); // its thread idles, most likely
    EXPECT_TRUE(alarm.Reset(10ms, 2));
    ASSERT_TRUE(trace.WaitFor(3));
    EXPECT_THAT(trace.Get(), ElementsAre("0 of 1", "0 of 2", "1 of 2"));
}

/// Its thread may end while whoever starts it is still about to say that it has begun.
TEST_F(TimingTest, TaskWhoseFirstHookRefusesTakesNoTimerThatOutlivesIt)
{
    class Refusing : public zor::Task<Refusing, Empty>
    {
     public:
        bool t_Create() override
        {
            early = Every(INTERVAL, [] {});
            return false;
        }
        void On(const Empty& /*message*/) {}

        zor::Timer early;
    };

    for (int round = 0; round < 50; ++round) {
        zor::Timer late;
        zor::Alarm alarm;
        Refusing task;
        ASSERT_TRUE(task.Start("Refusing"));
        late = task.MakeTimer([] {});
        alarm = task.AlarmEvery(LONG, [] {});
        ASSERT_TRUE(Eventually([&] { return task.Id() == 0xFFFFFFFF; }));
        EXPECT_FALSE(task.Every(INTERVAL, [] {})) << "it has ended";
        EXPECT_FALSE(task.AlarmEvery(INTERVAL, [] {}));
        EXPECT_FALSE(late.Restart(INTERVAL)) << "stopped with the task";
        EXPECT_FALSE(alarm.Reset(INTERVAL));
        task.Destroy();
    }
}

/// The same with the thread on its way out, where the owner hardly ever meets it.
TEST(LifeTest, BeginningThatIsSaidLateChangesNothing)
{
    class Bell : public zor::detail::Ticking
    {
     public:
        void Stop() override {}
    };

    TCTask task;
    zor::detail::Life life(&task);
    const auto bell = std::make_shared<Bell>();
    for (int round = 0; round < 2; ++round) {
        life.Prepare();
        life.BeginOnThread();
        ASSERT_TRUE(life.Add(bell));
        EXPECT_EQ(life.EndTickings().size(), 1U);
        life.Begin();
        EXPECT_FALSE(life.Add(bell)) << "nobody would stop it any more";
        life.End();
        life.Begin();
        EXPECT_FALSE(life.Add(bell));
        EXPECT_FALSE(life.IfAlive(false, [] { return true; }));
        EXPECT_TRUE(life.HasEnded());
    }
}

/// Made and ended on several threads while the task comes and goes.
TEST_F(TimingTest, HandlesAndTasksEndInAnyOrder)
{
    for (int round = 0; round < 20; ++round) {
        Tuner tuner;
        ASSERT_TRUE(tuner.Start("Short"));
        std::atomic<int> calls{0};
        Gate begun(2);
        std::vector<std::unique_ptr<Caller>> callers;
        for (int i = 0; i < 2; ++i) {
            callers.push_back(std::make_unique<Caller>([&] {
                for (int n = 0; n < 20; ++n) {
                    const zor::Timer timer = tuner.Every(INTERVAL, [&] { ++calls; });
                    begun.Pass();
                    const zor::Alarm alarm =
                        n % 5 == 0 ? tuner.AlarmEvery(INTERVAL, [&] { ++calls; }) : zor::Alarm();
                }
            }));
        }
        ASSERT_TRUE(begun.Wait());
        TSEvent exit = EventTo(&tuner, TCTask::EVENT_EXIT);
        ASSERT_TRUE(TCTask::Send(&exit, false, false));
        callers.clear();
        tuner.Destroy();
    }
}

} // namespace
