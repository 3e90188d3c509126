#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "Debug.h"
#include "Handler.h"
#include "Queue.h"
#include "Thread.h"
#include "zor/testing/Testing.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using zor::testing::Assertions;

void AssertHere()
{
    TCASSERT(1 + 1 == 3);
}

void AssertElsewhere()
{
    std::thread(AssertHere).join();
}

TEST(AssertionsTest, FailsTheTestWithTextPlaceAndThread)
{
    EXPECT_NONFATAL_FAILURE(AssertHere(), "assertion failed: 1 + 1 == 3\non thread ");
    EXPECT_NONFATAL_FAILURE(AssertHere(), "Callstack:\n");
}

TEST(AssertionsTest, FailsTheTestFromAnotherThread)
{
    EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(AssertElsewhere(), "assertion failed: 1 + 1 == 3");
}

TEST(AssertionsTest, OfTheRuntimeFailTheTestToo)
{
    EXPECT_NONFATAL_FAILURE(TCDebug::Print(0, nullptr), "assertion failed: format != NULL");
}

TEST(AssertionsTest, AreKeptWithTextFileAndLine)
{
    const Assertions assertions;
    const unsigned long line = __LINE__ + 1;
    TCASSERT(line == 0);
    const auto kept = assertions.Get();
    ASSERT_EQ(kept.size(), 1U);
    EXPECT_EQ(kept[0].text, "line == 0");
    EXPECT_THAT(kept[0].file, HasSubstr("AssertionsTest.cpp"));
    EXPECT_EQ(kept[0].line, line);
    EXPECT_THAT(kept[0].report, HasSubstr("Callstack:"));
}

TEST(AssertionsTest, TextsAreKeptByteForByte)
{
    const Assertions assertions;
    const char* const dash = nullptr;
    TCASSERT(dash != nullptr && std::string(" (7) - ") == dash);
    EXPECT_THAT(assertions.Texts(),
                ElementsAre("dash != nullptr && std::string(\" (7) - \") == dash"));
}

TEST(AssertionsTest, InnermostCollectionKeepsThem)
{
    const Assertions outer;
    {
        const Assertions inner;
        AssertHere();
        EXPECT_THAT(inner.Texts(), ElementsAre("1 + 1 == 3"));
    }
    EXPECT_THAT(outer.Texts(), IsEmpty());
}

TEST(AssertionsTest, GoOnAlsoIfTheBuildIsNoRelease)
{
    const Assertions assertions;
    for (const bool isRelease : {false, true}) {
        zor::testing::BuildKind::AnswerIsRelease(isRelease);
        AssertHere();
    }
    EXPECT_EQ(assertions.Texts().size(), 2U);
}

TEST(AssertionsTest, TestsOwnCallbackGoesFirst)
{
    const Assertions assertions;
    int calls = 0;
    test::TSCustomAssert::callback = [&](const char*, unsigned long) { ++calls; };
    AssertHere();
    test::TSCustomAssert::callback = nullptr;
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(assertions.Texts(), IsEmpty());
}

TEST(ExpectZorAssertTest, PassesForTheTexts)
{
    EXPECT_ZOR_ASSERT(AssertHere(), "1 + 1 == 3");
    EXPECT_ZOR_ASSERT(AssertElsewhere(), "1 + 1 == 3");
    EXPECT_ZOR_ASSERT((AssertHere(), TCDebug::Print(0, nullptr)), "1 + 1 == 3", "format != NULL");
}

TEST(ExpectZorAssertTest, FailsIfNothingIsAsserted)
{
    EXPECT_NONFATAL_FAILURE(EXPECT_ZOR_ASSERT(static_cast<void>(0), "1 + 1 == 3"),
                            "expected failed assertions: { \"1 + 1 == 3\" }\nthere was none");
}

TEST(ExpectZorAssertTest, FailsForAnotherTextAndShowsWhatThereWas)
{
    EXPECT_NONFATAL_FAILURE(EXPECT_ZOR_ASSERT(AssertHere(), "1 + 1 == 4"),
                            "there were:\n  \"1 + 1 == 3\" at ");
}

TEST(ExpectZorAssertTest, FailsForOneTooMany)
{
    EXPECT_NONFATAL_FAILURE(EXPECT_ZOR_ASSERT((AssertHere(), AssertHere()), "1 + 1 == 3"),
                            "\"1 + 1 == 3\"");
}

/// Going on past this one would use an object that is not there.
TEST(AssertionsDeathTest, AbortInADeathTest)
{
    TCSemaphore semaphore;
    EXPECT_DEATH(semaphore.Take(), "FlagCreate\\(\\) == true");
}

} // namespace
