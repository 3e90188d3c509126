#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CallbackNameSeam.h"
#include "LogSeam.h"
#include "RecordingLogger.h"
#include "TaskSupport.h"
#include "ThreadNames.h"
#include "Timer.h"
#include "TimersScheduler.h"

namespace {

using namespace zortest;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr milliseconds LONG(600 * 1000);
constexpr std::size_t NO_ID = TCTimersScheduler::INVALID_TIMER_ID;

/// The texts of the scheduler's entries in the log: those that begin with an id.
std::vector<std::string> Lines()
{
    std::vector<std::string> texts;
    for (const LogLine& line : LogLinesWith("Id[")) {
        texts.push_back(line.text.substr(line.text.find("Id[")));
    }
    return texts;
}

/// A scheduler whose timers send to a handler that keeps their parameters as "timer:count/index".
class TimersSchedulerTest : public ::testing::Test
{
 protected:
    TimersSchedulerTest()
        : m_handler([this](const TSEvent* event) {
              m_trace.Add(std::to_string(event->param3) + ":" + std::to_string(event->param1) +
                          "/" + std::to_string(event->param2));
              return true;
          })
    {
        // The program's name begins with that of the scheduler's thread, and threads inherit it.
        pthread_setname_np(pthread_self(), "test");
        EXPECT_TRUE(m_task.Start());
        m_handler.Create(&m_task);
        ClearLog();
    }

    std::size_t Create(milliseconds interval, unsigned int count, std::uint32_t number = 0)
    {
        TSEvent event = EventTo(&m_handler, 0);
        event.param3 = number;
        return m_scheduler.CreateTimer(interval, count, event);
    }

    /// Waits until a timer of its own has fired that often, which shows that time passes.
    void LetTimePass(unsigned int firings = 5)
    {
        Trace trace;
        FunctionHandler handler(
            [&trace](const TSEvent*) {
                trace.Add("");
                return true;
            },
            &m_task);
        TCTimersScheduler other;
        other.CreateTimer(milliseconds(10), firings, EventTo(&handler, 0));
        EXPECT_TRUE(trace.WaitFor(firings));
    }

    unsigned int Queued()
    {
        unsigned int found = 0;
        m_task.Find(&m_handler, &found);
        return found;
    }

    const TaskRuntime m_runtime;
    Trace m_trace;
    TestTask m_task;
    FunctionHandler m_handler;
    TCTimersScheduler m_scheduler; ///< gone before what it sends to
};

TEST(TimersSchedulerConstantsTest, LimitsAndStates)
{
    EXPECT_EQ(ITimer::INTERVAL_MIN, milliseconds(10));
    EXPECT_EQ(ITimer::INFINITE_FIRE, 0xFFFFFFFFu);
    EXPECT_EQ(NO_ID, SIZE_MAX);
    EXPECT_EQ(TIMER_DESTROYED, 0u);
    EXPECT_EQ(TIMER_RESET, 1u);
    EXPECT_EQ(TIMER_RUNNING, 2u);
    EXPECT_EQ(TIMER_EXPIRED, 3u);
    EXPECT_EQ(TIMER_CREATED, 4u);
    EXPECT_EQ(TIMER_PAUSED, 5u);
    EXPECT_EQ(TIMER_RESUMED, 6u);
}

TEST_F(TimersSchedulerTest, ThreadStartsWithTheFirstTimer)
{
    // A joined thread of an earlier test may still be listed for a moment.
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed("TimersScheduler") == 0; }));
    EXPECT_EQ(Create(LONG, 0), 0u);
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed("TimersScheduler") == 1; }));
}

TEST_F(TimersSchedulerTest, ThreadShowsTheTimersCallbackAllItsLife)
{
    std::mutex mutex;
    std::vector<std::string> names; // all are set by the scheduler's thread
    const auto namesSoFar = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        return names;
    };
    const Takeover take(setCallbackNameSeam,
                        [&](TCDebugPrintZOR* debugPrint, const std::string& name) {
                            std::lock_guard<std::mutex> lock(mutex);
                            names.push_back(name);
                            setCallbackNameSeam.Real(debugPrint, name);
                        });
    {
        TCTimersScheduler scheduler;
        EXPECT_THAT(namesSoFar(), IsEmpty());
        scheduler.CreateTimer(milliseconds(10), 2, EventTo(&m_handler, 0));
        EXPECT_TRUE(m_trace.WaitFor(2));
        EXPECT_THAT(namesSoFar(), ElementsAre("cb-timer"));
    }
    EXPECT_THAT(namesSoFar(), ElementsAre("cb-timer", ""));
}

