#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "LogSeam.h"
#include "RecordingLogger.h"
#include "SchedulerClock.h"
#include "TaskSupport.h"
#include "Timer.h"
#include "TimersScheduler.h"

namespace {

using namespace zortest;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned int ENDLESS = ITimer::INFINITE_FIRE;

/// A scheduler in a time of the test's own. Its firings are kept as "id:count/index@milliseconds".
class TimersSchedulerClockTest : public ::testing::Test
{
 protected:
    TimersSchedulerClockTest()
        : m_handler([this](const TSEvent* event) {
              const auto now = std::chrono::duration_cast<milliseconds>(m_clock.Elapsed());
              m_trace.Add(std::to_string(event->param3) + ":" + std::to_string(event->param1) +
                          "/" + std::to_string(event->param2) + "@" + std::to_string(now.count()));
              return true;
          }),
          m_clock(&m_scheduler)
    {
        EXPECT_TRUE(m_task.Start());
        m_handler.Create(&m_task);
        ClearLog();
    }

    std::size_t Create(milliseconds interval, unsigned int count, std::uint32_t id = 0)
    {
        TSEvent event = EventTo(&m_handler, 0);
        event.param3 = id;
        return Do([&] { return m_scheduler.CreateTimer(interval, count, event); });
    }

    bool Reset(std::size_t id, milliseconds interval, unsigned int count)
    {
        return Do([&] { return m_scheduler.ResetTimer(id, interval, count); });
    }

    bool Pause(std::size_t id)
    {
        return Do([&] { return m_scheduler.PauseTimer(id); });
    }

    bool Resume(std::size_t id)
    {
        return Do([&] { return m_scheduler.ResumeTimer(id); });
    }

    bool Destroy(std::size_t id)
    {
        return Do([&] { return m_scheduler.DestroyTimer(id); });
    }

    /// Lets time pass, has the thread do what is due, and the task handle what it has sent.
    void Advance(nanoseconds time)
    {
        m_clock.Advance(time);
        EXPECT_TRUE(m_clock.Settle());
        EXPECT_TRUE(Flush(&m_task));
    }

    /// Brings the thread to where it waits because nothing is scheduled.
    void MakeIdle()
    {
        const std::size_t id = Create(milliseconds(10), 1);
        Advance(milliseconds(10));
        EXPECT_EQ(m_clock.WakeTime(), std::nullopt);
        EXPECT_TRUE(Destroy(id));
        ClearLog();
    }

    /// The last entry of the scheduler that is not about a firing.
    static std::string LastLine()
    {
        std::string last;
        for (const LogLine& line : LogLinesWith("Id[")) {
            if (line.text.find("Timer fire!") == std::string::npos &&
                line.text.find("Can't keep up!") == std::string::npos) {
                EXPECT_EQ(line.priority, DLOG_INFO) << line.text;
                last = line.text.substr(line.text.find("Id["));
            }
        }
        return last;
    }

    const TaskRuntime m_runtime;
    Trace m_trace;
    TestTask m_task;
    FunctionHandler m_handler;
    SchedulerClock m_clock;
    TCTimersScheduler m_scheduler; ///< gone before its clock and what it sends to

 private:
    template <typename Call>
    std::invoke_result_t<Call> Do(Call call)
    {
        const auto result = m_clock.Run(call);
        EXPECT_TRUE(m_clock.Settle());
        EXPECT_TRUE(Flush(&m_task));
        return result;
    }
};

TEST_F(TimersSchedulerClockTest, FirstFiringComesAfterOneInterval)
{
    Create(milliseconds(25), 2);
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(25));
    Advance(milliseconds(25) - nanoseconds(1));
    EXPECT_THAT(m_trace.Get(), IsEmpty());
    Advance(nanoseconds(1));
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(50));
    Advance(milliseconds(100));
    EXPECT_THAT(m_trace.Get(), ElementsAre("0:2/0@25", "0:2/1@125"));
    EXPECT_EQ(m_clock.WakeTime(), std::nullopt);
}

TEST_F(TimersSchedulerClockTest, ShortIntervalsAreTenMilliseconds)
{
    for (const milliseconds interval : {milliseconds(0), milliseconds(9), milliseconds(-7)}) {
        const nanoseconds begin = m_clock.Elapsed();
        const std::size_t id = Create(interval, 1);
        EXPECT_EQ(m_clock.WakeTime(), begin + milliseconds(10)) << interval.count();
        EXPECT_TRUE(Destroy(id));
        EXPECT_EQ(m_clock.WakeTime(), std::nullopt);
    }
}

