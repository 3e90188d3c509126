#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "DaemonProcess.h"
#include "Markdown.h"
#include "PidFile.h"
#include "Wait.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using zortest::DaemonProcess;
using zortest::Eventually;

class TutorialTest : public ::testing::Test
{
 protected:
    /// What the tutorial says that a step prints.
    static std::string Promised(const std::string& step)
    {
        return zortest::BlockWithNote(m_blocks, "output of " + step);
    }

    const static std::vector<zortest::Block> m_blocks;

    zortest::PidFileGuard m_pidFile;
};

const std::vector<zortest::Block> TutorialTest::m_blocks =
    zortest::BlocksOf(zortest::SourceText("docs/writing-a-daemon.md"));

/// A step that ends by itself.
class TutorialStepTest : public TutorialTest, public ::testing::WithParamInterface<const char*>
{};

TEST_P(TutorialStepTest, PrintsWhatTheTutorialSays)
{
    const std::string program = GetParam();
    DaemonProcess daemon(program, {}, {"ZOR_DLOG=none"});
    ASSERT_TRUE(daemon.WaitForEnd());
    EXPECT_EQ(daemon.ExitStatus(), 0) << daemon.Errors();
    EXPECT_EQ(daemon.Output(), Promised(program.substr(program.find("step"))));
}

INSTANTIATE_TEST_SUITE_P(Tutorial, TutorialStepTest,
                         ::testing::Values("step1_empty", "step2_task", "step3_messages",
                                           "step4_timer", "step5_pause", "step8_kept",
                                           "kit_step2_task", "kit_step3_messages",
                                           "kit_step4_timer", "kit_step5_pause"),
                         [](const auto& info) { return std::string(info.param); });

/// A test program: not a daemon, but run like one.
TEST_F(TutorialTest, TestsOfATaskPassAsTheTutorialSays)
{
    DaemonProcess tests("step7_test", {"--gtest_print_time=0"}, {});
    ASSERT_TRUE(tests.WaitForEnd());
    EXPECT_EQ(tests.ExitStatus(), 0) << tests.Errors();
    EXPECT_EQ(tests.Output(), Promised("step7_test"));
}

/// Both forms of a step promise the same.
TEST_F(TutorialTest, SecondFormsPrintWhatTheFirstOnesDo)
{
    const auto blocks = zortest::BlocksOf(zortest::SourceText("docs/events-to-messages.md"));
    for (const char* step :
         {"step2_task", "step3_messages", "step4_timer", "step5_pause", "step6_supervised"}) {
        EXPECT_EQ(zortest::BlockWithNote(blocks, std::string("output of kit ") + step),
                  Promised(step));
    }
}

/// The last step, in both forms.
class SupervisedStepTest : public TutorialTest, public ::testing::WithParamInterface<const char*>
{
 protected:
    static constexpr char SERVING[] = "Main: serving\n";
    const std::string m_step = GetParam();

    static bool HasPrinted(const DaemonProcess& daemon, const std::string& text)
    {
        return Eventually([&] { return daemon.Output() == text; });
    }
};

TEST_P(SupervisedStepTest, PausesResumesAndStopsOnSignals)
{
    DaemonProcess daemon(m_step, {}, {"ZOR_DLOG=none"});
    std::string printed = SERVING;
    ASSERT_TRUE(HasPrinted(daemon, printed)) << daemon.Output();
    kill(daemon.Pid(), SIGUSR1);
    ASSERT_TRUE(HasPrinted(daemon, printed += "Main: paused\n")) << daemon.Output();
    kill(daemon.Pid(), SIGUSR2);
    ASSERT_TRUE(HasPrinted(daemon, printed += "Main: resumed\n")) << daemon.Output();
    kill(daemon.Pid(), SIGTERM);
    ASSERT_TRUE(daemon.WaitForEnd());
    EXPECT_EQ(daemon.ExitStatus(), 0) << daemon.Errors();
    EXPECT_EQ(daemon.Output(), Promised("step6_supervised"));
}

TEST_P(SupervisedStepTest, StopsWhilePaused)
{
    DaemonProcess daemon(m_step, {}, {"ZOR_DLOG=stderr"});
    ASSERT_TRUE(HasPrinted(daemon, SERVING)) << daemon.Output();
    kill(daemon.Pid(), SIGUSR1);
    ASSERT_TRUE(HasPrinted(daemon, std::string(SERVING) + "Main: paused\n")) << daemon.Output();
    kill(daemon.Pid(), SIGTERM);
    ASSERT_TRUE(daemon.WaitForEnd());
    EXPECT_EQ(daemon.ExitStatus(), 0) << daemon.Errors();
    EXPECT_THAT(daemon.Errors(), Not(HasSubstr("Was not resumed before destroying.")));
}

TEST_P(SupervisedStepTest, HangIsReportedByTheWatchdog)
{
    DaemonProcess daemon(m_step, {"--hang"}, {"ZOR_DLOG=stderr:ERROR", "ZOR_WATCHDOG=log"});
    ASSERT_TRUE(
        Eventually([&] { return daemon.Errors().find("thread 'Meter'") != std::string::npos; }));
    EXPECT_THAT(daemon.Errors(), HasSubstr("hangs: no sign of life within 5000 ms"));
    kill(daemon.Pid(), SIGTERM);
    daemon.EndInput();
    ASSERT_TRUE(daemon.WaitForEnd());
    EXPECT_EQ(daemon.ExitStatus(), 0) << daemon.Errors();
}

TEST_P(SupervisedStepTest, HangEndsTheProcessIfTheWatchdogAborts)
{
    DaemonProcess daemon(m_step, {"--hang"}, {"ZOR_DLOG=none", "ZOR_WATCHDOG=abort"});
    ASSERT_TRUE(daemon.WaitForEnd());
    EXPECT_EQ(daemon.Signal(), SIGABRT) << daemon.Errors();
}

INSTANTIATE_TEST_SUITE_P(Tutorial, SupervisedStepTest,
                         ::testing::Values("step6_supervised", "kit_step6_supervised"),
                         [](const auto& info) { return std::string(info.param); });

} // namespace