TEST_F(TimersSchedulerTest, CountOfNFiresExactlyNTimes)
{
    Create(milliseconds(10), 3, 7);
    EXPECT_TRUE(m_trace.WaitFor(3));
    LetTimePass();
    EXPECT_THAT(m_trace.Get(), ElementsAre("7:3/0", "7:3/1", "7:3/2"));
}

TEST_F(TimersSchedulerTest, CountOfZeroFiresOnlyAfterAReset)
{
    const std::size_t id = Create(milliseconds(10), 0);
    EXPECT_THAT(Lines(), ElementsAre("Id[0] WakedUp[0] New timer created!"));
    LetTimePass();
    EXPECT_THAT(m_trace.Get(), IsEmpty());
    EXPECT_TRUE(m_scheduler.ResetTimer(id, milliseconds(10), 1));
    EXPECT_TRUE(m_trace.WaitFor(1));
}

TEST_F(TimersSchedulerTest, InfiniteCountNeverExpires)
{
    Create(milliseconds(10), ITimer::INFINITE_FIRE);
    EXPECT_TRUE(m_trace.WaitFor(20));
    EXPECT_EQ(m_trace.Get()[19], "0:4294967295/19");
}

TEST_F(TimersSchedulerTest, ShortIntervalsAreRaised)
{
    for (const milliseconds interval : {milliseconds(0), milliseconds(9), milliseconds(-5)}) {
        const auto begin = std::chrono::steady_clock::now();
        const std::size_t fired = m_trace.Size();
        const std::size_t id = Create(interval, 10);
        EXPECT_TRUE(m_trace.WaitFor(fired + 10));
        EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(100));
        EXPECT_TRUE(m_scheduler.DestroyTimer(id));
    }
}

TEST_F(TimersSchedulerTest, LongestIntervalDoesNotFire)
{
    Create(milliseconds::max(), 1);
    LetTimePass();
    EXPECT_THAT(m_trace.Get(), IsEmpty());
}

TEST_F(TimersSchedulerTest, LowestFreeIdIsUsedAgain)
{
    for (std::size_t id = 0; id < 5; ++id) {
        EXPECT_EQ(Create(LONG, 1), id);
    }
    EXPECT_TRUE(m_scheduler.DestroyTimer(3));
    EXPECT_TRUE(m_scheduler.DestroyTimer(1));
    EXPECT_EQ(Create(LONG, 1), 1u);
    EXPECT_EQ(Create(LONG, 1), 3u);
    EXPECT_EQ(Create(LONG, 1), 5u);
}

TEST_F(TimersSchedulerTest, EarlierTimerNotifiesAndLaterOneDoesNot)
{
    Create(LONG, 1);
    Create(2 * LONG, 1);
    Create(LONG / 2, 1);
    const std::vector<std::string> lines = Lines();
    EXPECT_EQ(lines[1], "Id[1] WakedUp[0] New timer created!");
    EXPECT_EQ(lines[2], "Id[2] WakedUp[1] New timer created!");
}

TEST_F(TimersSchedulerTest, DestroyTwiceIsRefused)
{
    const std::size_t id = Create(LONG, 1);
    ClearLog();
    EXPECT_TRUE(m_scheduler.DestroyTimer(id));
    EXPECT_FALSE(m_scheduler.DestroyTimer(id));
    EXPECT_THAT(Lines(),
                ElementsAre("Id[0] WakedUp[1] Timer destroyed!", "Id[0] Timer already destroyed!"));
}

TEST_F(TimersSchedulerTest, UnknownIdsAreRefused)
{
    EXPECT_FALSE(m_scheduler.ResetTimer(5, LONG, 1));
    EXPECT_FALSE(m_scheduler.PauseTimer(5));
    EXPECT_FALSE(m_scheduler.ResumeTimer(NO_ID));
    EXPECT_FALSE(m_scheduler.DestroyTimer(5));
    EXPECT_THAT(Lines(),
                ElementsAre("Id[5] Timer not found!", "Id[5] Timer not found!",
                            "Id[18446744073709551615] Timer not found!", "Id[5] Timer not found!"));
}

