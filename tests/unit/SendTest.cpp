#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "ConsoleSeam.h"
#include "TCDebugPrint.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A running task that notes the param1 of its user events.
class SendTest : public ::testing::Test
{
 protected:
    SendTest()
    {
        m_task.onUser = [this](const TSEvent* event) {
            m_seen = *event;
            m_trace.Add(std::to_string(event->param1));
            return true;
        };
        EXPECT_TRUE(m_task.Start());
    }

    bool Send(std::uint32_t param1, bool sync, bool priority)
    {
        TSEvent event = EventTo(&m_task, TCTask::EVENT_USER, param1);
        return TCTask::Send(&event, sync, priority);
    }

    const TaskRuntime m_runtime;
    Trace m_trace;
    TSEvent m_seen; ///< written by the task's thread
    TestTask m_task;
};

TEST_F(SendTest, AsynchronousSendReturnsBeforeTheHandling)
{
    Hold hold(&m_task);
    EXPECT_TRUE(Send(1, false, false));
    EXPECT_TRUE(Send(2, false, true));
    EXPECT_EQ(m_task.Size(), 2u);
    EXPECT_THAT(m_trace.Get(), IsEmpty());
}

TEST_F(SendTest, SynchronousSendReturnsAfterTheHandling)
{
    EXPECT_TRUE(Send(1, true, false));
    EXPECT_THAT(m_trace.Get(), ElementsAre("1"));
    EXPECT_TRUE(Send(2, true, true));
    EXPECT_THAT(m_trace.Get(), ElementsAre("1", "2"));
}

TEST_F(SendTest, SynchronousSenderWaitsForAllThatIsAheadOfIt)
{
    Hold hold(&m_task);
    EXPECT_TRUE(Send(1, false, false));
    Caller sender([&] { EXPECT_TRUE(Send(2, true, false)); });
    EXPECT_TRUE(sender.Blocks());
    EXPECT_EQ(m_task.Size(), 2u);
    hold.Release();
    sender.Join();
    EXPECT_THAT(m_trace.Get(), ElementsAre("1", "2"));
}

TEST_F(SendTest, EventsOfOneSenderAreHandledInOrder)
{
    constexpr std::uint32_t EVENTS = 5000;
    std::vector<std::string> expected;
    for (std::uint32_t i = 0; i < EVENTS; ++i) {
        ASSERT_TRUE(
            Eventually([&] { return Send(i, false, false); })); // a full queue is waited out
        expected.push_back(std::to_string(i));
    }
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_EQ(m_trace.Get(), expected);
}

TEST_F(SendTest, PriorityEventsOvertakeAndTheLastOneIsFirst)
{
    {
        Hold hold(&m_task);
        for (std::uint32_t i = 1; i <= 3; ++i) {
            EXPECT_TRUE(Send(i, false, false));
            EXPECT_TRUE(Send(10 * i, false, true));
        }
    }
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("30", "20", "10", "1", "2", "3"));
}

TEST_F(SendTest, SynchronousPrioritySendOvertakesToo)
{
    Hold hold(&m_task);
    EXPECT_TRUE(Send(1, false, false));
    Caller sender([&] {
        EXPECT_TRUE(Send(2, true, true));
        EXPECT_FALSE(m_trace.Get().empty());
    });
    EXPECT_TRUE(sender.Blocks());
    hold.Release();
    sender.Join();
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("2", "1"));
}

TEST_F(SendTest, HandlerSeesTheSendersFieldsAndTheQueuesStamps)
{
    TSEvent event = EventTo(&m_task, TCTask::EVENT_USER, 1);
    event.param2 = 2;
    event.param3 = 3;
    event.param4 = 4;
    event.param5 = 5;
    event.param6 = 6;
    event.sender = 99;
    event.appName = "not the thread's";
    event.appFlag = 88;
    event.setWrappedData(std::string("attached"));
    EXPECT_TRUE(TCTask::Send(&event, true, false));

    EXPECT_EQ(m_seen.receiver, &m_task);
    EXPECT_EQ(m_seen.type, TCTask::EVENT_USER);
    EXPECT_EQ(m_seen.param1, 1u);
    EXPECT_EQ(m_seen.param2, 2u);
    EXPECT_EQ(m_seen.param3, 3u);
    EXPECT_EQ(m_seen.param4, 4u);
    EXPECT_EQ(m_seen.param5, 5u);
    EXPECT_EQ(m_seen.param6, 6u);
    EXPECT_EQ(m_seen.wrappedData, event.wrappedData);
    EXPECT_EQ(m_seen.sender, static_cast<std::uint32_t>(pthread_self()));
    EXPECT_EQ(m_seen.appName, "");
    EXPECT_EQ(m_seen.appFlag, 0);
}

