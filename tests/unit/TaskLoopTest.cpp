#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <optional>
#include <set>

#include "ConditionSeams.h"
#include "Layout.h"
#include "TCDebugPrint.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;

/// The longest finite wait of a thread, in seconds from its beginning.
class LongestWait
{
 public:
    LongestWait()
        : m_takeover(condTimedwaitSeam, [this](pthread_cond_t* condition, pthread_mutex_t* mutex,
                                               const timespec* deadline) {
              timespec now{};
              clock_gettime(CLOCK_MONOTONIC, &now);
              m_seconds =
                  std::max(m_seconds.load(), static_cast<long>(deadline->tv_sec - now.tv_sec));
              return condTimedwaitSeam.Real(condition, mutex, deadline);
          })
    {}

    static constexpr long NONE = -1;

    long Seconds() const { return m_seconds; }

 private:
    std::atomic<long> m_seconds{NONE};
    Takeover<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> m_takeover;
};

/// One turn of the loop after the other.
class TaskLoopTest : public ::testing::Test
{
 protected:
    const TaskRuntime m_runtime;
};

TEST_F(TaskLoopTest, IdleHookRunsWhenNoEventComesInTheWaitTime)
{
    Trace idle;
    TestTask task;
    task.onIdle = [&] { idle.Add("idle"); };
    ASSERT_TRUE(task.Start("task", 5));
    EXPECT_TRUE(idle.WaitFor(3));
    EXPECT_TRUE(Flush(&task)); // and events are handled in between
}

TEST_F(TaskLoopTest, WaitTimeOfZeroRunsIdleHookWithoutWaiting)
{
    const LongestWait wait;
    const ConditionWatch watch;
    Trace idle;
    TestTask task;
    task.onIdle = [&] { idle.Add("idle"); };
    ASSERT_TRUE(task.Start("task", 0));
    EXPECT_TRUE(idle.WaitFor(1000));
    EXPECT_TRUE(Flush(&task));
    EXPECT_FALSE(watch.WaitedFor(1)); // for the queue's count
    EXPECT_EQ(wait.Seconds(), LongestWait::NONE);
}

TEST_F(TaskLoopTest, IdleHookDoesNotRunWhileEventsCome)
{
    Trace idle;
    TestTask task;
    task.onIdle = [&] { idle.Add("idle"); };
    ASSERT_TRUE(task.Start());
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(Flush(&task));
    }
    EXPECT_EQ(idle.Size(), 0u);
}

TEST_F(TaskLoopTest, LargestWaitTimeIsThatManyMillisecondsAndNotForEver)
{
    const LongestWait wait;
    const ConditionWatch watch;
    TestTask task;
    ASSERT_TRUE(task.Start("task", 4294967295u));
    EXPECT_TRUE(Eventually([&] { return wait.Seconds() > 0; }));
    EXPECT_GE(wait.Seconds(), 4294967 - 1);
    EXPECT_LE(wait.Seconds(), 4294967 + 1);
    EXPECT_FALSE(watch.WaitedFor(1)); // an endless wait for the queue's count
}

TEST_F(TaskLoopTest, ExitEventEndsTheLoopAfterItsTurn)
{
    Trace trace;
    TestTask task;
    task.onUser = [&](const TSEvent* event) {
        trace.Add("user " + std::to_string(event->param1));
        return true;
    };
    task.onExit = [&](const TSEvent*) {
        trace.Add("exit");
        return true;
    };
    ASSERT_TRUE(task.Start());
    {
        Hold hold(&task);
        EXPECT_TRUE(Post(&task, TCTask::EVENT_USER, 1));
        EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
        EXPECT_TRUE(Post(&task, TCTask::EVENT_USER, 2));
    }
    task.Destroy();
    EXPECT_THAT(trace.Get(), ElementsAre("user 1", "exit"));
}

TEST_F(TaskLoopTest, ExitEventEndsTheLoopEvenIfItIsAnsweredFalse)
{
    TestTask task;
    const auto no = [](const TSEvent*, const void*) { return false; };
    task.onExit = [](const TSEvent*) { return false; };
    ASSERT_TRUE(task.Start());
    EXPECT_TRUE(task.SetEventCallback(TCTask::EVENT_EXIT, no, no, nullptr));
    EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    task.Destroy(); // would wait for ever
    EXPECT_FALSE(task.FlagCreate());
}

TEST_F(TaskLoopTest, ExecuteEventReturnsFalseOnceTheExitHasBeenHandled)
{
    TestTask task;
    Gate ended;
    task.onDestroy = [&] { ended.Pass(); };
    ASSERT_TRUE(task.Start());
    EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    ASSERT_TRUE(ended.Wait());
    EXPECT_TRUE(Post(&task));
    EXPECT_FALSE(task.ExecuteEvent());
    EXPECT_EQ(task.Size(), 1u); // it took nothing
    task.Destroy();
}

