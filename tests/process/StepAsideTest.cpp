#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "DaemonProcess.h"
#include "PidFile.h"
#include "Wait.h"

namespace {

using testing::StartsWith;
using zortest::DaemonProcess;
using zortest::LeavePidFile;

constexpr char DAEMON[] = "zor-test-daemon";

/// What a daemon says that finds a pid file, and what it leaves alone.
class StepAsideTest : public ::testing::Test
{
 protected:
    /// What a start says on standard error, with the log elsewhere.
    static std::string StartedBeside(const std::vector<std::string>& environment = {})
    {
        std::vector<std::string> all = {"ZOR_DLOG=none"};
        all.insert(all.end(), environment.begin(), environment.end());
        DaemonProcess daemon(DAEMON, {"3"}, all);
        EXPECT_TRUE(daemon.WaitForEnd());
        EXPECT_EQ(daemon.ExitStatus(), 0);
        EXPECT_EQ(daemon.Output(), "");
        return daemon.Errors();
    }

    zortest::PidFileGuard m_pidFile;
};

TEST_F(StepAsideTest, NamesTheProcessThatLives)
{
    DaemonProcess first(DAEMON, {"wait"});
    ASSERT_TRUE(zortest::Eventually(
        [&first] { return first.Output().find("arguments end") != std::string::npos; }));
    EXPECT_EQ(StartedBeside(), "zor-test-daemon: process " + std::to_string(first.Pid()) +
                                   " (zor-test-daemon) lives and has the pid file "
                                   "/tmp/.zor-daemon.pid; nothing was started\n");
    first.EndInput();
    EXPECT_TRUE(first.WaitForEnd());
}

TEST_F(StepAsideTest, SaysThatTheProcessIsGone)
{
    DaemonProcess first(DAEMON, {"3"});
    ASSERT_TRUE(first.WaitForEnd());
    EXPECT_EQ(StartedBeside(), "zor-test-daemon: process " + std::to_string(first.Pid()) +
                                   " is gone and has left the pid file /tmp/.zor-daemon.pid "
                                   "behind; remove it to start this daemon\n");
}

TEST_F(StepAsideTest, ProcessThatNobodyHasWaitedForIsGone)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    LeavePidFile(std::to_string(child));
    EXPECT_THAT(StartedBeside(),
                StartsWith("zor-test-daemon: process " + std::to_string(child) + " is gone"));
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST_F(StepAsideTest, PidFileWithoutANumberNamesNoProcess)
{
    for (const char* text :
         {"left over", "0", "-4", "12x", "99999999999", "99999999999999999999999999999999"}) {
        LeavePidFile(text);
        EXPECT_EQ(StartedBeside(),
                  "zor-test-daemon: the pid file /tmp/.zor-daemon.pid is there already, and names "
                  "no process; remove it to start this daemon\n")
            << text;
    }
}

/// It is empty between its making and its writing.
TEST_F(StepAsideTest, EmptyPidFileMayBeAnotherStarts)
{
    LeavePidFile("");
    EXPECT_EQ(StartedBeside(),
              "zor-test-daemon: the pid file /tmp/.zor-daemon.pid is there already, and empty: "
              "another start may be under way; nothing was started\n");
}

TEST_F(StepAsideTest, PidFileThatCannotBeReadIsSaid)
{
    ASSERT_EQ(mkdir(zortest::PID_FILE, 0700), 0);
    EXPECT_EQ(StartedBeside(),
              "zor-test-daemon: the pid file /tmp/.zor-daemon.pid is there already, and cannot be "
              "read: Is a directory; nothing was started\n");
    EXPECT_EQ(rmdir(zortest::PID_FILE), 0);
}

TEST_F(StepAsideTest, StandardErrorThatNobodyReadsChangesNothing)
{
    LeavePidFile("left over");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    const std::string daemon = DaemonProcess(DAEMON, {"3"}).Path();
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGPIPE, SIG_DFL);
        dup2(ends[1], STDERR_FILENO);
        setenv("ZOR_DLOG", "none", 1);
        execl(daemon.c_str(), daemon.c_str(), "3", nullptr);
        _exit(1);
    }
    close(ends[1]);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(StepAsideTest, RecordingOfTheFirstIsLeftAlone)
{
    std::string folder = ::testing::TempDir() + "zor-aside-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string path = folder + "/calls.zor";
    const std::string recording = "\x89ZRRCRD1 and what there is of it";
    std::ofstream(path) << recording;
    LeavePidFile("left over");
    StartedBeside({"ZOR_RECORD=" + path});
    std::ifstream file(path);
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(file), {}) == recording);
    EXPECT_FALSE(std::filesystem::exists(path + ".old"));
    std::filesystem::remove_all(folder);
}

} // namespace
