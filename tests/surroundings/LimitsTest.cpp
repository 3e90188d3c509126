#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "Surroundings.h"

/// The sanitizers make pipes to find out what can be read, and take those that fail for an answer.
#define SKIP_IF_SANITIZED()                                       \
    if (IS_SANITIZED) {                                           \
        GTEST_SKIP() << "the sanitizer itself needs descriptors"; \
    }                                                             \
    static_assert(true)

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using zortest::Command;
using zortest::DaemonResult;
using zortest::IsTableOfSample;
using zortest::RunDaemonIn;

const Command MONITOR = {TSMON_PROGRAM, TSMON_SAMPLE};

/// Runs a daemon with a limit set by the shell's ulimit, and with no files but the standard
/// streams.
DaemonResult RunWithLimit(const std::string& limit, const Command& daemon,
                          const std::string& log = "stderr:W")
{
    return RunDaemonIn(
        "exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; ulimit " + limit + " && exec \"$@\"", daemon,
        {{"ZOR_DLOG", log}});
}

void ExpectTableAlone(const DaemonResult& result)
{
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.out, IsTableOfSample());
    EXPECT_EQ(result.err, "");
}

// Open files.

TEST(LimitsTest, SixtyFourOpenFilesAreEnough)
{
    ExpectTableAlone(RunWithLimit("-n 64", MONITOR));
}

TEST(LimitsTest, TooFewOpenFilesForTheMonitorAreNamed)
{
    SKIP_IF_SANITIZED();
    const std::string name = std::string("zor-tsmon: ") + TSMON_SAMPLE;
    for (const char* limit : {"-n 4", "-n 5"}) {
        const DaemonResult result = RunWithLimit(limit, MONITOR);
        EXPECT_EQ(result.exitCode, 1) << limit;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, name + ": cannot be read: no descriptors left to wait for it with\n");
    }
}

TEST(LimitsTest, NoOpenFileLeftForTheStreamIsNamed)
{
    SKIP_IF_SANITIZED();
    const DaemonResult result = RunWithLimit("-n 6", MONITOR);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, std::string("zor-tsmon: ") + TSMON_SAMPLE +
                              ": cannot be opened: Too many open files\n");
}

TEST(LimitsTest, NoOpenFileLeftForThePidFileIsLoggedAndTheDaemonStepsAside)
{
    SKIP_IF_SANITIZED();
    // The loader closes each library before it opens the next; the log's file stays open.
    const zortest::ScratchDirectory directory;
    const std::string log = directory.Path("log");
    for (const Command& daemon : {MONITOR, Command{HELLO_PROGRAM}, Command{TEST_DAEMON, "3"}}) {
        const DaemonResult result = RunWithLimit("-n 4", daemon, "file:" + log);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(zortest::ReadText(log), EndsWith("main(90) > Exiting...\n"));
        EXPECT_THAT(zortest::ReadText(log), HasSubstr("failed to open (/tmp/.zor-daemon.pid:24)"));
        zortest::WriteText(log, "");
    }
}

// The stack.

TEST(LimitsTest, StacksOfOneMebibyteAreEnough)
{
    ExpectTableAlone(RunWithLimit("-s 1024", MONITOR));
    const DaemonResult greeting = RunWithLimit("-s 1024", {HELLO_PROGRAM});
    EXPECT_EQ(greeting.exitCode, 0);
    EXPECT_EQ(greeting.out, "hello 42\n");
}

// The service manager's socket.

TEST(LimitsTest, WithoutTheServiceManagersSocketNothingIsLost)
{
    ExpectTableAlone(RunDaemonIn("unset NOTIFY_SOCKET; exec \"$@\"", MONITOR,
                                 {{"ZOR_DLOG", "stderr:W"}, {"WATCHDOG_USEC", "1000000"}}));
}

TEST(LimitsTest, SocketOfTheServiceManagerThatLeadsNowhereIsLoggedOnceAndNothingIsLost)
{
    for (const auto& [socket, reason] :
         {std::pair<const char*, const char*>("/nowhere/notify", "No such file or directory"),
          {TSMON_SAMPLE, "Connection refused"}}) {
        const DaemonResult result = RunDaemonIn(
            "exec \"$@\"", MONITOR,
            {{"ZOR_DLOG", "stderr:W"}, {"WATCHDOG_USEC", "100000"}, {"NOTIFY_SOCKET", socket}});
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_THAT(result.out, IsTableOfSample());
        EXPECT_THAT(result.err,
                    testing::MatchesRegex(
                        std::string("[^\n]* W ZOR_WATCHDOG[^\n]*: NOTIFY_SOCKET: systemd cannot be "
                                    "told that this process lives: ") +
                        reason + "\n"));
    }
}

} // namespace