TEST_F(TaskLoopTest, LoopRunsThroughTheOverriddenTurn)
{
    class CountingTask : public TestTask
    {
     public:
        ~CountingTask() override { End(); }
        bool ExecuteEvent() override
        {
            ++turns;
            return TestTask::ExecuteEvent();
        }
        std::atomic<int> turns{0};
    };
    CountingTask task;
    ASSERT_TRUE(task.Start());
    EXPECT_TRUE(Flush(&task));
    EXPECT_TRUE(Flush(&task));
    EXPECT_GE(task.turns, 2);
    EXPECT_LE(task.turns, 3);
}

/// What a handler sees of the application that the sender worked for.
struct SeenApplication
{
    std::string eventName;
    int eventFlag;
    std::string threadName;
    int threadFlag;
};

SeenApplication SeenIn(const TSEvent* event)
{
    const TSAppData& data = TCDebugPrintZOR::GetInstance()->GetAppData();
    return {event->appName, event->appFlag, data.name, data.value};
}

/// Sends events to a task on behalf of applications.
class TaskAppDataTest : public TaskLoopTest
{
 protected:
    TaskAppDataTest()
    {
        m_task.onUser = [this](const TSEvent* event) {
            m_seen = SeenIn(event);
            return true;
        };
        EXPECT_TRUE(m_task.Start());
    }

    ~TaskAppDataTest() override { TCDebugPrintZOR::GetInstance()->SetAppData("", 0); }

    /// What the handler of an event that this thread sends for an application sees.
    SeenApplication SeenWhenSentFor(const char* name, signed char flag)
    {
        TCDebugPrintZOR::GetInstance()->SetAppData(name, flag);
        TSEvent event = EventTo(&m_task);
        EXPECT_TRUE(TCTask::Send(&event, true, false));
        return m_seen;
    }

    SeenApplication m_seen;
    TestTask m_task;
};

TEST_F(TaskAppDataTest, HandlerWorksForTheSendersApplication)
{
    const SeenApplication seen = SeenWhenSentFor("an application with a long name", 7);
    EXPECT_EQ(seen.eventName, "an application with a long name");
    EXPECT_EQ(seen.eventFlag, 7);
    EXPECT_EQ(seen.threadName, "an application with a long name");
    EXPECT_EQ(seen.threadFlag, 7);
}

TEST_F(TaskAppDataTest, NegativeFlagStaysNegative)
{
    const SeenApplication seen = SeenWhenSentFor("app", -3);
    EXPECT_EQ(seen.eventFlag, 253);
    EXPECT_EQ(seen.threadFlag, -3);
}

TEST_F(TaskAppDataTest, NameIsResetAfterTheEventAndTheFlagStays)
{
    SeenWhenSentFor("first", 7);
    const SeenApplication seen = SeenWhenSentFor("", 9);
    EXPECT_EQ(seen.eventName, "");
    EXPECT_EQ(seen.eventFlag, 9);
    EXPECT_EQ(seen.threadName, "");
    EXPECT_EQ(seen.threadFlag, 7); // the data is set only with a name
}

TEST_F(TaskAppDataTest, NameIsResetEvenIfTheEventBroughtNone)
{
    FunctionHandler handler(
        [](const TSEvent*) {
            TCDebugPrintZOR::GetInstance()->SetAppName("set by the handler");
            return true;
        },
        &m_task);
    TSEvent event = EventTo(&handler);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_EQ(SeenWhenSentFor("", 0).threadName, "");
}

TEST_F(TaskAppDataTest, NameIsResetBeforeTheIdleHook)
{
    Trace idle;
    TestTask task;
    task.onIdle = [&] { idle.Add("'" + TCDebugPrintZOR::GetInstance()->GetAppData().name + "'"); };
    ASSERT_TRUE(task.Start("task", 1));
    TCDebugPrintZOR::GetInstance()->SetAppData("app", 1);
    EXPECT_TRUE(Flush(&task));
    EXPECT_TRUE(idle.WaitFor(idle.Size() + 2));
    task.End();
    const std::vector<std::string> names = idle.Get();
    EXPECT_THAT(std::set<std::string>(names.begin(), names.end()), ElementsAre("''"));
}

TEST_F(TaskLoopTest, FlaggedEventIsHandledLikeAnyOther)
{
    Trace trace;
    TestTask task;
    task.onUser = [&](const TSEvent* event) {
        trace.Add(event->flag ? "flagged" : "plain");
        return true;
    };
    ASSERT_TRUE(task.Start());
    for (const bool flag : {true, false, true}) {
        TSEvent event = EventTo(&task);
        event.flag = flag;
        EXPECT_TRUE(TCTask::Send(&event, true, false));
    }
    EXPECT_THAT(trace.Get(), ElementsAre("flagged", "plain", "flagged"));
}

