#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "Surroundings.h"

/// An optimised access to an atomic is an ordinary instruction, which helgrind takes for a race.
/// ThreadSanitizer knows better, and runs over all tests.
#define SKIP_IF_OPTIMISED()                                           \
    if (IS_OPTIMISED) {                                               \
        GTEST_SKIP() << "helgrind cannot tell atomics in this build"; \
    }                                                                 \
    static_assert(true)

namespace {

using zortest::Command;
using zortest::DaemonResult;
using zortest::IsTableOfSample;

/// No daemon's own exit code.
constexpr int FOUND_ERRORS = 99;

class ValgrindTest : public testing::Test
{
 protected:
    /// Runs a daemon under one of valgrind's tools, whose report a failure shows. The daemon's
    /// process exits when its threads have ended, but for the supervisor's (EndOfThreads.cpp).
    static DaemonResult Run(const std::string& tool, const Command& options, const Command& daemon)
    {
        Command line = {"--tool=" + tool,
                        "--quiet",
                        "--fair-sched=yes",
                        "--gen-suppressions=all",
                        "--error-exitcode=" + std::to_string(FOUND_ERRORS),
                        "--suppressions=" SUPPRESSIONS_DIR "/" + tool + ".supp"};
        line.insert(line.end(), options.begin(), options.end());
        line.insert(line.end(), daemon.begin(), daemon.end());
        DaemonResult result =
            zortest::RunDaemonIn("exec " VALGRIND_PROGRAM " \"$@\"", line,
                                 {{"ZOR_DLOG", "none"}, {"LD_PRELOAD", END_OF_THREADS_LIBRARY}});
        EXPECT_NE(result.exitCode, FOUND_ERRORS) << result.err;
        return result;
    }

    static DaemonResult Memcheck(const Command& daemon)
    {
        return Run("memcheck",
                   {"--leak-check=full", "--errors-for-leak-kinds=definite,indirect,possible"},
                   daemon);
    }

    static DaemonResult Helgrind(const Command& daemon)
    {
        Command options;
        if (HELGRIND_KNOWS_DUBIOUS) {
            options.push_back("--suppressions=" SUPPRESSIONS_DIR "/helgrind-dubious.supp");
        }
        return Run("helgrind", options, daemon);
    }

    static void ExpectTable(const DaemonResult& result)
    {
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_THAT(result.out, IsTableOfSample());
    }

    static void ExpectGreeting(const DaemonResult& result)
    {
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.out, "hello 42\n");
    }

    static void ExpectRefusal(const DaemonResult& result)
    {
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.err,
                  "zor-tsmon: /nowhere/stream.ts: cannot be opened: No such file or directory\n");
    }
};

TEST_F(ValgrindTest, MonitorUsesItsMemoryRightAndLosesNone)
{
    ExpectTable(Memcheck({TSMON_PROGRAM, TSMON_SAMPLE}));
}

TEST_F(ValgrindTest, MonitorThatFailsUsesItsMemoryRightAndLosesNone)
{
    ExpectRefusal(Memcheck({TSMON_PROGRAM, "/nowhere/stream.ts"}));
}

TEST_F(ValgrindTest, GreeterUsesItsMemoryRightAndLosesNone)
{
    ExpectGreeting(Memcheck({HELLO_PROGRAM}));
}

TEST_F(ValgrindTest, MonitorsThreadsDoNotRace)
{
    SKIP_IF_OPTIMISED();
    ExpectTable(Helgrind({TSMON_PROGRAM, TSMON_SAMPLE}));
}

TEST_F(ValgrindTest, MonitorsThreadsDoNotRaceWhenTablesAreRepeated)
{
    SKIP_IF_OPTIMISED();
    // The sample lasts for ten seconds by its clock.
    const DaemonResult result =
        Helgrind({TSMON_PROGRAM, "--every", "1", "--realtime", TSMON_SAMPLE});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, testing::HasSubstr("NOW"));
}

TEST_F(ValgrindTest, MonitorsThreadsDoNotRaceWhenItFails)
{
    SKIP_IF_OPTIMISED();
    ExpectRefusal(Helgrind({TSMON_PROGRAM, "/nowhere/stream.ts"}));
}

TEST_F(ValgrindTest, GreetersThreadsDoNotRace)
{
    SKIP_IF_OPTIMISED();
    ExpectGreeting(Helgrind({HELLO_PROGRAM}));
}

} // namespace
