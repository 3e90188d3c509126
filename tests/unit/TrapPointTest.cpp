#include "TrapPoint.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "LogSeam.h"
#include "TrapPointFakes.h"
#include "Wait.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using zortest::AddressText;
using zortest::Note;

constexpr char FUNCTION[] = "bool Relay::Pass(TSEvent*, bool, bool)";
constexpr char FILE_NAME[] = "src/Relay.cpp";
constexpr int LINE = 40;

using Args1 = TCArgList1<TSEvent const*&>;
using Args3 = TCArgList3<TSEvent*&, bool&, bool&>;
using Args4 = TCArgList4<TSEvent*&, bool&, bool&, unsigned int&>;

class TrapPointTest : public testing::Test
{
 protected:
    /// A call with three arguments at @p location, noted as "call".
    bool Pass(TSCodeLocation& location, TSEvent* event, bool sync, bool priority,
              bool result = true)
    {
        return zor::CallAtTrapPoint<bool>(location, Args3(event, sync, priority), [result] {
            Note("call");
            return result;
        });
    }

    bool Pass4(TSCodeLocation& location, TSEvent* event, bool sync, bool priority,
               unsigned int queue)
    {
        return zor::CallAtTrapPoint<bool>(location, Args4(event, sync, priority, queue), [] {
            Note("call");
            return true;
        });
    }

    zortest::FakeRecorder recorder;
    TSCodeLocation location{FUNCTION, FILE_NAME, LINE};
    TSEvent event;
};

/// The notes of a record before a call with three arguments, its call and the record after it.
std::vector<std::string> CallNotes(const TSEvent* event)
{
    return {"Instance",
            "CurrentStorage",
            "SessionId",
            "Record(storage, 2, 1)",
            "Reset",
            "GetNext",
            "Store(" + AddressText(event) + ", 128)",
            "GetNext",
            "StoreFixed(true)",
            "GetNext",
            "StoreFixed(false)",
            "Commit",
            "Start",
            "call",
            "Stop",
            "Instance",
            "CurrentStorage",
            "SessionId",
            "Record(storage, 3, 1)",
            "StoreFixed(true)",
            "Commit",
            "IsEnabled"};
}

TEST_F(TrapPointTest, CallIsAllThereIsWithRecordingAndPatternsOff)
{
    EXPECT_TRUE(Pass(location, &event, true, false));
    EXPECT_THAT(recorder.Take(), ElementsAre("Start", "call", "Stop", "IsEnabled"));
    EXPECT_FALSE(Pass(location, &event, true, false, false));
    EXPECT_EQ(recorder.Locations(), 0);
}

TEST_F(TrapPointTest, FirstRecordedCallDescribesItsLocation)
{
    recorder.Enable();
    EXPECT_TRUE(Pass(location, &event, true, false));
    const std::vector<std::string> description = {
        "TCCallLocation(bool Relay::Pass(TSEvent*, bool, bool), src/Relay.cpp, 40)",
        "Reset",
        "Demangle(TSEvent)",
        "GetNext",
        "Demangle(bool)",
        "GetNext",
        "Demangle(bool)",
        "GetNext",
        "Demangle(bool)",
        "SaveLocation(TSEvent in 16383, bool in 16383, bool in 16383, bool)",
        "~TCCallLocation"};
    std::vector<std::string> expected = CallNotes(&event);
    const auto afterSession = expected.begin() + 3;
    expected.insert(afterSession, description.begin(), description.end());
    EXPECT_EQ(recorder.Take(), expected);
}

TEST_F(TrapPointTest, LaterCallsUseTheIdOfTheFirst)
{
    recorder.Enable();
    Pass(location, &event, true, false);
    recorder.Take();
    EXPECT_TRUE(Pass(location, &event, true, false));
    EXPECT_EQ(recorder.Take(), CallNotes(&event));
    EXPECT_EQ(recorder.Locations(), 1);
}

TEST_F(TrapPointTest, EachLocationHasItsOwnId)
{
    recorder.Enable();
    TSCodeLocation other("void F()", "src/F.cpp", 1);
    Pass(location, &event, false, false);
    Pass(other, &event, false, false);
    recorder.Take();
    Pass(other, &event, false, false);
    EXPECT_THAT(recorder.Take(),
                AllOf(Contains("Record(storage, 2, 2)"), Contains("Record(storage, 3, 2)")));
}

TEST_F(TrapPointTest, LocationIsDescribedAgainInAnotherSession)
{
    recorder.Enable();
    Pass(location, &event, false, false);
    recorder.NewSession();
    recorder.Take();
    Pass(location, &event, false, false);
    EXPECT_THAT(recorder.Take(), Contains("Record(storage, 2, 2)"));
    EXPECT_EQ(recorder.Locations(), 2);
}