TEST_F(TaskLoopTest, AttachmentIsReleasedOnTheTasksThreadBeforeTheNextEvent)
{
    std::atomic<pthread_t> releasedOn{0};
    pthread_t releasedAtHook = 1;
    pthread_t thread = 0;
    TestTask task;
    task.onUser = [&](const TSEvent*) {
        releasedAtHook = releasedOn;
        thread = pthread_self();
        return true;
    };
    ASSERT_TRUE(task.Start());
    {
        Hold hold(&task); // so that this thread lets go of its share first
        TSEvent event = EventTo(&task);
        event.setWrappedData(ReleaseProbe(&releasedOn));
        EXPECT_TRUE(TCTask::Send(&event, false, false));
    }
    EXPECT_TRUE(Flush(&task));
    EXPECT_EQ(releasedAtHook, 0u);
    EXPECT_EQ(releasedOn.load(), thread);
}

/// A handler of one task whose event is in the queue of another, so that destroying it does not
/// delete the event.
class DroppedEventTest : public TaskLoopTest
{
 protected:
    /// Behind the queue's lock, its count and three numbers.
    static constexpr std::size_t RING = 80;
    static constexpr std::size_t RECORDS = 256;

    DroppedEventTest()
    {
        EXPECT_TRUE(m_owner.Start("owner"));
        EXPECT_TRUE(m_deliverer.Start("deliverer"));
        EXPECT_TRUE(m_handler.Create(&m_owner));
    }

    /// The reply semaphore of the handler's event in the deliverer's queue.
    TCSemaphore* Reply()
    {
        TCQueue& queue = m_deliverer;
        TCSemaphore* reply = nullptr;
        queue.Lock();
        for (std::size_t i = 0; i < RECORDS; ++i) {
            const std::size_t record = RING + i * sizeof(TSEvent);
            if (FieldAt<TCHandler*>(queue, record + offsetof(TSEvent, receiver)) == &m_handler) {
                reply = FieldAt<TCSemaphore*>(queue, record + offsetof(TSEvent, sync));
            }
        }
        queue.Unlock();
        return reply;
    }

    TestTask m_owner;
    TestTask m_deliverer;
    FunctionHandler m_handler{[](const TSEvent*) { return true; }};
};

TEST_F(DroppedEventTest, EventToADestroyedHandlerIsDroppedAndItsSenderStaysBlocked)
{
    Hold hold(&m_deliverer);
    bool sent = false;
    Caller sender([&] {
        TSEvent event = EventTo(&m_handler);
        sent = m_deliverer.PutSync(&event, true, false);
    });
    ASSERT_TRUE(sender.Blocks());
    TCSemaphore* const reply = Reply();
    ASSERT_NE(reply, nullptr);

    m_handler.Destroy();
    hold.Release();
    EXPECT_TRUE(Flush(&m_deliverer));
    EXPECT_EQ(m_deliverer.Size(), 0u);
    EXPECT_EQ(m_handler.Handled(), 0);
    EXPECT_TRUE(sender.Blocks());

    reply->Give();
    sender.Join();
    EXPECT_TRUE(sent);
}

TEST_F(DroppedEventTest, AttachmentOfADroppedEventIsReleased)
{
    std::atomic<pthread_t> releasedOn{0};
    {
        Hold hold(&m_deliverer);
        TSEvent event = EventTo(&m_handler);
        event.setWrappedData(ReleaseProbe(&releasedOn));
        EXPECT_TRUE(m_deliverer.Put(&event, false));
        m_handler.Destroy();
    }
    EXPECT_TRUE(Flush(&m_deliverer));
    EXPECT_NE(releasedOn.load(), 0u);
    EXPECT_NE(releasedOn.load(), pthread_self());
    EXPECT_EQ(m_handler.Handled(), 0);
}

TEST_F(DroppedEventTest, ApplicationOfADroppedEventIsNotSet)
{
    {
        Hold hold(&m_deliverer);
        TCDebugPrintZOR::GetInstance()->SetAppData("dropped", 5);
        TSEvent event = EventTo(&m_handler);
        EXPECT_TRUE(m_deliverer.Put(&event, false));
        TCDebugPrintZOR::GetInstance()->SetAppData("", 0);
        m_handler.Destroy();
    }
    SeenApplication seen;
    FunctionHandler reader(
        [&](const TSEvent* event) {
            seen = SeenIn(event);
            return true;
        },
        &m_deliverer);
    TSEvent event = EventTo(&reader);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_EQ(seen.threadName, "");
    EXPECT_EQ(seen.threadFlag, 0); // no name resets the flag, so it was never set
}

} // namespace
