#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "ConsoleSeam.h"
#include "EntrySeams.h"
#include "FaultCase.h"
#include "LogSeam.h"

namespace {

using namespace zortest;
using ::testing::AllOf;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int RETURNED = 42;

/// Each test runs the entry in a process of its own, which shows its log and whether there is a pid
/// file when it ends.
class EntryFaultsDeathTest : public ::testing::Test
{
 protected:
    /// The process of a death test.
    [[noreturn]] static void Run()
    {
        // The notifier's thread looks for its end after each of its sleeps.
        const Takeover sleep(sleepMsSeam, [](unsigned long) { sleepMsSeam.Real(1); });
        const Takeover end(exitSeam, [](int status) {
            ShowEnd();
            exitSeam.Real(status);
        });
        _exit(RunEntry() == 0 ? RETURNED : 1);
    }

    static void ShowEnd()
    {
        for (const LogLine& line : LogLines()) {
            fprintf(stderr, "[%s]\n", line.text.c_str());
        }
        fprintf(stderr, "pid file: %s\n", access(OwnPidFile::Path(), F_OK) == 0 ? "yes" : "no");
    }

    const OwnPidFile m_pidFile;
    static constexpr char EXITING[] = "[ZOR_CORE: main(90) > Exiting...]\n";
};

/// A log line "failed to write (%d:%d)/len(%d)".
::testing::Matcher<const std::string&> SaysWriteFailed(const std::string& results)
{
    return ::testing::ContainsRegex("\\[ZOR_CORE: write_pid\\(56\\) > failed to write \\(" +
                                    results + "\\)/len\\([0-9]+\\)\\]");
}

TEST_F(EntryFaultsDeathTest, PidFileThatCannotBeOpenedIsLoggedAndTheProcessStepsAside)
{
    const FaultCase fault("open", "main (pid file)",
                          "logged \"failed to open (%s:%d)\" and \"Exiting...\"; `_exit(0)`, "
                          "nothing is closed or removed");
    EXPECT_FAULT_EXIT(
        {
            const FailingCall refused(openSeam, -1, 0, From::HERE, EACCES);
            Run();
        },
        ExitedWithCode(0),
        AllOf(HasSubstr("[ZOR_CORE: write_pid(45) > failed to open (/tmp/.zor-daemon.pid:13)]\n"),
              HasSubstr(EXITING), Not(HasSubstr("QLN No sched_yield()"))));
}

TEST_F(EntryFaultsDeathTest, PidThatCannotBeWrittenIsLoggedAndThePidFileRemoved)
{
    const FaultCase fault("write", "main (pid file; fails)",
                          "logged \"failed to write (%d:%d)/len(%d)\" and \"Exiting...\"; the file "
                          "is closed and removed; `_exit(0)`");
    EXPECT_FAULT_EXIT(
        {
            const FailingCall full(writeSeam, -1, 0, From::HERE, ENOSPC);
            Run();
        },
        ExitedWithCode(0),
        AllOf(SaysWriteFailed("-1:28"), HasSubstr(EXITING), HasSubstr("pid file: no")));
}

TEST_F(EntryFaultsDeathTest, PidThatIsWrittenInPartIsLoggedAndThePidFileRemoved)
{
    const FaultCase fault("write", "main (pid file; short)",
                          "logged \"failed to write (%d:%d)/len(%d)\" and \"Exiting...\"; the file "
                          "is closed and removed; `_exit(0)`");
    EXPECT_FAULT_EXIT(
        {
            const FailingCall part(writeSeam, 1, 0, From::HERE, 0);
            Run();
        },
        ExitedWithCode(0),
        AllOf(SaysWriteFailed("1:0"), HasSubstr(EXITING), HasSubstr("pid file: no")));
}

TEST_F(EntryFaultsDeathTest, PidFileThatCannotBeClosedIsIgnored)
{
    const FaultCase fault("close", "main (pid file)", "ignored: the start goes on");
    EXPECT_FAULT_EXIT(
        {
            const FailingCall refused(closeSeam, -1, 0, From::HERE, EIO);
            Run();
        },
        ExitedWithCode(RETURNED),
        AllOf(HasSubstr("QLN No sched_yield()"), HasSubstr("pid file: yes")));
}

TEST_F(EntryFaultsDeathTest, PidFileThatCannotBeRemovedStays)
{
    const FaultCase fault("remove", "main (pid file)",
                          "ignored: the file stays behind; `_exit(0)`");
    EXPECT_FAULT_EXIT(
        {
            const FailingCall full(writeSeam, -1, 0, From::HERE, ENOSPC);
            const FailingCall refused(removeSeam, -1, 0, From::HERE, EPERM);
            Run();
        },
        ExitedWithCode(0), AllOf(HasSubstr(EXITING), HasSubstr("pid file: yes")));
}

} // namespace
