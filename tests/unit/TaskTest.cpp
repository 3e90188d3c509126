#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <vector>

#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "LogSeam.h"
#include "TaskSeams.h"
#include "TaskSupport.h"
#include "ThreadSeams.h"

namespace {

using namespace zortest;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The semaphores of a task in the order in which they are made.
enum ESemaphore : int
{
    QUEUE_LOCK,
    EVENT_COUNT,
    START_GATE,
    EXIT_GATE,
    PID_SYNC,
};

class TaskTest : public ::testing::Test
{
 protected:
    TaskTest() { ClearLog(); }

    /// What Create() of a task does when its semaphore @p number cannot be made.
    /// @return the semaphores that were destroyed again, in order
    std::vector<int> CreateWithout(ESemaphore number)
    {
        TestTask task;
        std::vector<int> destroyed;
        {
            const ConditionWatch watch(number);
            EXPECT_FALSE(task.Start());
            EXPECT_EQ(watch.Made(), number + 1);
            destroyed = watch.Destroyed();
        }
        EXPECT_FALSE(task.FlagCreate());
        EXPECT_FALSE(task.IsQueueCreated());
        EXPECT_FALSE(task.IsThreadCreated());
        EXPECT_FALSE(IsRegistered(&task));
        EXPECT_TRUE(task.Start()); // nothing was left behind
        EXPECT_TRUE(Flush(&task));
        return destroyed;
    }

