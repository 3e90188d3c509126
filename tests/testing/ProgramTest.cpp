#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ProgramRun.h"

namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using zortest::ProgramResult;
using zortest::RunProgram;

/// Runs some tests of the program that fails.
ProgramResult RunSome(const std::string& filter, const zortest::ProgramRun::Environment& more = {})
{
    return RunProgram(FAILING_PROGRAM, {"--gtest_filter=" + filter, "--gtest_print_time=0"}, more);
}

TEST(ProgramTest, AssertionFailsTheTestAndTheProgram)
{
    const ProgramResult result = RunSome("Failing.Assertion");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.out, ContainsRegex("FailingProgram.cpp:[0-9]+: Failure\n"));
    EXPECT_THAT(result.out, HasSubstr("assertion failed: 1 + 1 == 3\n"));
    EXPECT_THAT(result.out, HasSubstr("[  FAILED  ] Failing.Assertion\n"));
}

TEST(ProgramTest, AssertionOnAnotherThreadNamesIt)
{
    const ProgramResult result = RunSome("Failing.AssertionOnAnotherThread");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.out, HasSubstr("assertion failed: 2 + 2 == 5\non thread Meter\n"));
}

TEST(ProgramTest, AssertionInATaskNamesIt)
{
    const ProgramResult result = RunSome("Failing.AssertionInATask");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.out,
                HasSubstr("assertion failed: event->param1 == 1\non thread Asserter\n"));
}

TEST(ProgramTest, MissingAssertionIsAFailure)
{
    const ProgramResult result = RunSome("Failing.ExpectedAssertion");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.out, HasSubstr("there was none"));
}

TEST(ProgramTest, WaitInVainSaysWhatItSaw)
{
    const ProgramResult result = RunSome("Failing.Waiting");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.out, HasSubstr("saw last: a box with 3 events"));
}

TEST(ProgramTest, LogOfATestIsShownIfItFails)
{
    const ProgramResult result = RunSome("*.Log*");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.out, ContainsRegex("\\[ PLATFORM \\] 5 METER\\([^)]*\\): strength 61\n"));
    EXPECT_THAT(result.out + result.err, Not(HasSubstr("strength 62")));
}

TEST(ProgramTest, WholeLogIsShownOnRequest)
{
    const ProgramResult result = RunSome("Passing.*", {{"ZOR_TESTING_LOG", "1"}});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.err, HasSubstr("strength 62\n"));
}

TEST(ProgramTest, TaskThatIsLeftBehindFailsTheProgram)
{
    const ProgramResult result = RunSome("Leaving.*");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, HasSubstr("these tasks have not been destroyed: Left\n"));
}

TEST(ProgramTest, AssertionOutsideOfTheTestsFailsTheProgram)
{
    EXPECT_EQ(RunSome("Passing.*").exitCode, 0);
    const ProgramResult result = RunSome("Passing.*", {{"ASSERT_LATE", "1"}});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.out, HasSubstr("assertion failed: getenv(\"ASSERT_LATE\") == nullptr"));
}

TEST(ProgramTest, SkippedTestCountsAsRun)
{
    EXPECT_EQ(RunSome("Skipped.*").exitCode, 0);
}

TEST(ProgramTest, FilterThatFitsNothingFailsTheProgram)
{
    const ProgramResult result = RunSome("NoSuchTest");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, HasSubstr("no test has run; 9 are linked."));
}

TEST(ProgramTest, MisspeltFlagFailsTheProgram)
{
    const ProgramResult result = RunProgram(FAILING_PROGRAM, {"--gtest_filterr=Passing.*"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, HasSubstr("no test has run"));
}

TEST(ProgramTest, ProgramWithoutTestsFails)
{
    const ProgramResult result = RunProgram(PROGRAM_WITHOUT_TESTS, {});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, HasSubstr("no test has run; 0 are linked."));
}

TEST(ProgramTest, ListAndHelpAreNoFailures)
{
    const ProgramResult list = RunProgram(FAILING_PROGRAM, {"--gtest_list_tests"});
    EXPECT_EQ(list.exitCode, 0);
    EXPECT_THAT(list.out, HasSubstr("Leaving.\n  TaskBehind\n"));
    EXPECT_EQ(RunProgram(FAILING_PROGRAM, {"--help"}).exitCode, 0);
}

TEST(ProgramTest, ShardWithoutTestsIsNoFailure)
{
    const zortest::ProgramRun::Environment third = {{"GTEST_TOTAL_SHARDS", "3"},
                                                    {"GTEST_SHARD_INDEX", "2"}};
    const ProgramResult result = RunSome("Passing.*", third);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("0 tests from 0 test suites ran."));
    EXPECT_EQ(RunProgram(PROGRAM_WITHOUT_TESTS, {}, third).exitCode, 1);
}

/// The dynamic linker gives the platform's functions to libraries then.
TEST(ProgramTest, HiddenSymbolsAreFoundAtTheStart)
{
    const ProgramResult result = RunProgram(HIDING_PROGRAM, {});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, HasSubstr("libraries do not see this program's __dlog_print."));
    EXPECT_THAT(result.out, IsEmpty());
}

} // namespace