TEST_F(TimersSchedulerTest, IdBehindTheLastIsUnknown)
{
    const std::size_t behind = Create(LONG, 1) + 1;
    ClearLog();
    EXPECT_FALSE(m_scheduler.ResetTimer(behind, LONG, 1));
    EXPECT_FALSE(m_scheduler.PauseTimer(behind));
    EXPECT_FALSE(m_scheduler.ResumeTimer(behind));
    EXPECT_FALSE(m_scheduler.DestroyTimer(behind));
    EXPECT_THAT(Lines(), ElementsAre("Id[1] Timer not found!", "Id[1] Timer not found!",
                                     "Id[1] Timer not found!", "Id[1] Timer not found!"));
}

TEST_F(TimersSchedulerTest, WhatWasDoneIsLoggedWithTheMutexFree)
{
    int used = 0;
    RecordingLogger logger("using", [&](const std::string& message) {
        for (const char* done : {"New timer created!", "Timer reseted!", "Timer paused!",
                                 "Timer resumed!", "Timer destroyed!"}) {
            if (message.find(done) != std::string::npos) {
                ++used;
                std::thread([this] { EXPECT_FALSE(m_scheduler.PauseTimer(1000)); }).join();
            }
        }
    });
    ZORLogs::getInstance()->SetLoggingSystem(&logger);
    const std::size_t id = Create(LONG, 1);
    EXPECT_TRUE(m_scheduler.ResetTimer(id, LONG, 1));
    EXPECT_TRUE(m_scheduler.PauseTimer(id));
    EXPECT_TRUE(m_scheduler.ResumeTimer(id));
    EXPECT_TRUE(m_scheduler.DestroyTimer(id));
    ZORLogs::getInstance()->SetLoggingSystem(ZORLoggerDLOG::Instance());
    EXPECT_EQ(used, 5);
}

TEST_F(TimersSchedulerTest, DestroyedTimerCanOnlyBeMadeAnew)
{
    const std::size_t id = Create(LONG, 1);
    m_scheduler.DestroyTimer(id);
    ClearLog();
    EXPECT_FALSE(m_scheduler.ResetTimer(id, LONG, 1));
    EXPECT_FALSE(m_scheduler.PauseTimer(id));
    EXPECT_FALSE(m_scheduler.ResumeTimer(id));
    EXPECT_THAT(Lines(), ElementsAre("Id[0] Timer is destroyed! Can't reset!",
                                     "Id[0] State[0] Wrong state to pause!",
                                     "Id[0] State[0] Wrong state to resume!"));
}

TEST_F(TimersSchedulerTest, WrongStatesAreNamed)
{
    const std::size_t id = Create(LONG, 1);
    ClearLog();
    EXPECT_FALSE(m_scheduler.ResumeTimer(id));
    EXPECT_TRUE(m_scheduler.PauseTimer(id));
    EXPECT_FALSE(m_scheduler.PauseTimer(id));
    EXPECT_TRUE(m_scheduler.ResumeTimer(id));
    EXPECT_THAT(Lines(), ElementsAre("Id[0] State[4] Wrong state to resume!", "Id[0] Timer paused!",
                                     "Id[0] State[5] Wrong state to pause!",
                                     "Id[0] WakedUp[1] Timer resumed!"));
}

TEST_F(TimersSchedulerTest, ExpiredTimerCanBePausedAndResumesToExpired)
{
    const std::size_t id = Create(LONG, 0);
    ClearLog();
    EXPECT_TRUE(m_scheduler.PauseTimer(id));
    EXPECT_TRUE(m_scheduler.ResumeTimer(id));
    EXPECT_FALSE(m_scheduler.ResumeTimer(id));
    EXPECT_THAT(Lines(), ElementsAre("Id[0] Timer paused!", "Id[0] WakedUp[0] Timer resumed!",
                                     "Id[0] State[3] Wrong state to resume!"));
}

