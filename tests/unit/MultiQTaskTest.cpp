#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "Layout.h"
#include "LogSeam.h"
#include "TCDebugPrint.h"
#include "TaskScopeTraceSeam.h"
#include "TaskSeams.h"
#include "TaskSupport.h"
#include "ThreadNames.h"

namespace {

using namespace zortest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned int QUEUES = 3;
constexpr unsigned int WAIT_MSEC = 50;

/// A multi-queue task whose hooks are functions of the test's. Its destructor ends it.
class TestMultiQTask : public TCMultiQTask
{
 public:
    ~TestMultiQTask() override { End(); }

    bool Start(unsigned int queues = QUEUES, unsigned long watchdogTime = 0)
    {
        return Create("multi", WAIT_MSEC, TEST_STACK_SIZE, queues, watchdogTime);
    }

    void End()
    {
        if (FlagCreate()) {
            EXPECT_TRUE(Eventually([this] { return Post(this, EVENT_EXIT); }));
            Destroy();
        }
    }

    bool t_Create() override { return onCreate ? onCreate() : true; }
    void t_Idle() override { ++idles; }
    bool ExecuteEvent() override
    {
        ++turns;
        return TCMultiQTask::ExecuteEvent();
    }
    bool t_OnUser(const TSEvent* event) override { return onUser ? onUser(event) : true; }

    using TCTask::HasEnded;
    using TCTask::OnClearQueue;

    std::function<bool()> onCreate;
    std::function<bool(const TSEvent*)> onUser;
    std::atomic<int> idles{0};
    std::atomic<int> turns{0};
};

class MultiQTaskTest : public ::testing::Test
{
 protected:
    MultiQTaskTest()
    {
        m_task.onUser = [this](const TSEvent* event) {
            m_trace.Add(std::to_string(event->param1));
            return true;
        };
        EXPECT_TRUE(m_task.Start());
    }

    bool Send(std::uint32_t param1, unsigned int queue, bool sync = false, bool priority = false,
              unsigned long type = TCTask::EVENT_USER)
    {
        TSEvent event = EventTo(&m_task, type, param1);
        return TCMultiQTask::Send(&event, sync, priority, queue);
    }

    /// Sends a synchronous event that everything else in the queues overtakes.
    bool FlushAll() { return Send(0xFFFF, QUEUES - 1, true); }

    const TaskRuntime m_runtime;
    Trace m_trace;
    TestMultiQTask m_task;
};

static_assert(std::is_base_of_v<TCTask, TCMultiQTask>);
static_assert(std::is_base_of_v<TCThread, TCEventNotifyThread>);

TEST(MultiQTaskLayoutTest, OperationsAreThoseOfATask)
{
    EXPECT_EQ(SlotOf(&TCMultiQTask::Destroy), SlotOf(&TCTask::Destroy));
    EXPECT_EQ(SlotOf(&TCMultiQTask::t_OnEvent), SlotOf(&TCTask::t_OnEvent));
    EXPECT_EQ(SlotOf(&TCMultiQTask::t_OnClearQueue), SlotOf(&TCTask::t_OnClearQueue));
    EXPECT_EQ(SlotOf(&TCMultiQTask::ExecuteEvent), SlotOf(&TCTask::ExecuteEvent));
    EXPECT_EQ(SlotOf(&TCEventNotifyThread::t_Main), 0u);
    EXPECT_EQ(SlotOf(&TCEventNotifyThread::Destroy), 3u);
}

TEST_F(MultiQTaskTest, LowestQueueIsServedFirstWhateverTheOrderOfPutting)
{
    {
        Hold hold(&m_task);
        EXPECT_TRUE(Send(21, 2));
        EXPECT_TRUE(Send(22, 2));
        EXPECT_TRUE(Send(11, 1));
        EXPECT_TRUE(Send(1, 0));
        EXPECT_TRUE(Send(12, 1));
        EXPECT_TRUE(Send(2, 0));
    }
    EXPECT_TRUE(m_trace.WaitFor(6));
    EXPECT_THAT(m_trace.Get(), ElementsAre("1", "2", "11", "12", "21", "22"));
}

TEST_F(MultiQTaskTest, PriorityOvertakesWithinItsQueueOnly)
{
    {
        Hold hold(&m_task);
        EXPECT_TRUE(Send(1, 0));
        EXPECT_TRUE(Send(11, 1));
        EXPECT_TRUE(Send(12, 1, false, true));
    }
    EXPECT_TRUE(m_trace.WaitFor(3));
    EXPECT_THAT(m_trace.Get(), ElementsAre("1", "12", "11"));
}

TEST_F(MultiQTaskTest, PlainSendGoesToQueueZero)
{
    Hold hold(&m_task);
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_USER, 5));
    EXPECT_EQ(m_task.Size(0), 1u);
}

