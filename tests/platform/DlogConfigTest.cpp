#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ChildProcess.h"
#include "dlog.h"

namespace {

/// One entry of each priority; exits with the number of entries that returned 0.
int WriteEachPriority()
{
    int filtered = 0;
    for (int priority = DLOG_VERBOSE; priority <= DLOG_FATAL; ++priority) {
        filtered += __dlog_print(LOG_ID_MAIN, priority, "T", "p%d", priority) == 0;
    }
    return filtered;
}

/// The priorities whose entries are in a log, as digits.
std::string PrioritiesIn(const std::string& log)
{
    std::string priorities;
    for (size_t at = log.find("): p"); at != std::string::npos; at = log.find("): p", at + 1)) {
        priorities += log[at + 4];
    }
    return priorities;
}

std::string ReadFile(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class DlogConfigTest : public ::testing::Test
{
 protected:
    void SetUp() override
    {
        char name[] = "/tmp/zor-dlog-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        m_directory = name;
    }

    void TearDown() override
    {
        unlink(Path("log").c_str());
        unlink(Path("log:old").c_str());
        rmdir(m_directory.c_str());
    }

    std::string Path(const std::string& name) const { return m_directory + "/" + name; }

    static TSChildResult RunWith(const std::string& value)
    {
        return TCChildProcess().Env("ZOR_DLOG", value).Run(WriteEachPriority);
    }

    std::string m_directory;
};

TEST_F(DlogConfigTest, DebugIsTheLeastPriorityByDefault)
{
    for (const char* value : {"", "stderr"}) {
        const TSChildResult result = RunWith(value);
        EXPECT_EQ(PrioritiesIn(result.err), "34567") << value;
        EXPECT_EQ(result.ExitCode(), 1) << "filtered with " << value;
    }
}

TEST_F(DlogConfigTest, LevelIsALetterANameOrANumber)
{
    const std::pair<const char*, const char*> cases[] = {
        {"V", "234567"},       {"D", "34567"},     {"I", "4567"},    {"W", "567"},
        {"E", "67"},           {"F", "7"},         {"S", ""},        {"w", "567"},
        {"VERBOSE", "234567"}, {"debug", "34567"}, {"Info", "4567"}, {"WARN", "567"},
        {"error", "67"},       {"FATAL", "7"},     {"silent", ""},   {"0", "234567"},
        {"2", "234567"},       {"4", "4567"},      {"7", "7"},       {"8", ""},
    };
    for (const auto& [level, shown] : cases) {
        const TSChildResult result = RunWith(std::string("stderr:") + level);
        EXPECT_EQ(PrioritiesIn(result.err), shown) << level;
        EXPECT_EQ(result.ExitCode(), 6 - static_cast<int>(std::string(shown).size())) << level;
    }
}

TEST_F(DlogConfigTest, FifoThatNobodyReadsIsRefusedAndDoesNotBlock)
{
    ASSERT_EQ(mkfifo(Path("log").c_str(), 0600), 0);
    const TSChildResult result = RunWith("file:" + Path("log"));
    EXPECT_NE(result.err.find("No such device or address; the log goes to stderr:D\n"),
              std::string::npos)
        << result.err;
}

TEST_F(DlogConfigTest, FifoWhoseReaderDoesNotReadDoesNotHoldTheDaemonUp)
{
    constexpr int MORE_THAN_FIT = 5000;
    ASSERT_EQ(mkfifo(Path("log").c_str(), 0600), 0);
    const int reader = open(Path("log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    const TSChildResult result = TCChildProcess().Env("ZOR_DLOG", "file:" + Path("log")).Run([] {
        const std::string text(100, 'x');
        int lost = 0;
        alarm(60); // waiting for each of them takes a second
        for (int i = 0; i < MORE_THAN_FIT; ++i) {
            lost += __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%s", text.c_str()) < 0;
        }
        return lost > 1000 ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0);
    close(reader);
}

/// By the clock that stamps lines. time() is up to a tick behind it, in another second perhaps.
time_t Seconds()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

TEST_F(DlogConfigTest, LinesOfAFileHaveDateAndOffset)
{
    for (const auto& [zone, offset] :
         {std::pair("AAA-05:30", "+05:30"), std::pair("BBB9", "-09:00")}) {
        TCChildProcess child;
        child.Env("ZOR_DLOG", "file:" + Path("log")).Env("TZ", zone);
        const TSChildResult result = child.Run([this] {
            tzset(); // this process has asked for the time before
            const time_t before = Seconds();
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "hello");
            const time_t after = Seconds();
            std::string line = ReadFile(Path("log"));
            struct tm written = {};
            const char* const rest = strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S.", &written);
            const time_t when = mktime(&written);
            std::fprintf(stderr, "%s", rest == nullptr ? line.c_str() : rest);
            return when >= before && when <= after ? 0 : 1;
        });
        EXPECT_EQ(result.ExitCode(), 0) << result.err;
        EXPECT_EQ(result.err.substr(3, 9), std::string(offset) + " I ") << result.err;
        unlink(Path("log").c_str());
    }
}

/// Writes until there is a file of that name; false if none comes.
bool WriteUntilThereIs(const std::string& path)
{
    for (int i = 0; i < 6000 && access(path.c_str(), F_OK) != 0; ++i) {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%0100d", i);
        usleep(10 * 1000);
    }
    return access(path.c_str(), F_OK) == 0;
}

TEST_F(DlogConfigTest, FileThatWasMovedAwayIsMadeAnew)
{
    TCChildProcess child;
    const TSChildResult result = child.Env("ZOR_DLOG", "file:" + Path("log")).Run([this] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "the first one");
        rename(Path("log").c_str(), Path("log:old").c_str());
        if (!WriteUntilThereIs(Path("log"))) {
            return 1;
        }
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "the last one");
        return 0;
    });
    EXPECT_EQ(result.ExitCode(), 0) << result.err;
    EXPECT_NE(ReadFile(Path("log:old")).find("the first one"), std::string::npos);
    EXPECT_EQ(ReadFile(Path("log:old")).find("the last one"), std::string::npos);
    EXPECT_NE(ReadFile(Path("log")).find("the last one"), std::string::npos);
}

