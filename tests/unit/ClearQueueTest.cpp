#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <typeinfo>
#include <vector>

#include "ConsoleSeam.h"
#include "LogSeam.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr unsigned long LONG_MSEC = 60000;
constexpr unsigned long SHORT_MSEC = 20;

/// A running task with a handler beside its own.
class ClearQueueTest : public ::testing::Test
{
 protected:
    ClearQueueTest()
    {
        m_task.onUser = [this](const TSEvent* event) {
            m_trace.Add("user " + std::to_string(event->param1));
            return true;
        };
        EXPECT_TRUE(m_task.Start());
        EXPECT_TRUE(m_other.Create(&m_task));
        ClearLog();
    }

    ~ClearQueueTest() override
    {
        if (m_other.FlagCreate()) {
            m_other.Destroy();
        }
    }

    const TaskRuntime m_runtime;
    Trace m_trace;
    FunctionHandler m_other{[this](const TSEvent* event) {
        m_trace.Add("other " + std::to_string(event->param1));
        return true;
    }};
    TestTask m_task;
};

TEST_F(ClearQueueTest, DropsTheTasksOwnEventsAndKeepsThoseOfOtherHandlers)
{
    Hold hold(&m_task);
    for (std::uint32_t i = 1; i <= 3; ++i) {
        EXPECT_TRUE(Post(&m_task, TCTask::EVENT_USER, i));
        EXPECT_TRUE(Post(&m_other, TCTask::EVENT_USER, i));
    }
    bool answered = false;
    Caller caller([&] { answered = TCTask::ClearQueue(&m_task, LONG_MSEC); });
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 7; })); // with the request
    hold.Release();
    caller.Join();
    EXPECT_TRUE(answered);
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("other 1", "other 2", "other 3"));
}

TEST_F(ClearQueueTest, DropsEveryTypeOfEventForTheTask)
{
    {
        Hold hold(&m_task);
        EXPECT_TRUE(Post(&m_task, TCTask::EVENT_EXIT));
        EXPECT_TRUE(Post(&m_task, 4711));
        EXPECT_FALSE(TCTask::ClearQueue(&m_task, 0));
    }
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_TRUE(Flush(&m_task)); // the loop has not ended
}

TEST_F(ClearQueueTest, EmptyQueueIsAnsweredToo)
{
    EXPECT_TRUE(TCTask::ClearQueue(&m_task, LONG_MSEC));
}

TEST_F(ClearQueueTest, ReleasesASynchronousSenderOfADroppedEvent)
{
    Hold hold(&m_task);
    bool sent = false;
    Caller sender([&] {
        TSEvent event = EventTo(&m_task);
        sent = TCTask::Send(&event, true, false);
    });
    EXPECT_TRUE(sender.Blocks());
    EXPECT_FALSE(TCTask::ClearQueue(&m_task, 0));
    hold.Release();
    sender.Join();
    EXPECT_TRUE(sent);
    EXPECT_THAT(m_trace.Get(), IsEmpty());
}

TEST_F(ClearQueueTest, DefaultHookReturnsWhetherThereWereAny)
{
    Hold hold(&m_task);
    TSEvent event = EventTo(&m_task, TCTask::EVENT_CLEAR_QUEUE);
    EXPECT_FALSE(m_task.t_OnClearQueue(&event));
    EXPECT_TRUE(Post(&m_other));
    EXPECT_FALSE(m_task.t_OnClearQueue(&event));
    EXPECT_TRUE(Post(&m_task));
    EXPECT_TRUE(m_task.t_OnClearQueue(&event));
    EXPECT_EQ(m_task.Size(), 1u);
    m_other.Destroy(); // with its event
}

TEST_F(ClearQueueTest, RequestIsAPriorityEventWithAPromiseWhateverTheTimeOut)
{
    Hold hold(&m_task);
    for (const unsigned long msec : {0ul, 1ul}) {
        EXPECT_TRUE(Post(&m_task));
        EXPECT_FALSE(TCTask::ClearQueue(&m_task, msec));
        TSEvent event;
        EXPECT_TRUE(m_task.GetSyncQData(&event, false)); // the first in the queue
        EXPECT_EQ(event.type, TCTask::EVENT_CLEAR_QUEUE);
        EXPECT_EQ(event.receiver, &m_task);
        EXPECT_EQ(event.sync, nullptr);
        EXPECT_FALSE(event.flag);
        EXPECT_NE(dynamic_cast<ZORManagedEventData<std::promise<bool>>*>(event.wrappedData.get()),
                  nullptr);
    }
}

TEST_F(ClearQueueTest, WithoutWaitingReturnsFalseAndIsHandledAllTheSame)
{
    {
        Hold hold(&m_task);
        EXPECT_TRUE(Post(&m_task));
        EXPECT_FALSE(TCTask::ClearQueue(&m_task, 0));
    }
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), IsEmpty());
}

TEST_F(ClearQueueTest, AnswerAfterTheTimeOutGoesToNobody)
{
    {
        Hold hold(&m_task);
        EXPECT_TRUE(Post(&m_task));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(TCTask::ClearQueue(&m_task, SHORT_MSEC));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(SHORT_MSEC));
    }
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), IsEmpty()); // it was done late
    EXPECT_TRUE(TCTask::ClearQueue(&m_task, LONG_MSEC));
}

