#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "PlatformLog.h"
#include "dlog.h"
#include "ht.h"

namespace {

using ht::TCTrapArgumentHelper;
using ht::TCTrapKey;
using ht::TCTrapPattern;
using ht::TSTrapCondition;
using ht::TSTrapItem;
using ht::TSTrapTest;

const TCTrapKey KEY = {12, "src/Tuner.cpp"};

class TrapPatternTest : public testing::Test
{
 protected:
    TrapPatternTest() { TCPlatformLog::Instance().Clear(); }
    ~TrapPatternTest() override { patterns.Clear(); }

    /// Holds a number against one comparison by its kind.
    static bool Holds(const TSTrapTest& test, std::int64_t number)
    {
        TSTrapItem item(std::make_shared<TSTrapCondition>(KEY, std::vector<TSTrapTest>{test}));
        TCTrapArgumentHelper helper(&item);
        if (test.kind == TSTrapTest::SIGNED) {
            helper.EvaluateSigned(test, number);
        } else {
            helper.EvaluateUnsigned(test, static_cast<std::uint64_t>(number));
        }
        return item.matches;
    }

    /// A call at KEY with this result.
    void Call(bool result)
    {
        TCTrapKey key = KEY;
        patterns.NormalizeCodeLocation(&key);
        TSTrapItem item(patterns.FindTrapCondition(key));
        ASSERT_NE(item.condition, nullptr);
        item.EvaluateResult(result);
        patterns.AddItemToQueue(item);
    }