TEST_F(MultiQTaskTest, SizeCountsTheEventsOfOneQueue)
{
    Hold hold(&m_task);
    EXPECT_TRUE(Send(1, 1));
    EXPECT_TRUE(Send(2, 1));
    EXPECT_TRUE(Send(3, 2));
    EXPECT_EQ(m_task.Size(0), 0u);
    EXPECT_EQ(m_task.Size(1), 2u);
    EXPECT_EQ(m_task.Size(2), 1u);
}

TEST_F(MultiQTaskTest, SizeWithoutAnIndexIsRefused)
{
    std::size_t size = 1;
    EXPECT_THAT(AssertionsOf([&] { size = m_task.Size(); }),
                ElementsAre("!(\"not supported, use TCMUltiQTask::Size(int) instead\")"));
    EXPECT_EQ(size, 0u);
}

TEST_F(MultiQTaskTest, SizeAssertsItsIndex)
{
    const std::string text = "queueIdx >=0 && queueIdx < (int)m_queueSize";
    EXPECT_THAT(AssertionsOf([&] { EXPECT_EQ(m_task.Size(3), 0u); }), ElementsAre(text));
    EXPECT_THAT(AssertionsOf([&] { EXPECT_EQ(m_task.Size(-1), 0u); }), ElementsAre(text));
}

TEST(MultiQTaskCreateTest, SizeOfATaskThatIsNotCreatedAsserts)
{
    // The bare text of this check differs from that of the others.
    EXPECT_ASSERT_DEATH(TCMultiQTask().Size(0), "FlagCreate()");
}

TEST_F(MultiQTaskTest, SendAssertsItsIndex)
{
    bool sent = true;
    EXPECT_THAT(AssertionsOf([&] { sent = Send(1, QUEUES); }),
                ElementsAre("nQueueIndex < pMultiQTask->m_queueSize"));
    EXPECT_FALSE(sent);
}

TEST_F(MultiQTaskTest, SendAssertsEventAndReceiver)
{
    EXPECT_ASSERT_DEATH(TCMultiQTask::Send(nullptr, false, false, 0), "event != NULL");
    TSEvent event;
    EXPECT_ASSERT_DEATH(TCMultiQTask::Send(&event, false, false, 0), "event->receiver != NULL");
}

TEST_F(MultiQTaskTest, SendToAnOrdinaryTaskIsRefused)
{
    TestTask ordinary;
    ASSERT_TRUE(ordinary.Start());
    TSEvent event = EventTo(&ordinary);
    EXPECT_FALSE(TCMultiQTask::Send(&event, false, false, 0));
    EXPECT_EQ(ordinary.TCQueue::Size(), 0u);
}

TEST_F(MultiQTaskTest, SynchronousSendReturnsAfterTheHandling)
{
    for (unsigned int queue = 0; queue < QUEUES; ++queue) {
        EXPECT_TRUE(Send(queue, queue, true));
        EXPECT_EQ(m_trace.Size(), queue + 1);
    }
}