TEST_F(DlogConfigTest, FileThatIsTooLongIsMovedAway)
{
    TCChildProcess child;
    child.Env("ZOR_DLOG", "file:" + Path("log")).Env("ZOR_DLOG_SIZE", "4K");
    const TSChildResult result = child.Run([this] {
        return WriteUntilThereIs(Path("log.old")) && access(Path("log").c_str(), F_OK) == 0 ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0) << result.err;
    EXPECT_GE(ReadFile(Path("log.old")).size(), 4096u);
    unlink(Path("log.old").c_str());
}

TEST_F(DlogConfigTest, SizeThatIsNoneIsNamedAndLimitsNothing)
{
    TCChildProcess child;
    child.Env("ZOR_DLOG", "file:" + Path("log")).Env("ZOR_DLOG_SIZE", "much");
    const TSChildResult result = child.Run(WriteEachPriority);
    EXPECT_EQ(result.err,
              "ZOR_DLOG_SIZE: 'much' is no size from 4K to 64G (a number, and K, M or G); "
              "the log's file has no limit\n");
    EXPECT_NE(ReadFile(Path("log")), "");
}

TEST_F(DlogConfigTest, SymbolicLinkIsFollowedIfItIsOurs)
{
    ASSERT_EQ(symlink(Path("log:old").c_str(), Path("log").c_str()), 0);
    EXPECT_EQ(RunWith("file:" + Path("log")).err, "");
    EXPECT_NE(ReadFile(Path("log:old")), "");
}

TEST_F(DlogConfigTest, SymbolicLinkOfSomebodyElseIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can make a link of somebody else's";
    }
    ASSERT_EQ(symlink(Path("log:old").c_str(), Path("log").c_str()), 0);
    ASSERT_EQ(lchown(Path("log").c_str(), 12345, 12345), 0);
    const TSChildResult result = RunWith("file:" + Path("log"));
    EXPECT_NE(result.err.find("Too many levels of symbolic links; the log goes to stderr:D\n"),
              std::string::npos)
        << result.err;
    EXPECT_NE(access(Path("log:old").c_str(), F_OK), 0);
}

