#include <pthread.h>
#include <sys/prctl.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "AllocationSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "DiagnosticSeams.h"
#include "FaultCase.h"
#include "LogSeam.h"
#include "TaskSeams.h"
#include "TaskSupport.h"
#include "ThreadSeams.h"
#include "TimesSeams.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;

class TaskFaultsTest : public ::testing::Test
{
 protected:
    TaskFaultsTest() { ClearLog(); }

    /// The task handles what another thread sends to it, and no call is listed any more.
    void ExpectWorks()
    {
        OnAnotherThread([this] { EXPECT_TRUE(Flush(&m_task)); });
        for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
            EXPECT_FALSE(TCSyncDet::m_arrPCSyncDet[i].bValid) << i;
        }
    }

    const TaskRuntime m_runtime;
    FakeWatchdog m_watchdog;
    TestTask m_task;
};

// Creation, by the number of the semaphore that cannot be made.

struct Semaphore
{
    int number;
    const char* name;
};

class TaskCreateFaultsTest : public TaskFaultsTest, public ::testing::WithParamInterface<Semaphore>
{
 protected:
    static std::string Place()
    {
        return "TCTask::Create (call " + std::to_string(GetParam().number + 1) + ", " +
               GetParam().name + ")";
    }

    static std::string Outcome()
    {
        return "`Create()` is false, nothing stays, the task is not registered; it works the next "
               "time";
    }

    /// Create() fails and undoes what it did.
    void ExpectCreateFails()
    {
        EXPECT_FALSE(m_task.Start());
        EXPECT_FALSE(m_task.FlagCreate());
        EXPECT_FALSE(m_task.IsQueueCreated());
        EXPECT_FALSE(m_task.IsThreadCreated());
        EXPECT_FALSE(IsRegistered(&m_task));
    }

    void ExpectCreateWorks()
    {
        ASSERT_TRUE(m_task.Start());
        EXPECT_TRUE(IsRegistered(&m_task));
        ExpectWorks();
    }
};

TEST_P(TaskCreateFaultsTest, WithoutTheConditionCreateFails)
{
    const FaultCase fault("pthread_cond_init", Place(), Outcome());
    {
        const FailingCall refused(condInitSeam, EAGAIN, GetParam().number);
        ExpectCreateFails();
    }
    ExpectCreateWorks();
}

TEST_P(TaskCreateFaultsTest, WithoutTheMemoryCreateFails)
{
    const FaultCase fault("operator new (nothrow)", Place(), Outcome());
    {
        const FailingCall noMemory(nothrowNewSeam, nullptr, GetParam().number);
        ExpectCreateFails();
    }
    ExpectCreateWorks();
}

INSTANTIATE_TEST_SUITE_P(Semaphores, TaskCreateFaultsTest,
                         ::testing::Values(Semaphore{0, "queue's lock"},
                                           Semaphore{1, "event count"}, Semaphore{2, "start gate"},
                                           Semaphore{3, "exit gate"}, Semaphore{4, "m_pidSync"}));

TEST_F(TaskFaultsTest, RefusedThreadIsAssertedAndUndoesQueueAndHandler)
{
    const FaultCase fault("pthread_create", "TCTask::Create",
                          "asserts \"0\"; `Create()` is false, queue and handler are undone, the "
                          "task is not registered");
    // Of a thread that never was a semaphore stays, which its destructor would assert.
    static auto* const refused = new TestTask;
    const std::vector<std::string> failed = AssertionsOf([] {
        const FailingCall create(pthreadCreateSeam, EAGAIN);
        EXPECT_FALSE(refused->Start());
    });
    EXPECT_THAT(failed, ElementsAre("0"));
    EXPECT_FALSE(refused->FlagCreate());
    EXPECT_FALSE(refused->IsQueueCreated());
    EXPECT_FALSE(IsRegistered(refused));
    ASSERT_TRUE(m_task.Start());
    ExpectWorks();
}

// The loop.

