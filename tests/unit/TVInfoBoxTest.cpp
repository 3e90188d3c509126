#include "TVInfoBox.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "ChildSeams.h"
#include "LogSeam.h"
#include "dlog.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using zortest::Takeover;

/// What the child of a box did.
struct Child
{
    std::string report; ///< each text that it reported ends in NUL
    int status = -1;    ///< as waitpid() gives it

    /// The arguments that it started the program with, the name first.
    std::vector<std::string> Arguments() const
    {
        std::vector<std::string> texts;
        for (size_t at = 0; at < report.size(); at = report.find('\0', at) + 1) {
            texts.emplace_back(report.c_str() + at);
        }
        return texts;
    }
};

sighandler_t Sigchld()
{
    struct sigaction action = {};
    sigaction(SIGCHLD, nullptr, &action);
    return action.sa_handler;
}

bool IsClosed(int file)
{
    return fcntl(file, F_GETFD) == -1 && errno == EBADF;
}

class TVInfoBoxTest : public ::testing::Test
{
 protected:
    TVInfoBoxTest() { zortest::ClearLog(); }
    ~TVInfoBoxTest() override { signal(SIGCHLD, SIG_DFL); }

    /// What a child that cannot start its program reports.
    using Report =
        std::function<void(int file, const std::string& path, const std::vector<std::string>&)>;

    /// Shows a box in whose child the program cannot be started.
    static Child ChildOf(const std::function<void()>& show, const Report& report)
    {
        int reports[2];
        int gate[2];
        EXPECT_EQ(pipe(reports), 0);
        EXPECT_EQ(pipe(gate), 0);
        std::optional<pid_t> child;
        sighandler_t signalAtFork = SIG_ERR;
        const Takeover exec(zortest::execlSeam, [&](const std::string& path,
                                                    const std::vector<std::string>& arguments) {
            report(reports[1], path, arguments);
            errno = ENOENT;
            return -1;
        });
        const Takeover fork(zortest::vforkSeam, [&] {
            signalAtFork = Sigchld();
            child = zortest::forkSeam.Real();
            if (child == 0) {
                // Its end waits until the parent wants to know of it.
                char ignored;
                close(gate[1]);
                EXPECT_EQ(read(gate[0], &ignored, 1), 0);
            }
            return *child;
        });
        show();
        EXPECT_EQ(signalAtFork, SIG_IGN);
        EXPECT_EQ(Sigchld(), SIG_IGN);
        signal(SIGCHLD, SIG_DFL);
        close(reports[1]);
        close(gate[0]);
        close(gate[1]);
        Child result;
        char part[4096];
        for (ssize_t size = 0; (size = read(reports[0], part, sizeof(part))) > 0;) {
            result.report.append(part, static_cast<size_t>(size));
        }
        close(reports[0]);
        EXPECT_EQ(waitpid(child.value_or(-1), &result.status, 0), child.value_or(-1));
        return result;
    }

    static void ReportArguments(int file, const std::string& /*path*/,
                                const std::vector<std::string>& arguments)
    {
        for (const std::string& argument : arguments) {
            EXPECT_EQ(write(file, argument.c_str(), argument.size() + 1),
                      static_cast<ssize_t>(argument.size() + 1));
        }
    }

    /// The arguments of the program for a box.
    static std::vector<std::string> ArgumentsOf(const std::function<void()>& show)
    {
        return ChildOf(show, ReportArguments).Arguments();
    }
};

TEST_F(TVInfoBoxTest, ShownBoxGetsTextAndPosition)
{
    EXPECT_THAT(ArgumentsOf([] { show_message_box(10, 20, "service %d of %s", 7, "nine"); }),
                ElementsAre("infobox", "service 7 of nine", "10", "20"));
}

TEST_F(TVInfoBoxTest, CreatedBoxGetsA1BehindThePosition)
{
    EXPECT_THAT(ArgumentsOf([] { create_message_box(10, 20, "service %d of %s", 7, "nine"); }),
                ElementsAre("infobox", "service 7 of nine", "10", "20", "1"));
}

TEST_F(TVInfoBoxTest, ProgramIsThePlatformsInfoBox)
{
    const auto reportPath = [](int file, const std::string& path, const std::vector<std::string>&) {
        dprintf(file, "%s", path.c_str());
    };
    EXPECT_EQ(ChildOf([] { show_message_box(0, 0, "x"); }, reportPath).report, "/usr/bin/infobox");
    EXPECT_EQ(ChildOf([] { create_message_box(0, 0, "x"); }, reportPath).report,
              "/usr/bin/infobox");
}