TEST_F(SendTest, ReplyIsCarriedBySynchronousEventsOnly)
{
    EXPECT_TRUE(Send(1, true, false));
    EXPECT_NE(m_seen.sync, nullptr);
    EXPECT_TRUE(Send(2, false, false));
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_EQ(m_seen.sync, nullptr);
}

TEST_F(SendTest, EventStaysTheCallersAndIsNotChanged)
{
    for (const bool sync : {false, true}) {
        TSEvent event = EventTo(&m_task, TCTask::EVENT_USER, 1);
        event.sender = 99;
        event.appName = "the caller's";
        event.appFlag = 88;
        event.setWrappedData(std::string("attached"));
        const ZOREventDataBase* const attachment = event.wrappedData.get();
        EXPECT_TRUE(TCTask::Send(&event, sync, false));
        EXPECT_EQ(event.receiver, &m_task);
        EXPECT_EQ(event.param1, 1u);
        EXPECT_EQ(event.sync, nullptr);
        EXPECT_EQ(event.sender, 99u);
        EXPECT_EQ(event.appName, "the caller's");
        EXPECT_EQ(event.appFlag, 88);
        EXPECT_EQ(event.wrappedData.get(), attachment);
        EXPECT_TRUE(Flush(&m_task));
        EXPECT_EQ(m_seen.wrappedData.get(), attachment); // shared with the copy
    }
}

TEST_F(SendTest, FullQueueRefusesOrdinaryEventsAt240AndPriorityEventsAt256)
{
    Hold hold(&m_task);
    for (std::uint32_t i = 0; i < 240; ++i) {
        ASSERT_TRUE(Send(i, false, false));
    }
    EXPECT_FALSE(Send(999, false, false));
    EXPECT_FALSE(Send(999, true, false)); // at once
    for (std::uint32_t i = 0; i < 16; ++i) {
        ASSERT_TRUE(Send(i, false, true));
    }
    EXPECT_FALSE(Send(999, false, true));
    EXPECT_FALSE(Send(999, true, true));
    hold.Release();
    EXPECT_TRUE(Eventually([&] { return m_trace.Size() == 256; }));
    EXPECT_THAT(m_trace.Get(), Each(::testing::Ne("999")));
}

TEST_F(SendTest, SynchronousSenderIsReleasedByDeletion)
{
    Hold hold(&m_task);
    bool sent = false;
    Caller sender([&] { sent = Send(1, true, false); });
    ASSERT_TRUE(sender.Blocks());
    unsigned int deleted = 0;
    EXPECT_TRUE(m_task.Delete(static_cast<TCHandler*>(&m_task), &deleted));
    EXPECT_EQ(deleted, 1u);
    sender.Join();
    EXPECT_TRUE(sent);
    hold.Release();
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), IsEmpty());
}

TEST_F(SendTest, HandlerOfAnotherTaskIsRunOnThatTasksThread)
{
    TestTask other;
    pthread_t thread = 0;
    other.onUser = [&](const TSEvent* event) {
        thread = pthread_self();
        return Send(event->param1 + 1, true, false); // task to task
    };
    ASSERT_TRUE(other.Start("other"));
    TSEvent event = EventTo(&other, TCTask::EVENT_USER, 1);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_THAT(m_trace.Get(), ElementsAre("2"));
    EXPECT_EQ(m_seen.sender, static_cast<std::uint32_t>(thread));
}

TEST_F(SendTest, RegistrysLockIsNotTaken)
{
    const RegistryLock lock;
    Caller sender([&] {
        EXPECT_TRUE(Send(1, false, false));
        EXPECT_TRUE(Send(2, true, false));
        EXPECT_TRUE(Send(3, true, true));
    });
    sender.Join();
    EXPECT_THAT(m_trace.Get(), ElementsAre("1", "2", "3"));
}

