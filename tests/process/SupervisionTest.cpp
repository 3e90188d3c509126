#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "DaemonProcess.h"
#include "NotifySocket.h"
#include "PidFile.h"
#include "Wait.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using zortest::DaemonProcess;

/// The runtime, the notifier and the host's supervisor together.
class SupervisionTest : public ::testing::Test
{
 protected:
    static bool Says(const DaemonProcess& daemon, const std::string& text)
    {
        return daemon.Errors().find(text) != std::string::npos;
    }

    zortest::PidFileGuard m_pidFile;
};

TEST_F(SupervisionTest, HangingTaskIsReportedInTimeAndAPausedOneIsNot)
{
    using Clock = std::chrono::steady_clock;
    // The time-out of the tasks and one sweep of the notifier, and as much again for a busy
    // machine.
    constexpr std::chrono::seconds AT_MOST(2 * (5 + 2));

    DaemonProcess daemon("zor-test-supervised-daemon", {}, {"ZOR_DLOG=stderr:WARN"});
    ASSERT_TRUE(zortest::Eventually([&] { return daemon.Output() == "hanging\n"; }));
    const Clock::time_point begin = Clock::now();
    ASSERT_TRUE(zortest::Eventually([&] { return Says(daemon, "thread 'hanging'"); }));
    EXPECT_LE(Clock::now() - begin, AT_MOST);
    daemon.EndInput();
    ASSERT_TRUE(daemon.WaitForEnd());
    EXPECT_EQ(daemon.ExitStatus(), 0) << daemon.Errors();
    // Paused from before the other hung, it fed the watchdog itself.
    EXPECT_THAT(daemon.Errors(), Not(HasSubstr("thread 'paused'")));
}

TEST_F(SupervisionTest, ServiceManagerHearsThatADaemonWithASupervisedTaskIsReady)
{
    zortest::NotifySocket manager;
    DaemonProcess daemon("zor-test-supervised-daemon", {},
                         {"NOTIFY_SOCKET=" + manager.Address(), "ZOR_DLOG=none"});
    EXPECT_EQ(manager.Next(), "READY=1");
    daemon.EndInput();
    ASSERT_TRUE(daemon.WaitForEnd());
    EXPECT_EQ(daemon.ExitStatus(), 0);
    EXPECT_EQ(manager.Take(), "");
}

} // namespace