TEST_F(TrapPointTest, ThreadsThatMeetAtALocationDescribeItOnce)
{
    recorder.Enable();
    for (int round = 1; round <= 50; ++round) {
        recorder.NewSession();
        zortest::Gate start(4);
        std::vector<std::thread> threads;
        std::atomic<int> strangers{0};
        const std::string id = std::to_string(round);
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                start.Pass();
                EXPECT_TRUE(start.Wait());
                Pass(location, &event, false, false);
                const std::vector<std::string> notes = recorder.Take();
                const bool isKnown =
                    testing::Value(notes, Contains("Record(storage, 2, " + id + ")")) &&
                    testing::Value(notes, Contains("Record(storage, 3, " + id + ")"));
                strangers += isKnown ? 0 : 1;
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(recorder.Locations(), round);
        ASSERT_EQ(strangers, 0);
    }
}

TEST_F(TrapPointTest, NullEventIsRecordedAsNull)
{
    recorder.Enable();
    Pass(location, nullptr, false, false);
    EXPECT_THAT(recorder.Take(), AllOf(Contains("AddNull(0x0)"), Not(Contains("Store(0x0, 128)"))));
}

TEST_F(TrapPointTest, ListOfOneRecordsTheEvent)
{
    recorder.Enable();
    const TSEvent* pointer = &event;
    zor::CallAtTrapPoint<bool>(location, Args1(pointer), [] { return false; });
    const std::vector<std::string> notes = recorder.Take();
    EXPECT_THAT(notes, Contains("SaveLocation(TSEvent in 16383, bool)"));
    const auto record = std::find(notes.begin(), notes.end(), "Record(storage, 2, 1)");
    ASSERT_GE(notes.end() - record, 14);
    const std::vector<std::string> tail(record, notes.end());
    EXPECT_THAT(tail,
                ElementsAre("Record(storage, 2, 1)", "Reset", "GetNext",
                            "Store(" + AddressText(pointer) + ", 128)", "Commit", "Start", "Stop",
                            "Instance", "CurrentStorage", "SessionId", "Record(storage, 3, 1)",
                            "StoreFixed(false)", "Commit", "IsEnabled"));
}

TEST_F(TrapPointTest, ListOfFourRecordsTheQueueToo)
{
    recorder.Enable();
    EXPECT_TRUE(Pass4(location, &event, false, true, 3));
    const std::vector<std::string> notes = recorder.Take();
    EXPECT_THAT(notes, Contains("SaveLocation(TSEvent in 16383, bool in 16383, bool in 16383, "
                                "unsigned int in 16383, bool)"));
    const auto record = std::find(notes.begin(), notes.end(), "Record(storage, 2, 1)");
    ASSERT_GE(notes.end() - record, 11);
    EXPECT_THAT(
        std::vector<std::string>(record, record + 11),
        ElementsAre("Record(storage, 2, 1)", "Reset", "GetNext",
                    "Store(" + AddressText(&event) + ", 128)", "GetNext", "StoreFixed(false)",
                    "GetNext", "StoreFixed(true)", "GetNext", "StoreFixed(3u)", "Commit"));
}

TEST_F(TrapPointTest, ArgumentThatIsNoInputIsNotRecorded)
{
    TSEvent* pointer = &event;
    bool sync = true;
    bool priority = true;
    ht::TCDirection direction(3, 0b101);
    TCCallExecutorHelper::SaveBeforeCall<bool>(*TIStorageManager::Instance(), location,
                                               Args3(pointer, sync, priority), direction);
    const std::vector<std::string> notes = recorder.Take();
    EXPECT_THAT(notes, Contains("SaveLocation(TSEvent in 16383, bool out 16383, bool in 16383, "
                                "bool)"));
    const auto record = std::find(notes.begin(), notes.end(), "Record(storage, 2, 1)");
    EXPECT_THAT(std::vector<std::string>(record, notes.end()),
                ElementsAre("Record(storage, 2, 1)", "Reset", "GetNext",
                            "Store(" + AddressText(&event) + ", 128)", "GetNext", "GetNext",
                            "StoreFixed(true)", "Commit"));
}

TEST_F(TrapPointTest, WithoutStorageTheCallIsMadeAndNotRecorded)
{
    recorder.Enable();
    recorder.RemoveStorage();
    EXPECT_TRUE(Pass(location, &event, true, false));
    EXPECT_THAT(recorder.Take(), AllOf(Contains("call"), Not(Contains("Commit"))));
    EXPECT_EQ(recorder.Locations(), 0);
}

TEST_F(TrapPointTest, RecordingThatBeginsDuringACallBeginsWithTheNext)
{
    TSEvent* pointer = &event;
    bool flag = false;
    zor::CallAtTrapPoint<bool>(location, Args3(pointer, flag, flag), [&] {
        recorder.Enable();
        return true;
    });
    EXPECT_THAT(recorder.Take(), ElementsAre("Start", "Stop", "IsEnabled"));
}

TEST_F(TrapPointTest, ExceptionComesOutAndLeavesNoRecordAfterTheCall)
{
    recorder.Enable();
    TSEvent* pointer = &event;
    bool flag = false;
    const auto call = []() -> bool { throw std::runtime_error("from the call"); };
    EXPECT_THROW(zor::CallAtTrapPoint<bool>(location, Args3(pointer, flag, flag), call),
                 std::runtime_error);
    EXPECT_THAT(recorder.Take(), AllOf(Contains("Record(storage, 2, 1)"), Contains("Stop"),
                                       Not(Contains("Record(storage, 3, 1)"))));
}

} // namespace
