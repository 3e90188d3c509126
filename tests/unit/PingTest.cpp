#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ConsoleSeam.h"
#include "DeprecatedPing.h"
#include "Layout.h"
#include "LogSeam.h"
#include "TaskAppDataSeam.h"
#include "TaskSeams.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Promise = ZORManagedEventData<std::promise<bool>>;

/// Longer than anything takes on a busy machine.
constexpr unsigned long LONG_MSEC = 60000;

/// So short that a test can wait it out.
constexpr unsigned long SHORT_MSEC = 20;

constexpr char DEPRECATED[] = "### deprecated function called : TCTask::Ping(unsigned long msec)\n";

/// A running, supervised task, which notifies the watchdog of every ping.
class PingTest : public ::testing::Test
{
 protected:
    PingTest()
    {
        EXPECT_TRUE(m_task.Start("pinged", LONG_WAIT_MSEC, 7));
        ClearLog();
    }

    /// Takes the ping out of the queue of a task that is kept busy.
    std::optional<TSEvent> TakePing()
    {
        TSEvent event;
        return m_task.Get(&event, &m_task, TCTask::EVENT_PING) ? std::optional(event)
                                                               : std::nullopt;
    }

    std::size_t Notifications() const { return m_watchdog.Notifiers().size(); }

    const TaskRuntime m_runtime;
    FakeWatchdog m_watchdog;
    TestTask m_task;
};

TEST_F(PingTest, IsAnsweredByARunningTask)
{
    EXPECT_TRUE(TCTask::Ping(&m_task, LONG_MSEC));
    EXPECT_THAT(m_watchdog.Notifiers(), ElementsAre("pinged"));
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(PingTest, WithoutWaitingReturnsTrueAtOnceAndIsHandled)
{
    {
        Hold hold(&m_task);
        EXPECT_TRUE(TCTask::Ping(&m_task, 0));
        EXPECT_EQ(m_task.Size(), 1u);
        EXPECT_EQ(Notifications(), 0u);
    }
    EXPECT_TRUE(m_watchdog.WaitForNotifications(1));
}

TEST_F(PingTest, TaskWithoutWatchdogTimeAnswersWithoutNotifying)
{
    TestTask task;
    ASSERT_TRUE(task.Start("not supervised"));
    EXPECT_TRUE(TCTask::Ping(&task, LONG_MSEC));
    EXPECT_TRUE(TCTask::Ping(&task, 0));
    EXPECT_TRUE(Flush(&task));
    EXPECT_EQ(Notifications(), 0u);
}

TEST_F(PingTest, FailedNotificationPrintsAndThePingIsAnswered)
{
    m_watchdog.notifyResult = 5;
    EXPECT_TRUE(TCTask::Ping(&m_task, LONG_MSEC));
    EXPECT_EQ(CountLogLines("> Unable to notify watchdog service\n"), 1u);
}

TEST_F(PingTest, OvertakesOrdinaryEvents)
{
    std::size_t notificationsAtUser = 99;
    m_task.onUser = [&](const TSEvent*) {
        notificationsAtUser = Notifications();
        return true;
    };
    {
        Hold hold(&m_task);
        EXPECT_TRUE(Post(&m_task));
        EXPECT_TRUE(TCTask::Ping(&m_task, 0));
    }
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_EQ(notificationsAtUser, 1u);
}

TEST_F(PingTest, FireAndForgetCarriesNoPromise)
{
    Hold hold(&m_task);
    EXPECT_TRUE(TCTask::Ping(&m_task, 0));
    const std::optional<TSEvent> ping = TakePing();
    ASSERT_TRUE(ping.has_value());
    EXPECT_EQ(ping->wrappedData, nullptr);
    EXPECT_EQ(ping->sync, nullptr);
    EXPECT_FALSE(ping->flag);
    EXPECT_EQ(ping->param1, 0u);
    EXPECT_EQ(ping->param3, 0xFFFFu);
}

TEST_F(PingTest, WaitingOneCarriesAPromise)
{
    Hold hold(&m_task);
    EXPECT_FALSE(TCTask::Ping(&m_task, 1));
    const std::optional<TSEvent> ping = TakePing();
    ASSERT_TRUE(ping.has_value());
    EXPECT_NE(dynamic_cast<Promise*>(ping->wrappedData.get()), nullptr);
    EXPECT_EQ(ping->sync, nullptr);
}

TEST_F(PingTest, UnansweredInTimeReturnsFalseAndIsHandledLater)
{
    {
        Hold hold(&m_task);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(TCTask::Ping(&m_task, SHORT_MSEC));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(SHORT_MSEC));
        EXPECT_EQ(m_task.Size(), 1u);
    }
    EXPECT_TRUE(Flush(&m_task)); // its answer goes to nobody
    EXPECT_EQ(Notifications(), 1u);
    EXPECT_TRUE(TCTask::Ping(&m_task, LONG_MSEC));
}