TEST_F(TimersSchedulerClockTest, ResetRaisesShortIntervalsToo)
{
    const std::size_t id = Create(milliseconds(50), 1);
    EXPECT_TRUE(Reset(id, milliseconds(-1), 1));
    EXPECT_EQ(LastLine(), "Id[0] Interv[10] Count[1] WakedUp[1] Timer reseted!");
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(10));
}

TEST_F(TimersSchedulerClockTest, OfTimersDueAtOnceTheLowerIdFiresFirst)
{
    const std::size_t last = Create(milliseconds(600), 1);
    EXPECT_EQ(Create(milliseconds(30), 1, 1), 1u);
    Advance(milliseconds(10));
    EXPECT_EQ(Create(milliseconds(20), 1, 2), 2u);
    EXPECT_TRUE(Destroy(last));
    Advance(milliseconds(10));
    EXPECT_EQ(Create(milliseconds(10), 1, 0), 0u); // the youngest has the lowest id
    Advance(milliseconds(10));
    EXPECT_THAT(m_trace.Get(), ElementsAre("0:1/0@30", "1:1/0@30", "2:1/0@30"));
}

TEST_F(TimersSchedulerClockTest, FiringsAreDueAnIntervalAfterTheOneBeforeWasDue)
{
    Create(milliseconds(10), 3);
    Advance(milliseconds(17));
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(20));
    Advance(milliseconds(5));
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(30));
}

TEST_F(TimersSchedulerClockTest, StalledThreadPostsTheMissedFiringsOneAfterAnother)
{
    Create(milliseconds(10), ENDLESS);
    ClearLog();
    Advance(milliseconds(55));
    EXPECT_THAT(m_trace.Get(),
                ElementsAre("0:4294967295/0@55", "0:4294967295/1@55", "0:4294967295/2@55",
                            "0:4294967295/3@55", "0:4294967295/4@55"));
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(60));
    std::vector<std::string> lines;
    for (const LogLine& line : LogLinesWith("Id[0] ")) {
        const bool firing = line.text.find("Timer fire!") != std::string::npos;
        EXPECT_EQ(line.priority, firing ? DLOG_DEBUG : DLOG_WARN);
        lines.push_back(line.text.substr(line.text.find("Id[")));
    }
    const std::string warning = "Id[0] Can't keep up!"; // of those that are 45, 35 and 25 ms late
    const std::string firing = "Id[0] Timer fire!";
    EXPECT_THAT(lines,
                ElementsAre(warning, firing, warning, firing, warning, firing, firing, firing));
}

TEST_F(TimersSchedulerClockTest, LatenessOfTwoIntervalsIsWarnedOf)
{
    Create(milliseconds(10), 1);
    Advance(milliseconds(30));
    EXPECT_EQ(CountLogLines("Can't keep up!"), 1u);
}

TEST_F(TimersSchedulerClockTest, LatenessIsMeasuredInWholeMilliseconds)
{
    Create(milliseconds(10), 1);
    Advance(milliseconds(30) - nanoseconds(1));
    EXPECT_EQ(m_trace.Size(), 1u);
    EXPECT_EQ(CountLogLines("Can't keep up!"), 0u);
}

TEST_F(TimersSchedulerClockTest, LateTimersCatchUpInTheOrderOfTheirDueTimes)
{
    Create(milliseconds(10), ENDLESS, 0);
    Create(milliseconds(15), ENDLESS, 1);
    Advance(milliseconds(30));
    EXPECT_THAT(m_trace.Get(),
                ElementsAre("0:4294967295/0@30", "1:4294967295/0@30", "0:4294967295/1@30",
                            "0:4294967295/2@30", "1:4294967295/1@30"));
}

TEST_F(TimersSchedulerClockTest, RestOfAPausedIntervalIsCutToWholeMilliseconds)
{
    const std::size_t id = Create(milliseconds(10), 1);
    Advance(std::chrono::microseconds(6001));
    EXPECT_TRUE(Pause(id));
    Advance(milliseconds(100));
    const nanoseconds resumed = m_clock.Elapsed();
    EXPECT_TRUE(Resume(id));
    EXPECT_EQ(m_clock.WakeTime(), resumed + milliseconds(3));
    Advance(milliseconds(3) - nanoseconds(1));
    EXPECT_THAT(m_trace.Get(), IsEmpty());
    Advance(nanoseconds(1));
    EXPECT_EQ(m_trace.Size(), 1u);
}