TEST_F(TimersSchedulerTest, PausedTimerIsSilentUntilItIsResumed)
{
    const std::size_t id = Create(milliseconds(10), ITimer::INFINITE_FIRE);
    EXPECT_TRUE(m_trace.WaitFor(2));
    EXPECT_TRUE(m_scheduler.PauseTimer(id));
    EXPECT_TRUE(Flush(&m_task));
    const std::size_t fired = m_trace.Size();
    LetTimePass();
    EXPECT_EQ(m_trace.Size(), fired);
    EXPECT_TRUE(m_scheduler.ResumeTimer(id));
    EXPECT_TRUE(m_trace.WaitFor(fired + 2));
}

TEST_F(TimersSchedulerTest, ResetOfAPausedTimerKeepsItPaused)
{
    const std::size_t id = Create(LONG, 1);
    EXPECT_TRUE(m_scheduler.PauseTimer(id));
    ClearLog();
    EXPECT_TRUE(m_scheduler.ResetTimer(id, milliseconds(3), 2));
    EXPECT_THAT(Lines(), ElementsAre("Id[0] Interv[10] Count[2] WakedUp[0] Timer reseted!"));
    LetTimePass();
    EXPECT_THAT(m_trace.Get(), IsEmpty());
    EXPECT_TRUE(m_scheduler.ResumeTimer(id)); // a full interval of the new settings
    EXPECT_TRUE(m_trace.WaitFor(2));
    EXPECT_THAT(m_trace.Get(), ElementsAre("0:2/0", "0:2/1"));
}

TEST_F(TimersSchedulerTest, ResetDropsQueuedFirings)
{
    Hold hold(&m_task);
    const std::size_t id = Create(milliseconds(10), 2);
    EXPECT_TRUE(Eventually([this] { return Queued() == 2; }));
    EXPECT_TRUE(m_scheduler.ResetTimer(id, LONG, 1));
    EXPECT_EQ(Queued(), 0u);
}

TEST_F(TimersSchedulerTest, DestroyLeavesQueuedFirings)
{
    Hold hold(&m_task);
    const std::size_t id = Create(milliseconds(10), 2);
    EXPECT_TRUE(Eventually([this] { return Queued() == 2; }));
    EXPECT_TRUE(m_scheduler.DestroyTimer(id));
    EXPECT_EQ(Queued(), 2u);
}

TEST_F(TimersSchedulerTest, FiringIsLoggedAtDebug)
{
    Create(milliseconds(10), 1);
    EXPECT_TRUE(m_trace.WaitFor(1));
    const std::vector<LogLine> lines = LogLinesWith("Id[0] Timer fire!");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, DLOG_DEBUG);
}

/// Destroying an attachment may use the scheduler: it must not happen with its mutex held.
TEST_F(TimersSchedulerTest, EventOfAnEarlierTimerIsReleasedOutsideTheMutex)
{
    struct Use
    {
        explicit Use(TCTimersScheduler* user) : scheduler(user) {}
        Use(Use&& other) noexcept : scheduler(other.scheduler) { other.scheduler = nullptr; }
        ~Use()
        {
            if (scheduler != nullptr) {
                scheduler->PauseTimer(1000);
            }
        }
        TCTimersScheduler* scheduler;
    };
    {
        TSEvent event = EventTo(&m_handler, 0);
        event.setWrappedData(Use(&m_scheduler));
        m_scheduler.DestroyTimer(m_scheduler.CreateTimer(LONG, 1, std::move(event)));
    }
    ClearLog();
    EXPECT_EQ(Create(LONG, 1), 0u);
    EXPECT_EQ(CountLogLines("Id[1000] Timer not found!"), 1u);
}

/// No more firings altogether than the task's queue takes: the task may not come to run meanwhile.
TEST_F(TimersSchedulerTest, ManyTimersAllFireAsOftenAsTheyShould)
{
    constexpr std::uint32_t TIMERS = 40;
    constexpr unsigned int FIRINGS = 5;
    for (std::uint32_t number = 0; number < TIMERS; ++number) {
        Create(milliseconds(10 + number % 7), FIRINGS, number);
    }
    EXPECT_TRUE(m_trace.WaitFor(TIMERS * FIRINGS));
    LetTimePass();
    EXPECT_EQ(m_trace.Size(), TIMERS * FIRINGS);
}
} // namespace