TEST_F(ClearQueueTest, UnknownTaskReturnsFalse)
{
    EXPECT_FALSE(TCTask::ClearQueue(nullptr, LONG_MSEC));
    EXPECT_FALSE(TCTask::ClearQueue(reinterpret_cast<TCTask*>(0x10), LONG_MSEC));
    TCTask notCreated;
    EXPECT_FALSE(TCTask::ClearQueue(&notCreated, LONG_MSEC));
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ClearQueueTest, FullQueueReturnsFalse)
{
    Hold hold(&m_task);
    FillQueue(&m_task);
    EXPECT_FALSE(TCTask::ClearQueue(&m_task, LONG_MSEC)); // at once
    EXPECT_EQ(m_task.Size(), 256u);
}

TEST_F(ClearQueueTest, PausedTaskFails)
{
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_USER, 1));
    const LogRecord record;
    for (const unsigned long msec : {0ul, LONG_MSEC}) {
        EXPECT_FALSE(TCTask::ClearQueue(&m_task, msec));
    }
    EXPECT_THAT(PauseLines(record),
                Contains("false 7 [pause_resume] Failed - called on pause.").Times(2));
    EXPECT_EQ(m_task.Size(), 1u);
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("user 1"));
}

TEST_F(ClearQueueTest, OnTheTasksOwnThreadTimesOut)
{
    bool answered = true;
    FunctionHandler handler(
        [&](const TSEvent*) {
            answered = TCTask::ClearQueue(&m_task, SHORT_MSEC);
            return true;
        },
        &m_task);
    TSEvent event = EventTo(&handler);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_FALSE(answered);
    EXPECT_TRUE(Flush(&m_task));
}

TEST_F(ClearQueueTest, RegistryIsFreeDuringTheWaitForTheAnswer)
{
    Hold hold(&m_task);
    Caller caller([this] { EXPECT_TRUE(TCTask::ClearQueue(&m_task, LONG_MSEC)); });
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 1; }));
    EXPECT_TRUE(caller.Blocks());
    EXPECT_TRUE(IsRegistered(&m_task)); // takes the lock
    EXPECT_FALSE(caller.IsDone());
    hold.Release();
    caller.Join();
}

/// The handling of the request, by a task whose hook is the test's.
class ClearQueueHookTest : public ClearQueueTest
{
 protected:
    ClearQueueHookTest()
    {
        m_task.onClearQueue = [this](const TSEvent* event) {
            EXPECT_EQ(event->type, TCTask::EVENT_CLEAR_QUEUE);
            m_trace.Add("hook");
            return m_result;
        };
    }

    bool m_result = false;
};

TEST_F(ClearQueueHookTest, HookThatReturnsFalseIsAnsweredAllTheSame)
{
    EXPECT_TRUE(TCTask::ClearQueue(&m_task, LONG_MSEC));
    EXPECT_THAT(m_trace.Get(), ElementsAre("hook"));
}

TEST_F(ClearQueueHookTest, PromiseIsSetToTrueAndTheHooksResultIsReturned)
{
    for (const bool result : {false, true}) {
        m_result = result;
        std::promise<bool> promise;
        std::future<bool> answer = promise.get_future();
        TSEvent event = EventTo(&m_task, TCTask::EVENT_CLEAR_QUEUE);
        event.setWrappedData(std::move(promise));
        EXPECT_EQ(m_task.OnClearQueue(&event), result);
        EXPECT_TRUE(answer.get());
    }
}

TEST_F(ClearQueueHookTest, HookRunsBeforeTheAnswer)
{
    std::promise<bool> promise;
    std::future<bool> answer = promise.get_future();
    std::future_status status = std::future_status::ready;
    m_task.onClearQueue = [&](const TSEvent*) {
        status = answer.wait_for(std::chrono::seconds(0));
        return true;
    };
    TSEvent event = EventTo(&m_task, TCTask::EVENT_CLEAR_QUEUE);
    event.setWrappedData(std::move(promise));
    EXPECT_TRUE(m_task.OnClearQueue(&event));
    EXPECT_EQ(status, std::future_status::timeout);
}

TEST_F(ClearQueueHookTest, EventWithoutPromiseThrowsBadCastAfterTheHook)
{
    TSEvent event = EventTo(&m_task, TCTask::EVENT_CLEAR_QUEUE);
    EXPECT_THROW(m_task.OnClearQueue(&event), std::bad_cast);
    event.setWrappedData(std::promise<int>());
    EXPECT_THROW(m_task.OnClearQueue(&event), std::bad_cast);
    EXPECT_THAT(m_trace.Get(), ElementsAre("hook", "hook"));
}

using ClearQueueDeathTest = ClearQueueTest;

TEST_F(ClearQueueDeathTest, HandlingWithoutATaskOrAnEventAsserts)
{
    // With hooks of their own, because the tasks' would assert the same.
    TestTask hooked;
    TestTask running;
    hooked.onClearQueue = [](const TSEvent*) { return true; };
    running.onClearQueue = hooked.onClearQueue;
    ASSERT_TRUE(running.Start());
    TestTask idle;
    const TSEvent event;
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", hooked.OnClearQueue(&event), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", idle.t_OnClearQueue(&event), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", running.OnClearQueue(nullptr), "event != NULL");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", m_task.TCTask::t_OnClearQueue(nullptr),
                           "event != NULL");
}

TEST_F(ClearQueueDeathTest, EventWithoutPromiseEndsTheProcess)
{
    const auto clear = [this] {
        EXPECT_TRUE(Post(&m_task, TCTask::EVENT_CLEAR_QUEUE));
        Eventually([] { return false; }); // until the task's thread ends the process
    };
    EXPECT_EXIT(clear(), ::testing::KilledBySignal(SIGABRT), HasSubstr("std::bad_cast"));
}

} // namespace
