#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "DaemonProcess.h"
#include "PidFile.h"
#include "Wait.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using zortest::DaemonProcess;
using zortest::PidFileExists;
using zortest::PidFileText;

constexpr char PLAIN[] = "zor-test-daemon";
constexpr char RECORDING[] = "zor-test-recording-daemon";
constexpr char BAD_WRITE[] = "zor-test-bad-write-daemon";

constexpr char BEGIN_MARK[] = "mark 666 14|ZOR main begin|";
constexpr char BANNER_1[] =
    R"(log 0 3 ZOR|ZOR_CORE: main(74) > \n\t## Quillon (TM) 1.1 : DTP-SP-0085 |)";
constexpr char BANNER_2[] = "log 0 3 ZOR|ZOR_CORE: main(76) > (DEBUG)|";
constexpr char BANNER_3_BEGIN[] = "log 0 3 ZOR|ZOR_CORE: main(80) > ";
constexpr char SUCCESS_MARK[] = "mark 666 21|ZOR pid file result 0|";
constexpr char FAILURE_MARK[] = "mark 666 22|ZOR pid file result -1|";
constexpr char START[] = "log 0 3 ZOR|ZOR_CORE: main(113) > QLN No sched_yield()|";
constexpr char EXITING[] = "log 0 3 ZOR|ZOR_CORE: main(90) > Exiting...|";
constexpr char MAIN_RUNS[] = "Main on the first thread";

class MainTest : public ::testing::Test
{
 protected:
    MainTest()
    {
        // A daemon that is meant to abort leaves no core file behind.
        const rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
    }

    static void ExpectEndsWith(DaemonProcess* daemon, int status)
    {
        ASSERT_TRUE(daemon->WaitForEnd());
        EXPECT_EQ(daemon->Signal(), 0) << daemon->Errors();
        EXPECT_EQ(daemon->ExitStatus(), status) << daemon->Errors();
    }