TEST_F(TimersSchedulerClockTest, RestOfLessThanAMillisecondIsNothing)
{
    const std::size_t id = Create(milliseconds(10), 1);
    Advance(milliseconds(10) - nanoseconds(1));
    EXPECT_TRUE(Pause(id));
    EXPECT_THAT(m_trace.Get(), IsEmpty());
    EXPECT_TRUE(Resume(id));
    EXPECT_EQ(m_trace.Size(), 1u);
}

TEST_F(TimersSchedulerClockTest, RestBelongsToTheFirstIntervalAfterTheResumeOnly)
{
    const std::size_t id = Create(milliseconds(10), 2);
    Advance(milliseconds(6));
    EXPECT_TRUE(Pause(id));
    Advance(milliseconds(14));
    EXPECT_TRUE(Resume(id));
    Advance(milliseconds(4));
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(34));
    Advance(milliseconds(10));
    EXPECT_THAT(m_trace.Get(), ElementsAre("0:2/0@24", "0:2/1@34"));
}

TEST_F(TimersSchedulerClockTest, RestIsThatOfTheLatestPause)
{
    const std::size_t id = Create(milliseconds(100), 1);
    Advance(milliseconds(30));
    EXPECT_TRUE(Pause(id));
    EXPECT_TRUE(Resume(id));
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(100));
    Advance(milliseconds(30));
    EXPECT_TRUE(Pause(id));
    Advance(milliseconds(20));
    EXPECT_TRUE(Resume(id));
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(120));
}

TEST_F(TimersSchedulerClockTest, ResetOfAPausedTimerStartsAFullIntervalOnResume)
{
    const std::size_t id = Create(milliseconds(100), 1);
    Advance(milliseconds(60));
    EXPECT_TRUE(Pause(id));
    const unsigned int notifications = m_clock.Notifications();
    EXPECT_TRUE(Reset(id, milliseconds(30), 2));
    EXPECT_EQ(LastLine(), "Id[0] Interv[30] Count[2] WakedUp[0] Timer reseted!");
    EXPECT_EQ(m_clock.Notifications(), notifications);
    EXPECT_FALSE(Pause(id));
    EXPECT_EQ(LastLine(), "Id[0] State[5] Wrong state to pause!");
    EXPECT_TRUE(Resume(id));
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(90));
}

TEST_F(TimersSchedulerClockTest, ResetOfAPausedTimerToNoFiringsResumesToExpired)
{
    const std::size_t id = Create(milliseconds(100), 1);
    EXPECT_TRUE(Pause(id));
    EXPECT_TRUE(Reset(id, milliseconds(30), 0));
    EXPECT_TRUE(Resume(id));
    EXPECT_EQ(LastLine(), "Id[0] WakedUp[0] Timer resumed!");
    EXPECT_FALSE(Resume(id));
    EXPECT_EQ(LastLine(), "Id[0] State[3] Wrong state to resume!");
}

TEST_F(TimersSchedulerClockTest, ExpiredTimerPausedAndResetRunsOnResume)
{
    const std::size_t id = Create(milliseconds(10), 1);
    Advance(milliseconds(10));
    EXPECT_TRUE(Pause(id));
    EXPECT_EQ(LastLine(), "Id[0] Timer paused!");
    EXPECT_TRUE(Reset(id, milliseconds(20), 1));
    EXPECT_TRUE(Resume(id));
    EXPECT_EQ(LastLine(), "Id[0] WakedUp[1] Timer resumed!");
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(30));
}

TEST_F(TimersSchedulerClockTest, PauseLeavesTheThreadAsleepUntilTheOldDueTime)
{
    const std::size_t id = Create(milliseconds(100), 1);
    const unsigned int notifications = m_clock.Notifications();
    EXPECT_TRUE(Pause(id));
    EXPECT_EQ(m_clock.Notifications(), notifications);
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(100));
    Advance(milliseconds(100)); // it finds nothing to do
    EXPECT_EQ(m_clock.WakeTime(), std::nullopt);
    EXPECT_THAT(m_trace.Get(), IsEmpty());
}

