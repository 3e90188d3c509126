#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "AllocationCount.h"
#include "TaskSupport.h"
#include "ht.h"

/// @file
/// What a flagged event does. The program is run twice, with recording off and with recording on:
/// nothing may be different.

namespace {

/// Checks that recording is as the program was told, and removes the record at the end.
class Recording : public testing::Environment
{
 public:
    void SetUp() override
    {
        const char* const path = getenv("ZOR_RECORD");
        EXPECT_EQ(TIStorageManagerState::enabled.load(), path != nullptr);
        EXPECT_EQ(TIStorageManager::Instance() != nullptr, path != nullptr);
    }

    void TearDown() override
    {
        if (const char* const path = getenv("ZOR_RECORD")) {
            std::string name = path;
            const std::size_t mark = name.find("%p");
            ASSERT_NE(mark, std::string::npos);
            name.replace(mark, 2, std::to_string(getpid()));
            EXPECT_EQ(unlink(name.c_str()), 0) << name;
        }
    }
};

testing::Environment* const gRecording = testing::AddGlobalTestEnvironment(new Recording);

class TrapPointBehaviourTest : public testing::Test
{
 protected:
    TrapPointBehaviourTest() { EXPECT_TRUE(task.Start()); }

    static TSEvent FlaggedEvent(TCHandler* receiver, std::uint32_t param1 = 0)
    {
        TSEvent event = zortest::EventTo(receiver, TCTask::EVENT_USER, param1);
        event.flag = true;
        return event;
    }

    /// Blocks that a synchronous send to one's own task asks for.
    unsigned long BlocksOfASend(bool flag)
    {
        unsigned long blocks = 0;
        zortest::FunctionHandler inner([](const TSEvent*) { return true; }, &task);
        zortest::FunctionHandler outer(
            [&](const TSEvent*) {
                TSEvent event = zortest::EventTo(&inner);
                event.flag = flag;
                TCTask::Send(&event, true, true); // the first one may describe call sites
                const unsigned long before = AllocationCount();
                EXPECT_TRUE(TCTask::Send(&event, true, true));
                blocks = AllocationCount() - before;
                return true;
            },
            &task);
        TSEvent event = zortest::EventTo(&outer);
        EXPECT_TRUE(TCTask::Send(&event, true, false));
        return blocks;
    }

    zortest::TaskRuntime runtime;
    zortest::TestTask task;
};

TEST_F(TrapPointBehaviourTest, EventsAreHandledInOrderAndWhole)
{
    std::vector<std::uint32_t> handled;
    zortest::FunctionHandler handler(
        [&](const TSEvent* event) {
            EXPECT_TRUE(event->flag);
            EXPECT_EQ(event->sender, static_cast<std::uint32_t>(event->param6));
            handled.push_back(event->param1);
            return true;
        },
        &task);
    for (std::uint32_t i = 0; i < 1000; ++i) {
        TSEvent event = FlaggedEvent(&handler, i);
        event.param6 = pthread_self();
        ASSERT_TRUE(TCTask::Send(&event, i % 100 == 99, false));
        EXPECT_EQ(event.sender, 0U); // the caller's event stays as it was
    }
    ASSERT_TRUE(zortest::Flush(&task));
    ASSERT_EQ(handled.size(), 1000U);
    for (std::uint32_t i = 0; i < 1000; ++i) {
        EXPECT_EQ(handled[i], i);
    }
}

TEST_F(TrapPointBehaviourTest, FullQueueRefuses)
{
    zortest::FunctionHandler handler([](const TSEvent*) { return true; }, &task);
    zortest::Hold hold(&task);
    int accepted = 0;
    TSEvent event = FlaggedEvent(&handler);
    while (accepted < 1000 && TCTask::Send(&event, false, false)) {
        ++accepted;
    }
    EXPECT_EQ(accepted, 240);
    while (accepted < 1000 && TCTask::Send(&event, false, true)) {
        ++accepted;
    }
    EXPECT_EQ(accepted, 256);
    hold.Release();
    EXPECT_TRUE(zortest::Eventually([&] { return handler.Handled() == 256; }));
}

TEST_F(TrapPointBehaviourTest, PriorityEventsOvertake)
{
    zortest::Trace trace;
    zortest::FunctionHandler handler(
        [&](const TSEvent* event) {
            trace.Add(std::to_string(event->param1));
            return true;
        },
        &task);
    zortest::Hold hold(&task);
    for (const auto& [param, priority] : {std::pair<std::uint32_t, bool>(1, false), {2, true}}) {
        TSEvent event = FlaggedEvent(&handler, param);
        EXPECT_TRUE(TCTask::Send(&event, false, priority));
    }
    hold.Release();
    ASSERT_TRUE(zortest::Flush(&task));
    EXPECT_EQ(trace.Get(), (std::vector<std::string>{"2", "1"}));
}

TEST_F(TrapPointBehaviourTest, ResultOfTheHandlerIsReturned)
{
    zortest::FunctionHandler handler([](const TSEvent* event) { return event->param1 == 1; },
                                     &task);
    const TSEvent yes = FlaggedEvent(&handler, 1);
    const TSEvent no = FlaggedEvent(&handler, 2);
    EXPECT_TRUE(handler.OnEvent(&yes));
    EXPECT_FALSE(handler.OnEvent(&no));
}

TEST_F(TrapPointBehaviourTest, ExceptionOfAHandlerComesOut)
{
    struct Bare : TCHandler
    {
        bool t_OnEvent(const TSEvent* /*event*/) override
        {
            throw std::runtime_error("from the handler");
        }
    } bare;
    ASSERT_TRUE(bare.Create(&task));
    const TSEvent event = FlaggedEvent(&bare);
    EXPECT_THROW(bare.OnEvent(&event), std::runtime_error);
    bare.Destroy();
}

TEST_F(TrapPointBehaviourTest, AttachmentIsSharedAndReleased)
{
    std::atomic<pthread_t> releasedOn{0};
    zortest::FunctionHandler handler([](const TSEvent* event) { return !!event->wrappedData; },
                                     &task);
    {
        TSEvent event = FlaggedEvent(&handler);
        event.setWrappedData(zortest::ReleaseProbe(&releasedOn));
        EXPECT_TRUE(TCTask::Send(&event, true, false));
        EXPECT_NE(event.wrappedData, nullptr);
        EXPECT_EQ(releasedOn, 0U);
        ASSERT_TRUE(zortest::Flush(&task)); // the task has let go of its copy
        EXPECT_EQ(event.wrappedData.use_count(), 1);
    }
    EXPECT_EQ(releasedOn, pthread_self());
}

TEST_F(TrapPointBehaviourTest, FlagCostsNoMemory)
{
    EXPECT_EQ(BlocksOfASend(true), BlocksOfASend(false));
}

} // namespace
