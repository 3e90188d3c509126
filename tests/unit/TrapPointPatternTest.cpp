#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "LogSeam.h"
#include "TrapPoint.h"
#include "TrapPointFakes.h"

namespace {

using ht::TCTrapPattern;
using ht::TSTrapTest;
using testing::ElementsAre;
using zortest::Note;

using Args1 = TCArgList1<TSEvent const*&>;
using Args3 = TCArgList3<TSEvent*&, bool&, bool&>;
using Args4 = TCArgList4<TSEvent*&, bool&, bool&, unsigned int&>;

const ht::TCTrapKey KEY = {40, "src/Relay.cpp"};

class TrapPointPatternTest : public testing::Test
{
 protected:
    TrapPointPatternTest() { zortest::ClearLog(); }
    ~TrapPointPatternTest() override { patterns.Clear(); }

    void Trap(const std::vector<TSTrapTest>& tests)
    {
        ASSERT_TRUE(patterns.SetCondition(KEY, tests));
        recorder.Take();
    }

    /// The notes of a call.
    std::vector<std::string> Pass(bool sync, bool priority, bool result)
    {
        TSEvent* pointer = &event;
        EXPECT_EQ(zor::CallAtTrapPoint<bool>(location, Args3(pointer, sync, priority),
                                             [result] { return result; }),
                  result);
        return recorder.Take();
    }

    std::vector<std::string> Pass4(bool sync, bool priority, unsigned int queue)
    {
        TSEvent* pointer = &event;
        EXPECT_TRUE(zor::CallAtTrapPoint<bool>(location, Args4(pointer, sync, priority, queue),
                                               [] { return true; }));
        return recorder.Take();
    }

    /// Whether a call with these values matches.
    bool Matches(bool sync, bool priority, bool result)
    {
        return Pass(sync, priority, result).back() == "AddItemToQueue(matching)";
    }

    bool Matches4(unsigned int queue)
    {
        return Pass4(false, false, queue).back() == "AddItemToQueue(matching)";
    }