TEST_F(TimersSchedulerClockTest, EmptyScheduleOfAThreadThatIsNotIdleIsNotNotified)
{
    const std::size_t paused = Create(milliseconds(100), 1, 0);
    EXPECT_EQ(LastLine(), "Id[0] WakedUp[0] New timer created!"); // the thread has only just begun
    EXPECT_TRUE(Pause(paused));
    const std::size_t id = Create(milliseconds(10), 1, 1);
    EXPECT_EQ(LastLine(), "Id[1] WakedUp[0] New timer created!");
    EXPECT_TRUE(Reset(id, milliseconds(30), 1)); // the earliest now, which is another rule
    EXPECT_EQ(LastLine(), "Id[1] Interv[30] Count[1] WakedUp[1] Timer reseted!");
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(30));
    EXPECT_TRUE(Pause(id));
    const std::size_t expired = Create(milliseconds(10), 0, 2);
    EXPECT_TRUE(Reset(expired, milliseconds(10), 1));
    EXPECT_EQ(LastLine(), "Id[2] Interv[10] Count[1] WakedUp[0] Timer reseted!");
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(30));
    Advance(milliseconds(30)); // the firing is served when the thread wakes by itself
    EXPECT_THAT(m_trace.Get(), ElementsAre("2:1/0@30"));
}

TEST_F(TimersSchedulerClockTest, ResumeIntoAnEmptyScheduleIsNotified)
{
    const std::size_t id = Create(milliseconds(100), 1);
    EXPECT_TRUE(Pause(id));
    EXPECT_TRUE(Resume(id));
    EXPECT_EQ(LastLine(), "Id[0] WakedUp[1] Timer resumed!");
}

TEST_F(TimersSchedulerClockTest, ResumeIsNotifiedOnlyIfItComesFirst)
{
    Create(milliseconds(50), 1, 0);
    const std::size_t later = Create(milliseconds(60), 1, 1);
    EXPECT_TRUE(Pause(later));
    EXPECT_TRUE(Resume(later));
    EXPECT_EQ(LastLine(), "Id[1] WakedUp[0] Timer resumed!");
    const std::size_t earlier = Create(milliseconds(40), 1, 2);
    EXPECT_TRUE(Pause(earlier));
    EXPECT_TRUE(Resume(earlier));
    EXPECT_EQ(LastLine(), "Id[2] WakedUp[1] Timer resumed!");
}

TEST_F(TimersSchedulerClockTest, RestOfATimerThatWasOverdueStaysNegative)
{
    EXPECT_TRUE(Pause(Create(milliseconds(100), 1, 0)));
    const std::size_t id = Create(milliseconds(10), 1, 1); // the thread sleeps on
    Advance(milliseconds(50));
    EXPECT_TRUE(Pause(id));
    EXPECT_THAT(m_trace.Get(), IsEmpty());
    Advance(milliseconds(10));
    EXPECT_TRUE(Resume(id)); // due 40 ms ago
    EXPECT_THAT(m_trace.Get(), ElementsAre("1:1/0@60"));
    EXPECT_EQ(CountLogLines("Id[1] Can't keep up!"), 1u);
}

TEST_F(TimersSchedulerClockTest, NewTimerNotifiesAnIdleThread)
{
    MakeIdle();
    const unsigned int notifications = m_clock.Notifications();
    Create(milliseconds(600), 1);
    EXPECT_EQ(LastLine(), "Id[0] WakedUp[1] New timer created!");
    EXPECT_EQ(m_clock.Notifications(), notifications + 1);
    Create(milliseconds(600), 0);
    EXPECT_EQ(LastLine(), "Id[1] WakedUp[0] New timer created!");
    EXPECT_EQ(m_clock.Notifications(), notifications + 1);
}

TEST_F(TimersSchedulerClockTest, NewTimerNotifiesIfItSortsBeforeTheEarliest)
{
    MakeIdle();
    EXPECT_EQ(Create(milliseconds(600), 1), 0u);
    EXPECT_EQ(Create(milliseconds(50), 1), 1u);
    EXPECT_EQ(LastLine(), "Id[1] WakedUp[1] New timer created!");
    EXPECT_EQ(Create(milliseconds(50), 1), 2u); // due at once with a lower id
    EXPECT_EQ(LastLine(), "Id[2] WakedUp[0] New timer created!");
    EXPECT_TRUE(Destroy(0));
    EXPECT_EQ(LastLine(), "Id[0] WakedUp[0] Timer destroyed!");
    EXPECT_EQ(Create(milliseconds(50), 1), 0u); // due at once with higher ids
    EXPECT_EQ(LastLine(), "Id[0] WakedUp[1] New timer created!");
}

