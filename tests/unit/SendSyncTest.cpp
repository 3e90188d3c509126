#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ConsoleSeam.h"
#include "TCDebugPrint.h"
#include "TaskScopeTraceSeam.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The calls in progress. Nobody may enter or leave one meanwhile.
std::vector<PTSyncDetInfo> ListedCalls()
{
    std::vector<PTSyncDetInfo> listed;
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        if (TCSyncDet::m_arrPCSyncDet[i].bValid) {
            listed.push_back(TCSyncDet::m_arrPCSyncDet[i]);
        }
    }
    return listed;
}

/// A task that sends to itself: what a function does when it is run on the task's thread.
class SendOwnThreadTest : public ::testing::Test
{
 protected:
    SendOwnThreadTest() { EXPECT_TRUE(m_task.Start("own")); }

    /// Runs @p body on the task's thread. Nothing is queued and nobody waits meanwhile.
    void OnTheTasksThread(const std::function<void()>& body)
    {
        FunctionHandler runner(
            [&](const TSEvent*) {
                body();
                return true;
            },
            &m_task);
        EXPECT_TRUE(Post(&runner));
        EXPECT_TRUE(Eventually([&] { return runner.Handled() == 1; }));
    }

    const TaskRuntime m_runtime;
    TestTask m_task;
};

TEST_F(SendOwnThreadTest, SynchronousPrioritySendRunsTheHandlerAtOnce)
{
    for (const bool flag : {false, true}) {
        OnTheTasksThread([this, flag] {
            Trace trace;
            FunctionHandler handler(
                [&](const TSEvent*) {
                    trace.Add("handler");
                    EXPECT_EQ(m_task.Size(), 0u);
                    return false;
                },
                &m_task);
            TSEvent event = EventTo(&handler);
            event.flag = flag;
            EXPECT_TRUE(TCTask::Send(&event, true, true)); // whatever the handler answers
            trace.Add("sent");
            EXPECT_THAT(trace.Get(), ElementsAre("handler", "sent"));
            EXPECT_EQ(m_task.Size(), 0u);
        });
    }
}

TEST_F(SendOwnThreadTest, SynchronousPrioritySendOvertakesTheWholeQueue)
{
    OnTheTasksThread([this] {
        Trace trace;
        FillQueue(&m_task);
        FunctionHandler handler(
            [&](const TSEvent*) {
                trace.Add("handler");
                return true;
            },
            &m_task);
        TSEvent event = EventTo(&handler);
        EXPECT_TRUE(TCTask::Send(&event, true, true)); // full as it is
        EXPECT_THAT(trace.Get(), ElementsAre("handler"));
        EXPECT_EQ(m_task.Size(), 256u);
    });
}

TEST_F(SendOwnThreadTest, DirectCallLeavesTheEventUntouched)
{
    OnTheTasksThread([this] {
        TCDebugPrintZOR::GetInstance()->SetAppData("the thread's", 9);
        const TSEvent* seen = nullptr;
        TSEvent event;
        FunctionHandler handler(
            [&](const TSEvent* handled) {
                seen = handled;
                return true;
            },
            &m_task);
        event.receiver = &handler;
        event.sender = 99;
        event.appName = "the event's";
        event.appFlag = 8;
        EXPECT_TRUE(TCTask::Send(&event, true, true));
        EXPECT_EQ(seen, &event); // no copy
        EXPECT_EQ(event.sync, nullptr);
        EXPECT_EQ(event.sender, 99u);
        EXPECT_EQ(event.appName, "the event's");
        EXPECT_EQ(event.appFlag, 8);
        // Nor is the thread's application changed by it.
        EXPECT_EQ(TCDebugPrintZOR::GetInstance()->GetAppData().name, "the thread's");
    });
}

TEST_F(SendOwnThreadTest, DirectCallGivesNoReply)
{
    OnTheTasksThread([this] {
        TCSemaphore reply;
        ASSERT_TRUE(reply.Create(0));
        FunctionHandler handler([](const TSEvent*) { return true; }, &m_task);
        TSEvent event = EventTo(&handler);
        event.sync = &reply;
        EXPECT_TRUE(TCTask::Send(&event, true, true));
        EXPECT_FALSE(reply.Try(0));
        reply.Destroy();
    });
}

TEST_F(SendOwnThreadTest, SynchronousOrdinarySendAssertsAndReturnsFalse)
{
    OnTheTasksThread([this] {
        FunctionHandler handler([](const TSEvent*) { return true; }, &m_task);
        for (const bool flag : {false, true}) {
            TSEvent event = EventTo(&handler);
            event.flag = flag;
            EXPECT_THAT(AssertionsOf([&] { EXPECT_FALSE(TCTask::Send(&event, true, false)); }),
                        ElementsAre("priority == true"));
        }
        EXPECT_EQ(handler.Handled(), 0);
        EXPECT_EQ(m_task.Size(), 0u);
    });
}

