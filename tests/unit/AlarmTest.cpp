#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Alarm.h"
#include "ConsoleSeam.h"
#include "Layout.h"
#include "LogSeam.h"
#include "RecordingLogger.h"
#include "StateAlarm.h"
#include "TaskSupport.h"
#include "ThreadNames.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned long ENDLESS = TCAlarm::ENDLESS;
constexpr unsigned long LONG_INTERVAL = 600 * 1000;

/// An alarm that keeps the parameters of its firings.
class TestAlarm : public TCAlarm
{
 public:
    ~TestAlarm() override { EndAlarm(this); }

    bool t_OnAlarm(const TSEvent* event) override
    {
        trace.Add(std::to_string(event->param1) + "/" + std::to_string(event->param2));
        return result;
    }

    Trace trace;
    bool result = false;
};

class AlarmTest : public ::testing::Test
{
 protected:
    AlarmTest() { EXPECT_TRUE(m_task.Start("alarmed")); }

    unsigned int Queued(const TCHandler* handler)
    {
        unsigned int found = 0;
        m_task.Find(handler, &found);
        return found;
    }

    const TaskRuntime m_runtime;
    TestTask m_task;
    TestAlarm m_alarm; ///< destroyed before its task
};

TEST(AlarmLayoutTest, OperationsAreInOrder)
{
    EXPECT_EQ(SlotOf(&TCAlarm::Destroy), 3u);
    EXPECT_EQ(SlotOf(&TCAlarm::t_OnEvent), 4u);
    EXPECT_EQ(SlotOf(&TCAlarm::t_OnAlarm), 5u);
    EXPECT_EQ(SlotOf(&TCStateAlarm::t_OnAlarm), 5u);
}

TEST_F(AlarmTest, CountOfNFiresExactlyNTimesAndThenIsSilent)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, 3));
    EXPECT_TRUE(m_alarm.trace.WaitFor(3));
    // The silence: another alarm of the task fires ten times meanwhile.
    TestAlarm other;
    ASSERT_TRUE(other.Create(&m_task, 10, 10));
    EXPECT_TRUE(other.trace.WaitFor(10));
    EXPECT_THAT(m_alarm.trace.Get(), ElementsAre("3/0", "3/1", "3/2"));
}

TEST_F(AlarmTest, CountOfZeroFiresOnlyAfterAReset)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, 0));
    TestAlarm other;
    ASSERT_TRUE(other.Create(&m_task, 10, 5));
    EXPECT_TRUE(other.trace.WaitFor(5));
    EXPECT_THAT(m_alarm.trace.Get(), IsEmpty());
    m_alarm.Reset(10, 2);
    EXPECT_TRUE(m_alarm.trace.WaitFor(2));
    // An idle alarm does not refresh the count that its events carry.
    EXPECT_THAT(m_alarm.trace.Get(), ElementsAre("0/0", "0/1"));
}

TEST_F(AlarmTest, AllOnesFiresWithoutEnd)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, ENDLESS));
    EXPECT_TRUE(m_alarm.trace.WaitFor(20));
    EXPECT_EQ(m_alarm.trace.Get()[0], "4294967295/0");
    EXPECT_EQ(m_alarm.trace.Get()[19], "4294967295/19");
}

TEST_F(AlarmTest, IntervalIsAtLeastTenMilliseconds)
{
    for (const unsigned long interval : {0UL, 9UL, 10UL}) {
        TestAlarm alarm;
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_TRUE(alarm.Create(&m_task, interval, 10));
        EXPECT_TRUE(alarm.trace.WaitFor(10));
        // One wait in a million returns at once, hence a little less than ten intervals.
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(80));
    }
}

TEST_F(AlarmTest, ResetDuringAnIntervalRefreshesTheCountOfTheEvents)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    m_alarm.Reset(10, 2);
    EXPECT_TRUE(m_alarm.trace.WaitFor(2));
    EXPECT_THAT(m_alarm.trace.Get(), ElementsAre("2/0", "2/1"));
}

TEST_F(AlarmTest, ResetDropsQueuedEvents)
{
    Hold hold(&m_task);
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, 2));
    EXPECT_TRUE(Eventually([this] { return Queued(&m_alarm) == 2; }));
    m_alarm.Reset(LONG_INTERVAL, 1);
    EXPECT_EQ(Queued(&m_alarm), 0u);
    hold.Release();
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_alarm.trace.Get(), IsEmpty());
}