TEST_F(TaskFaultsTest, RefusedRegistrationWithTheWatchdogIsPrinted)
{
    const FaultCase fault(
        "brisk_deadlock_register_watchdog_service", "TCTask::t_Main",
        "\"Unable to register watchdog service\\n\" is printed; the task runs on");
    m_watchdog.registerResult = -1;
    ASSERT_TRUE(m_task.Start("task", LONG_WAIT_MSEC, 7));
    ExpectWorks();
    EXPECT_EQ(m_watchdog.TimeOuts().size(), 1u);
    FaultCase::Injected();
    EXPECT_EQ(CountLogLines("> Unable to register watchdog service\n"), 1u);
}

TEST_F(TaskFaultsTest, RefusedNotificationOfAPingIsPrintedAndThePingAnswered)
{
    const FaultCase fault("brisk_deadlock_watchdog_notify", "TCTask::OnPing",
                          "\"Unable to notify watchdog service\\n\" is printed; the ping is "
                          "answered");
    ASSERT_TRUE(m_task.Start("task", LONG_WAIT_MSEC, 7));
    m_watchdog.notifyResult = 1;
    EXPECT_TRUE(TCTask::Ping(&m_task, LONG_WAIT_MSEC));
    EXPECT_EQ(m_watchdog.Notifiers().size(), 1u);
    FaultCase::Injected();
    EXPECT_EQ(CountLogLines("> Unable to notify watchdog service\n"), 1u);
    ExpectWorks();
}

TEST_F(TaskFaultsTest, RefusedNotificationOfAPausedTaskIsPrintedAndThePauseGoesOn)
{
    const FaultCase fault("brisk_deadlock_watchdog_notify", "TCTask::OnPause",
                          "\"Unable to notify watchdog service\\n\" is printed each second; the "
                          "task stays paused and can be resumed");
    ASSERT_TRUE(m_task.Start());
    m_watchdog.notifyResult = 1;
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(m_watchdog.WaitForNotifications(1));
    FaultCase::Injected();
    EXPECT_TRUE(
        Eventually([] { return CountLogLines("> Unable to notify watchdog service\n") >= 1; }));
    EXPECT_TRUE(m_task.IsPaused());
    EXPECT_TRUE(m_task.ResumeAsync());
    ExpectWorks();
}

/// The calling thread's readings of the clock fail.
thread_local bool tWithoutClock = false;

TEST_F(TaskFaultsTest, LoopWithoutAClockIdlesAtOnceAndHandlesEventsAllTheSame)
{
    const FaultCase fault("clock_gettime", "TCTask::ExecuteEvent",
                          "the wait for an event is over at once, so `t_Idle()` runs without a "
                          "pause; events are handled");
    const Takeover noClock(clockGettimeSeam, [](clockid_t id, timespec* now) {
        if (!tWithoutClock) {
            return clockGettimeSeam.Real(id, now);
        }
        FaultCase::Injected();
        return -1;
    });
    std::atomic<int> idles{0};
    m_task.onCreate = [] { return tWithoutClock = true; };
    m_task.onDestroy = [] { tWithoutClock = false; };
    m_task.onIdle = [&idles] { ++idles; };
    ASSERT_TRUE(m_task.Start());
    EXPECT_TRUE(Eventually([&idles] { return idles >= 3; }));
    ExpectWorks();
    m_task.End();
}

// Synchronous sends.

TEST_F(TaskFaultsTest, SynchronousSendWithoutMemoryForItsReplyIsFalse)
{
    const FaultCase fault("operator new (nothrow)", "TCQueue::PutSync (synchronous)",
                          "`Send()` is false, nothing is queued, the call is not listed any more");
    ASSERT_TRUE(m_task.Start());
    int handled = 0;
    m_task.onUser = [&handled](const TSEvent*) { return ++handled > 0; };
    TSEvent event = EventTo(&m_task);
    {
        const FailingCall noMemory(nothrowNewSeam, nullptr);
        EXPECT_FALSE(TCTask::Send(&event, true, false));
    }
    EXPECT_EQ(m_task.Size(), 0u);
    ExpectWorks();
    EXPECT_EQ(handled, 0);
}