TEST_F(TimersSchedulerClockTest, ResetNotifiesForTheEarliestAndForWhatBecomesEarliest)
{
    MakeIdle();
    Create(milliseconds(50), 1, 0);
    Create(milliseconds(60), 1, 1);
    Create(milliseconds(70), 1, 2);
    EXPECT_TRUE(Reset(2, milliseconds(80), 1));
    EXPECT_EQ(LastLine(), "Id[2] Interv[80] Count[1] WakedUp[0] Timer reseted!");
    EXPECT_TRUE(Reset(2, milliseconds(40), 1)); // comes first
    EXPECT_EQ(LastLine(), "Id[2] Interv[40] Count[1] WakedUp[1] Timer reseted!");
    EXPECT_TRUE(Reset(2, milliseconds(90), 1)); // was first
    EXPECT_EQ(LastLine(), "Id[2] Interv[90] Count[1] WakedUp[1] Timer reseted!");
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(60)); // ten of making it idle
    EXPECT_TRUE(Reset(1, milliseconds(60), 0));
    EXPECT_EQ(LastLine(), "Id[1] Interv[60] Count[0] WakedUp[0] Timer reseted!");
    EXPECT_TRUE(Reset(0, milliseconds(60), 0));
    EXPECT_EQ(LastLine(), "Id[0] Interv[60] Count[0] WakedUp[1] Timer reseted!");
    EXPECT_TRUE(Reset(0, milliseconds(60), 0)); // not scheduled any more
    EXPECT_EQ(LastLine(), "Id[0] Interv[60] Count[0] WakedUp[0] Timer reseted!");
}

TEST_F(TimersSchedulerClockTest, DestroyNotifiesForTheEarliestOnly)
{
    MakeIdle();
    for (int i = 0; i < 4; ++i) {
        Create(milliseconds(50 + i), 1);
    }
    Create(milliseconds(50), 0);
    EXPECT_TRUE(Pause(1));
    EXPECT_TRUE(Destroy(1));
    EXPECT_EQ(LastLine(), "Id[1] WakedUp[0] Timer destroyed!");
    EXPECT_TRUE(Destroy(2));
    EXPECT_EQ(LastLine(), "Id[2] WakedUp[0] Timer destroyed!");
    EXPECT_TRUE(Destroy(4));
    EXPECT_EQ(LastLine(), "Id[4] WakedUp[0] Timer destroyed!");
    EXPECT_TRUE(Destroy(0));
    EXPECT_EQ(LastLine(), "Id[0] WakedUp[1] Timer destroyed!");
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(63));
}

TEST_F(TimersSchedulerClockTest, RestOfADestroyedTimerIsForgotten)
{
    const std::size_t id = Create(milliseconds(100), 1);
    Advance(milliseconds(95));
    EXPECT_TRUE(Pause(id));
    EXPECT_TRUE(Destroy(id));
    EXPECT_EQ(Create(milliseconds(100), 0), id);
    EXPECT_TRUE(Pause(id));
    EXPECT_TRUE(Reset(id, milliseconds(40), 1));
    EXPECT_TRUE(Resume(id));
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(135));
}

TEST_F(TimersSchedulerClockTest, RestOfADestroyedTimerIsNotThatOfTheNextOne)
{
    const std::size_t id = Create(milliseconds(100), 1);
    Advance(milliseconds(95));
    EXPECT_TRUE(Pause(id));
    EXPECT_TRUE(Destroy(id));
    EXPECT_EQ(Create(milliseconds(50), 1), id);
    Advance(milliseconds(10));
    EXPECT_TRUE(Pause(id));
    EXPECT_TRUE(Resume(id));
    EXPECT_EQ(m_clock.WakeTime(), milliseconds(145));
}