TEST_F(MultiQTaskTest, SynchronousSendWithoutAReplyIsRefused)
{
    {
        const ConditionWatch watch(0);
        EXPECT_FALSE(Send(1, 1, true));
    }
    EXPECT_TRUE(FlushAll());
    EXPECT_THAT(m_trace.Get(), ElementsAre("65535"));
}

TEST_F(MultiQTaskTest, SynchronousSendIsNotListed)
{
    std::atomic<bool> listed{true};
    m_task.onUser = [&listed](const TSEvent*) {
        listed = TCSyncDet::m_arrPCSyncDet[0].bValid;
        return true;
    };
    EXPECT_TRUE(Send(1, 1, true));
    EXPECT_FALSE(listed);
}

TEST_F(MultiQTaskTest, SynchronousSendFromTheOwnThread)
{
    std::vector<bool> results;
    std::vector<std::string> asserted;
    std::vector<std::uint32_t> handled;
    m_task.onUser = [&](const TSEvent* event) {
        handled.push_back(event->param1);
        if (event->param1 == 1) {
            results.push_back(Send(2, 1, true, true)); // handled at once
            asserted = AssertionsOf([&] { results.push_back(Send(3, 1, true, false)); });
        }
        return true;
    };
    EXPECT_TRUE(Send(1, 0, true));
    EXPECT_THAT(results, ElementsAre(true, false));
    EXPECT_THAT(asserted, ElementsAre("priority == true"));
    EXPECT_THAT(handled, ElementsAre(1u, 2u));
}

TEST_F(MultiQTaskTest, FullQueueRefusesAndTheOthersDoNot)
{
    Hold hold(&m_task);
    for (int i = 0; i < 240; ++i) {
        ASSERT_TRUE(Send(1, 1));
    }
    EXPECT_FALSE(Send(1, 1));
    EXPECT_TRUE(Send(1, 2));
    EXPECT_TRUE(Send(1, 1, false, true));
}

TEST_F(MultiQTaskTest, TurnWithoutAnEventDoesNotIdle)
{
    EXPECT_TRUE(Eventually([this] { return m_task.turns >= 5; }));
    EXPECT_EQ(m_task.idles, 0);
}

TEST_F(MultiQTaskTest, ClearQueueRemovesOnlyTheOwnEventsOfOneQueue)
{
    FunctionHandler other(
        [this](const TSEvent*) {
            m_trace.Add("other");
            return true;
        },
        &m_task);
    {
        Hold hold(&m_task);
        EXPECT_TRUE(Send(1, 1));
        EXPECT_TRUE(Send(2, 2));
        EXPECT_TRUE(Send(3, 2));
        TSEvent event = EventTo(&other);
        EXPECT_TRUE(TCMultiQTask::Send(&event, false, false, 2));
        Caller clear([this] { EXPECT_TRUE(TCMultiQTask::ClearQueue(&m_task, 2, 60000)); });
        EXPECT_TRUE(Eventually([this] { return m_task.Size(0) == 1; }));
        hold.Release();
    }
    EXPECT_TRUE(FlushAll());
    EXPECT_THAT(m_trace.Get(), ElementsAre("1", "other", "65535"));
}

TEST_F(MultiQTaskTest, ClearQueueOfAQueueThatIsNotThereAssertsAndAnswers)
{
    EXPECT_THAT(AssertionsOf([this] { EXPECT_TRUE(TCMultiQTask::ClearQueue(&m_task, 7, 60000)); }),
                ElementsAre("idx >=0 && idx < (int)m_queueSize"));
    EXPECT_THAT(AssertionsOf([this] { EXPECT_TRUE(TCMultiQTask::ClearQueue(&m_task, -1, 60000)); }),
                ElementsAre("idx >=0 && idx < (int)m_queueSize"));
}

TEST_F(MultiQTaskTest, ClearQueueThatFindsQueueZeroFullIsFalseAtOnce)
{
    Hold hold(&m_task);
    FillQueue(&m_task);
    EXPECT_TRUE(Send(1, 1));
    EXPECT_FALSE(TCMultiQTask::ClearQueue(&m_task, 1, LONG_WAIT_MSEC));
    EXPECT_EQ(m_task.Size(1), 1u);
}