TEST_F(PingTest, LongestTimeOutWaitsForTheAnswer)
{
    Hold hold(&m_task);
    bool answered = false;
    Caller caller([&] { answered = TCTask::Ping(&m_task, ~0ul); });
    EXPECT_TRUE(caller.Blocks());
    hold.Release();
    caller.Join();
    EXPECT_TRUE(answered);
}

TEST_F(PingTest, UnknownTaskReturnsFalseAndIsNotLookedAt)
{
    EXPECT_FALSE(TCTask::Ping(nullptr, LONG_MSEC));
    EXPECT_FALSE(TCTask::Ping(nullptr, 0));
    EXPECT_FALSE(TCTask::Ping(reinterpret_cast<TCTask*>(0x10), LONG_MSEC));
    TCTask notCreated;
    EXPECT_FALSE(TCTask::Ping(&notCreated, 0));
    auto task = std::make_unique<TestTask>();
    TestTask* const gone = task.get();
    ASSERT_TRUE(task->Start());
    task.reset();
    EXPECT_FALSE(TCTask::Ping(gone, LONG_MSEC));
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(PingTest, FullQueueReturnsFalse)
{
    Hold hold(&m_task);
    FillQueue(&m_task);
    EXPECT_FALSE(TCTask::Ping(&m_task, 0));
    EXPECT_FALSE(TCTask::Ping(&m_task, LONG_MSEC)); // at once
    EXPECT_FALSE(TakePing().has_value());
}

TEST_F(PingTest, PausedTaskIsSkippedAndReportedAlive)
{
    ASSERT_TRUE(m_task.Pause());
    for (const unsigned long msec : {0ul, LONG_MSEC}) {
        const LogRecord record;
        EXPECT_TRUE(TCTask::Ping(&m_task, msec));
        EXPECT_THAT(
            PauseLines(record),
            Contains("false 4 [pause_resume] Task is on pause skip sending ping.").Times(1));
        EXPECT_EQ(m_task.Size(), 0u);
    }
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(TCTask::Ping(&m_task, LONG_MSEC));
}

TEST_F(PingTest, DeletedRequestCountsAsAnswered)
{
    Hold hold(&m_task);
    bool answered = false;
    Caller caller([&] { answered = TCTask::Ping(&m_task, LONG_MSEC); });
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 1; }));
    EXPECT_TRUE(m_task.Delete(static_cast<TCHandler*>(&m_task), nullptr));
    caller.Join();
    EXPECT_TRUE(answered); // the answer's value is not looked at
    EXPECT_EQ(Notifications(), 0u);
}

TEST_F(PingTest, OnTheTasksOwnThreadTimesOut)
{
    bool answered = true;
    FunctionHandler handler(
        [&](const TSEvent*) {
            answered = TCTask::Ping(&m_task, SHORT_MSEC);
            return true;
        },
        &m_task);
    TSEvent event = EventTo(&handler);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_FALSE(answered);
    EXPECT_TRUE(m_watchdog.WaitForNotifications(1)); // it was sent
}