    TCTrapPattern& patterns = *TCTrapPattern::Instance();
};

TEST_F(TrapPatternTest, IsEnabledWhileThereAreConditions)
{
    EXPECT_FALSE(patterns.IsEnabled());
    EXPECT_TRUE(patterns.SetCondition(KEY, {}));
    EXPECT_TRUE(patterns.SetCondition({13, "Tuner"}, {}));
    EXPECT_TRUE(patterns.IsEnabled());
    EXPECT_TRUE(patterns.RemoveCondition(KEY));
    EXPECT_FALSE(patterns.RemoveCondition(KEY));
    EXPECT_TRUE(patterns.IsEnabled());
    EXPECT_TRUE(patterns.RemoveCondition({13, "Tuner"}));
    EXPECT_FALSE(patterns.IsEnabled());
    patterns.SetCondition(KEY, {});
    patterns.Clear();
    EXPECT_FALSE(patterns.IsEnabled());
}

TEST_F(TrapPatternTest, FileOfAKeyIsReducedToItsBaseName)
{
    for (const char* file : {"Tuner", "Tuner.cpp", "src/Tuner.cpp", "/home/x/src/Tuner.h",
                             "src\\Tuner.cpp", "./Tuner."}) {
        TCTrapKey key(12, file);
        patterns.NormalizeCodeLocation(&key);
        EXPECT_EQ(key, TCTrapKey(12, "Tuner")) << file;
    }
    TCTrapKey hidden(1, "a/.profile");
    patterns.NormalizeCodeLocation(&hidden);
    EXPECT_EQ(hidden.second, ".profile");
}

TEST_F(TrapPatternTest, ConditionIsFoundByNormalisedKeyOnly)
{
    patterns.SetCondition(KEY, {});
    EXPECT_NE(patterns.FindTrapCondition({12, "Tuner"}), nullptr);
    EXPECT_EQ(patterns.FindTrapCondition({12, "src/Tuner.cpp"}), nullptr);
    EXPECT_EQ(patterns.FindTrapCondition({11, "Tuner"}), nullptr);
}

TEST_F(TrapPatternTest, ComparisonsAreKeptByIndex)
{
    patterns.SetCondition(KEY, {TSTrapTest::Unsigned(4, TSTrapTest::LESS, 9),
                                TSTrapTest::Signed(0, TSTrapTest::EQUAL, 1),
                                TSTrapTest::Bytes(4, TSTrapTest::NOT_EQUAL, "abcd")});
    const auto condition = patterns.FindTrapCondition({12, "Tuner"});
    ASSERT_NE(condition, nullptr);
    EXPECT_TRUE(condition->ItemExists(0));
    EXPECT_FALSE(condition->ItemExists(2));
    EXPECT_TRUE(condition->ItemExists(4));
    EXPECT_FALSE(condition->ItemExists(5));
    ASSERT_EQ(condition->GetItemsByIndex(4).size(), 2U);
    EXPECT_EQ(condition->GetItemsByIndex(4)[0].kind, TSTrapTest::UNSIGNED);
    EXPECT_EQ(condition->GetItemsByIndex(4)[1].bytes, "abcd");
    EXPECT_TRUE(condition->GetItemsByIndex(99).empty());
}

TEST_F(TrapPatternTest, ImpossibleComparisonIsRefusedAndChangesNothing)
{
    ASSERT_TRUE(patterns.SetCondition(KEY, {TSTrapTest::Signed(0, TSTrapTest::EQUAL, 1)}));
    EXPECT_FALSE(patterns.SetCondition(KEY, {TSTrapTest::Signed(5, TSTrapTest::EQUAL, 1)}));
    EXPECT_FALSE(patterns.SetCondition(KEY, {TSTrapTest::Signed(1, TSTrapTest::EQUAL, 1)}));
    EXPECT_FALSE(patterns.SetCondition(KEY, {TSTrapTest::Bytes(4, TSTrapTest::LESS, "x")}));
    EXPECT_TRUE(patterns.FindTrapCondition({12, "Tuner"})->ItemExists(0));
}

TEST_F(TrapPatternTest, RelationsAreThoseOfNumbers)
{
    struct TSCase
    {
        TSTrapTest::ERelation relation;
        bool less, equal, greater;
    };
    for (const TSCase& c : {TSCase{TSTrapTest::EQUAL, false, true, false},
                            TSCase{TSTrapTest::NOT_EQUAL, true, false, true},
                            TSCase{TSTrapTest::LESS, true, false, false},
                            TSCase{TSTrapTest::LESS_OR_EQUAL, true, true, false},
                            TSCase{TSTrapTest::GREATER, false, false, true},
                            TSCase{TSTrapTest::GREATER_OR_EQUAL, false, true, true}}) {
        for (const TSTrapTest& test :
             {TSTrapTest::Signed(0, c.relation, 5), TSTrapTest::Unsigned(0, c.relation, 5)}) {
            EXPECT_EQ(Holds(test, 4), c.less) << c.relation;
            EXPECT_EQ(Holds(test, 5), c.equal) << c.relation;
            EXPECT_EQ(Holds(test, 6), c.greater) << c.relation;
        }
    }
}

TEST_F(TrapPatternTest, SignedAndUnsignedNumbersDiffer)
{
    EXPECT_TRUE(Holds(TSTrapTest::Signed(0, TSTrapTest::LESS, 0), -1));
    EXPECT_FALSE(Holds(TSTrapTest::Unsigned(0, TSTrapTest::LESS, 0), -1));
    EXPECT_TRUE(Holds(TSTrapTest::Signed(0, TSTrapTest::GREATER, -3), -2));
}

TEST_F(TrapPatternTest, BytesAreComparedWhole)
{
    TSTrapItem item(std::make_shared<TSTrapCondition>(KEY, std::vector<TSTrapTest>{}));
    TCTrapArgumentHelper helper(&item);
    helper.EvaluateBytes(TSTrapTest::Bytes(4, TSTrapTest::EQUAL, std::string("\1\0\0\0", 4)),
                         std::string("\1\0\0\0", 4));
    helper.EvaluateBytes(TSTrapTest::Bytes(4, TSTrapTest::NOT_EQUAL, "\1"),
                         std::string("\1\0\0\0", 4));
    EXPECT_TRUE(item.matches);
    helper.EvaluateBytes(TSTrapTest::Bytes(4, TSTrapTest::EQUAL, "\1"), std::string("\1\0\0\0", 4));
    EXPECT_FALSE(item.matches);
}

TEST_F(TrapPatternTest, ItemThatFailedOnceStaysFailed)
{
    TSTrapItem item(std::make_shared<TSTrapCondition>(
        KEY, std::vector<TSTrapTest>{TSTrapTest::Unsigned(0, TSTrapTest::EQUAL, 1)}));
    EXPECT_TRUE(item.matches);
    item.EvaluateResult(false);
    item.EvaluateResult(true);
    EXPECT_FALSE(item.matches);
}

TEST_F(TrapPatternTest, MatchIsLoggedWithItsValuesAndCounted)
{
    patterns.SetCondition(KEY, {TSTrapTest::Unsigned(0, TSTrapTest::EQUAL, 0)});
    Call(true);
    EXPECT_TRUE(TCPlatformLog::Instance().Entries().empty());
    TSTrapItem item(patterns.FindTrapCondition({12, "Tuner"}));
    item.EvaluateResult(false);
    TCTrapArgumentHelper helper(&item);
    helper.EvaluateTrapItem(2, true);
    helper.EvaluateTrapItem(3, false);
    helper.EvaluateSigned(TSTrapTest::Signed(4, TSTrapTest::EQUAL, -7), -7);
    patterns.AddItemToQueue(item);
    const std::vector<TSLogEntry> entries = TCPlatformLog::Instance().Entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].priority, DLOG_WARN);
    EXPECT_EQ(entries[0].tag, "ZOR_TRAP");
    EXPECT_EQ(entries[0].text,
              "Tuner:12 matches (1 of 2 calls): result=0, argument 2=1, argument 3=0, "
              "argument 4=-7");
    const ht::TSTrapCounts counts = patterns.Counts(KEY);
    EXPECT_EQ(counts.evaluated, 2U);
    EXPECT_EQ(counts.matched, 1U);
}

