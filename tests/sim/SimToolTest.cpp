#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "ZorSim.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr int FOUND = 1;
constexpr int UNABLE = 2;

TEST(SimToolTest, HelpNamesTheExitCodesAndIsASuccess)
{
    const Ran ran = RunSim("--help", "");
    EXPECT_EQ(ran.status, 0);
    EXPECT_THAT(ran.text, HasSubstr("Exit codes:"));
    EXPECT_THAT(ran.text, HasSubstr("--shrink SEED"));
}

TEST(SimToolTest, BadOptionsAreRefusedWithTheReason)
{
    struct Bad
    {
        const char* options;
        const char* reason;
    };
    for (const Bad& bad :
         {Bad{"--seeds 5", "--seeds is written A..B"},
          Bad{"--seeds 5..3", "the last seed is before the first"},
          Bad{"--seed x", "'x' is not a seed"}, Bad{"--seed 1 --seeds 1..2", "excludes"},
          Bad{"--strategy best", "--strategy"}, Bad{"--spurious 2", "--spurious"},
          Bad{"--seeds 1..2 --trace -", "look at one run"}}) {
        const Ran ran = RunSim(bad.options, "Faultless");
        EXPECT_EQ(ran.status, UNABLE) << bad.options;
        EXPECT_THAT(ran.text, HasSubstr(bad.reason)) << bad.options;
    }
    const Ran none = RunSim("--seeds 1..2", "");
    EXPECT_EQ(none.status, UNABLE);
    EXPECT_THAT(none.text, HasSubstr("COMMAND is required"));
}

TEST(SimToolTest, AProgramThatCannotBeExecutedIsNoFinding)
{
    const Ran ran = RunSim("--seeds 1..2", "Missing");
    EXPECT_EQ(ran.status, UNABLE);
    EXPECT_THAT(ran.text, HasSubstr("cannot be executed"));
}

TEST(SimToolTest, ADeadlockSaysWhoWaitsForWhatAndWhere)
{
    const Ran ran = RunSim("--seeds 1..100", "Deadlock");
    EXPECT_EQ(ran.status, FOUND);
    EXPECT_THAT(ran.text,
                ContainsRegex("main#1 waits: locks mutex .*g_second, held by thread 2, in "
                              "main at .*Deadlock.cpp"));
    EXPECT_THAT(ran.text, ContainsRegex("main#2 waits: locks mutex .*g_first, held by thread 1"));
}

TEST(SimToolTest, KeepGoingRunsAllSeedsAndCounts)
{
    const Ran ran = RunSim("--seeds 1..60 --keep-going", "LostUpdate");
    EXPECT_EQ(ran.status, FOUND);
    EXPECT_THAT(ran.text, HasSubstr("zor-sim: 60 runs, "));
    EXPECT_THAT(ran.text, ContainsRegex("s: [0-9]+ failed"));
}

/// A file that is gone with the test.
class SimFileTest : public testing::Test
{
 protected:
    ~SimFileTest() override { unlink(m_path.c_str()); }

    std::string Contents() const
    {
        std::ifstream file(m_path);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    const std::string m_path = testing::TempDir() + "sim-test-" + std::to_string(getpid());
};

TEST_F(SimFileTest, ShrinkingLeavesTheOneSwitchThatMatters)
{
    const Ran found = RunSim("--seeds 1..100 --strategy random", "LostUpdate");
    const std::string seed = LineAfter(found.text, "repeat: zor-sim --seed ");
    const Ran ran = RunSim(
        "--decisions " + m_path + " --strategy random --shrink " + seed.substr(0, seed.find(' ')),
        "LostUpdate");
    EXPECT_EQ(ran.status, FOUND);
    EXPECT_THAT(ran.text, ContainsRegex("failed with [12] of [0-9]+ decisions"));
    EXPECT_THAT(Contents(), HasSubstr("thread "));
    const Ran again = RunSim("--replay " + m_path, "LostUpdate");
    EXPECT_EQ(again.status, FOUND) << again.text;
}

TEST_F(SimFileTest, ATraceNamesThreadsOperationsObjectsPlacesAndTimes)
{
    const Ran ran = RunSim("--seed 1 --trace " + m_path, "LostUpdate");
    const std::string trace = Contents();
    EXPECT_THAT(trace, ContainsRegex("main#1 +locks mutex .*g_lock  .*Get at .*LostUpdate.cpp:1"));
    EXPECT_THAT(trace, ContainsRegex("main#2 +starts"));
    EXPECT_THAT(trace, ContainsRegex("0\\.0000[0-9]+ s"));
}

TEST_F(SimFileTest, ATraceShowsWhatTheProgramSaysOfItself)
{
    const Ran ran = RunSim("--seed 1 --trace " + m_path, "Points");
    const std::string trace = Contents();
    EXPECT_THAT(trace, ContainsRegex("main#[12] +passes \"between\"  .*Points.cpp"));
    EXPECT_THAT(trace, ContainsRegex("main#[12] +passes \"has stored [12]\""));
}

TEST_F(SimFileTest, ATraceForTheViewerIsJson)
{
    const Ran ran = RunSim("--seed 1 --trace-json " + m_path, "LostUpdate");
    const std::string trace = Contents();
    EXPECT_THAT(trace, HasSubstr("\"traceEvents\""));
    EXPECT_THAT(trace, HasSubstr("\"thread_name\""));
    const std::string check = "python3 -m json.tool " + m_path + " > /dev/null";
    EXPECT_EQ(std::system(check.c_str()), 0);
}

TEST_F(SimFileTest, AListOfDecisionsThatIsNoneIsRefused)
{
    std::ofstream(m_path) << "thread one two\n";
    const Ran ran = RunSim("--replay " + m_path, "LostUpdate");
    EXPECT_EQ(ran.status, UNABLE);
    EXPECT_THAT(ran.text, HasSubstr("cannot be read as a list of decisions"));
}

} // namespace