    const TaskRuntime m_runtime;
    FakeWatchdog m_watchdog;
};

TEST_F(TaskTest, CreateMakesQueueHandlerAndThread)
{
    TestTask task;
    EXPECT_FALSE(task.FlagCreate());
    ASSERT_TRUE(task.Start("worker"));
    EXPECT_TRUE(task.FlagCreate());
    EXPECT_TRUE(task.IsQueueCreated());
    EXPECT_TRUE(task.IsThreadCreated());
    EXPECT_EQ(task.Task(), &task);
    EXPECT_TRUE(IsRegistered(&task));
    EXPECT_FALSE(task.IsPaused());
    EXPECT_STREQ(task.Name(), "worker");
}

TEST_F(TaskTest, WithoutQueueLockCreateFails)
{
    EXPECT_THAT(CreateWithout(QUEUE_LOCK), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TaskTest, WithoutEventCountCreateFailsAndUndoesTheQueuesLock)
{
    EXPECT_THAT(CreateWithout(EVENT_COUNT), ElementsAre(QUEUE_LOCK));
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TaskTest, WithoutThreadCreateFailsAndUndoesTheQueue)
{
    EXPECT_THAT(CreateWithout(START_GATE), ElementsAre(EVENT_COUNT, QUEUE_LOCK));
    EXPECT_THAT(CreateWithout(EXIT_GATE), ElementsAre(START_GATE, EVENT_COUNT, QUEUE_LOCK));
    EXPECT_THAT(LogLines(), IsEmpty());
    EXPECT_THAT(CreateWithout(PID_SYNC),
                ElementsAre(START_GATE, EXIT_GATE, EVENT_COUNT, QUEUE_LOCK));
}

TEST_F(TaskTest, RefusedThreadMakesCreateFailAndUndoesTheQueue)
{
    // What is left of the refused thread cannot be destroyed without an assertion.
    static auto* const kept = new std::vector<std::unique_ptr<TestTask>>;
    TestTask& task = *kept->emplace_back(std::make_unique<TestTask>());

    const Takeover create(pthreadCreateSeam, [](pthread_t*, const pthread_attr_t*, ThreadEntry,
                                                void*) { return EAGAIN; });
    const ConditionWatch watch;
    EXPECT_THAT(AssertionsOf([&] { EXPECT_FALSE(task.Start()); }), ElementsAre("0"));
    EXPECT_FALSE(task.FlagCreate());
    EXPECT_FALSE(task.IsQueueCreated());
    EXPECT_FALSE(IsRegistered(&task));
    EXPECT_THAT(watch.Destroyed(), ElementsAre(START_GATE, EXIT_GATE, EVENT_COUNT, QUEUE_LOCK));
}

TEST_F(TaskTest, ThreadGetsNameAndStackSize)
{
    constexpr std::size_t STACK_SIZE = 1234 * 4096;
    std::size_t stackSize = 0;
    const Takeover create(pthreadCreateSeam,
                          [&](pthread_t* handle, const pthread_attr_t* attributes,
                              ThreadEntry entry, void* argument) {
                              pthread_attr_getstacksize(attributes, &stackSize);
                              return pthreadCreateSeam.Real(handle, attributes, entry, argument);
                          });
    char name[16] = "";
    TestTask task;
    task.onCreate = [&] { return pthread_getname_np(pthread_self(), name, sizeof(name)) == 0; };
    ASSERT_TRUE(task.Create("worker", LONG_WAIT_MSEC, STACK_SIZE, 0));
    EXPECT_TRUE(Flush(&task));
    EXPECT_STREQ(name, "worker");
    EXPECT_EQ(stackSize, STACK_SIZE);
}

TEST_F(TaskTest, NameIsKeptUpToItsFifteenthCharacter)
{
    const std::pair<const char*, const char*> names[] = {
        {"", ""},
        {"abcdefghijklmno", "abcdefghijklmno"},
        {"abcdefghijklmnop", "abcdefghijklmno"},
        {"abcdefghijklmnopq", "abcdefghijklmno"},
        {"abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyz", "abcdefghijklmno"},
    };
    TestTask task; // the same one, so that a longer name does not show through a shorter one
    for (const auto& [given, kept] : names) {
        ASSERT_TRUE(task.Start(given));
        EXPECT_STREQ(task.Name(), kept);
        task.End();
    }
    ASSERT_TRUE(task.Start("a"));
    EXPECT_STREQ(task.Name(), "a");
}

TEST_F(TaskTest, WatchdogTimesFromOneToFourBecomeFive)
{
    for (const unsigned long given : {1ul, 2ul, 3ul, 4ul, 5ul, 6ul, 1000ul, ~0ul}) {
        TestTask task;
        ASSERT_TRUE(task.Start("supervised", LONG_WAIT_MSEC, given));
        EXPECT_TRUE(Flush(&task));
    }
    EXPECT_THAT(m_watchdog.TimeOuts(), ElementsAre(5u, 5u, 5u, 5u, 5u, 6u, 1000u, ~0ul));
    EXPECT_THAT(m_watchdog.Registered(), Each("supervised"));
}

TEST_F(TaskTest, WatchdogTimeOfZeroRegistersNothing)
{
    TestTask task;
    ASSERT_TRUE(task.Start("task", LONG_WAIT_MSEC, 0));
    EXPECT_TRUE(Flush(&task));
    EXPECT_THAT(m_watchdog.TimeOuts(), IsEmpty());
}

TEST_F(TaskTest, FailedWatchdogRegistrationPrintsAndTheTaskRunsOn)
{
    for (const int result : {-1, 1}) {
        ClearLog();
        m_watchdog.registerResult = result;
        TestTask task;
        ASSERT_TRUE(task.Start("task", LONG_WAIT_MSEC, 7));
        EXPECT_TRUE(Flush(&task));
        EXPECT_EQ(CountLogLines("> Unable to register watchdog service\n"), 1u);
    }
}

TEST_F(TaskTest, SuccessfulWatchdogRegistrationPrintsNothing)
{
    TestTask task;
    ASSERT_TRUE(task.Start("task", LONG_WAIT_MSEC, 7));
    EXPECT_TRUE(Flush(&task));
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TaskTest, RegistersWithTheWatchdogBetweenCreateHookAndFirstEvent)
{
    std::size_t registeredAtCreate = 99;
    std::size_t registeredAtEvent = 99;
    TestTask task;
    task.onCreate = [&] {
        registeredAtCreate = m_watchdog.TimeOuts().size();
        return true;
    };
    task.onUser = [&](const TSEvent*) {
        registeredAtEvent = m_watchdog.TimeOuts().size();
        return true;
    };
    ASSERT_TRUE(task.Start("task", LONG_WAIT_MSEC, 7));
    EXPECT_TRUE(Post(&task));
    EXPECT_TRUE(Flush(&task));
    EXPECT_EQ(registeredAtCreate, 0u);
    EXPECT_EQ(registeredAtEvent, 1u);
}

TEST_F(TaskTest, HooksRunInOrderOnTheTasksThread)
{
    Trace trace;
    pthread_t thread = 0;
    TestTask task;
    const auto hook = [&](const char* name) {
        if (thread == 0) {
            thread = pthread_self();
        }
        trace.Add(pthread_equal(thread, pthread_self()) ? name : "on another thread");
        return true;
    };
    task.onCreate = [&] { return hook("create"); };
    task.onUser = [&](const TSEvent*) { return hook("user"); };
    task.onExit = [&](const TSEvent*) { return hook("exit"); };
    task.onDestroy = [&] { hook("destroy"); };
    ASSERT_TRUE(task.Start());
    EXPECT_TRUE(Post(&task));
    EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    task.Destroy();
    EXPECT_THAT(trace.Get(), ElementsAre("create", "user", "exit", "destroy"));
    EXPECT_FALSE(pthread_equal(thread, pthread_self()));
}

TEST_F(TaskTest, CreateHookThatReturnsFalseEndsTheThreadAtOnce)
{
    Trace trace;
    TestTask task;
    task.onCreate = [&] {
        trace.Add("create");
        return false;
    };
    task.onUser = [&](const TSEvent*) {
        trace.Add("user");
        return true;
    };
    task.onDestroy = [&] { trace.Add("destroy"); };
    ASSERT_TRUE(task.Start("task", LONG_WAIT_MSEC, 7)); // the task is there all the same
    EXPECT_TRUE(IsRegistered(&task));
    EXPECT_TRUE(Post(&task)); // queued, never handled
    task.Destroy();           // no exit event is needed
    EXPECT_THAT(trace.Get(), ElementsAre("create"));
    EXPECT_THAT(m_watchdog.TimeOuts(), IsEmpty());
}

TEST_F(TaskTest, DestroyWaitsForTheLoopToEnd)
{
    bool ended = false;
    TestTask task;
    task.onDestroy = [&] { ended = true; };
    ASSERT_TRUE(task.Start());
    Hold hold(&task);
    Caller owner([&] {
        EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
        task.Destroy();
    });
    EXPECT_TRUE(owner.Blocks());
    EXPECT_TRUE(task.FlagCreate());
    hold.Release();
    owner.Join();
    EXPECT_TRUE(ended);
    EXPECT_FALSE(task.FlagCreate());
    EXPECT_FALSE(task.IsQueueCreated());
    EXPECT_FALSE(task.IsThreadCreated());
    EXPECT_FALSE(IsRegistered(&task));
}

TEST_F(TaskTest, DestroyReleasesASenderWhoseEventStandsBehindTheExit)
{
    bool sent = false;
    int handled = 0;
    std::optional<Caller> sender;
    TestTask task;
    task.onUser = [&](const TSEvent*) {
        ++handled;
        return true;
    };
    ASSERT_TRUE(task.Start());
    Hold hold(&task);
    EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    sender.emplace([&] {
        TSEvent event = EventTo(&task);
        sent = TCTask::Send(&event, true, false);
    });
    EXPECT_TRUE(sender->Blocks());
    hold.Release();
    task.Destroy();
    sender->Join();
    EXPECT_TRUE(sent); // as after any deletion
    EXPECT_EQ(handled, 0);
}

TEST_F(TaskTest, CanBeCreatedAgain)
{
    int handled = 0;
    TestTask task;
    task.onUser = [&](const TSEvent*) {
        ++handled;
        return true;
    };
    for (int round = 1; round <= 3; ++round) {
        ASSERT_TRUE(task.Start());
        EXPECT_TRUE(Post(&task));
        EXPECT_TRUE(Flush(&task));
        EXPECT_EQ(handled, round);
        EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
        task.Destroy();
    }
}

TEST_F(TaskTest, CreateClearsCallbacks)
{
    TestTask task;
    ASSERT_TRUE(task.Start());
    const int context = 0;
    const auto callback = [](const TSEvent*, const void*) { return true; };
    for (const int type : {0, 1, 3}) {
        EXPECT_TRUE(task.SetEventCallback(type, callback, callback, &context));
    }
    task.End();
    ASSERT_TRUE(task.Start());
    for (const int type : {0, 1, 3}) {
        TCTask::EventCallback before = callback;
        TCTask::EventCallback after = callback;
        const void* kept = &context;
        EXPECT_TRUE(task.GetEventCallback(type, &before, &after, &kept));
        EXPECT_EQ(before, nullptr);
        EXPECT_EQ(after, nullptr);
        EXPECT_EQ(kept, nullptr);
    }
}

TEST_F(TaskTest, DefaultHooksAssertThatTheTaskIsCreated)
{
    TCTask task;
    const TSEvent event;
    EXPECT_THAT(AssertionsOf([&] { EXPECT_TRUE(task.t_Create()); }),
                ElementsAre("FlagCreate() == true"));
    EXPECT_THAT(AssertionsOf([&] { task.t_Idle(); }), ElementsAre("FlagCreate() == true"));
    EXPECT_THAT(AssertionsOf([&] { task.t_Destroy(); }), ElementsAre("FlagCreate() == true"));
    EXPECT_THAT(AssertionsOf([&] { task.t_OnPause(&event); }), ElementsAre("FlagCreate() == true"));
    EXPECT_THAT(AssertionsOf([&] { task.t_OnResume(&event); }),
                ElementsAre("FlagCreate() == true"));
    EXPECT_THAT(AssertionsOf([&] { EXPECT_TRUE(task.t_OnExit(nullptr)); }),
                ElementsAre("FlagCreate() == true", "event != NULL"));
    EXPECT_THAT(AssertionsOf([&] { EXPECT_TRUE(task.t_OnUser(nullptr)); }),
                ElementsAre("FlagCreate() == true", "event != NULL"));
}

TEST_F(TaskTest, CallbackOperationsAssertThatTheTaskIsCreated)
{
    TCTask task;
    EXPECT_THAT(
        AssertionsOf([&] { EXPECT_TRUE(task.SetEventCallback(1, nullptr, nullptr, nullptr)); }),
        ElementsAre("FlagCreate() == true"));
    EXPECT_THAT(
        AssertionsOf([&] { EXPECT_TRUE(task.GetEventCallback(1, nullptr, nullptr, nullptr)); }),
        ElementsAre("FlagCreate() == true"));
}

using TaskDeathTest = TaskTest;

TEST_F(TaskDeathTest, CreateTwiceAsserts)
{
    TestTask task;
    EXPECT_TRUE(task.Start());
    EXPECT_ASSERT_DEATH_IN("Task.cpp", task.Start(), "FlagCreate() == false");
}

TEST_F(TaskDeathTest, CreateWithoutNameAsserts)
{
    TestTask task;
    EXPECT_ASSERT_DEATH(task.Start(nullptr), "name != NULL");
}

TEST_F(TaskDeathTest, BodyBeforeCreateAsserts)
{
    TestTask task;
    task.onCreate = [] { return false; }; // the task's own hook would assert the same
    EXPECT_ASSERT_DEATH_IN("Task.cpp", task.t_Main(), "FlagCreate() == true");
}

TEST_F(TaskDeathTest, OperationsBeforeCreateAssert)
{
    TCTask task;
    TSEvent event;
    event.receiver = &task;
    EXPECT_ASSERT_DEATH_IN("Task.cpp", task.Destroy(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("Task.cpp", task.ExecuteEvent(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("Task.cpp", task.t_OnEvent(&event), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", task.t_OnClearQueue(&event), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", task.Pause(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", task.ResumeAsync(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(TCTask::Send(&event, false, false), "FlagCreate() == true");
}

TEST_F(TaskDeathTest, DestructorOfACreatedTaskAsserts)
{
    auto task = std::make_unique<TCTask>();
    EXPECT_TRUE(task->Create("task", LONG_WAIT_MSEC, TEST_STACK_SIZE, 0));
    EXPECT_ASSERT_DEATH_IN("Task.cpp", task.reset(), "FlagCreate() == false");
    EXPECT_TRUE(Post(task.get(), TCTask::EVENT_EXIT));
    task->Destroy();
}

TEST_F(TaskDeathTest, HooksWithoutEventAssert)
{
    TestTask task;
    EXPECT_TRUE(task.Start());
    EXPECT_ASSERT_DEATH(task.t_OnEvent(nullptr), "event != NULL");
    EXPECT_ASSERT_DEATH(task.t_OnExit(nullptr), "event != NULL");
    EXPECT_ASSERT_DEATH(task.t_OnUser(nullptr), "event != NULL");
    EXPECT_ASSERT_DEATH(task.OnPing(nullptr), "event != NULL");
    EXPECT_ASSERT_DEATH(task.OnClearQueue(nullptr), "event != NULL");
    EXPECT_ASSERT_DEATH(task.OnPause(nullptr), "event != NULL");
}

} // namespace