using SendOwnThreadDeathTest = SendOwnThreadTest;

TEST_F(SendOwnThreadDeathTest, SynchronousOrdinarySendAsserts)
{
    const auto sendToItself = [this] {
        OnTheTasksThread([this] {
            TSEvent event = EventTo(&m_task);
            TCTask::Send(&event, true, false);
        });
    };
    EXPECT_ASSERT_DEATH(sendToItself(), "priority == true");
}

/// Which calls are listed while a synchronous send is under way, and after it.
class SendListedTest : public SendOwnThreadTest
{
 protected:
    SendListedTest()
    {
        m_task.onUser = [this](const TSEvent*) {
            m_listed = ListedCalls();
            return true;
        };
    }

    ~SendListedTest() override { m_task.End(); } // before what its hook writes to goes

    bool Send(bool sync, bool priority, TCHandler* receiver = nullptr)
    {
        TSEvent event = EventTo(receiver != nullptr ? receiver : &m_task);
        return TCTask::Send(&event, sync, priority);
    }

    std::vector<PTSyncDetInfo> m_listed; ///< during the handling
};

TEST_F(SendListedTest, SynchronousCallIsListedWhileItWaits)
{
    for (const bool priority : {false, true}) {
        m_listed.clear();
        EXPECT_TRUE(Send(true, priority));
        ASSERT_EQ(m_listed.size(), 1u);
        EXPECT_EQ(m_listed[0].callerId, static_cast<std::int32_t>(pthread_self()));
        EXPECT_EQ(m_listed[0].callerTid, static_cast<std::int32_t>(syscall(SYS_gettid)));
        EXPECT_EQ(m_listed[0].receiverThread, static_cast<std::uint32_t>(m_task.Id()));
        EXPECT_STREQ(m_listed[0].receiverName, "own");
        EXPECT_THAT(ListedCalls(), IsEmpty());
    }
}

TEST_F(SendListedTest, AsynchronousCallIsNotListed)
{
    Gate handled; // nobody may call meanwhile, not to wait either
    m_task.onUser = [&](const TSEvent*) {
        m_listed = ListedCalls();
        handled.Pass();
        return true;
    };
    {
        Hold hold(&m_task);
        EXPECT_TRUE(Send(false, false));
        EXPECT_THAT(ListedCalls(), IsEmpty());
    }
    EXPECT_TRUE(handled.Wait());
    m_task.End(); // before the gate goes
    EXPECT_THAT(m_listed, IsEmpty());
}

TEST_F(SendListedTest, RefusedCallIsRemoved)
{
    Hold hold(&m_task);
    FillQueue(&m_task);
    EXPECT_FALSE(Send(true, false));
    EXPECT_FALSE(Send(true, true));
    EXPECT_THAT(ListedCalls(), IsEmpty());
}

TEST_F(SendListedTest, DirectCallIsListedWhileTheHandlerRunsAndRemoved)
{
    OnTheTasksThread([this] {
        FunctionHandler handler(
            [&](const TSEvent*) {
                m_listed = ListedCalls();
                return true;
            },
            &m_task);
        EXPECT_TRUE(Send(true, true, &handler));
    });
    ASSERT_EQ(m_listed.size(), 1u);
    EXPECT_EQ(m_listed[0].callerId, static_cast<std::int32_t>(m_task.Id()));
    EXPECT_STREQ(m_listed[0].callerName, "own");
    EXPECT_STREQ(m_listed[0].receiverName, "own");
    EXPECT_THAT(ListedCalls(), IsEmpty());
}

TEST_F(SendListedTest, CallThatFailsThePriorityAssertionIsRemoved)
{
    OnTheTasksThread([this] {
        EXPECT_THAT(AssertionsOf([&] { EXPECT_FALSE(Send(true, false)); }),
                    ElementsAre("priority == true"));
    });
    EXPECT_THAT(ListedCalls(), IsEmpty());
}

TEST_F(SendListedTest, CallToADestroyedTaskIsRemoved)
{
    FunctionHandler handler([](const TSEvent*) { return true; }, &m_task);
    m_task.End();
    AssertionsOf([&] { EXPECT_FALSE(Send(true, false, &handler)); });
    EXPECT_THAT(ListedCalls(), IsEmpty());
    ASSERT_TRUE(m_task.Start()); // the handler cannot go without its task
    handler.Destroy();
}

TEST_F(SendListedTest, CallReleasedByDeletionIsRemoved)
{
    Hold hold(&m_task);
    Caller sender([this] { EXPECT_TRUE(Send(true, false)); });
    ASSERT_TRUE(sender.Blocks());
    EXPECT_TRUE(m_task.Delete(static_cast<TCHandler*>(&m_task), nullptr));
    sender.Join();
    EXPECT_THAT(ListedCalls(), IsEmpty());
}