TEST_F(AlarmTest, StopLeavesQueuedEvents)
{
    Hold hold(&m_task);
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, 2));
    EXPECT_TRUE(Eventually([this] { return Queued(&m_alarm) == 2; }));
    m_alarm.Stop();
    EXPECT_EQ(Queued(&m_alarm), 2u);
}

TEST_F(AlarmTest, StopAndRestartLogTheStateOnce)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 7));
    const LogRecord record;
    m_alarm.RestartAfterStop();
    EXPECT_THAT(PauseLines(record), IsEmpty());
    m_alarm.Stop();
    m_alarm.Stop();
    m_alarm.RestartAfterStop();
    m_alarm.RestartAfterStop();
    EXPECT_THAT(PauseLines(record),
                ElementsAre("false 4 [pause_resume] END m_stopped[1], "
                            "m_interval[18446744073709551615], m_interval_holder[600000], "
                            "m_count[7]",
                            "false 4 [pause_resume] END m_stopped[0], m_interval[600000], "
                            "m_interval_holder[600000], m_count[7]"));
}

TEST_F(AlarmTest, StopAndRestartLogUnderTheirOwnNamesAndLines)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 7));
    RecordingLogger record("record");
    ZORLogs::getInstance()->SetLoggingSystem(&record);
    record.Clear();
    m_alarm.Stop();
    m_alarm.RestartAfterStop();
    const std::vector<RecordingLogger::TSEntry> entries = record.Entries();
    ZORLogs::getInstance()->SetLoggingSystem(ZORLoggerDLOG::Instance());
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].function, "Stop");
    EXPECT_EQ(entries[1].function, "RestartAfterStop");
    EXPECT_LT(entries[0].line, entries[1].line);
}

TEST_F(AlarmTest, StoppedAlarmIsSilentUntilItIsRestarted)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, ENDLESS));
    EXPECT_TRUE(m_alarm.trace.WaitFor(1));
    m_alarm.Stop();
    EXPECT_TRUE(Flush(&m_task));
    const std::size_t fired = m_alarm.trace.Size();
    TestAlarm other;
    ASSERT_TRUE(other.Create(&m_task, 10, 5));
    EXPECT_TRUE(other.trace.WaitFor(5));
    EXPECT_EQ(m_alarm.trace.Size(), fired);
    m_alarm.RestartAfterStop();
    EXPECT_TRUE(m_alarm.trace.WaitFor(fired + 2));
    EXPECT_EQ(m_alarm.trace.Get()[fired], "4294967295/0"); // the count starts anew
}

TEST_F(AlarmTest, ResetEndsAStop)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    m_alarm.Stop();
    m_alarm.Reset(10, 1);
    EXPECT_TRUE(m_alarm.trace.WaitFor(1));
    const LogRecord record;
    m_alarm.RestartAfterStop();
    EXPECT_THAT(PauseLines(record), IsEmpty());
}

TEST_F(AlarmTest, CallbackBeforeThatHandlesTakesThePlaceOfTheHook)
{
    Trace trace;
    bool before = true;
    bool after = false;
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    m_alarm.SetCallbackBefore([&](const TSEvent*) {
        trace.Add("before");
        return before;
    });
    m_alarm.SetCallbackAfter([&](const TSEvent*) {
        trace.Add("after");
        return after;
    });
    const TSEvent event = EventTo(&m_alarm, TCAlarm::EVENT_ALARM);
    EXPECT_TRUE(m_alarm.OnAlarm(&event));
    EXPECT_THAT(trace.Get(), ElementsAre("before", "after"));
    EXPECT_THAT(m_alarm.trace.Get(), IsEmpty());

    before = false;
    EXPECT_FALSE(m_alarm.OnAlarm(&event));
    EXPECT_EQ(m_alarm.trace.Size(), 1u);
    after = true;
    EXPECT_TRUE(m_alarm.OnAlarm(&event));
    after = false;
    m_alarm.result = true;
    EXPECT_TRUE(m_alarm.OnAlarm(&event));
    EXPECT_EQ(trace.Size(), 8u);
}

bool CountCall(const TSEvent*, const void* context)
{
    ++*static_cast<int*>(const_cast<void*>(context));
    return true;
}

