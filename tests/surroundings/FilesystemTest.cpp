#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "Surroundings.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using zortest::Command;
using zortest::IsTableOfSample;
using zortest::ProgramResult;

/// Every example daemon, and one that tells on standard output of its Main() and of its end.
const Command DAEMONS[] = {{TSMON_PROGRAM, TSMON_SAMPLE}, {HELLO_PROGRAM}, {TEST_DAEMON, "3"}};

constexpr const char* RUN_AND_LOOK_FOR_PID_FILE = R"(
    "$@"
    code=$?
    [ -e /tmp/.zor-daemon.pid ] && echo left behind
    exit $code
)";

class FilesystemTest : public testing::Test
{
 protected:
    void SetUp() override { SKIP_WITHOUT_OWN_MOUNTS(); }

    static ProgramResult Run(const std::string& script, const Command& command,
                             const zortest::ProgramRun::Environment& environment = {})
    {
        return zortest::RunProgram("/usr/bin/env", zortest::WithOwnMounts(script, command),
                                   environment);
    }

    /// Runs each daemon where the pid file cannot be made, and expects that it says so and ends
    /// without having done anything.
    static void ExpectStepAside(const std::string& surroundings, const std::string& complaint)
    {
        for (const Command& daemon : DAEMONS) {
            SCOPED_TRACE(daemon[0]);
            const ProgramResult result = Run(surroundings + RUN_AND_LOOK_FOR_PID_FILE, daemon);
            EXPECT_EQ(result.exitCode, 0);
            EXPECT_EQ(result.out, "");
            EXPECT_THAT(result.err, HasSubstr("ZOR_CORE: write_pid" + complaint));
            EXPECT_THAT(result.err, EndsWith("ZOR_CORE: main(90) > Exiting...\n"));
        }
    }
};

// The pid file's directory.

TEST_F(FilesystemTest, ReadOnlyTmpIsLoggedAndTheDaemonStepsAside)
{
    ExpectStepAside("private_tmp size=64k; read_only /tmp",
                    "(45) > failed to open (/tmp/.zor-daemon.pid:30)\n");
}

TEST_F(FilesystemTest, TmpWithoutRoomForAFileIsLoggedAndTheDaemonStepsAside)
{
    ExpectStepAside("private_tmp nr_inodes=100; while true >/tmp/$((i = i + 1)); do :; done 2>&-",
                    "(45) > failed to open (/tmp/.zor-daemon.pid:28)\n");
}

TEST_F(FilesystemTest, TmpWithoutRoomForThePidIsLoggedAndTheDaemonStepsAsideWithoutAPidFile)
{
    ExpectStepAside("private_tmp size=64k; cat /dev/zero >/tmp/filler 2>&-",
                    "(56) > failed to write (-1:28)/len(");
}

TEST_F(FilesystemTest, FullDiskForTheRecordIsLoggedAndTheDaemonWorks)
{
    const ProgramResult result =
        Run("private_tmp size=1m; exec \"$@\"", {TSMON_PROGRAM, TSMON_SAMPLE},
            {{"ZOR_RECORD", "/tmp/calls.zor"}, {"ZOR_DLOG", "stderr:W"}});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.out, IsTableOfSample());
    EXPECT_THAT(result.err, EndsWith("ZOR_RECORD: No space left on device: '/tmp/calls.zor' cannot "
                                     "be recorded into; no calls are recorded\n"));
}

// The console.

TEST_F(FilesystemTest, WithoutAConsoleAFailedAssertionStillAborts)
{
    const ProgramResult result =
        Run("private_tmp size=1m; private_dev; read_only /dev; ulimit -c 0; exec \"$@\"",
            {TEST_DAEMON, "assert"}, {{"ZOR_DLOG", "none"}});
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.err, "there are 2 arguments\n");
}

TEST_F(FilesystemTest, WithoutAConsoleAReleaseBuildGoesOnBehindAFailedAssertion)
{
    const ProgramResult result =
        Run("private_tmp size=1m; private_dev; read_only /dev; exec \"$@\"",
            {TEST_DAEMON, "assert"}, {{"ZOR_DLOG", "none"}, {"ZOR_RELEASE", "1"}});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err, "there are 2 arguments\n");
    EXPECT_THAT(result.out, EndsWith("exit handler\n"));
}

TEST_F(FilesystemTest, ReportOfAFailedAssertionIsOnTheConsoleAloneIfThereIsOne)
{
    const ProgramResult result =
        Run("private_tmp size=1m; private_dev console; \"$@\" >/dev/null; cat /dev/console",
            {TEST_DAEMON, "assert"}, {{"ZOR_DLOG", "none"}, {"ZOR_RELEASE", "1"}});
    EXPECT_THAT(result.out, AllOf(HasSubstr("Assertion failed: "), HasSubstr(" - gArgc == 0\n"),
                                  HasSubstr("Callstack:\n")));
    EXPECT_EQ(result.err, "there are 2 arguments\n");
}

TEST_F(FilesystemTest, ExampleDaemonsNeedNoDevices)
{
    const std::string script =
        "private_tmp size=1m; private_dev; umount /dev/null; read_only /dev; "
        "exec \"$@\"";
    const ProgramResult table =
        Run(script, {TSMON_PROGRAM, TSMON_SAMPLE}, {{"ZOR_DLOG", "stderr:W"}});
    EXPECT_EQ(table.exitCode, 0);
    EXPECT_THAT(table.out, IsTableOfSample());
    EXPECT_EQ(table.err, "");
    const ProgramResult greeting = Run(script, {HELLO_PROGRAM}, {{"ZOR_DLOG", "stderr:W"}});
    EXPECT_EQ(greeting.exitCode, 0);
    EXPECT_EQ(greeting.out, "hello 42\n");
    EXPECT_EQ(greeting.err, "");
}

} // namespace
