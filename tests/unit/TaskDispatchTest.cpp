#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "LogSeam.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A running task that notes which of its hooks run.
class TaskDispatchTest : public ::testing::Test
{
 protected:
    TaskDispatchTest()
    {
        m_task.onUser = [this](const TSEvent*) { return Hook("user"); };
        m_task.onExit = [this](const TSEvent*) { return Hook("exit"); };
        m_task.onClearQueue = [this](const TSEvent*) { return Hook("clear queue"); };
        m_task.onPause = [this](const TSEvent*) { Hook("pause"); };
        m_task.onResume = [this](const TSEvent*) { Hook("resume"); };
        EXPECT_TRUE(m_task.Start());
        ClearLog();
    }

    bool Hook(const char* name)
    {
        m_trace.Add(name);
        return m_hookResult;
    }

    /// The task's own answer to an event of @p type.
    bool Dispatch(unsigned long type)
    {
        const TSEvent event = EventTo(&m_task, type);
        return m_task.t_OnEvent(&event);
    }

    const TaskRuntime m_runtime;
    Trace m_trace;
    bool m_hookResult = true;
    TestTask m_task;
};

TEST_F(TaskDispatchTest, UserEventIsTheUserHooks)
{
    EXPECT_TRUE(Dispatch(TCTask::EVENT_USER));
    m_hookResult = false;
    EXPECT_FALSE(Dispatch(TCTask::EVENT_USER));
    EXPECT_THAT(m_trace.Get(), ElementsAre("user", "user"));
}

TEST_F(TaskDispatchTest, ExitEventIsTheExitHooks)
{
    EXPECT_TRUE(Dispatch(TCTask::EVENT_EXIT));
    m_hookResult = false;
    EXPECT_FALSE(Dispatch(TCTask::EVENT_EXIT));
    EXPECT_THAT(m_trace.Get(), ElementsAre("exit", "exit"));
}

TEST_F(TaskDispatchTest, PingIsAnsweredTrueWithoutAHook)
{
    EXPECT_TRUE(Dispatch(TCTask::EVENT_PING));
    EXPECT_THAT(m_trace.Get(), IsEmpty());
}

TEST_F(TaskDispatchTest, ClearQueueIsAnsweredWithTheHooksResult)
{
    for (const bool result : {true, false}) {
        m_hookResult = result;
        TSEvent event = EventTo(&m_task, TCTask::EVENT_CLEAR_QUEUE);
        event.setWrappedData(std::promise<bool>());
        EXPECT_EQ(m_task.t_OnEvent(&event), result);
    }
    EXPECT_THAT(m_trace.Get(), ElementsAre("clear queue", "clear queue"));
}

TEST_F(TaskDispatchTest, PauseIsLoggedWithoutPromotionAndRunsThePause)
{
    const LogRecord record;
    ASSERT_TRUE(m_task.Pause());
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause", "resume"));
    EXPECT_THAT(PauseLines(record), ::testing::Contains("false 4 [pause_resume] EVENT_PAUSE"));
}