TEST_F(AlarmTest, EventCallbacksAreThoseOfTypeZeroOnly)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    int calls = 0;
    EXPECT_FALSE(m_alarm.SetEventCallback(1, CountCall, CountCall, &calls));
    TCAlarm::EventCallback before = nullptr;
    TCAlarm::EventCallback after = nullptr;
    const void* context = nullptr;
    EXPECT_FALSE(m_alarm.GetEventCallback(1, &before, &after, &context));
    EXPECT_TRUE(m_alarm.GetEventCallback(0, &before, &after, &context));
    EXPECT_EQ(before, nullptr);
    EXPECT_TRUE(m_alarm.SetEventCallback(0, CountCall, nullptr, &calls));
    EXPECT_TRUE(m_alarm.GetEventCallback(0, &before, &after, &context));
    EXPECT_EQ(before, &CountCall);
    EXPECT_EQ(after, nullptr);
    EXPECT_EQ(context, &calls);
    EXPECT_TRUE(m_alarm.GetEventCallback(0, nullptr, nullptr, nullptr));
}

TEST_F(AlarmTest, NullEventCallbackLeavesTheOneThatIsSet)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    int first = 0;
    int second = 0;
    EXPECT_TRUE(m_alarm.SetEventCallback(0, CountCall, nullptr, &first));
    EXPECT_TRUE(m_alarm.SetEventCallback(0, nullptr, CountCall, &second));
    const TSEvent event = EventTo(&m_alarm, TCAlarm::EVENT_ALARM);
    EXPECT_TRUE(m_alarm.OnAlarm(&event));
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
}

TEST_F(AlarmTest, OtherEventTypesAreAssertedAndRefused)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    const TSEvent event = EventTo(&m_alarm, 1);
    EXPECT_THAT(AssertionsOf([&] { EXPECT_FALSE(m_alarm.t_OnEvent(&event)); }),
                ElementsAre("event->type == EVENT_ALARM"));
}

TEST_F(AlarmTest, AlarmWithoutAHookOfItsOwnAnswersFalse)
{
    TCAlarm plain;
    ASSERT_TRUE(plain.Create(&m_task, LONG_INTERVAL, 1));
    const TSEvent event = EventTo(&plain, TCAlarm::EVENT_ALARM);
    EXPECT_FALSE(plain.t_OnAlarm(&event));
    EXPECT_FALSE(plain.t_OnEvent(&event));
    EXPECT_ASSERT_DEATH(plain.t_OnAlarm(nullptr), "event != NULL");
    plain.Destroy();
    EXPECT_ASSERT_DEATH(plain.t_OnAlarm(&event), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(plain.t_OnEvent(&event), "FlagCreate() == true");
}

/// Leaves the hook as it is, and does not begin with its alarm.
class NamedAlarm : public Trace, public TCAlarm
{};

TEST_F(AlarmTest, AlarmWithoutAHookOfItsOwnMayBeEndedByItsBeforeCallback)
{
    NamedAlarm derived;
    TCAlarm plain;
    for (TCAlarm* const alarm : {static_cast<TCAlarm*>(&derived), &plain}) {
        int after = 0;
        ASSERT_TRUE(alarm->Create(&m_task, LONG_INTERVAL, 1));
        alarm->SetCallbackBefore([alarm](const TSEvent*) {
            alarm->Destroy();
            return false;
        });
        alarm->SetCallbackAfter([&after](const TSEvent*) { return ++after == 0; });
        const TSEvent event = EventTo(alarm, TCAlarm::EVENT_ALARM);
        EXPECT_THAT(AssertionsOf([&] { EXPECT_FALSE(alarm->OnAlarm(&event)); }), IsEmpty());
        EXPECT_EQ(after, 1);
    }
}

TEST_F(AlarmTest, HookOfADerivedClassIsCalledThoughTheBeforeCallbackHasEndedTheAlarm)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    m_alarm.result = true;
    m_alarm.SetCallbackBefore([this](const TSEvent*) {
        m_alarm.Destroy();
        return false;
    });
    const TSEvent event = EventTo(&m_alarm, TCAlarm::EVENT_ALARM);
    EXPECT_TRUE(m_alarm.OnAlarm(&event));
    EXPECT_EQ(m_alarm.trace.Size(), 1u);
}