TEST_F(TVInfoBoxTest, ChildClosesStandardInputAndOutputOnly)
{
    const auto reportClosed = [](int file, const std::string&, const std::vector<std::string>&) {
        dprintf(file, "%d%d%d", IsClosed(STDIN_FILENO), IsClosed(STDOUT_FILENO),
                IsClosed(STDERR_FILENO));
    };
    EXPECT_EQ(ChildOf([] { show_message_box(0, 0, "x"); }, reportClosed).report, "110");
    EXPECT_EQ(ChildOf([] { create_message_box(0, 0, "x"); }, reportClosed).report, "110");
    EXPECT_FALSE(IsClosed(STDIN_FILENO));
    EXPECT_FALSE(IsClosed(STDOUT_FILENO));
}

/// Blocks and ignores what a daemon may.
class DeafToSigterm
{
 public:
    DeafToSigterm()
    {
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGTERM);
        sigaddset(&blocked, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &blocked, &m_before);
        signal(SIGINT, SIG_IGN);
        signal(SIGUSR2, [](int) {});
    }

    ~DeafToSigterm()
    {
        signal(SIGINT, SIG_DFL);
        signal(SIGUSR2, SIG_DFL);
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }

    DeafToSigterm(const DeafToSigterm&) = delete;
    DeafToSigterm& operator=(const DeafToSigterm&) = delete;

 private:
    sigset_t m_before;
};

/// "blocked SIGTERM, blocked SIGUSR1, SIGINT is default, SIGUSR2 is default, SIGCHLD is default"
std::string SignalState()
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::string state =
        std::to_string(sigismember(&mask, SIGTERM)) + std::to_string(sigismember(&mask, SIGUSR1));
    for (const int number : {SIGINT, SIGUSR2, SIGCHLD}) {
        struct sigaction action = {};
        sigaction(number, nullptr, &action);
        state += std::to_string(action.sa_handler == SIG_DFL);
    }
    return state;
}

TEST_F(TVInfoBoxTest, BoxOfADaemonThatBlocksAndIgnoresSignalsGetsAllOfThem)
{
    const DeafToSigterm deaf;
    const auto report = [](int file, const std::string&, const std::vector<std::string>&) {
        dprintf(file, "%s", SignalState().c_str());
    };
    EXPECT_EQ(ChildOf([] { show_message_box(0, 0, "x"); }, report).report, "00111");
    EXPECT_EQ(ChildOf([] { create_message_box(0, 0, "x"); }, report).report, "00111");
    EXPECT_EQ(SignalState(), "11001"); // the test's fixture sets SIGCHLD back
}

TEST_F(TVInfoBoxTest, ChildWithoutItsProgramEndsWithStatus1)
{
    for (const auto show : {show_message_box, create_message_box}) {
        const Child child = ChildOf([show] { show(0, 0, "x"); }, ReportArguments);
        EXPECT_TRUE(WIFEXITED(child.status));
        EXPECT_EQ(WEXITSTATUS(child.status), 1);
    }
    EXPECT_THAT(zortest::LogLines(), IsEmpty());
}

TEST_F(TVInfoBoxTest, ParentStartsNoProgramItself)
{
    for (const pid_t forked : {static_cast<pid_t>(1 << 30), static_cast<pid_t>(-1)}) {
        int starts = 0;
        const Takeover fork(zortest::vforkSeam, [forked] { return forked; });
        const Takeover exec(
            zortest::execlSeam,
            [&starts](const std::string&, const std::vector<std::string>&) { return ++starts; });
        show_message_box(0, 0, "x");
        create_message_box(0, 0, "x");
        EXPECT_EQ(starts, 0);
    }
    EXPECT_THAT(zortest::LogLines(), IsEmpty());
}

TEST_F(TVInfoBoxTest, ErrnoIsLeftAsItWas)
{
    const Takeover fork(zortest::vforkSeam, [] {
        errno = EINVAL; // as the child leaves it, whose memory is the parent's
        return static_cast<pid_t>(1 << 30);
    });
    for (const auto show : {&show_message_box, &create_message_box}) {
        errno = EDOM;
        show(0, 0, "x");
        EXPECT_EQ(errno, EDOM);
    }
}

