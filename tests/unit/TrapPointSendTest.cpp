#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "TaskSupport.h"
#include "TrapPointFakes.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;
using zortest::AddressText;

/// Sends to tasks, with the trap-point library taken over.
class TrapPointSendTest : public testing::Test
{
 protected:
    TrapPointSendTest() { EXPECT_TRUE(task.Start()); }

    TSEvent FlaggedEvent(TCHandler* receiver) const
    {
        TSEvent event = zortest::EventTo(receiver);
        event.flag = true;
        return event;
    }

    /// The notes of the thread that handled the last event.
    std::vector<std::string> TakeHandlingNotes()
    {
        std::vector<std::string> notes;
        zortest::FunctionHandler collector(
            [&](const TSEvent*) {
                notes = recorder.Take();
                return true;
            },
            &task);
        TSEvent event = zortest::EventTo(&collector);
        EXPECT_TRUE(TCTask::Send(&event, true, false));
        return notes;
    }

    zortest::TaskRuntime runtime;
    zortest::FakeRecorder recorder;
    zortest::TestTask task;
    zortest::FunctionHandler handler{[](const TSEvent*) { return true; }, &task};
};

TEST_F(TrapPointSendTest, SendWithoutFlagPassesNoTrapPoint)
{
    recorder.Enable();
    TSEvent event = zortest::EventTo(&handler);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_THAT(recorder.Take(), testing::IsEmpty());
    EXPECT_THAT(TakeHandlingNotes(), testing::IsEmpty());
}

TEST_F(TrapPointSendTest, SendIsRecordedAtItsConstantLocation)
{
    recorder.Enable();
    TSEvent event = FlaggedEvent(&handler);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_THAT(recorder.Take(),
                IsSupersetOf({std::string("TCCallLocation(static bool TCTask::Send(TSEvent*, bool, "
                                          "bool), src/Task.cpp, 168)"),
                              std::string("SaveLocation(TSEvent in 16383, bool in 16383, bool in "
                                          "16383, bool)"),
                              "Store(" + AddressText(&event) + ", 128)",
                              std::string("StoreFixed(true)"), std::string("StoreFixed(false)")}));
}

TEST_F(TrapPointSendTest, HandlingIsRecordedAtItsConstantLocation)
{
    recorder.Enable();
    TSEvent event = FlaggedEvent(&handler);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_THAT(
        TakeHandlingNotes(),
        IsSupersetOf({"TCCallLocation(bool TCHandler::OnEvent(const TSEvent*), "
                      "inc/Task.h, 102)",
                      "SaveLocation(TSEvent in 16383, bool)", "Commit", "StoreFixed(true)"}));
}

TEST_F(TrapPointSendTest, ResultOfTheHandlerIsRecordedWithItsHandling)
{
    zortest::FunctionHandler refusing([](const TSEvent*) { return false; }, &task);
    recorder.Enable();
    TSEvent event = FlaggedEvent(&refusing);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_THAT(TakeHandlingNotes(),
                AllOf(Contains("StoreFixed(false)"), Not(Contains("StoreFixed(true)"))));
}

TEST_F(TrapPointSendTest, SendToQueueIsRecordedWithItsQueue)
{
    zortest::FunctionHandler unbound([](const TSEvent*) { return true; }, &task);
    recorder.Enable();
    // The task has one queue only: the send is refused, and that is recorded.
    TSEvent event = FlaggedEvent(&unbound);
    EXPECT_FALSE(TCMultiQTask::Send(&event, true, false, 5));
    EXPECT_THAT(
        recorder.Take(),
        IsSupersetOf({std::string("TCCallLocation(static bool TCMultiQTask::Send(TSEvent*, bool, "
                                  "bool, unsigned int), src/Task.cpp, 1435)"),
                      std::string("SaveLocation(TSEvent in 16383, bool in 16383, bool in 16383, "
                                  "unsigned int in 16383, bool)"),
                      "Store(" + AddressText(&event) + ", 128)", std::string("StoreFixed(true)"),
                      std::string("StoreFixed(false)"), std::string("StoreFixed(5u)")}));
}

TEST_F(TrapPointSendTest, RefusedSendIsHeldAgainstItsTrapCondition)
{
    using ht::TSTrapTest;
    ht::TCTrapPattern& patterns = *ht::TCTrapPattern::Instance();
    ASSERT_TRUE(
        patterns.SetCondition({168, "Task"}, {TSTrapTest::Unsigned(0, TSTrapTest::EQUAL, 0)}));
    {
        const zortest::Hold hold(&task);
        zortest::FillQueue(&task);
        TSEvent event = FlaggedEvent(&handler);
        EXPECT_FALSE(TCTask::Send(&event, false, true));
        EXPECT_THAT(
            recorder.Take(),
            ElementsAre("Start", "Stop", "IsEnabled", "NormalizeCodeLocation(src/Task.cpp:168)",
                        "FindTrapCondition(Task:168)", "EvaluateResult(false)",
                        "EvaluateTrapItem(2, false)", "EvaluateTrapItem(3, true)",
                        "AddItemToQueue(matching)"));
    }
    patterns.Clear();
}

} // namespace
