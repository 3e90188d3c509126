#include "zor/testing/Eventually.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using zor::testing::Eventually;
using zor::testing::EventuallyEqual;
using zor::testing::Gate;

TEST(EventuallyTest, LooksUntilTheConditionHolds)
{
    std::atomic<int> looks{0};
    EXPECT_TRUE(Eventually([&] { return ++looks == 5; }));
    EXPECT_EQ(looks, 5);
}

TEST(EventuallyTest, SeesWhatAnotherThreadDoes)
{
    std::atomic<bool> done{false};
    std::thread thread([&] { done = true; });
    EXPECT_TRUE(Eventually([&] { return done.load(); }));
    thread.join();
}

TEST(EventuallyTest, SaysHowLongAndHowOftenItLooked)
{
    const auto result = Eventually([] { return false; }, milliseconds(20));
    EXPECT_FALSE(result);
    EXPECT_THAT(result.message(), MatchesRegex("did not hold within 20 ms \\([0-9]+ looks?\\)"));
}

TEST(EventuallyTest, SaysWhatItSawLast)
{
    int looks = 0;
    const auto result = Eventually(
        [&] { return ::testing::AssertionResult(++looks < 0) << looks << " looks so far"; },
        milliseconds(20));
    EXPECT_FALSE(result);
    EXPECT_THAT(result.message(),
                HasSubstr("; saw last: " + std::to_string(looks) + " looks so far"));
}

TEST(EventuallyTest, LooksOnceWithoutAnyTime)
{
    EXPECT_TRUE(Eventually([] { return true; }, milliseconds(0)));
    EXPECT_TRUE(Eventually([] { return true; }, milliseconds(-5)));
}

TEST(EventuallyEqualTest, ShowsBothValues)
{
    EXPECT_TRUE(EventuallyEqual(3, [] { return 3; }));
    const auto result = EventuallyEqual(
        3, [] { return 4; }, milliseconds(0));
    EXPECT_FALSE(result);
    EXPECT_THAT(result.message(), HasSubstr("saw last: 4, expected 3"));
}

TEST(GateTest, OpensAfterAsManyPasses)
{
    Gate gate(2);
    gate.Pass();
    EXPECT_FALSE(gate.IsOpen());
    std::thread thread([&] { gate.Pass(); });
    EXPECT_TRUE(gate.Wait());
    EXPECT_TRUE(gate.IsOpen());
    thread.join();
}

} // namespace