TEST_F(DlogConfigTest, NoneWritesNothingAtAnyLevel)
{
    for (const char* value : {"none", "none:V"}) {
        const TSChildResult result = RunWith(value);
        EXPECT_EQ(result.err, "") << value;
        EXPECT_EQ(result.ExitCode(), 6) << value;
    }
}

TEST_F(DlogConfigTest, FileIsAppendedToAndStandardErrorStaysEmpty)
{
    std::ofstream(Path("log")) << "what was there\n";
    const TSChildResult result = RunWith("file:" + Path("log"));
    EXPECT_EQ(result.err, "");
    const std::string log = ReadFile(Path("log"));
    EXPECT_EQ(log.substr(0, 15), "what was there\n");
    EXPECT_EQ(PrioritiesIn(log), "34567");
}

TEST_F(DlogConfigTest, FileTakesALevelToo)
{
    EXPECT_EQ(RunWith("file:" + Path("log") + ":ERROR").err, "");
    EXPECT_EQ(PrioritiesIn(ReadFile(Path("log"))), "67");
}

TEST_F(DlogConfigTest, PathWithAColonIsGoodWithALevelBehindIt)
{
    EXPECT_EQ(RunWith("file:" + Path("log:old") + ":W").err, "");
    EXPECT_EQ(PrioritiesIn(ReadFile(Path("log:old"))), "567");
}

/// The file descriptor under which this process has a file open; -1 if it has not.
int DescriptorOf(const std::string& path)
{
    struct stat file = {};
    struct stat open = {};
    stat(path.c_str(), &file);
    for (int fd = 0; fd < 64; ++fd) {
        if (fstat(fd, &open) == 0 && open.st_ino == file.st_ino && open.st_dev == file.st_dev) {
            return fd;
        }
    }
    return -1;
}

TEST_F(DlogConfigTest, LogFileEndsWithTheProgram)
{
    TCChildProcess child;
    const TSChildResult result = child.Env("ZOR_DLOG", "file:" + Path("log")).Run([this] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "p4");
        return (fcntl(DescriptorOf(Path("log")), F_GETFD) & FD_CLOEXEC) != 0 ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0);
}

TEST_F(DlogConfigTest, LogFileNeverBecomesAStandardStream)
{
    TCChildProcess child;
    const TSChildResult result = child.Env("ZOR_DLOG", "file:" + Path("log")).Run([this] {
        for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            close(fd);
        }
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "p4");
        const int fd = DescriptorOf(Path("log"));
        return fd > STDERR_FILENO && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0 ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0);
    EXPECT_EQ(PrioritiesIn(ReadFile(Path("log"))), "4");
}

/// The message, and that it is the only line besides the entries that the default shows.
void ExpectOneComplaint(const TSChildResult& result, const std::string& message)
{
    const std::vector<std::string> lines = result.Lines();
    ASSERT_EQ(lines.size(), 6u) << result.err;
    EXPECT_EQ(lines[0], "ZOR_DLOG: " + message + "; the log goes to stderr:D");
    EXPECT_EQ(PrioritiesIn(result.err), "34567");
}