    /// What the process entry has logged and marked, and that Main() has run.
    static std::vector<std::string> EntryLines(const DaemonProcess& daemon)
    {
        std::vector<std::string> lines;
        for (const std::string& line : daemon.OutputLines()) {
            if (line.compare(0, 12, "log 0 3 ZOR|") == 0 || line.compare(0, 5, "mark ") == 0 ||
                line.compare(0, 5, "Main ") == 0) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    /// The daemon has ended without running Main() and without any exit handler.
    static void ExpectSteppedAside(DaemonProcess* daemon)
    {
        ExpectEndsWith(daemon, 0);
        EXPECT_THAT(daemon->Output(), Not(HasSubstr("Main ")));
        EXPECT_THAT(daemon->Output(), Not(HasSubstr("exit handler")));
        EXPECT_THAT(daemon->Output(), Not(HasSubstr("static destructor")));
    }

    zortest::PidFileGuard m_pidFile;
};

// The pid file.

TEST_F(MainTest, PidFileHoldsThePidWithoutALineEndAndStaysAfterTheEnd)
{
    DaemonProcess daemon(RECORDING, {});
    ExpectEndsWith(&daemon, 0);
    EXPECT_EQ(PidFileText(), std::to_string(daemon.Pid()));
}

TEST_F(MainTest, PidFileIsThereWhileMainRuns)
{
    DaemonProcess daemon(RECORDING, {"wait"});
    ASSERT_TRUE(zortest::Eventually(
        [&daemon] { return daemon.Output().find("arguments end") != std::string::npos; }));
    EXPECT_EQ(PidFileText(), std::to_string(daemon.Pid()));
    daemon.EndInput();
    ExpectEndsWith(&daemon, 0);
    EXPECT_TRUE(PidFileExists());
}

TEST_F(MainTest, PidFileIsItsOwnersAlone)
{
    const mode_t before = umask(0);
    DaemonProcess daemon(RECORDING, {});
    umask(before);
    ExpectEndsWith(&daemon, 0);
    EXPECT_EQ(zortest::PidFileMode(), 0600u);
}

TEST_F(MainTest, LeftOverPidFileMakesTheDaemonStepAside)
{
    zortest::LeavePidFile("left over");
    DaemonProcess daemon(RECORDING, {"3"});
    ExpectSteppedAside(&daemon);
    EXPECT_THAT(EntryLines(daemon),
                ElementsAre(BEGIN_MARK, BANNER_1, BANNER_2, StartsWith(BANNER_3_BEGIN),
                            "log 0 3 ZOR|ZOR_CORE: write_pid(45) > failed to open "
                            "(/tmp/.zor-daemon.pid:17)|",
                            FAILURE_MARK, EXITING));
    EXPECT_EQ(PidFileText(), "left over");
}

TEST_F(MainTest, PidFileOfAnEndedDaemonStopsTheNextOne)
{
    DaemonProcess first(RECORDING, {});
    ExpectEndsWith(&first, 0);
    DaemonProcess second(RECORDING, {"3"});
    ExpectSteppedAside(&second);
    EXPECT_EQ(PidFileText(), std::to_string(first.Pid()));
}

TEST_F(MainTest, SecondDaemonStepsAsideForARunningOne)
{
    DaemonProcess first(PLAIN, {"wait"});
    ASSERT_TRUE(zortest::Eventually(
        [&first] { return first.Output().find("arguments end") != std::string::npos; }));
    DaemonProcess second(PLAIN, {"3"});
    ExpectSteppedAside(&second);
    EXPECT_EQ(PidFileText(), std::to_string(first.Pid()));
    first.EndInput();
    ExpectEndsWith(&first, 0);
}

TEST_F(MainTest, SymbolicLinkInPlaceOfThePidFileIsNotFollowed)
{
    const std::string target = std::string(zortest::PID_FILE) + ".target";
    ASSERT_EQ(symlink(target.c_str(), zortest::PID_FILE), 0);
    DaemonProcess daemon(RECORDING, {});
    ExpectSteppedAside(&daemon);
    EXPECT_THAT(EntryLines(daemon),
                Contains(HasSubstr("failed to open (/tmp/.zor-daemon.pid:17)")));
    EXPECT_NE(access(target.c_str(), F_OK), 0);
    EXPECT_TRUE(PidFileExists());
}

TEST_F(MainTest, FailedWriteOfThePidRemovesTheFileAndMakesTheDaemonStepAside)
{
    DaemonProcess daemon(BAD_WRITE, {"3"}, {"ZOR_TEST_PID_WRITE=fail"});
    ExpectSteppedAside(&daemon);
    const std::string length = std::to_string(std::to_string(daemon.Pid()).size());
    EXPECT_THAT(EntryLines(daemon),
                ElementsAre(BEGIN_MARK, BANNER_1, BANNER_2, StartsWith(BANNER_3_BEGIN),
                            "log 0 3 ZOR|ZOR_CORE: write_pid(56) > failed to write (-1:28)/len(" +
                                length + ")|",
                            FAILURE_MARK, EXITING));
    EXPECT_FALSE(PidFileExists());
}

TEST_F(MainTest, ShortWriteOfThePidRemovesTheFileAndMakesTheDaemonStepAside)
{
    DaemonProcess daemon(BAD_WRITE, {"3"}, {"ZOR_TEST_PID_WRITE=short"});
    ExpectSteppedAside(&daemon);
    const size_t length = std::to_string(daemon.Pid()).size();
    EXPECT_THAT(
        EntryLines(daemon),
        ElementsAre(BEGIN_MARK, BANNER_1, BANNER_2, StartsWith(BANNER_3_BEGIN),
                    "log 0 3 ZOR|ZOR_CORE: write_pid(56) > failed to write (" +
                        std::to_string(length - 1) + ":0)/len(" + std::to_string(length) + ")|",
                    FAILURE_MARK, EXITING));
    EXPECT_FALSE(PidFileExists());
}

TEST_F(MainTest, DaemonThatStepsAsideOverABadWriteLeavesRoomForTheNext)
{
    DaemonProcess first(BAD_WRITE, {}, {"ZOR_TEST_PID_WRITE=fail"});
    ExpectSteppedAside(&first);
    DaemonProcess second(BAD_WRITE, {"3"});
    ExpectEndsWith(&second, 3);
}

// The order of things.

TEST_F(MainTest, EntryLogsAndMarksInThisOrderBeforeMainRuns)
{
    DaemonProcess daemon(RECORDING, {});
    ExpectEndsWith(&daemon, 0);
    const size_t length = std::to_string(daemon.Pid()).size();
    EXPECT_THAT(
        EntryLines(daemon),
        ElementsAre(
            BEGIN_MARK, BANNER_1, BANNER_2,
            AllOf(StartsWith(BANNER_3_BEGIN), Not(StartsWith(std::string(BANNER_3_BEGIN) + "|"))),
            "log 0 3 ZOR|ZOR_CORE: write_pid(62) > pid written (" + std::to_string(length) + ")|",
            SUCCESS_MARK, START, MAIN_RUNS));
}

TEST_F(MainTest, PlatformLogShowsTheEntrysLines)
{
    const std::string path = testing::TempDir() + "zor-main-test." + std::to_string(getpid());
    DaemonProcess daemon(PLAIN, {}, {"ZOR_DLOG=file:" + path});
    ExpectEndsWith(&daemon, 0);
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    remove(path.c_str());
    EXPECT_THAT(text.str(), testing::ContainsRegex("ZOR_CORE: main\\(74\\) > (.|\n)*"
                                                   "## Quillon \\(TM\\) 1.1 : DTP-SP-0085 (.|\n)*"
                                                   "ZOR_CORE: main\\(76\\) > \\(DEBUG\\)\n(.|\n)*"
                                                   "ZOR_CORE: main\\(80\\) > (.|\n)*"
                                                   "write_pid\\(62\\) > pid written(.|\n)*"
                                                   "main\\(113\\) > QLN No sched_yield\\(\\)\n"));
    EXPECT_EQ(daemon.Errors(), "");
}

TEST_F(MainTest, PlatformLogOnStandardErrorShowsWhyADaemonStepsAside)
{
    zortest::LeavePidFile("left over");
    DaemonProcess daemon(PLAIN, {}, {"ZOR_DLOG=stderr"});
    ExpectSteppedAside(&daemon);
    EXPECT_THAT(daemon.Errors(), AllOf(HasSubstr("ZOR_CORE: write_pid(45) > failed to open "
                                                 "(/tmp/.zor-daemon.pid:17)\n"),
                                       HasSubstr("ZOR_CORE: main(90) > Exiting...\n")));
}

// Main().

TEST_F(MainTest, ExitStatusIsTheResultOfMain)
{
    for (const int status : {0, 1, 42, 255}) {
        SCOPED_TRACE(status);
        remove(zortest::PID_FILE);
        DaemonProcess daemon(RECORDING, {std::to_string(status)});
        ExpectEndsWith(&daemon, status);
    }
}

TEST_F(MainTest, ArgumentsReachTheApplicationUntouched)
{
    const std::vector<std::string> arguments = {"0", "", "--name=with blanks ", "-x", "\xc3\xa4"};
    DaemonProcess daemon(RECORDING, arguments);
    ExpectEndsWith(&daemon, 0);
    std::string wanted = std::string(MAIN_RUNS) + "\nargument " + daemon.Path() + "\n";
    for (const std::string& argument : arguments) {
        wanted += "argument " + argument + "\n";
    }
    EXPECT_THAT(daemon.Output(), HasSubstr(wanted + "arguments end in null\n"));
}

TEST_F(MainTest, OrderlyEndRunsExitHandlersAndStaticDestructors)
{
    DaemonProcess daemon(RECORDING, {});
    ExpectEndsWith(&daemon, 0);
    EXPECT_THAT(daemon.OutputLines(), Contains("exit handler"));
    EXPECT_THAT(daemon.OutputLines(), Contains("static destructor"));
}

TEST_F(MainTest, ExceptionOutOfMainEndsTheProcess)
{
    DaemonProcess daemon(RECORDING, {"throw"});
    ASSERT_TRUE(daemon.WaitForEnd());
    EXPECT_EQ(daemon.Signal(), SIGABRT);
    EXPECT_THAT(daemon.Errors(), HasSubstr("out of Main"));
    EXPECT_THAT(daemon.Output(), HasSubstr(MAIN_RUNS));
    EXPECT_THAT(daemon.Output(), Not(HasSubstr("exit handler")));
    EXPECT_EQ(PidFileText(), std::to_string(daemon.Pid()));
}

} // namespace