TEST_F(TVInfoBoxTest, EndedBoxesAreReapedByTheSystem)
{
    const Takeover exec(zortest::execlSeam,
                        [](const std::string&, const std::vector<std::string>&) { return -1; });
    show_message_box(0, 0, "x");
    create_message_box(0, 0, "x");
    EXPECT_EQ(waitpid(-1, nullptr, 0), -1);
    EXPECT_EQ(errno, ECHILD);
}

// Position.

/// The position that the program gets.
struct PositionCase
{
    unsigned int x, y;
    const char* textX;
    const char* textY;
};

/// For the tests' names.
std::ostream& operator<<(std::ostream& stream, const PositionCase& position)
{
    return stream << position.x << "," << position.y;
}

class TVInfoBoxPositionTest : public TVInfoBoxTest,
                              public ::testing::WithParamInterface<PositionCase>
{};

TEST_P(TVInfoBoxPositionTest, PositionIsKeptOnTheScreenAnd0BeyondIt)
{
    const PositionCase& position = GetParam();
    const auto show = [&position] { show_message_box(position.x, position.y, "x"); };
    EXPECT_THAT(ArgumentsOf(show), ElementsAre("infobox", "x", position.textX, position.textY));
    const auto create = [&position] { create_message_box(position.x, position.y, "x"); };
    EXPECT_THAT(ArgumentsOf(create),
                ElementsAre("infobox", "x", position.textX, position.textY, "1"));
}

INSTANTIATE_TEST_SUITE_P(
    Positions, TVInfoBoxPositionTest,
    ::testing::Values(PositionCase{0, 0, "0", "0"}, PositionCase{1920, 1080, "1920", "1080"},
                      PositionCase{1921, 1080, "0", "1080"}, PositionCase{1920, 1081, "1920", "0"},
                      PositionCase{1921, 1081, "0", "0"}, PositionCase{1080, 1920, "1080", "0"},
                      PositionCase{~0U, ~0U, "0", "0"}, PositionCase{99999, 99999, "0", "0"}));

// Text.

TEST_F(TVInfoBoxTest, TextOf998CharactersIsWhole)
{
    const std::string text = std::string(997, 'x') + "y";
    EXPECT_THAT(ArgumentsOf([&text] { show_message_box(0, 0, "%s", text.c_str()); }),
                ElementsAre("infobox", text, "0", "0"));
}

TEST_F(TVInfoBoxTest, LongerTextIsCutTo998Characters)
{
    for (const size_t size : {999u, 1000u, 5000u}) {
        const std::string text(size, 'x');
        EXPECT_THAT(ArgumentsOf([&text] { show_message_box(0, 0, "%s", text.c_str()); }),
                    ElementsAre("infobox", std::string(998, 'x'), "0", "0"));
        EXPECT_THAT(ArgumentsOf([&text] { create_message_box(0, 0, "%s", text.c_str()); }),
                    ElementsAre("infobox", std::string(998, 'x'), "0", "0", "1"));
    }
}

TEST_F(TVInfoBoxTest, EmptyTextIsAnArgumentToo)
{
    EXPECT_THAT(ArgumentsOf([] { show_message_box(1, 2, "%s", ""); }),
                ElementsAre("infobox", "", "1", "2"));
}

// Taking boxes away.

TEST_F(TVInfoBoxTest, DestroyEndsAllBoxesAndLogsTheStatusAtErrorWithoutATag)
{
    for (const int status : {0, 256, -1, 127 * 256}) {
        SCOPED_TRACE(status);
        zortest::ClearLog();
        std::vector<std::string> commands;
        const Takeover system(zortest::systemSeam, [&](const char* command) {
            EXPECT_THAT(zortest::LogLines(), IsEmpty());
            commands.emplace_back(command);
            return status;
        });
        destroy_message_box();
        EXPECT_THAT(commands, ElementsAre("/usr/bin/pkill -f /usr/bin/infobox"));
        const std::vector<zortest::LogLine> lines = zortest::LogLines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].buffer, LOG_ID_MAIN);
        EXPECT_EQ(lines[0].priority, DLOG_ERROR);
        EXPECT_FALSE(lines[0].hasTag);
        EXPECT_EQ(lines[0].format, "%s: %s(%d) > result of killing infobox:%d");
        EXPECT_THAT(lines[0].text, MatchesRegex("TVInfoBox.cpp: destroy_message_box\\([1-9][0-9]*"
                                                "\\) > result of killing infobox:" +
                                                std::to_string(status)));
    }
}

} // namespace