TEST_F(MultiQTaskTest, ClearQueueOfAnUnknownTaskIsFalse)
{
    TestMultiQTask unknown;
    EXPECT_FALSE(TCMultiQTask::ClearQueue(&unknown, 0, 60000));
}

TEST_F(MultiQTaskTest, ClearQueueTimesOutAndIsStillHandled)
{
    {
        Hold hold(&m_task);
        EXPECT_TRUE(Send(1, 1));
        EXPECT_FALSE(TCMultiQTask::ClearQueue(&m_task, 1, 10));
    }
    EXPECT_TRUE(FlushAll());
    EXPECT_THAT(m_trace.Get(), ElementsAre("65535"));
}

TEST_F(MultiQTaskTest, ClearQueueOfAPausedTaskIsRefusedAndLogged)
{
    EXPECT_TRUE(m_task.Pause());
    const LogRecord record;
    EXPECT_FALSE(TCMultiQTask::ClearQueue(&m_task, 1, 60000));
    // The paused thread may still be on its way into its wait, and say so in between.
    EXPECT_THAT(PauseLines(record),
                Contains("true 7 [pause_resume] Failed - called on pause.").Times(1));
    EXPECT_TRUE(m_task.ResumeAsync());
}

TEST_F(MultiQTaskTest, PauseLogsItsOwnLine)
{
    ClearLog();
    EXPECT_TRUE(m_task.Pause());
    EXPECT_EQ(CountLogLines("[pause_resume]EVENT_PAUSE"), 1u);
    EXPECT_TRUE(Send(1, 1));
    EXPECT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(m_trace.WaitFor(1));
}

TEST_F(MultiQTaskTest, SendToAPausedTaskWarnsForAsLongAsThePut)
{
    EXPECT_TRUE(m_task.Pause());
    ClearScopeTraces();
    EXPECT_TRUE(Send(1, 1));
    ASSERT_EQ(ScopeTraces().size(), 1u);
    EXPECT_EQ(ScopeTraces()[0].text,
              "TCMultiQTask::m_Send [pause_resume] WARNING: event->type[1] was send to paused task "
              "and is not processed jet.");
    EXPECT_FALSE(ScopeTraces()[0].alive);

    Caller synchronous([this] { EXPECT_TRUE(Send(2, 1, true)); });
    EXPECT_TRUE(Eventually([] { return ScopeTraces().size() == 2; }));
    EXPECT_TRUE(synchronous.Blocks());
    EXPECT_TRUE(ScopeTraces()[1].alive);
    EXPECT_TRUE(m_task.ResumeAsync());
    synchronous.Join();
    EXPECT_FALSE(ScopeTraces()[1].alive);
    EXPECT_THAT(m_trace.Get(), ElementsAre("1", "2"));
}

TEST_F(MultiQTaskTest, ResumeEventIsAnsweredFalse)
{
    TSEvent event = EventTo(&m_task, TCTask::EVENT_RESUME);
    EXPECT_FALSE(m_task.t_OnEvent(&event));
    event.type = 17;
    EXPECT_FALSE(m_task.t_OnEvent(&event));
    event.type = TCTask::EVENT_USER;
    EXPECT_TRUE(m_task.t_OnEvent(&event));
}

TEST_F(MultiQTaskTest, PingIsAnswered)
{
    EXPECT_TRUE(TCTask::Ping(&m_task, 60000));
}

TEST_F(MultiQTaskTest, ApplicationIdentityIsRestoredAroundAnEvent)
{
    std::string during;
    m_task.onUser = [&during](const TSEvent*) {
        during = TCDebugPrintZOR::GetInstance()->GetAppData().name;
        return true;
    };
    TCDebugPrintZOR::GetInstance()->SetAppData("epg", 3);
    EXPECT_TRUE(Send(1, 2, true));
    TCDebugPrintZOR::GetInstance()->SetAppName("");
    EXPECT_EQ(during, "epg");
    EXPECT_TRUE(Send(1, 2, true));
    EXPECT_EQ(during, "");
}