    zortest::FakeRecorder recorder;
    TCTrapPattern& patterns = *TCTrapPattern::Instance();
    TSCodeLocation location{"bool Relay::Pass(TSEvent*, bool, bool)", "src/Relay.cpp", 40};
    TSEvent event;
};

TEST_F(TrapPointPatternTest, CallIsEvaluatedAfterItInOrder)
{
    Trap({});
    EXPECT_THAT(Pass(true, false, false),
                ElementsAre("Start", "Stop", "IsEnabled", "NormalizeCodeLocation(src/Relay.cpp:40)",
                            "FindTrapCondition(Relay:40)", "EvaluateResult(false)",
                            "EvaluateTrapItem(2, true)", "EvaluateTrapItem(3, false)",
                            "AddItemToQueue(matching)"));
}

TEST_F(TrapPointPatternTest, LocationWithoutConditionIsNotEvaluated)
{
    Trap({});
    TSCodeLocation other("bool Other()", "src/Relay.cpp", 41);
    TSEvent* pointer = &event;
    bool flag = false;
    zor::CallAtTrapPoint<bool>(other, Args3(pointer, flag, flag), [] { return true; });
    EXPECT_THAT(recorder.Take(),
                ElementsAre("Start", "Stop", "IsEnabled", "NormalizeCodeLocation(src/Relay.cpp:41)",
                            "FindTrapCondition(Relay:41)"));
}

TEST_F(TrapPointPatternTest, ListOfOneEvaluatesTheResultOnly)
{
    Trap({TSTrapTest::Unsigned(0, TSTrapTest::EQUAL, 1)});
    const TSEvent* pointer = &event;
    zor::CallAtTrapPoint<bool>(location, Args1(pointer), [] { return true; });
    EXPECT_THAT(recorder.Take(),
                ElementsAre("Start", "Stop", "IsEnabled", "NormalizeCodeLocation(src/Relay.cpp:40)",
                            "FindTrapCondition(Relay:40)", "EvaluateResult(true)",
                            "AddItemToQueue(matching)"));
}

TEST_F(TrapPointPatternTest, ResultIsHeldAgainstIndexZero)
{
    Trap({TSTrapTest::Unsigned(0, TSTrapTest::EQUAL, 0)});
    EXPECT_TRUE(Matches(true, true, false));
    EXPECT_FALSE(Matches(false, false, true));
}

TEST_F(TrapPointPatternTest, FirstFlagIsHeldAgainstIndexTwo)
{
    Trap({TSTrapTest::Signed(2, TSTrapTest::EQUAL, 1)});
    EXPECT_TRUE(Matches(true, false, false));
    EXPECT_FALSE(Matches(false, true, true));
}

TEST_F(TrapPointPatternTest, SecondFlagIsHeldAgainstIndexThree)
{
    Trap({TSTrapTest::Bytes(3, TSTrapTest::EQUAL, std::string(1, '\1'))});
    EXPECT_TRUE(Matches(false, true, false));
    EXPECT_FALSE(Matches(true, false, true));
}

TEST_F(TrapPointPatternTest, AllConditionsMustHold)
{
    Trap({TSTrapTest::Unsigned(0, TSTrapTest::EQUAL, 1),
          TSTrapTest::Unsigned(2, TSTrapTest::EQUAL, 1),
          TSTrapTest::Unsigned(3, TSTrapTest::EQUAL, 1)});
    for (int bits = 0; bits < 8; ++bits) {
        EXPECT_EQ(Matches((bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0), bits == 7) << bits;
    }
}

TEST_F(TrapPointPatternTest, AllConditionsOfOneIndexMustHold)
{
    Trap({TSTrapTest::Unsigned(4, TSTrapTest::GREATER, 2),
          TSTrapTest::Unsigned(4, TSTrapTest::LESS, 5)});
    EXPECT_FALSE(Matches4(2));
    EXPECT_TRUE(Matches4(3));
    EXPECT_TRUE(Matches4(4));
    EXPECT_FALSE(Matches4(5));
}

TEST_F(TrapPointPatternTest, ListOfFourIsQueuedEarlyWithoutConditionsOnTheQueue)
{
    Trap({TSTrapTest::Unsigned(2, TSTrapTest::EQUAL, 1)});
    EXPECT_THAT(Pass4(true, false, 7),
                ElementsAre("Start", "Stop", "IsEnabled", "NormalizeCodeLocation(src/Relay.cpp:40)",
                            "FindTrapCondition(Relay:40)", "EvaluateResult(true)",
                            "EvaluateTrapItem(2, true)", "EvaluateTrapItem(3, false)",
                            "AddItemToQueue(matching)"));
}

TEST_F(TrapPointPatternTest, ListOfFourIsQueuedEarlyOnceItDoesNotMatch)
{
    Trap({TSTrapTest::Unsigned(2, TSTrapTest::EQUAL, 1),
          TSTrapTest::Unsigned(4, TSTrapTest::EQUAL, 7)});
    EXPECT_THAT(Pass4(false, false, 7),
                ElementsAre("Start", "Stop", "IsEnabled", "NormalizeCodeLocation(src/Relay.cpp:40)",
                            "FindTrapCondition(Relay:40)", "EvaluateResult(true)",
                            "EvaluateTrapItem(2, false)", "EvaluateTrapItem(3, false)",
                            "AddItemToQueue(not matching)"));
}

TEST_F(TrapPointPatternTest, QueueIsEvaluatedByTheKindOfEachCondition)
{
    const unsigned int queue = 0xFFFFFFFE;
    std::string bytes(sizeof(queue), '\0');
    memcpy(bytes.data(), &queue, sizeof(queue));
    Trap({TSTrapTest::Signed(4, TSTrapTest::EQUAL, -2),
          TSTrapTest::Unsigned(4, TSTrapTest::EQUAL, queue),
          TSTrapTest::Bytes(4, TSTrapTest::EQUAL, bytes)});
    EXPECT_EQ(TSTrapTest::SIGNED, 0);
    EXPECT_EQ(TSTrapTest::UNSIGNED, 1);
    EXPECT_EQ(TSTrapTest::BYTES, 2);
    EXPECT_THAT(Pass4(true, true, queue),
                ElementsAre("Start", "Stop", "IsEnabled", "NormalizeCodeLocation(src/Relay.cpp:40)",
                            "FindTrapCondition(Relay:40)", "EvaluateResult(true)",
                            "EvaluateTrapItem(2, true)", "EvaluateTrapItem(3, true)",
                            "EvaluateSigned(-2)", "EvaluateUnsigned(4294967294)",
                            "EvaluateBytes(feffffff)", "AddItemToQueue(matching)"));
    EXPECT_FALSE(Matches4(2));
}

TEST_F(TrapPointPatternTest, OneFailingKindIsEnoughForNoMatch)
{
    Trap({TSTrapTest::Signed(4, TSTrapTest::EQUAL, 5),
          TSTrapTest::Bytes(4, TSTrapTest::NOT_EQUAL, std::string("\5\0\0\0", 4))});
    EXPECT_FALSE(Matches4(5));
    EXPECT_FALSE(Matches4(6));
}

TEST_F(TrapPointPatternTest, ItemIsQueuedWhetherItMatchesOrNot)
{
    Trap({TSTrapTest::Unsigned(0, TSTrapTest::EQUAL, 0)});
    Pass(false, false, true);
    Pass(false, false, false);
    Pass(false, false, true);
    const ht::TSTrapCounts counts = patterns.Counts(KEY);
    EXPECT_EQ(counts.evaluated, 3U);
    EXPECT_EQ(counts.matched, 1U);
}

TEST_F(TrapPointPatternTest, RecordingAndPatternsWorkTogether)
{
    Trap({});
    recorder.Enable();
    const std::vector<std::string> notes = Pass(false, false, true);
    EXPECT_THAT(notes, testing::Contains("Record(storage, 3, 1)"));
    EXPECT_EQ(notes.back(), "AddItemToQueue(matching)");
}

} // namespace
