#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "ConsoleSeam.h"
#include "Layout.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t CREATED_MAGIC = 19670827;
constexpr std::size_t FLAG_OFFSET = 8;

/// A handler whose destructor does nothing of its own.
class PlainHandler : public TCHandler
{
 public:
    bool t_OnEvent(const TSEvent* /*event*/) override { return true; }
};

/// A running task and a handler that is not created.
class HandlerTest : public ::testing::Test
{
 protected:
    HandlerTest() { EXPECT_TRUE(m_task.Start()); }

    const TaskRuntime m_runtime;
    TestTask m_task;
    PlainHandler m_handler;
};

TEST_F(HandlerTest, CreateBindsItToTheTask)
{
    EXPECT_FALSE(m_handler.FlagCreate());
    EXPECT_TRUE(m_handler.Create(&m_task));
    EXPECT_TRUE(m_handler.FlagCreate());
    EXPECT_EQ(m_handler.Task(), &m_task);
    m_handler.Destroy();
    EXPECT_FALSE(m_handler.FlagCreate());
}

TEST_F(HandlerTest, CreatedFlagIsTheMagicNumber)
{
    EXPECT_NE(FieldAt<std::uint32_t>(m_handler, FLAG_OFFSET), CREATED_MAGIC);
    ASSERT_TRUE(m_handler.Create(&m_task));
    EXPECT_EQ(FieldAt<std::uint32_t>(m_handler, FLAG_OFFSET), CREATED_MAGIC);
    m_handler.Destroy();
    EXPECT_NE(FieldAt<std::uint32_t>(m_handler, FLAG_OFFSET), CREATED_MAGIC);
}

TEST_F(HandlerTest, CanBeCreatedAgainForAnotherTask)
{
    TestTask other;
    ASSERT_TRUE(other.Start("other"));
    ASSERT_TRUE(m_handler.Create(&m_task));
    m_handler.Destroy();
    ASSERT_TRUE(m_handler.Create(&other));
    EXPECT_EQ(m_handler.Task(), &other);
    m_handler.Destroy();
}

TEST_F(HandlerTest, CreateAssertsAndGoesOnInARelease)
{
    ASSERT_TRUE(m_handler.Create(&m_task));
    EXPECT_THAT(AssertionsOf([this] { EXPECT_TRUE(m_handler.Create(nullptr)); }),
                ElementsAre("FlagCreate() == false", "task != NULL"));
    EXPECT_THAT(AssertionsOf([this] { EXPECT_TRUE(m_handler.Create(&m_task)); }),
                ElementsAre("FlagCreate() == false"));
    m_handler.Destroy();
}

TEST_F(HandlerTest, DestroyDeletesItsOwnQueuedEventsOnly)
{
    Trace handled;
    FunctionHandler other(
        [&](const TSEvent* event) {
            handled.Add("other " + std::to_string(event->param1));
            return true;
        },
        &m_task);
    FunctionHandler gone(
        [&](const TSEvent*) {
            handled.Add("gone");
            return true;
        },
        &m_task);
    Hold hold(&m_task);
    EXPECT_TRUE(Post(&gone, 1, 1));
    EXPECT_TRUE(Post(&other, 1, 2));
    EXPECT_TRUE(Post(&gone, 2, 3));
    EXPECT_TRUE(Post(&other, 2, 4));
    ASSERT_EQ(m_task.Size(), 4u);

    gone.Destroy();
    EXPECT_EQ(m_task.Size(), 2u);
    hold.Release();
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(handled.Get(), ElementsAre("other 2", "other 4"));
}

TEST_F(HandlerTest, DestroyReleasesASynchronousSenderOfADeletedEvent)
{
    ASSERT_TRUE(m_handler.Create(&m_task));
    Hold hold(&m_task);
    bool sent = false;
    Caller sender([&] {
        TSEvent event = EventTo(&m_handler);
        sent = TCTask::Send(&event, true, false);
    });
    ASSERT_TRUE(sender.Blocks());
    m_handler.Destroy();
    sender.Join();
    EXPECT_TRUE(sent);
}

TEST_F(HandlerTest, DestroyDuringItsOwnEventLetsTheHandlingFinish)
{
    Trace handled;
    FunctionHandler handler([&](const TSEvent*) {
        handler.Destroy();
        handled.Add("to the end");
        return true;
    });
    ASSERT_TRUE(handler.Create(&m_task));
    TSEvent event = EventTo(&handler);
    EXPECT_TRUE(TCTask::Send(&event, true, false)); // the sender is released all the same
    EXPECT_THAT(handled.Get(), ElementsAre("to the end"));
    EXPECT_FALSE(handler.FlagCreate());
}

TEST_F(HandlerTest, OnEventReturnsWhatTheHookReturns)
{
    const TSEvent* seen = nullptr;
    FunctionHandler handler(
        [&](const TSEvent* event) {
            seen = event;
            return event->type == 1;
        },
        &m_task);
    for (const bool flag : {false, true}) {
        TSEvent event = EventTo(&handler, 1);
        event.flag = flag;
        EXPECT_TRUE(handler.OnEvent(&event));
        EXPECT_EQ(seen, &event);
        event.type = 2;
        EXPECT_FALSE(handler.OnEvent(&event));
    }
    EXPECT_EQ(handler.Handled(), 4);
}

TEST_F(HandlerTest, OnEventRunsOnTheCallingThread)
{
    pthread_t thread = 0;
    FunctionHandler handler(
        [&](const TSEvent*) {
            thread = pthread_self();
            return true;
        },
        &m_task);
    TSEvent event = EventTo(&handler);
    event.flag = true;
    handler.OnEvent(&event);
    EXPECT_EQ(thread, pthread_self());
}

TEST_F(HandlerTest, OnEventOfAHandlerThatIsNotCreatedGoesOnInARelease)
{
    FunctionHandler handler([](const TSEvent*) { return true; });
    TSEvent event = EventTo(&handler);
    EXPECT_THAT(AssertionsOf([&] { EXPECT_TRUE(handler.OnEvent(&event)); }),
                ElementsAre("FlagCreate() == true"));
}

TEST_F(HandlerTest, DestructorOfACreatedHandlerAsserts)
{
    auto handler = std::make_unique<PlainHandler>();
    EXPECT_THAT(AssertionsOf([] { PlainHandler never; }), IsEmpty());
    ASSERT_TRUE(handler->Create(&m_task));
    EXPECT_THAT(AssertionsOf([&] { handler.reset(); }), ElementsAre("FlagCreate() == false"));
}

using HandlerDeathTest = HandlerTest;

TEST_F(HandlerDeathTest, CreateTwiceAsserts)
{
    EXPECT_TRUE(m_handler.Create(&m_task));
    EXPECT_ASSERT_DEATH(m_handler.Create(&m_task), "FlagCreate() == false");
    m_handler.Destroy();
}

TEST_F(HandlerDeathTest, CreateWithoutTaskAsserts)
{
    EXPECT_ASSERT_DEATH(m_handler.Create(nullptr), "task != NULL");
}

TEST_F(HandlerDeathTest, OperationsBeforeCreateAssert)
{
    TSEvent event;
    EXPECT_ASSERT_DEATH(m_handler.Destroy(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(m_handler.OnEvent(&event), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(m_handler.Task(), "FlagCreate() == true");
}

TEST_F(HandlerDeathTest, OnEventWithoutEventAsserts)
{
    EXPECT_TRUE(m_handler.Create(&m_task));
    EXPECT_ASSERT_DEATH(m_handler.OnEvent(nullptr), "event != NULL");
    m_handler.Destroy();
}

} // namespace