TEST_F(DlogConfigTest, BadValueIsNamedOnceAndTheDefaultIsUsed)
{
    const std::string levels = "' is none of V D I W E F S, their names, 0 to 8";
    ExpectOneComplaint(RunWith("syslog"), "the target 'syslog' is none of stderr, file:PATH, none");
    ExpectOneComplaint(RunWith("STDERR:D"),
                       "the target 'STDERR' is none of stderr, file:PATH, none");
    ExpectOneComplaint(RunWith("stderr:loud"), "the level 'loud" + levels);
    ExpectOneComplaint(RunWith("stderr:"), "the level '" + levels);
    ExpectOneComplaint(RunWith("stderr:9"), "the level '9" + levels);
    ExpectOneComplaint(RunWith("none:X"), "the level 'X" + levels);
    ExpectOneComplaint(RunWith("file:" + Path("log") + ":WARNING"), "the level 'WARNING" + levels);
    ExpectOneComplaint(RunWith("file:"), "the path '' is empty");
    ExpectOneComplaint(RunWith("file"), "the path '' is empty");
    ExpectOneComplaint(RunWith("file:" + Path("no/such")),
                       "the file '" + Path("no/such") + "' No such file or directory");
}

TEST_F(DlogConfigTest, JournalGetsAPrefixOnEachLineInsteadOfTheTime)
{
    TCChildProcess child;
    const TSChildResult result = child.OnJournal().Env("ZOR_DLOG", "stderr:V").Run([] {
        const int filtered = WriteEachPriority();
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, "T", "first\nsecond");
        return filtered;
    });
    const std::string id = " T(" + std::to_string(result.pid) + "): ";
    EXPECT_EQ(result.err, "<7>V" + id + "p2\n<7>D" + id + "p3\n<6>I" + id + "p4\n<4>W" + id +
                              "p5\n<3>E" + id + "p6\n<2>F" + id + "p7\n<4>W" + id +
                              "first\n<4>    second\n");
}

TEST_F(DlogConfigTest, AnotherStreamThanTheJournalsIsPlain)
{
    for (const char* stream : {"1:1", "nonsense", "12"}) {
        const TSChildResult result =
            TCChildProcess().Env("JOURNAL_STREAM", stream).Run(WriteEachPriority);
        EXPECT_EQ(result.err.find('<'), std::string::npos) << result.err;
        EXPECT_EQ(PrioritiesIn(result.err), "34567");
    }
}

TEST_F(DlogConfigTest, AnotherInodeOfTheJournalsDeviceIsPlain)
{
    const TSChildResult result = TCChildProcess().Run([] {
        struct stat info = {};
        fstat(STDERR_FILENO, &info);
        const std::string stream =
            std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino + 1);
        setenv("JOURNAL_STREAM", stream.c_str(), 1);
        return WriteEachPriority();
    });
    EXPECT_EQ(result.err.find('<'), std::string::npos) << result.err;
    EXPECT_EQ(PrioritiesIn(result.err), "34567");
}

TEST_F(DlogConfigTest, TerminalIsColoured)
{
    TCChildProcess child;
    const TSChildResult result = child.OnTerminal().Env("TERM", "xterm").Run(WriteEachPriority);
    const std::vector<std::string> lines = result.Lines();
    ASSERT_EQ(lines.size(), 5u) << result.err;
    EXPECT_EQ(lines[2].substr(0, 5), "\033[33m");
    EXPECT_EQ(lines[3].substr(0, 5), "\033[31m");
    for (const std::string& line : lines) {
        EXPECT_EQ(line.substr(line.size() - 4), "\033[0m");
    }
}

TEST_F(DlogConfigTest, TerminalIsPlainWhenColourIsNotWanted)
{
    const std::pair<const char*, const char*> cases[] = {{"NO_COLOR", "1"}, {"TERM", "dumb"}};
    for (const auto& [name, value] : cases) {
        TCChildProcess child;
        const TSChildResult result = child.OnTerminal().Env(name, value).Run(WriteEachPriority);
        EXPECT_EQ(result.err.find('\033'), std::string::npos) << name;
        EXPECT_EQ(PrioritiesIn(result.err), "34567") << name;
    }
}

TEST_F(DlogConfigTest, ConfigurationIsReadOnce)
{
    const TSChildResult result = TCChildProcess().Env("ZOR_DLOG", "stderr:E").Run([] {
        WriteEachPriority();
        setenv("ZOR_DLOG", "stderr:V", 1);
        return WriteEachPriority();
    });
    EXPECT_EQ(PrioritiesIn(result.err), "6767");
}

} // namespace
