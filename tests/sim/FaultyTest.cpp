#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ostream>
#include <string>

#include "ZorSim.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

constexpr int NOTHING_FOUND = 0;
constexpr int FOUND = 1;

/// An example daemon, how its fault is found, and what is said of it.
struct Faulty
{
    const char* daemon;
    const char* options;
    const char* outcome;
    const char* trace; ///< stands in the trace of the shortest run
};

void PrintTo(const Faulty& faulty, std::ostream* out)
{
    *out << faulty.options;
}

const std::string COMMON = "--endless 30 --remove /tmp/.zor-daemon.pid ";

std::string NameOf(const testing::TestParamInfo<Faulty>& info)
{
    return info.param.daemon;
}

class FaultyDaemonTest : public testing::TestWithParam<Faulty>
{
 protected:
    ~FaultyDaemonTest() override
    {
        unlink(m_decisions.c_str());
        unlink("/tmp/.zor-daemon.pid");
    }

    const std::string m_command = std::string(" -- " FAULTY_PROGRAMS "/") + GetParam().daemon;
    const std::string m_decisions = testing::TempDir() + "faulty-" + std::to_string(getpid());
};

TEST_P(FaultyDaemonTest, IsFoundShrunkReadAndReplayed)
{
    const Ran found = RunSim(COMMON + GetParam().options + " --seeds 1..200" + m_command, "");
    ASSERT_EQ(found.status, FOUND) << found.text;
    EXPECT_THAT(found.text, HasSubstr(std::string(": ") + GetParam().outcome + ": "));
    const std::string repeat = LineAfter(found.text, "repeat: zor-sim --seed ");
    const std::string seed = repeat.substr(0, repeat.find(' '));

    const Ran shrunk = RunSim(COMMON + GetParam().options + " --trace - --decisions " +
                                  m_decisions + " --shrink " + seed + m_command,
                              "");
    ASSERT_EQ(shrunk.status, FOUND) << shrunk.text;
    EXPECT_THAT(shrunk.text,
                ContainsRegex(std::string(GetParam().outcome) + " with [0-9] of [0-9]+ decisions"));
    EXPECT_THAT(shrunk.text, ContainsRegex(GetParam().trace));

    const std::string line = LineAfter(shrunk.text, "repeat: zor-sim ");
    ASSERT_THAT(line, HasSubstr("--replay " + m_decisions));
    const std::string steps = LineAfter(shrunk.text, std::string(": ") + GetParam().outcome + ": ");
    const Ran replayed = RunSim(line, "");
    EXPECT_EQ(replayed.status, FOUND) << replayed.text;
    EXPECT_EQ(LineAfter(replayed.text, std::string(": ") + GetParam().outcome + ": "), steps);
}

INSTANTIATE_TEST_SUITE_P(
    Daemons, FaultyDaemonTest,
    testing::Values(Faulty{"lost_update", "--strategy random", "failed",
                           "(Left|Right)#[0-9] +locks mutex .*Viewers::Set at .*lost_update.cpp"},
                    Faulty{"crossed_sends", "--strategy random", "endless wait",
                           "(Left|Right)#[0-9] +waits for condition .*Thread.cpp"},
                    Faulty{"late_answer", "--strategy random --stall 5", "failed",
                           "Tuner#[0-9] +sleeps .*late_answer.cpp"},
                    Faulty{"lost_answer", "--strategy random", "endless wait",
                           "Guide#[0-9] +locks mutex .*Flag::IsSet at .*lost_answer.cpp"}),
    NameOf);

TEST(FaultyTimeTest, ATimeOutJustBeforeItsAnswerIsNotFoundWithoutStalls)
{
    const Ran ran = RunSim(COMMON + "--seeds 1..60 -- " FAULTY_PROGRAMS "/late_answer", "");
    EXPECT_EQ(ran.status, NOTHING_FOUND) << ran.text;
    unlink("/tmp/.zor-daemon.pid");
}

} // namespace
