#include "Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

using namespace storm;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

CommandLine Read(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "zor-storm");
    return ReadCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

TEST(OptionsTest, EverythingCanBeSet)
{
    const CommandLine line =
        Read({"--seconds", "7", "--seed", "18446744073709551615", "--threads", "3", "--tasks", "4",
              "--report-every", "5", "--hang-after", "6"});
    ASSERT_TRUE(line.options.has_value()) << line.error;
    EXPECT_EQ(line.options->length.count(), 7);
    EXPECT_EQ(line.options->seed, ~UINT64_C(0));
    EXPECT_EQ(line.options->threads, 3U);
    EXPECT_EQ(line.options->tasks, 4U);
    EXPECT_EQ(line.options->reportEvery.count(), 5);
    EXPECT_EQ(line.options->hangAfter.count(), 6);
}

TEST(OptionsTest, SeedCanComeFromTheEnvironment)
{
    setenv("ZOR_STORM_SEED", "42", 1);
    const CommandLine line = Read({});
    const CommandLine given = Read({"--seed", "43"});
    unsetenv("ZOR_STORM_SEED");
    ASSERT_TRUE(line.options.has_value()) << line.error;
    EXPECT_EQ(line.options->seed, 42U);
    ASSERT_TRUE(given.options.has_value()) << given.error;
    EXPECT_EQ(given.options->seed, 43U);
}

TEST(OptionsTest, HelpIsPrintedAndEndsWell)
{
    const CommandLine line = Read({"--help"});
    EXPECT_FALSE(line.options.has_value());
    EXPECT_EQ(line.exitCode, EXIT_BALANCED);
    for (const char* name :
         {"--seconds", "--seed", "--threads", "--tasks", "--report-every", "Exit codes"}) {
        EXPECT_THAT(line.output, HasSubstr(name));
    }
}

TEST(OptionsTest, BadOptionsAreExplained)
{
    const std::vector<std::pair<std::vector<const char*>, const char*>> cases = {
        {{"--seconds", "0"}, "'0' is not a number from 1 to"},
        {{"--threads", "65"}, "'65' is not a number from 1 to 64"},
        {{"--tasks", "many"}, "'many' is not a number from 1 to 64"},
        {{"--seed", "-1"}, "'-1' is not a number from 0 to"},
        {{"--rain"}, "--rain"},
    };
    for (const auto& [arguments, explanation] : cases) {
        const CommandLine line = Read(arguments);
        EXPECT_FALSE(line.options.has_value());
        EXPECT_EQ(line.exitCode, EXIT_USAGE);
        EXPECT_THAT(line.output, IsEmpty());
        EXPECT_THAT(line.error, HasSubstr(explanation));
        EXPECT_THAT(line.error, HasSubstr("--help"));
    }
}

} // namespace