TEST_F(MultiQTaskTest, EventOfADestroyedHandlerIsDropped)
{
    int handled = 0;
    FunctionHandler gone([&handled](const TSEvent*) { return ++handled > 0; });
    TSEvent event = EventTo(&gone);
    EXPECT_TRUE(m_task.Put(&event, false));
    EXPECT_TRUE(FlushAll());
    EXPECT_EQ(handled, 0);
}

TEST_F(MultiQTaskTest, DestroyedHandlerTakesItsEventsFromAllQueues)
{
    std::vector<std::unique_ptr<Caller>> senders;
    std::atomic<int> handled{0};
    Hold hold(&m_task);
    auto gone = std::make_unique<FunctionHandler>([&](const TSEvent*) { return ++handled > 0; });
    gone->Create(&m_task);
    for (unsigned int queue = 0; queue < QUEUES; ++queue) {
        EXPECT_TRUE(Send(queue, queue));
        TSEvent event = EventTo(gone.get());
        EXPECT_TRUE(TCMultiQTask::Send(&event, false, false, queue));
        senders.push_back(std::make_unique<Caller>([&, queue] {
            TSEvent synchronous = EventTo(gone.get());
            EXPECT_TRUE(TCMultiQTask::Send(&synchronous, true, false, queue));
        }));
        EXPECT_TRUE(Eventually([&] { return m_task.Size(static_cast<int>(queue)) == 3; }));
    }
    gone->Destroy();
    for (unsigned int queue = 0; queue < QUEUES; ++queue) {
        EXPECT_EQ(m_task.Size(static_cast<int>(queue)), 1u);
    }
    for (const auto& sender : senders) {
        sender->Join(); // released, and told that the event has been handled
    }
    gone.reset();
    hold.Release();
    EXPECT_TRUE(FlushAll());
    EXPECT_THAT(m_trace.Get(), ElementsAre("0", "1", "2", "65535"));
    EXPECT_EQ(handled, 0);
}

/// Runs a function of the test's when it is released.
class ReleaseHook
{
 public:
    explicit ReleaseHook(std::function<void()> hook) : m_hook(std::move(hook)) {}
    ReleaseHook(ReleaseHook&& other) noexcept : m_hook(std::exchange(other.m_hook, nullptr)) {}
    ~ReleaseHook()
    {
        if (m_hook) {
            m_hook();
        }
    }

    ReleaseHook(const ReleaseHook&) = delete;
    ReleaseHook& operator=(const ReleaseHook&) = delete;
    ReleaseHook& operator=(ReleaseHook&&) = delete;

 private:
    std::function<void()> m_hook;
};

TEST_F(MultiQTaskTest, WhatADestroyedHandlersEventsHeldIsReleasedWithoutALock)
{
    bool ended = false;
    Hold hold(&m_task);
    FunctionHandler gone([](const TSEvent*) { return true; });
    gone.Create(&m_task);
    {
        TSEvent event = EventTo(&gone);
        event.setWrappedData(ReleaseHook([&] {
            // Ends the task, which takes its queues away, and waits for that.
            EXPECT_TRUE(Send(0, 0, false, true, TCTask::EVENT_EXIT));
            hold.Release();
            ended = Eventually([this] { return m_task.HasEnded(); });
        }));
        EXPECT_TRUE(TCMultiQTask::Send(&event, false, false, 1));
    }
    gone.Destroy();
    EXPECT_TRUE(ended);
    m_task.Destroy();
}

TEST_F(MultiQTaskTest, SendToAHandlerOfADestroyedTaskIsRefused)
{
    FunctionHandler handler([](const TSEvent*) { return true; }, &m_task);
    m_task.End();
    TSEvent event = EventTo(&handler);
    EXPECT_FALSE(TCMultiQTask::Send(&event, false, false, 0));
    EXPECT_FALSE(TCMultiQTask::Send(&event, false, true, 1));
    EXPECT_ASSERT_DEATH(TCMultiQTask::Send(&event, true, false, 0), "FlagCreate() == true");
    ASSERT_TRUE(m_task.Start()); // for the handler's end
}