TEST_F(PingTest, EventWithAnotherAttachmentIsHandledAndNotAnswered)
{
    TSEvent event = EventTo(&m_task, TCTask::EVENT_PING);
    EXPECT_TRUE(m_task.OnPing(&event));
    std::promise<int> promise;
    const std::future<int> answer = promise.get_future();
    event.setWrappedData(std::move(promise));
    EXPECT_TRUE(m_task.OnPing(&event));
    EXPECT_EQ(answer.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    EXPECT_EQ(Notifications(), 2u);
}

TEST_F(PingTest, EventIsAnsweredTrue)
{
    std::promise<bool> promise;
    std::future<bool> answer = promise.get_future();
    TSEvent event = EventTo(&m_task, TCTask::EVENT_PING);
    event.setWrappedData(std::move(promise));
    EXPECT_TRUE(m_task.OnPing(&event));
    EXPECT_TRUE(answer.get());
}

TEST_F(PingTest, HandlingWithoutATaskOrAnEventAsserts)
{
    TestTask idle;
    const TSEvent event;
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", idle.OnPing(&event), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", m_task.OnPing(nullptr), "event != NULL");
}

/// Stops a pinging thread between its look-up of the task and the queuing of the ping.
class PingLockTest : public PingTest
{
 protected:
    pthread_t RegistrysHolder() const { return FieldAt<pthread_t>(TCTaskList::m_mutex, 24); }
};

TEST_F(PingLockTest, RegistryIsLockedFromTheLookUpToTheSend)
{
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_EXIT));
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 0; }));
    Gate sending;
    Gate release;
    std::atomic<pthread_t> pinger{0};
    const Takeover getAppData(getAppDataSeam, [&](const TCDebugPrint* self) -> const TSAppData& {
        if (pinger == pthread_self()) {
            sending.Pass();
            EXPECT_TRUE(release.Wait());
        }
        return getAppDataSeam.Real(self);
    });
    bool pinged = false;
    Caller caller([&] {
        pinger = pthread_self();
        pinged = TCTask::Ping(&m_task, 0);
    });
    ASSERT_TRUE(sending.Wait());
    EXPECT_EQ(RegistrysHolder(), pinger.load());
    Caller destroyer([this] { m_task.Destroy(); });
    EXPECT_TRUE(destroyer.Blocks());
    EXPECT_TRUE(m_task.FlagCreate());
    EXPECT_TRUE(m_task.IsQueueCreated());
    release.Pass();
    caller.Join();
    EXPECT_TRUE(pinged);
    destroyer.Join();
    EXPECT_FALSE(m_task.FlagCreate());
}

TEST_F(PingLockTest, RegistryIsFreeDuringTheWaitForTheAnswer)
{
    Hold hold(&m_task);
    Caller caller([this] { EXPECT_TRUE(TCTask::Ping(&m_task, LONG_MSEC)); });
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 1; }));
    EXPECT_TRUE(caller.Blocks());
    EXPECT_TRUE(IsRegistered(&m_task)); // takes the lock
    EXPECT_FALSE(caller.IsDone());
    hold.Release();
    caller.Join();
}

TEST_F(PingLockTest, RegistryIsFreeAfterEveryKindOfPing)
{
    EXPECT_TRUE(TCTask::Ping(&m_task, LONG_MSEC));
    EXPECT_EQ(RegistrysHolder(), 0u);
    EXPECT_TRUE(TCTask::Ping(&m_task, 0));
    EXPECT_EQ(RegistrysHolder(), 0u);
    EXPECT_FALSE(TCTask::Ping(nullptr, 0));
    EXPECT_EQ(RegistrysHolder(), 0u);
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(TCTask::Ping(&m_task, 0));
    EXPECT_EQ(RegistrysHolder(), 0u);
    EXPECT_FALSE(TCTask::ClearQueue(&m_task, 0));
    EXPECT_EQ(RegistrysHolder(), 0u);
    EXPECT_FALSE(TCTask::ClearQueue(nullptr, 0));
    EXPECT_EQ(RegistrysHolder(), 0u);
    ASSERT_TRUE(m_task.ResumeAsync());
    Hold hold(&m_task);
    FillQueue(&m_task);
    EXPECT_FALSE(TCTask::Ping(&m_task, 0));
    EXPECT_EQ(RegistrysHolder(), 0u);
    EXPECT_FALSE(TCTask::ClearQueue(&m_task, 0));
    EXPECT_EQ(RegistrysHolder(), 0u);
}

/// Ping() called on the task.
class DeprecatedPingTest : public PingTest
{};