TEST_F(TimersSchedulerClockTest, WrongStatesAreGivenByNumber)
{
    const std::size_t id = Create(milliseconds(10), 2);
    EXPECT_FALSE(Resume(id));
    EXPECT_EQ(LastLine(), "Id[0] State[4] Wrong state to resume!");
    Advance(milliseconds(10));
    EXPECT_FALSE(Resume(id));
    EXPECT_EQ(LastLine(), "Id[0] State[2] Wrong state to resume!");
    Advance(milliseconds(10));
    EXPECT_FALSE(Resume(id));
    EXPECT_EQ(LastLine(), "Id[0] State[3] Wrong state to resume!");
    EXPECT_TRUE(Reset(id, milliseconds(10), 1));
    EXPECT_FALSE(Resume(id));
    EXPECT_EQ(LastLine(), "Id[0] State[1] Wrong state to resume!");
    EXPECT_TRUE(Pause(id));
    EXPECT_FALSE(Pause(id));
    EXPECT_EQ(LastLine(), "Id[0] State[5] Wrong state to pause!");
    EXPECT_TRUE(Resume(id));
    EXPECT_FALSE(Resume(id));
    EXPECT_EQ(LastLine(), "Id[0] State[6] Wrong state to resume!");
    EXPECT_TRUE(Destroy(id));
    EXPECT_FALSE(Resume(id));
    EXPECT_EQ(LastLine(), "Id[0] State[0] Wrong state to resume!");
    EXPECT_FALSE(Pause(id));
    EXPECT_EQ(LastLine(), "Id[0] State[0] Wrong state to pause!");
    EXPECT_FALSE(Destroy(id));
    EXPECT_EQ(LastLine(), "Id[0] Timer already destroyed!");
    EXPECT_FALSE(Reset(id, milliseconds(10), 1));
    EXPECT_EQ(LastLine(), "Id[0] Timer is destroyed! Can't reset!");
}

TEST_F(TimersSchedulerClockTest, ResetDropsTheFiringsOfItsOwnReceiverOnly)
{
    Hold hold(&m_task);
    FunctionHandler other([](const TSEvent*) { return true; }, &m_task);
    const std::size_t id =
        m_clock.Run([&] { return m_scheduler.CreateTimer(milliseconds(10), 3, EventTo(&other)); });
    m_clock.Run([&] { m_scheduler.CreateTimer(milliseconds(10), 2, EventTo(&m_handler)); });
    m_clock.Advance(milliseconds(40));
    EXPECT_TRUE(m_clock.Settle());
    EXPECT_EQ(m_task.Size(), 5u);
    EXPECT_TRUE(m_clock.Run([&] { return m_scheduler.ResetTimer(id, milliseconds(10), 1); }));
    EXPECT_EQ(m_task.Size(), 2u);
    unsigned int found = 0;
    EXPECT_TRUE(m_task.Find(&m_handler, &found));
    EXPECT_EQ(found, 2u);
}

/// Has something done on the scheduler's thread when its n-th firing is logged.
class FiringLogger
{
 public:
    FiringLogger(unsigned int firing, std::function<void()> act)
        : m_logger("firings", [this, firing, act = std::move(act)](const std::string& message) {
              if (message.find("Timer fire!") != std::string::npos && ++m_fired == firing) {
                  act();
              }
          })
    {
        ZORLogs::getInstance()->SetLoggingSystem(&m_logger);
    }

    ~FiringLogger() { ZORLogs::getInstance()->SetLoggingSystem(ZORLoggerDLOG::Instance()); }

    FiringLogger(const FiringLogger&) = delete;
    FiringLogger& operator=(const FiringLogger&) = delete;

    unsigned int Fired() const { return m_fired; }

 private:
    std::atomic<unsigned int> m_fired{0};
    RecordingLogger m_logger;
};

// Ten minutes in which the process was stopped are sixty thousand firings.
TEST_F(TimersSchedulerClockTest, OperationGetsInBetweenTwoFiringsThatAreMadeUp)
{
    const std::size_t id = Create(milliseconds(10), ENDLESS);
    unsigned int firedWhenIn = 0;
    std::optional<Caller> caller;
    Gate called;
    FiringLogger firings(5, [&] {
        caller.emplace([&] {
            EXPECT_TRUE(m_clock.Run([&] { return m_scheduler.PauseTimer(id); }));
            firedWhenIn = firings.Fired();
        });
        EXPECT_TRUE(caller->Blocks()); // this thread holds the mutex
        called.Pass();
    });
    m_clock.Advance(std::chrono::minutes(10));
    ASSERT_TRUE(called.Wait());
    caller->Join();
    // More than five if the machine is so busy that the thread gives up waiting for it.
    EXPECT_LE(firedWhenIn, 100u);
    EXPECT_TRUE(m_clock.Settle());
    EXPECT_LE(firings.Fired(), 100u); // what was paused is not made up
}

} // namespace