TEST_F(AlarmTest, CallbacksOutliveDestroyAndServeTheNextLife)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    int calls = 0;
    EXPECT_TRUE(m_alarm.SetEventCallback(0, CountCall, nullptr, &calls));
    m_alarm.Destroy();
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    TCAlarm::EventCallback before = nullptr;
    EXPECT_TRUE(m_alarm.GetEventCallback(0, &before, nullptr, nullptr));
    EXPECT_EQ(before, nullptr);
    const TSEvent event = EventTo(&m_alarm, TCAlarm::EVENT_ALARM);
    EXPECT_TRUE(m_alarm.OnAlarm(&event));
    EXPECT_EQ(calls, 1);
}

TEST_F(AlarmTest, CallbackThatReplacesItselfKeepsWhatItHoldsUntilItHasReturned)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    const TSEvent event = EventTo(&m_alarm, TCAlarm::EVENT_ALARM);
    for (const auto set : {&TCAlarm::SetCallbackBefore, &TCAlarm::SetCallbackAfter}) {
        for (const TCAlarm::Callback& next :
             {TCAlarm::Callback(), TCAlarm::Callback([](const TSEvent*) { return true; })}) {
            auto held = std::make_shared<int>(7);
            const std::weak_ptr<int> watched = held;
            long shares = 0;
            (m_alarm.*set)([&, held = std::move(held)](const TSEvent*) {
                // The callable itself may not be read once it is gone.
                const std::weak_ptr<int>& watchedToTheEnd = watched;
                long& sharesAtTheEnd = shares;
                (m_alarm.*set)(next);
                sharesAtTheEnd = watchedToTheEnd.use_count();
                return false;
            });
            EXPECT_FALSE(m_alarm.OnAlarm(&event));
            EXPECT_EQ(shares, 1);
            EXPECT_TRUE(watched.expired());
            EXPECT_EQ(m_alarm.OnAlarm(&event), next != nullptr);
            (m_alarm.*set)({});
        }
    }
}

TEST_F(AlarmTest, CallbacksOfAnAlarmMadeWithoutAFiringAreThereForTheFirst)
{
    std::atomic<int> fired{0};
    ASSERT_TRUE(m_alarm.Create(&m_task, ENDLESS, 0));
    m_alarm.SetCallbackAfter([&fired](const TSEvent*) { return ++fired > 0; });
    m_alarm.Reset(10, 2);
    EXPECT_TRUE(m_alarm.trace.WaitFor(2));
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_EQ(fired, 2);
}

TEST_F(AlarmTest, MisuseIsAsserted)
{
    TestAlarm alarm;
    EXPECT_ASSERT_DEATH(alarm.Create(nullptr, 10, 1), "task != NULL");
    TestTask idle;
    EXPECT_ASSERT_DEATH(alarm.Create(&idle, 10, 1),
                        "(const_cast<TCTask*>(task))->FlagCreate() == true");
    EXPECT_ASSERT_DEATH(alarm.Reset(10, 1), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(alarm.Stop(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(alarm.RestartAfterStop(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(alarm.Destroy(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(alarm.OnAlarm(nullptr), "FlagCreate() == true");
    ASSERT_TRUE(alarm.Create(&m_task, LONG_INTERVAL, 1));
    EXPECT_ASSERT_DEATH(alarm.Create(&m_task, 10, 1), "FlagCreate() == false");
    EXPECT_ASSERT_DEATH(alarm.OnAlarm(nullptr), "event != NULL");
    EXPECT_ASSERT_DEATH(alarm.t_OnEvent(nullptr), "event != NULL");
    EXPECT_ASSERT_DEATH(
        {
            TCAlarm undestroyed;
            undestroyed.Create(&m_task, LONG_INTERVAL, 1);
        },
        "FlagCreate() == false");
}

TEST_F(AlarmTest, ThreadIsNamedAfterItsCreator)
{
    std::thread maker([this] {
        pthread_setname_np(pthread_self(), "maker");
        ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    });
    maker.join();
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed("TCAlarm:maker") == 1; }));
}

TEST_F(AlarmTest, DestroyDropsQueuedEventsAndEndsTheThread)
{
    Hold hold(&m_task);
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, ENDLESS));
    EXPECT_TRUE(Eventually([this] { return Queued(&m_alarm) > 0; }));
    m_alarm.Destroy();
    EXPECT_EQ(Queued(&m_alarm), 0u);
    EXPECT_FALSE(m_alarm.FlagCreate());
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1)); // and it can be created again
}