TEST_F(TaskFaultsTest, SynchronousSendWithoutAConditionForItsReplyIsFalse)
{
    const FaultCase fault("pthread_cond_init", "TCQueue::PutSync (synchronous)",
                          "`Send()` is false, nothing is queued, the call is not listed any more");
    ASSERT_TRUE(m_task.Start());
    TSEvent event = EventTo(&m_task);
    {
        const FailingCall refused(condInitSeam, EAGAIN);
        EXPECT_FALSE(TCTask::Send(&event, true, false));
    }
    EXPECT_EQ(m_task.Size(), 0u);
    ExpectWorks();
}

TEST_F(TaskFaultsTest, CallerWithoutANameIsListedWithTwoQuestionMarks)
{
    const FaultCase fault("prctl", "TCSyncDet::PCTaskSyncMonitoring (PR_GET_NAME)",
                          "asserts \"!iRet\"; the call is listed under \"??\" and made");
    std::string listed;
    m_task.onUser = [&listed](const TSEvent*) {
        listed = TCSyncDet::m_arrPCSyncDet[0].callerName;
        return true;
    };
    ASSERT_TRUE(m_task.Start());
    TSEvent event = EventTo(&m_task);
    const std::vector<std::string> failed = AssertionsOf([&event] {
        const FailingCall refused(prctlSeam, -1);
        EXPECT_TRUE(TCTask::Send(&event, true, false));
    });
    EXPECT_THAT(failed, ElementsAre("!iRet"));
    EXPECT_EQ(listed, "??");
    ExpectWorks();
}

TEST_F(TaskFaultsTest, CallAtAnUnknownTimeIsListedWithAllOnes)
{
    const FaultCase fault("times", "TCSyncDet::Add",
                          "\"QLN Warning: times() return error(-1).\\n\" is printed; the call is "
                          "listed with a tick of all ones and made");
    std::uint32_t tick = 0;
    m_task.onUser = [&tick](const TSEvent*) {
        tick = TCSyncDet::m_arrPCSyncDet[0].startTick;
        return true;
    };
    ASSERT_TRUE(m_task.Start());
    TSEvent event = EventTo(&m_task);
    {
        const FailingCall unknown(timesSeam, static_cast<clock_t>(-1));
        EXPECT_TRUE(TCTask::Send(&event, true, false));
    }
    EXPECT_EQ(tick, ~std::uint32_t{0});
    EXPECT_EQ(CountLogLines("> QLN Warning: times() return error(-1).\n"), 1u);
    ExpectWorks();
}

// The services below tasks.

TEST(SyncTableFaultsTest, WithoutTheLocksSemaphoreThereIsNoTable)
{
    const FaultCase fault("operator new (nothrow)", "TCSyncDet::Create",
                          "`Create()` is false, the lock object stays and there is no table; "
                          "`Destroy()` frees the lock, asserting \"FlagCreate()\"");
    {
        const FailingCall noMemory(nothrowNewSeam, nullptr);
        EXPECT_FALSE(TCSyncDet::Create());
    }
    EXPECT_FALSE(TCSyncDet::FlagCreate());
    EXPECT_THAT(AssertionsOf([] { EXPECT_TRUE(TCSyncDet::Destroy()); }),
                ElementsAre("FlagCreate()"));
    EXPECT_TRUE(TCSyncDet::Create());
    EXPECT_TRUE(TCSyncDet::Destroy());
}

TEST(SyncTableFaultsTest, WithoutTheLocksConditionThereIsNoTable)
{
    const FaultCase fault("pthread_cond_init", "TCSyncDet::Create",
                          "`Create()` is false, the lock object stays and there is no table; "
                          "`Destroy()` frees the lock, asserting \"FlagCreate()\"");
    {
        const FailingCall refused(condInitSeam, EAGAIN);
        EXPECT_FALSE(TCSyncDet::Create());
    }
    EXPECT_FALSE(TCSyncDet::FlagCreate());
    EXPECT_THAT(AssertionsOf([] { EXPECT_TRUE(TCSyncDet::Destroy()); }),
                ElementsAre("FlagCreate()"));
}

} // namespace