TEST_F(SendTest, AsynchronousSendOnTheTasksOwnThreadIsQueued)
{
    std::vector<std::string> before;
    FunctionHandler handler(
        [&](const TSEvent*) {
            EXPECT_TRUE(Send(1, false, false));
            EXPECT_TRUE(Send(2, false, true));
            EXPECT_EQ(m_task.Size(), 2u);
            before = m_trace.Get();
            return true;
        },
        &m_task);
    TSEvent event = EventTo(&handler);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(before, IsEmpty());
    EXPECT_THAT(m_trace.Get(), ElementsAre("2", "1"));
}

TEST_F(SendTest, FlaggedEventIsSentLikeAnyOther)
{
    for (const auto& [sync, priority] : {std::pair{false, false}, std::pair{false, true},
                                         std::pair{true, false}, std::pair{true, true}}) {
        TSEvent event = EventTo(&m_task, TCTask::EVENT_USER, 1);
        event.flag = true;
        EXPECT_TRUE(TCTask::Send(&event, sync, priority));
        EXPECT_TRUE(Flush(&m_task));
        EXPECT_TRUE(m_seen.flag);
    }
    EXPECT_EQ(m_trace.Size(), 4u);

    Hold hold(&m_task);
    FillQueue(&m_task);
    TSEvent event = EventTo(&m_task);
    event.flag = true;
    EXPECT_FALSE(TCTask::Send(&event, false, true));
}

/// A task that has been destroyed and a handler that was bound to it before.
class SendToDestroyedTest : public ::testing::Test
{
 protected:
    SendToDestroyedTest()
    {
        EXPECT_TRUE(m_task.Start());
        EXPECT_TRUE(m_handler.Create(&m_task));
        m_task.End();
    }

    ~SendToDestroyedTest() override
    {
        EXPECT_TRUE(m_task.Start()); // the handler cannot go without its task
        m_handler.Destroy();
    }

    bool Send(TCHandler* receiver, bool sync, bool priority, bool flag = false)
    {
        TSEvent event = EventTo(receiver);
        event.flag = flag;
        return TCTask::Send(&event, sync, priority);
    }

    const TaskRuntime m_runtime;
    TestTask m_task;
    FunctionHandler m_handler{[](const TSEvent*) { return true; }};
};

TEST_F(SendToDestroyedTest, AsynchronousSendReturnsFalseWithoutAssertion)
{
    EXPECT_FALSE(Send(&m_handler, false, false));
    EXPECT_FALSE(Send(&m_handler, false, true));
    EXPECT_FALSE(Send(&m_handler, false, true, true));
    EXPECT_EQ(m_handler.Handled(), 0);
}

TEST_F(SendToDestroyedTest, SynchronousSendAssertsAndReturnsFalse)
{
    for (const bool priority : {false, true}) {
        const auto failed = AssertionsOf([&] { EXPECT_FALSE(Send(&m_handler, true, priority)); });
        EXPECT_THAT(failed, Each("FlagCreate() == true"));
        EXPECT_FALSE(failed.empty());
    }
    EXPECT_EQ(m_handler.Handled(), 0);
}

TEST_F(SendToDestroyedTest, SendToTheTasksOwnHandlerAssertsAndReturnsFalse)
{
    for (const bool sync : {false, true}) {
        const auto failed = AssertionsOf([&] { EXPECT_FALSE(Send(&m_task, sync, false)); });
        EXPECT_THAT(failed, Each("FlagCreate() == true"));
        EXPECT_FALSE(failed.empty());
    }
}

using SendDeathTest = SendTest;

TEST_F(SendDeathTest, SendWithoutEventAsserts)
{
    EXPECT_ASSERT_DEATH(TCTask::Send(nullptr, false, false), "event != NULL");
}

TEST_F(SendDeathTest, SendWithoutReceiverAsserts)
{
    TSEvent event;
    EXPECT_ASSERT_DEATH(TCTask::Send(&event, false, false), "event->receiver != NULL");
    event.flag = true;
    EXPECT_ASSERT_DEATH(TCTask::Send(&event, true, true), "event->receiver != NULL");
}

TEST_F(SendDeathTest, SendToAHandlerThatIsNotCreatedAsserts)
{
    FunctionHandler handler([](const TSEvent*) { return true; });
    TSEvent event = EventTo(&handler);
    EXPECT_ASSERT_DEATH(TCTask::Send(&event, false, false), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(TCTask::Send(&event, true, false), "FlagCreate() == true");
}

} // namespace