TEST_F(AlarmTest, ControlFromFourThreadsAtOnce)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, ENDLESS));
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([this, thread] {
            for (int i = 0; i < 200; ++i) {
                switch ((thread + i) % 3) {
                    case 0:
                        m_alarm.Stop();
                        break;
                    case 1:
                        m_alarm.RestartAfterStop();
                        break;
                    default:
                        m_alarm.Reset(10, ENDLESS);
                        break;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // A stopped alarm whose queued firings have been handled is silent; then it does as it is told.
    m_alarm.Stop();
    ASSERT_TRUE(Flush(&m_task));
    const std::size_t fired = m_alarm.trace.Size();
    m_alarm.Reset(10, 3);
    EXPECT_TRUE(m_alarm.trace.WaitFor(fired + 3));
    TestAlarm other;
    ASSERT_TRUE(other.Create(&m_task, 10, 5));
    EXPECT_TRUE(other.trace.WaitFor(5));
    const std::vector<std::string> trace = m_alarm.trace.Get();
    ASSERT_EQ(trace.size(), fired + 3);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(trace[fired + i].substr(trace[fired + i].find('/')), "/" + std::to_string(i));
    }
}

/// A state alarm that ends itself.
class TestStateAlarm : public TCStateAlarm
{
 public:
    ~TestStateAlarm() override { EndAlarm(this); }
};

class StateAlarmTest : public ::testing::Test
{
 protected:
    StateAlarmTest()
    {
        m_task.onUser = [this](const TSEvent* event) {
            m_trace.Add(std::to_string(event->param1) + "/" + std::to_string(event->param3));
            return true;
        };
        EXPECT_TRUE(m_task.Start());
    }

    const TaskRuntime m_runtime;
    Trace m_trace;
    TestTask m_task;
    TestStateAlarm m_alarm;
};

TEST_F(StateAlarmTest, EachFiringSendsTheTaskAnEmptyEventOfThatType)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, TCTask::EVENT_USER, 10, 3));
    EXPECT_TRUE(m_trace.WaitFor(3));
    EXPECT_EQ(m_trace.Get()[0], "0/65535");
}

TEST_F(StateAlarmTest, CountOfMinusOneFiresWithoutEnd)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, TCTask::EVENT_USER, 10, -1));
    EXPECT_TRUE(m_trace.WaitFor(20));
}

TEST_F(StateAlarmTest, NegativeIntervalNeverPasses)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, TCTask::EVENT_USER, -1, 5));
    std::atomic<int> fired{0};
    TestStateAlarm other;
    ASSERT_TRUE(other.Create(&m_task, TCTask::EVENT_PAUSE + 10, LONG_INTERVAL, 1));
    other.SetCallbackAfter([&fired](const TSEvent*) { return ++fired > 0; });
    other.Reset(10, 5);
    EXPECT_TRUE(Eventually([&fired] { return fired >= 3; }));
    EXPECT_THAT(m_trace.Get(), IsEmpty());
}

TEST_F(StateAlarmTest, StateOfZeroEndsTheTask)
{
    // 0 is EVENT_EXIT to the task, whose own handler the event is addressed to.
    std::atomic<bool> ended{false};
    TestTask task;
    task.onDestroy = [&ended] { ended = true; };
    ASSERT_TRUE(task.Start());
    TestStateAlarm alarm;
    ASSERT_TRUE(alarm.Create(&task, 0, 10, 1));
    EXPECT_TRUE(Eventually([&ended] { return ended.load(); }));
    alarm.Destroy();
    task.Destroy();
}

TEST_F(StateAlarmTest, CallbackBeforeKeepsTheEventFromBeingSent)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, TCTask::EVENT_USER, LONG_INTERVAL, 1));
    m_alarm.SetCallbackBefore([](const TSEvent*) { return true; });
    TSEvent event = EventTo(&m_alarm, TCAlarm::EVENT_ALARM);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), IsEmpty());
}

TEST_F(StateAlarmTest, HookAnswersFalseAndIgnoresOtherTypes)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, TCTask::EVENT_USER, LONG_INTERVAL, 1));
    TSEvent event = EventTo(&m_alarm, TCAlarm::EVENT_ALARM);
    EXPECT_FALSE(m_alarm.t_OnAlarm(&event));
    EXPECT_TRUE(m_trace.WaitFor(1));
    event.type = 1;
    EXPECT_FALSE(m_alarm.t_OnAlarm(&event));
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_EQ(m_trace.Size(), 1u);
}

} // namespace