TEST_F(MultiQTaskTest, ExitWithFullQueuesEndsTheTask)
{
    std::atomic<pthread_t> releasedOn{0};
    {
        Hold hold(&m_task);
        TSEvent event = EventTo(&m_task);
        event.setWrappedData(ReleaseProbe(&releasedOn));
        for (unsigned int queue = 1; queue < QUEUES; ++queue) {
            for (int i = 0; i < 240; ++i) {
                ASSERT_TRUE(TCMultiQTask::Send(&event, false, false, queue));
            }
        }
        EXPECT_TRUE(Send(0, 0, false, true, TCTask::EVENT_EXIT));
    }
    EXPECT_TRUE(Eventually([this] { return m_task.HasEnded(); }));
    EXPECT_NE(releasedOn, 0u); // what was queued went with its queue
    EXPECT_THAT(m_trace.Get(), IsEmpty());
    m_task.Destroy();
}

TEST_F(MultiQTaskTest, OnlyQueueZeroIsLeftAfterTheExitEvent)
{
    EXPECT_TRUE(Send(0, 0, true, false, TCTask::EVENT_EXIT));
    EXPECT_THAT(AssertionsOf([this] { EXPECT_FALSE(Send(1, 1)); }),
                ElementsAre("nQueueIndex < pMultiQTask->m_queueSize"));
    EXPECT_TRUE(Send(1, 0));
    EXPECT_EQ(m_task.Size(0), 1u);
    m_task.Destroy();
}

TEST_F(MultiQTaskTest, TaskCanBeCreatedAgain)
{
    m_task.End();
    EXPECT_FALSE(IsRegistered(&m_task));
    ASSERT_TRUE(m_task.Start(2));
    EXPECT_TRUE(IsRegistered(&m_task));
    EXPECT_TRUE(Send(1, 1, true));
    EXPECT_THAT(m_trace.Get(), ElementsAre("1"));
}

TEST_F(MultiQTaskTest, DestroyResumesAPausedTask)
{
    EXPECT_TRUE(m_task.Pause());
    const LogRecord record;
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_EXIT));
    m_task.Destroy();
    // The task may say that it waits before or after the record begins.
    EXPECT_THAT(PauseLines(record),
                ::testing::Contains("true 7 [pause_resume] Was not resumed before destroying."));
}