TEST_F(SendListedTest, WithoutATableCallsGoUnlisted)
{
    ASSERT_TRUE(TCSyncDet::Destroy());
    int handled = 0;
    FunctionHandler handler(
        [&](const TSEvent*) {
            ++handled;
            return true;
        },
        &m_task);
    EXPECT_THAT(AssertionsOf([&] { EXPECT_TRUE(Send(true, false, &handler)); }), IsEmpty());
    EXPECT_EQ(handled, 1);
    ASSERT_TRUE(TCSyncDet::Create());
}

TEST_F(SendListedTest, FailedRemovalAssertsAndTheResultStands)
{
    FunctionHandler handler(
        [](const TSEvent*) {
            EXPECT_TRUE(TCSyncDet::Destroy());
            return true;
        },
        &m_task);
    const auto failed = AssertionsOf([&] { EXPECT_TRUE(Send(true, false, &handler)); });
    EXPECT_EQ(handler.Handled(), 1);
    ASSERT_FALSE(failed.empty());
    EXPECT_EQ(failed.back(), "!iRet");
    ASSERT_TRUE(TCSyncDet::Create());
}

constexpr char PAUSED_FORMAT[] =
    "TCTask::%s [pause_resume] WARNING: event->type[%d] was send to paused task and is not "
    "processed yet.";

/// The warning about events to a paused task.
class SendToPausedTest : public ::testing::Test
{
 protected:
    SendToPausedTest()
    {
        m_task.onUser = [this](const TSEvent*) {
            m_trace.Add("user");
            return true;
        };
        m_task.onResume = [this](const TSEvent*) { m_trace.Add("resumed"); };
        EXPECT_TRUE(m_task.Start());
        ClearScopeTraces();
    }

    const TaskRuntime m_runtime;
    Trace m_trace;
    TestTask m_task;
};

TEST_F(SendToPausedTest, AsynchronousSendWarnsAndIsHandledAfterTheResume)
{
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(Post(&m_task));
    const std::vector<ScopeTrace> traces = ScopeTraces();
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0].format, PAUSED_FORMAT);
    EXPECT_EQ(
        traces[0].text,
        "TCTask::m_Send [pause_resume] WARNING: event->type[1] was send to paused task and is "
        "not processed yet.");
    EXPECT_FALSE(traces[0].alive);
    EXPECT_EQ(m_task.Size(), 1u);
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("resumed", "user"));
}

TEST_F(SendToPausedTest, WarningTellsTheEventsType)
{
    FunctionHandler handler([](const TSEvent*) { return true; }, &m_task);
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(Post(&handler, 4711));
    const std::vector<ScopeTrace> traces = ScopeTraces();
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_NE(traces[0].text.find("event->type[4711]"), std::string::npos);
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
}

TEST_F(SendToPausedTest, WarningOfASynchronousSendSpansItsWait)
{
    ASSERT_TRUE(m_task.Pause());
    Caller sender([this] {
        TSEvent event = EventTo(&m_task);
        EXPECT_TRUE(TCTask::Send(&event, true, false));
    });
    EXPECT_TRUE(sender.Blocks());
    ASSERT_EQ(ScopeTraces().size(), 1u);
    EXPECT_TRUE(ScopeTraces()[0].alive);
    ASSERT_TRUE(m_task.ResumeAsync());
    sender.Join();
    ASSERT_EQ(ScopeTraces().size(), 1u);
    EXPECT_FALSE(ScopeTraces()[0].alive);
    EXPECT_THAT(m_trace.Get(), ElementsAre("resumed", "user"));
}

TEST_F(SendToPausedTest, EverySendWarnsPriorityAndRefusedOnesToo)
{
    ASSERT_TRUE(m_task.Pause());
    FillQueue(&m_task);
    EXPECT_EQ(ScopeTraces().size(), 257u); // 256 that were queued and one that was not
    EXPECT_FALSE(Post(&m_task));
    EXPECT_EQ(ScopeTraces().size(), 258u);
    ASSERT_TRUE(m_task.ResumeAsync());
}

TEST_F(SendToPausedTest, SendToARunningTaskDoesNotWarn)
{
    EXPECT_TRUE(Post(&m_task));
    EXPECT_TRUE(Flush(&m_task));
    ASSERT_TRUE(m_task.Pause());
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(ScopeTraces(), IsEmpty());
}

TEST_F(SendToPausedTest, TaskIsNotPausedUntilItWaits)
{
    m_task.onPause = [this](const TSEvent*) { EXPECT_TRUE(Post(&m_task)); };
    m_task.onResume = [this](const TSEvent*) { EXPECT_TRUE(Post(&m_task)); };
    ASSERT_TRUE(m_task.Pause());
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(ScopeTraces(), IsEmpty());
}

} // namespace
