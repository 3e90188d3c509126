#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>

#include "../platform/KeyLibrary.h"
#include "DaemonProcess.h"
#include "PidFile.h"
#include "Wait.h"

namespace {

using testing::Contains;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using zortest::DaemonProcess;
using zortest::Eventually;

constexpr char NAME[] = "zor-test-key-menu-daemon";
constexpr char TKGS_MENU[] = "/usr/apps/org.nimbo.core-tkgs-menu/bin/core-tkgs-menu";
constexpr char DEBUG_MENU[] = "/usr/apps/org.nimbo.core-debug-menu/bin/core-debug-menu";

/// A whole daemon whose keys are pressed.
class KeyMenuTest : public ::testing::Test
{
 protected:
    static bool Says(const DaemonProcess& daemon, const std::string& text)
    {
        return Eventually([&] { return daemon.Errors().find(text) != std::string::npos; });
    }

    static bool Reports(const DaemonProcess& daemon, const std::string& text)
    {
        return Eventually([&] { return daemon.Output().find(text) != std::string::npos; });
    }

    /// The child that was to become that program; its one argument is the empty one.
    static pid_t ChildFor(const DaemonProcess& daemon, const std::string& program)
    {
        pid_t child = -1;
        EXPECT_TRUE(Reports(daemon, program + "\n")) << daemon.Output() << daemon.Errors();
        for (const std::string& line : daemon.OutputLines()) {
            int arguments = 0;
            char path[128] = "";
            if (sscanf(line.c_str(), "start %d %d %127s", &child, &arguments, path) == 3 &&
                path == program) {
                EXPECT_EQ(arguments, 2);
                return child;
            }
        }
        ADD_FAILURE() << "no child: " << daemon.Output();
        return -1;
    }

    static void EndAndExpect0(DaemonProcess* daemon)
    {
        daemon->EndInput();
        ASSERT_TRUE(daemon->WaitForEnd());
        EXPECT_EQ(daemon->ExitStatus(), 0) << daemon->Errors();
        EXPECT_THAT(daemon->OutputLines(), Contains("exited"));
    }

    zortest::PidFileGuard m_pidFile;
    zortest::KeyFifo m_fifo;
};

TEST_F(KeyMenuTest, PressIsLoggedAndAChildMadeThatTriesToBecomeTheMenu)
{
    DaemonProcess daemon(NAME, {KEY_LIBRARY}, {"ZOR_DLOG=stderr:INFO", "ZOR_RELEASE=0"});
    ASSERT_TRUE(Reports(daemon, "initialized\n"));
    m_fifo.Write("113 yellow blue\n");
    EXPECT_TRUE(Says(daemon, "yellow blue hit sucessfully! 113\n")) << daemon.Errors();
    // Promoted; and from the library's thread, which is not the one that the process has begun
    // with.
    EXPECT_THAT(daemon.Errors(),
                ContainsRegex(" E ZOR_CORE\\([0-9]+\\): .*KeyCombinationLoggerRegistration::"
                              "m_LaunchTkgsPopup\\] >> \\[m_LaunchTkgsPopup\\]\\[[0-9]+\\] "
                              "yellow blue hit sucessfully! 113\n"));
    EXPECT_THAT(daemon.Errors(), Not(ContainsRegex("ZOR_CORE\\(" + std::to_string(daemon.Pid()) +
                                                   "\\): [^\n]*m_LaunchTkgsPopup")));

    const pid_t child = ChildFor(daemon, TKGS_MENU);
    EXPECT_NE(child, daemon.Pid());
    // There is no such menu here: the child has come back, was ended, and the system has reaped it.
    EXPECT_TRUE(Says(daemon, "the handler of combination 113 has returned in a child"));
    EXPECT_TRUE(Eventually([child] { return kill(child, 0) == -1 && errno == ESRCH; }));

    m_fifo.Write("99 red\n");
    EXPECT_TRUE(Says(daemon, "red hit sucessfully! 99\n")) << daemon.Errors();
    EXPECT_NE(ChildFor(daemon, DEBUG_MENU), daemon.Pid());
    EndAndExpect0(&daemon);
    EXPECT_FALSE(m_fifo.HasReader());
}

TEST_F(KeyMenuTest, ReleaseBuildHasNoDebugMenu)
{
    DaemonProcess daemon(NAME, {KEY_LIBRARY}, {"ZOR_DLOG=stderr:INFO", "ZOR_RELEASE=1"});
    ASSERT_TRUE(Reports(daemon, "initialized\n"));
    m_fifo.Write("99 red\n113 green\n");
    EXPECT_TRUE(Says(daemon, "nothing handles combination 99 ('red')")) << daemon.Errors();
    EXPECT_TRUE(Says(daemon, "green hit sucessfully! 113\n")) << daemon.Errors();
    ChildFor(daemon, TKGS_MENU);
    EndAndExpect0(&daemon);
    EXPECT_THAT(daemon.Output(), Not(HasSubstr(DEBUG_MENU)));
}

TEST_F(KeyMenuTest, DaemonRunsWithoutTheLibrary)
{
    DaemonProcess daemon(NAME, {"/nonexistent/libqv-win-util.so"}, {"ZOR_DLOG=stderr:INFO"});
    ASSERT_TRUE(Reports(daemon, "initialized\n"));
    EXPECT_TRUE(Says(daemon, "Couldn't open the library\n")) << daemon.Errors();
    EndAndExpect0(&daemon);
}

} // namespace