TEST_F(DeprecatedPingTest, IsAnsweredByARunningTask)
{
    EXPECT_TRUE(DeprecatedPing(&m_task, LONG_MSEC));
    EXPECT_EQ(Notifications(), 1u);
}

TEST_F(DeprecatedPingTest, PrintsOnEveryCall)
{
    for (std::size_t calls = 1; calls <= 3; ++calls) {
        EXPECT_TRUE(DeprecatedPing(&m_task, LONG_MSEC));
        EXPECT_EQ(CountLogLines(DEPRECATED), calls);
    }
}

TEST_F(DeprecatedPingTest, UnansweredInTimeReturnsFalse)
{
    {
        Hold hold(&m_task);
        EXPECT_FALSE(DeprecatedPing(&m_task, SHORT_MSEC));
        EXPECT_EQ(m_task.Size(), 1u);
    }
    EXPECT_TRUE(m_watchdog.WaitForNotifications(1));
}

TEST_F(DeprecatedPingTest, WithoutWaitingCarriesAPromiseAndReturnsFalse)
{
    Hold hold(&m_task);
    EXPECT_FALSE(DeprecatedPing(&m_task, 0));
    const std::optional<TSEvent> ping = TakePing();
    ASSERT_TRUE(ping.has_value());
    EXPECT_NE(dynamic_cast<Promise*>(ping->wrappedData.get()), nullptr);
}

TEST_F(DeprecatedPingTest, PausedTaskIsSkippedAndReportedAlive)
{
    ASSERT_TRUE(m_task.Pause());
    ClearLog();
    const LogRecord record;
    EXPECT_TRUE(DeprecatedPing(&m_task, LONG_MSEC));
    EXPECT_THAT(PauseLines(record),
                Contains("false 4 [pause_resume] Deprecated ping skip on pause").Times(1));
    EXPECT_EQ(CountLogLines(DEPRECATED), 1u);
    EXPECT_EQ(m_task.Size(), 0u);
    ASSERT_TRUE(m_task.ResumeAsync());
}

TEST_F(DeprecatedPingTest, OnTheTasksOwnThreadReturnsFalseWithoutSending)
{
    bool answered = true;
    std::size_t queued = 99;
    Gate done;
    FunctionHandler handler(
        [&](const TSEvent*) {
            answered = DeprecatedPing(&m_task, LONG_MSEC);
            queued = m_task.Size();
            done.Pass();
            return true;
        },
        &m_task);
    EXPECT_TRUE(Post(&handler));
    ASSERT_TRUE(done.Wait());
    EXPECT_FALSE(answered);
    EXPECT_EQ(queued, 0u);
    EXPECT_EQ(CountLogLines(DEPRECATED), 1u);
}

TEST_F(DeprecatedPingTest, FullQueueReturnsFalse)
{
    Hold hold(&m_task);
    FillQueue(&m_task);
    EXPECT_FALSE(DeprecatedPing(&m_task, LONG_MSEC));
}

TEST_F(DeprecatedPingTest, NeedsNoRegistry)
{
    const RegistryLock lock;
    Caller caller([this] { EXPECT_TRUE(DeprecatedPing(&m_task, LONG_MSEC)); });
    caller.Join();
}

TEST_F(PingTest, StormIsSafeWhileTasksComeAndGo)
{
    constexpr int TASKS = 3;
    constexpr int ROUNDS = 60;
    std::vector<TestTask> tasks(TASKS);
    std::atomic<int> working{TASKS};
    std::vector<std::thread> threads;
    for (TestTask& task : tasks) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                EXPECT_TRUE(task.Start("storm", LONG_WAIT_MSEC, 7));
                task.End();
            }
            --working;
        });
    }
    std::atomic<int> pings{0};
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, msec = i == 0 ? 0ul : 2ul] {
            while (working > 0) {
                for (TestTask& task : tasks) {
                    TCTask::Ping(&task, msec);
                    ++pings;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(pings, 0);
    EXPECT_TRUE(TCTask::Ping(&m_task, LONG_MSEC));
    for (TestTask& task : tasks) {
        EXPECT_FALSE(TCTask::Ping(&task, 0));
    }
}

} // namespace
