#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "ZorSim.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int NOTHING_FOUND = 0;
constexpr int FOUND = 1;
constexpr int UNABLE = 2;

/// A fault, how to look for it, and what must be said of it.
struct Fault
{
    const char* program;
    const char* options;
    const char* outcome;
};

void PrintTo(const Fault& fault, std::ostream* out)
{
    *out << fault.options;
}

std::string NameOf(const testing::TestParamInfo<Fault>& info)
{
    return std::string(info.param.program) + std::to_string(info.index);
}

Ran ExpectNothingFound(const std::string& options, const std::string& program)
{
    Ran ran = RunSim(options, program);
    EXPECT_EQ(ran.status, NOTHING_FOUND) << ran.text;
    return ran;
}

class SimFaultTest : public testing::TestWithParam<Fault>
{};

/// The line that is printed runs the same run again: the same finding after as many steps.
TEST_P(SimFaultTest, IsFoundAndFoundAgainByTheLineThatIsPrinted)
{
    const Ran found = RunSim(GetParam().options, GetParam().program);
    ASSERT_EQ(found.status, FOUND) << found.text;
    const std::string what = LineAfter(found.text, ": " + std::string(GetParam().outcome) + ": ");
    ASSERT_THAT(what, HasSubstr("steps at")) << found.text;
    const std::string repeat = LineAfter(found.text, "repeat: zor-sim ");
    ASSERT_FALSE(repeat.empty()) << found.text;
    for (int i = 0; i < 3; ++i) {
        const Ran again = RunSim(repeat, "");
        EXPECT_EQ(again.status, FOUND);
        EXPECT_EQ(LineAfter(again.text, ": " + std::string(GetParam().outcome) + ": "), what)
            << again.text;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, SimFaultTest,
    testing::Values(Fault{"Deadlock", "--seeds 1..100 --strategy random", "deadlock"},
                    Fault{"Deadlock", "--seeds 1..300 --strategy sticky", "deadlock"},
                    Fault{"Deadlock", "--seeds 1..100 --strategy pct", "deadlock"},
                    Fault{"LostUpdate", "--seeds 1..100 --strategy random", "failed"},
                    Fault{"LostUpdate", "--seeds 1..300 --strategy sticky", "failed"},
                    Fault{"LostUpdate", "--seeds 1..100 --strategy pct", "failed"},
                    Fault{"LostUpdate", "--seeds 1..100 --jobs 2", "failed"},
                    Fault{"LostWakeUp", "--seeds 1..100", "deadlock"},
                    Fault{"SpuriousWakeUp", "--seeds 1..100 --spurious 0.1", "failed"},
                    Fault{"TimeOut", "--seeds 1..300 --stall 5", "failed"},
                    Fault{"PlainRace", "--seeds 1..50", "failed"},
                    Fault{"Points", "--seeds 1..100", "failed"},
                    Fault{"NoProgress", "--seed 1", "no progress"},
                    Fault{"EndlessWait", "--seed 1", "endless wait"}),
    NameOf);

TEST(SimFaultlessTest, NothingIsFoundInTheMendedPrograms)
{
    ExpectNothingFound("--seeds 1..200 --stall 5 --spurious 0.1", "Faultless");
}

TEST(SimFaultlessTest, NothingIsFoundInCorrectUseOfEverythingThatIsSimulated)
{
    const Ran ran = ExpectNothingFound("--seeds 1..60", "Correct");
    EXPECT_THAT(ran.text, Not(HasSubstr("does not simulate")));
}

TEST(SimFaultlessTest, AWaitOfATimeThatIsLongEnoughDoesNotTimeOutWithoutStalls)
{
    ExpectNothingFound("--seeds 1..100", "TimeOut");
}

TEST(SimFaultlessTest, AWaitWithoutALoopIsRightAsLongAsNoneEndsForNoReason)
{
    ExpectNothingFound("--seeds 1..100", "SpuriousWakeUp");
}

TEST(SimReplayTest, SameSeedIsTheSameRunWhateverTheAddresses)
{
    for (const char* const program : {"Correct", "Faultless", "PlainRace"}) {
        const Ran ran = RunSim("--seeds 1..15 --verify --random-addresses --keep-going", program);
        EXPECT_THAT(ran.text, Not(HasSubstr("differ"))) << program;
    }
}

TEST(SimReplayTest, OtherSeedsAreOtherRuns)
{
    const std::string first = LineAfter(RunSim("--seed 3", "Correct").text, "hash ");
    const std::string second = LineAfter(RunSim("--seed 6", "Correct").text, "hash ");
    EXPECT_FALSE(first.empty());
    EXPECT_NE(first, second);
    EXPECT_EQ(first, LineAfter(RunSim("--seed 3 --random-addresses", "Correct").text, "hash "));
}

TEST(SimTimeTest, ThirtyDaysOfAWakeUpAMinuteAreOver)
{
    const Ran ran = ExpectNothingFound("--seed 1", "ThirtyDays");
    EXPECT_THAT(ran.text, HasSubstr("30 days, 720 hours counted"));
}

TEST(SimTimeTest, AnHourOfSystemCallsByNumberIsVirtualWhateverTheProgramDefines)
{
    ExpectNothingFound("--seeds 1..10 --limit 60", "SystemCalls");
}

TEST(SimTimeTest, AnHourBesideAChildIsVirtual)
{
    ExpectNothingFound("--seeds 1..10", "Children");
}

TEST(SimTimeTest, AChildMayTakeItsTime)
{
    ExpectNothingFound("--seed 1", "SlowChild");
}

TEST(SimSpinTest, AThreadThatNeverCallsAnythingIsReported)
{
    const Ran ran = RunSim("--seeds 1..50 --strategy sticky --spin 2", "Spin");
    EXPECT_EQ(ran.status, FOUND) << ran.text;
    EXPECT_THAT(ran.text, HasSubstr("spin: thread main (1) has run for 2 s"));
}

TEST(SimUnsupportedTest, WhatIsNotSimulatedIsNamed)
{
    const Ran ran = RunSim("--seeds 1..5", "Unsupported");
    EXPECT_EQ(ran.status, UNABLE);
    EXPECT_THAT(ran.text,
                HasSubstr("zor-sim: does not simulate timers that send signals (setitimer)"));
}

TEST(SimHeaderTest, DoesNothingWithoutTheSimulator)
{
    EXPECT_EQ(std::system(SIM_PROGRAMS "/sim-Points"), 0);
}

} // namespace