TEST(MultiQTaskCreateTest, MisuseIsAsserted)
{
    const TaskRuntime runtime;
    TestMultiQTask task;
    EXPECT_ASSERT_DEATH(task.Create(nullptr, 10, TEST_STACK_SIZE, 1, 0), "name != NULL");
    EXPECT_ASSERT_DEATH(task.Create("none", 10, TEST_STACK_SIZE, 0, 0), "nQueueSize > 0");
    const TSEvent event;
    EXPECT_ASSERT_DEATH(task.Destroy(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(task.t_OnEvent(&event), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(task.t_OnClearQueue(&event), "FlagCreate() == true");
    ASSERT_TRUE(task.Start());
    EXPECT_ASSERT_DEATH(task.Start(), "FlagCreate() == false");
    EXPECT_ASSERT_DEATH(task.t_OnEvent(nullptr), "event != NULL");
    EXPECT_ASSERT_DEATH(task.t_OnClearQueue(nullptr), "event != NULL");
}

TEST(MultiQTaskCreateTest, NoQueuesAreRefusedInARelease)
{
    TestMultiQTask task;
    EXPECT_THAT(AssertionsOf([&task] { EXPECT_FALSE(task.Start(0)); }),
                ElementsAre("nQueueSize > 0"));
    EXPECT_FALSE(task.FlagCreate());
}

/// Lock and count of queue 0, notify semaphore, lock and count of queue 1, and start gate, exit
/// gate and start signal of the thread.
class MultiQTaskFailureTest : public ::testing::TestWithParam<int>
{};

TEST_P(MultiQTaskFailureTest, CreateWithoutASemaphoreFailsAndTakesQueueZeroDown)
{
    // What has been made of the rest stays behind, with a task that is never destroyed. Nor is the
    // list, so that none of it counts as a leak.
    static auto& left = *new std::vector<TestMultiQTask*>;
    const TaskRuntime runtime;
    left.push_back(new TestMultiQTask);
    const ConditionWatch watch(GetParam());
    EXPECT_FALSE(left.back()->Start(2));
    EXPECT_FALSE(left.back()->FlagCreate());
    EXPECT_FALSE(IsRegistered(left.back()));
    EXPECT_EQ(watch.Made(), GetParam() + 1);
    for (int number = 0; number < std::min(2, GetParam()); ++number) {
        EXPECT_THAT(watch.Destroyed(), ::testing::Contains(number));
    }
}

INSTANTIATE_TEST_SUITE_P(Semaphores, MultiQTaskFailureTest, ::testing::Range(0, 8));

TEST(MultiQTaskCreateTest, OneQueueIsEnough)
{
    const TaskRuntime runtime;
    TestMultiQTask task;
    ASSERT_TRUE(task.Start(1));
    TSEvent event = EventTo(&task);
    EXPECT_TRUE(TCMultiQTask::Send(&event, true, false, 0));
}

TEST(MultiQTaskCreateTest, EachQueueHasANotifyThread)
{
    const TaskRuntime runtime;
    TestMultiQTask task;
    ASSERT_TRUE(task.Start(4));
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed("MQEventNotify") == 4; }));
    task.End();
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed("MQEventNotify") == 0; }));
}

TEST(MultiQTaskCreateTest, WatchdogTimeHasAFloor)
{
    const TaskRuntime runtime;
    FakeWatchdog watchdog;
    TestMultiQTask task;
    ASSERT_TRUE(task.Start(2, 3));
    EXPECT_TRUE(Eventually([&] { return watchdog.TimeOuts().size() == 1; }));
    EXPECT_THAT(watchdog.TimeOuts(), ElementsAre(5u));
}

TEST(MultiQTaskCreateTest, ThreadThatEndsAtOnceTakesNothingWithIt)
{
    const TaskRuntime runtime;
    TestMultiQTask task;
    task.onCreate = [] { return false; };
    ASSERT_TRUE(task.Start());
    EXPECT_TRUE(Eventually([&] { return task.HasEnded(); }));
    TSEvent event = EventTo(&task);
    EXPECT_TRUE(TCMultiQTask::Send(&event, false, false, 2));
    task.Destroy();
    // The kernel lists a thread for a moment after it has been joined.
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed("MQEventNotify") == 0; }));
}

TEST(MultiQTaskCreateTest, ExitFromTheFirstHookEndsTheTask)
{
    const TaskRuntime runtime;
    for (int round = 0; round < 50; ++round) {
        TestMultiQTask task;
        task.onCreate = [&task] { return Post(&task, TCTask::EVENT_EXIT); };
        ASSERT_TRUE(task.Start(8));
        task.Destroy();
    }
}

TEST(MultiQTaskCreateTest, PauseOfAnEndedTaskIsRefused)
{
    const TaskRuntime runtime;
    TestMultiQTask task;
    task.onCreate = [] { return false; };
    ASSERT_TRUE(task.Start());
    EXPECT_FALSE(task.Pause());
    EXPECT_EQ(task.Size(0), 0u);
    task.Destroy();
}