TEST_F(TrapPatternTest, ComparisonOfAnArgumentThatTheCallDoesNotHaveIsNotMet)
{
    for (const unsigned int index : {2U, 3U, 4U}) {
        patterns.SetCondition(KEY, {TSTrapTest::Unsigned(0, TSTrapTest::EQUAL, 1),
                                    TSTrapTest::Unsigned(index, TSTrapTest::NOT_EQUAL, 7)});
        Call(true); // which has a result and no more
        EXPECT_EQ(patterns.Counts(KEY).evaluated, 1u);
        EXPECT_EQ(patterns.Counts(KEY).matched, 0u);
    }
}

TEST_F(TrapPatternTest, CountsBeginAnewWithANewCondition)
{
    patterns.SetCondition(KEY, {});
    Call(true);
    EXPECT_EQ(patterns.Counts(KEY).matched, 1U);
    patterns.SetCondition(KEY, {});
    EXPECT_EQ(patterns.Counts(KEY).evaluated, 0U);
    patterns.Clear();
    EXPECT_EQ(patterns.Counts(KEY).evaluated, 0U);
}

TEST_F(TrapPatternTest, ConditionThatIsRemovedIsGoodUntilItsCallsAreThrough)
{
    patterns.SetCondition(KEY, {});
    TSTrapItem item(patterns.FindTrapCondition({12, "Tuner"}));
    patterns.Clear();
    item.EvaluateResult(true);
    patterns.AddItemToQueue(item);
    EXPECT_EQ(TCPlatformLog::Instance().Entries("Tuner:12 matches (1 of 1 calls)").size(), 1U);
}

TEST_F(TrapPatternTest, CallsAndChangesMayMeet)
{
    std::atomic<bool> ends{false};
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i) {
        callers.emplace_back([&] {
            while (!ends) {
                if (auto condition = patterns.FindTrapCondition({12, "Tuner"})) {
                    TSTrapItem item(std::move(condition));
                    item.EvaluateResult(true);
                    patterns.AddItemToQueue(item);
                }
            }
        });
    }
    for (int i = 0; i < 500; ++i) {
        patterns.SetCondition(KEY, {TSTrapTest::Unsigned(0, TSTrapTest::EQUAL, 0)});
        patterns.Counts(KEY);
        if (i % 3 == 0) {
            patterns.RemoveCondition(KEY);
        }
    }
    ends = true;
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(patterns.Counts(KEY).matched, 0U);
}

} // namespace