TEST_F(TaskDispatchTest, ResumeEventIsAnsweredTrueWithoutAction)
{
    EXPECT_TRUE(Dispatch(TCTask::EVENT_RESUME));
    EXPECT_THAT(m_trace.Get(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
    EXPECT_FALSE(m_task.IsPaused());
}

TEST_F(TaskDispatchTest, ResumeEventDoesNotEndAPause)
{
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(Dispatch(TCTask::EVENT_RESUME));
    EXPECT_TRUE(m_task.IsPaused());
    EXPECT_TRUE(m_task.ResumeAsync());
}

TEST_F(TaskDispatchTest, UnknownTypeIsAnsweredFalseWithoutAction)
{
    for (const unsigned long type : {6ul, 7ul, 100ul, 1ul << 32, ULONG_MAX}) {
        EXPECT_FALSE(Dispatch(type));
        EXPECT_TRUE(Post(&m_task, type));
    }
    EXPECT_TRUE(Flush(&m_task)); // the task lives on
    EXPECT_THAT(m_trace.Get(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TaskDispatchTest, DefaultHooksOfExitAndUserAnswerTrue)
{
    TCTask task;
    ASSERT_TRUE(task.Create("plain", LONG_WAIT_MSEC, TEST_STACK_SIZE, 0));
    TSEvent event = EventTo(&task);
    EXPECT_TRUE(task.t_Create());
    EXPECT_TRUE(task.t_OnUser(&event));
    EXPECT_TRUE(task.t_OnExit(&event));
    EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    task.Destroy();
}

bool Accepts(TCTask* task, int type)
{
    return task->SetEventCallback(type, nullptr, nullptr, nullptr);
}

TEST_F(TaskDispatchTest, CallbacksAreTakenForExitUserAndClearQueueOnly)
{
    EXPECT_TRUE(Accepts(&m_task, TCTask::EVENT_EXIT));
    EXPECT_TRUE(Accepts(&m_task, TCTask::EVENT_USER));
    EXPECT_TRUE(Accepts(&m_task, TCTask::EVENT_CLEAR_QUEUE));
    for (const int type : {2, 4, 5, -1, 6, INT_MAX, INT_MIN}) {
        EXPECT_FALSE(Accepts(&m_task, type));
    }
}

bool CallbackA(const TSEvent* /*event*/, const void* /*context*/)
{
    return true;
}

bool CallbackB(const TSEvent* /*event*/, const void* /*context*/)
{
    return false;
}

/// What GetEventCallback() stores.
struct Callbacks
{
    TCTask::EventCallback before = nullptr;
    TCTask::EventCallback after = nullptr;
    const void* context = nullptr;
};

TEST_F(TaskDispatchTest, RefusedTypeStoresNothing)
{
    const int context = 0;
    for (const int type : {0, 1, 3}) {
        ASSERT_TRUE(m_task.SetEventCallback(type, CallbackA, CallbackB, &context));
    }
    for (const int type : {2, 4, 5, -1, 256, 257}) {
        EXPECT_FALSE(m_task.SetEventCallback(type, CallbackB, CallbackA, nullptr));
        Callbacks stored{CallbackB, CallbackA, &stored};
        EXPECT_FALSE(m_task.GetEventCallback(type, &stored.before, &stored.after, &stored.context));
        EXPECT_EQ(stored.before, &CallbackB);
        EXPECT_EQ(stored.after, &CallbackA);
        EXPECT_EQ(stored.context, &stored);
    }
    for (const int type : {0, 1, 3}) {
        Callbacks stored;
        EXPECT_TRUE(m_task.GetEventCallback(type, &stored.before, &stored.after, &stored.context));
        EXPECT_EQ(stored.before, &CallbackA);
        EXPECT_EQ(stored.after, &CallbackB);
        EXPECT_EQ(stored.context, &context);
        EXPECT_TRUE(m_task.SetEventCallback(type, nullptr, nullptr, nullptr));
    }
}

TEST_F(TaskDispatchTest, GetEventCallbackStoresOnlyWhereItIsAsked)
{
    const int context = 0;
    ASSERT_TRUE(m_task.SetEventCallback(1, CallbackA, CallbackB, &context));
    Callbacks stored;
    EXPECT_TRUE(m_task.GetEventCallback(1, nullptr, nullptr, nullptr));
    EXPECT_TRUE(m_task.GetEventCallback(1, &stored.before, nullptr, nullptr));
    EXPECT_EQ(stored.before, &CallbackA);
    EXPECT_TRUE(m_task.GetEventCallback(1, nullptr, &stored.after, nullptr));
    EXPECT_EQ(stored.after, &CallbackB);
    EXPECT_TRUE(m_task.GetEventCallback(1, nullptr, nullptr, &stored.context));
    EXPECT_EQ(stored.context, &context);
}

TEST_F(TaskDispatchTest, NullClearsCallbacks)
{
    ASSERT_TRUE(m_task.SetEventCallback(1, CallbackA, CallbackA, this));
    EXPECT_TRUE(Dispatch(TCTask::EVENT_USER));
    EXPECT_THAT(m_trace.Get(), IsEmpty()); // the before callback took the hook's place
    ASSERT_TRUE(m_task.SetEventCallback(1, nullptr, nullptr, nullptr));
    EXPECT_TRUE(Dispatch(TCTask::EVENT_USER));
    EXPECT_THAT(m_trace.Get(), ElementsAre("user"));
}

/// What a callback does: nothing, because it is not set, or an answer.
enum class Answer
{
    UNSET,
    NO,
    YES,
};

using CallbackCase = std::tuple<unsigned long, Answer, bool, Answer>;

/// The callbacks' context: where they note their calls, and what they were called with.
struct CallbackContext
{
    Trace trace;
    const TSEvent* event = nullptr;
};

template <int WHICH, bool ANSWER>
bool NotingCallback(const TSEvent* event, const void* context)
{
    auto* noted = static_cast<CallbackContext*>(const_cast<void*>(context));
    noted->trace.Add(WHICH == 0 ? "before" : "after");
    EXPECT_EQ(event, noted->event);
    return ANSWER;
}

template <int WHICH>
TCTask::EventCallback CallbackFor(Answer answer)
{
    switch (answer) {
        case Answer::NO:
            return NotingCallback<WHICH, false>;
        case Answer::YES:
            return NotingCallback<WHICH, true>;
        default:
            return nullptr;
    }
}

/// Every combination of callbacks and hook around an exit or user event.
class TaskCallbackTest : public ::testing::TestWithParam<CallbackCase>
{};

TEST_P(TaskCallbackTest, ProtocolIsKept)
{
    const auto [type, before, hook, after] = GetParam();
    const TaskRuntime runtime;
    CallbackContext context;
    TestTask task;
    task.onUser = task.onExit = [&, result = hook](const TSEvent*) {
        context.trace.Add("hook");
        return result;
    };
    ASSERT_TRUE(task.Start());
    ASSERT_TRUE(task.SetEventCallback(static_cast<int>(type), CallbackFor<0>(before),
                                      CallbackFor<1>(after), &context));
    std::vector<std::string> expected;
    if (before != Answer::UNSET) {
        expected.emplace_back("before");
    }
    if (before != Answer::YES) {
        expected.emplace_back("hook");
    }
    if (after != Answer::UNSET) {
        expected.emplace_back("after");
    }
    const bool handled = before == Answer::YES || hook || after == Answer::YES;

    const TSEvent event = EventTo(&task, type);
    context.event = &event;
    EXPECT_EQ(task.t_OnEvent(&event), handled);
    EXPECT_EQ(context.trace.Get(), expected);

    // Not before the next exit event, which is another one.
    ASSERT_TRUE(task.SetEventCallback(static_cast<int>(type), nullptr, nullptr, nullptr));
}

INSTANTIATE_TEST_SUITE_P(
    All, TaskCallbackTest,
    ::testing::Combine(::testing::Values(0ul, 1ul),
                       ::testing::Values(Answer::UNSET, Answer::NO, Answer::YES), ::testing::Bool(),
                       ::testing::Values(Answer::UNSET, Answer::NO, Answer::YES)));

TEST_F(TaskDispatchTest, BeforeCallbackThatAnswersTrueDoesNotKeepTheLoopFromEnding)
{
    ASSERT_TRUE(m_task.SetEventCallback(TCTask::EVENT_EXIT, CallbackA, nullptr, nullptr));
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_EXIT));
    m_task.Destroy();
    EXPECT_THAT(m_trace.Get(), IsEmpty());
}

TEST_F(TaskDispatchTest, CallbacksOfClearQueueAreKeptButNeverCalled)
{
    const auto unexpected = [](const TSEvent*, const void*) {
        ADD_FAILURE() << "called";
        return true;
    };
    ASSERT_TRUE(m_task.SetEventCallback(TCTask::EVENT_CLEAR_QUEUE, unexpected, unexpected, this));
    EXPECT_TRUE(TCTask::ClearQueue(&m_task, 60000));
    EXPECT_THAT(m_trace.Get(), ElementsAre("clear queue"));
    Callbacks stored;
    EXPECT_TRUE(m_task.GetEventCallback(3, &stored.before, &stored.after, &stored.context));
    EXPECT_EQ(stored.before, +unexpected);
    EXPECT_EQ(stored.after, +unexpected);
    EXPECT_EQ(stored.context, this);
}

} // namespace