/// Four senders, three queues: each sender's events of one queue keep their order, and none is
/// lost.
TEST(MultiQTaskStressTest, OrderPerSenderAndQueueIsKept)
{
    constexpr int SENDERS = 4;
    constexpr std::uint32_t EVENTS = 3000;
    const TaskRuntime runtime;
    TestMultiQTask task;
    std::array<std::array<std::uint32_t, QUEUES>, SENDERS> next{};
    std::uint32_t handled = 0;
    bool inOrder = true;
    task.onUser = [&](const TSEvent* event) { // runs on the task's thread only
        std::uint32_t& expected = next[event->param2 / QUEUES][event->param2 % QUEUES];
        inOrder = inOrder && event->param1 == expected;
        ++expected;
        ++handled;
        return true;
    };
    ASSERT_TRUE(task.Start());

    std::vector<std::thread> senders;
    for (std::uint32_t sender = 0; sender < SENDERS; ++sender) {
        senders.emplace_back([&task, sender] {
            for (std::uint32_t i = 0; i < EVENTS; ++i) {
                const unsigned int queue = i % QUEUES;
                TSEvent event = EventTo(&task, TCTask::EVENT_USER, i / QUEUES);
                event.param2 = sender * QUEUES + queue;
                const bool sync = i % 50 == 0;
                ASSERT_TRUE(
                    Eventually([&] { return TCMultiQTask::Send(&event, sync, false, queue); }));
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    for (unsigned int queue = 0; queue < QUEUES; ++queue) {
        EXPECT_TRUE(Eventually([&] { return task.Size(static_cast<int>(queue)) == 0; }));
    }
    task.End();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(handled, SENDERS * EVENTS);
}

/// Senders that come too late are refused; none hangs and nothing is used after it is gone.
TEST(MultiQTaskStressTest, ExitWhileOthersSend)
{
    const TaskRuntime runtime;
    test::TSCustomAssert::callback = [](const char*, unsigned long) {
    }; // the index, once it is gone
    for (int round = 0; round < 20; ++round) {
        TestMultiQTask task;
        ASSERT_TRUE(task.Start());
        std::atomic<bool> stop{false};
        std::vector<std::thread> senders;
        for (unsigned int queue = 0; queue < QUEUES; ++queue) {
            senders.emplace_back([&task, &stop, queue] {
                while (!stop) {
                    TSEvent event = EventTo(&task);
                    TCMultiQTask::Send(&event, false, false, queue);
                }
            });
        }
        EXPECT_TRUE(Eventually([&] { return Post(&task, TCTask::EVENT_EXIT); }));
        EXPECT_TRUE(Eventually([&] { return task.HasEnded(); }));
        stop = true;
        for (std::thread& sender : senders) {
            sender.join();
        }
        task.Destroy();
    }
    test::TSCustomAssert::callback = nullptr;
}

class NotifyThreadTest : public ::testing::Test
{
 protected:
    NotifyThreadTest()
    {
        EXPECT_TRUE(m_queue.Create());
        EXPECT_TRUE(m_target.Create(0));
    }

    ~NotifyThreadTest() override
    {
        m_queue.Destroy();
        m_target.Destroy();
    }

    TCQueue m_queue;
    TCSemaphore m_target;
    TCEventNotifyThread m_thread;
};

TEST_F(NotifyThreadTest, ForwardsOneUnitForEachEvent)
{
    ASSERT_TRUE(m_thread.Create("notify", &m_queue, &m_target, 1000));
    TSEvent event;
    EXPECT_TRUE(m_queue.Put(&event, false));
    EXPECT_TRUE(m_queue.Put(&event, true));
    EXPECT_TRUE(m_target.Try(60000));
    EXPECT_TRUE(m_target.Try(60000));
    EXPECT_FALSE(m_target.Try(0));
    EXPECT_EQ(m_queue.Size(), 2u);
    m_thread.Destroy();
    EXPECT_FALSE(m_thread.FlagCreate());
}

TEST_F(NotifyThreadTest, DestroyWakesAThreadThatWaitsForLong)
{
    ASSERT_TRUE(m_thread.Create("notify", &m_queue, &m_target, LONG_WAIT_MSEC));
    m_thread.Destroy(); // would take ten minutes otherwise
    EXPECT_FALSE(m_thread.FlagCreate());
}

} // namespace
