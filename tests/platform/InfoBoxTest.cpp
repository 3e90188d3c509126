#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "CapturedErrors.h"
#include "TVInfoBox.h"
#include "Wait.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using zortest::Eventually;

constexpr char PLATFORMS_PROGRAM[] = "/usr/bin/infobox";

} // namespace

/// The program that the runtime starts is not installed here: the one that was built takes its
/// place.
extern "C" int execl(const char* path, const char* name, ...) noexcept
{
    // Called in the child of a vfork(): nothing is allocated.
    char* arguments[8] = {};
    va_list list;
    va_start(list, name);
    const char* argument = name;
    for (size_t i = 0; i + 1 < std::size(arguments) && argument != nullptr; ++i) {
        arguments[i] = const_cast<char*>(argument);
        argument = va_arg(list, const char*);
    }
    va_end(list);
    return execv(strcmp(path, PLATFORMS_PROGRAM) == 0 ? INFOBOX : path, arguments);
}

namespace {

using Arguments = std::vector<std::string>;

/// What a box takes the place of.
enum class ETerminal
{
    NONE,        ///< standard error is a file, and there is no terminal
    CONTROLLING, ///< as NONE, but the session has a terminal
    STANDARD_ERROR
};

/// One run of infobox, in a session of its own, with standard input and output closed as the
/// runtime closes them. The terminal has 24 rows of 80 columns. A run that still goes on is killed
/// with this.
class InfoBox
{
 public:
    explicit InfoBox(const Arguments& arguments, ETerminal terminal = ETerminal::NONE,
                     const char* name = INFOBOX)
        : m_errors(memfd_create("errors", MFD_CLOEXEC)),
          m_output(memfd_create("output", MFD_CLOEXEC)),
          m_terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK))
    {
        EXPECT_EQ(grantpt(m_terminal), 0);
        EXPECT_EQ(unlockpt(m_terminal), 0);
        const struct winsize size = {24, 80, 0, 0};
        EXPECT_EQ(ioctl(m_terminal, TIOCSWINSZ, &size), 0);
        const std::string slave = ptsname(m_terminal);
        // Open until this goes: a terminal that everybody has closed is hung up.
        m_slave = open(slave.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_GE(m_slave, 0);
        m_pid = fork();
        if (m_pid == 0) {
            Become(arguments, terminal, name);
        }
    }

    ~InfoBox()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        for (const int file : {m_errors, m_output, m_terminal, m_slave}) {
            close(file);
        }
    }

    InfoBox(const InfoBox&) = delete;
    InfoBox& operator=(const InfoBox&) = delete;

    /// What it has written to standard error, to standard output, and to the terminal so far.
    std::string Errors() const { return zortest::FileText(m_errors); }
    std::string Output() const { return zortest::FileText(m_output); }
    std::string Screen()
    {
        char part[4096];
        for (ssize_t size = 0; (size = read(m_terminal, part, sizeof(part))) > 0;) {
            m_screen.append(part, static_cast<size_t>(size));
        }
        return m_screen;
    }

    bool ErrorsBecome(const std::string& text)
    {
        return Eventually([&] { return Errors() == text; });
    }

    bool ScreenBecomes(const std::string& text)
    {
        return Eventually([&] { return Screen() == text; });
    }

    std::string CommandLine() const
    {
        std::ifstream file("/proc/" + std::to_string(m_pid) + "/cmdline");
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }

    bool Runs() { return m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == 0; }
    void Kill(int number) { EXPECT_EQ(kill(m_pid, number), 0); }

    /// Waits until it has ended.
    /// @return its exit code, or -1 if a signal ended it
    int Wait()
    {
        int status = 0;
        EXPECT_EQ(waitpid(m_pid, &status, 0), m_pid);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

 private:
    [[noreturn]] void Become(Arguments arguments, ETerminal terminal, const char* name) const
    {
        setsid();
        // An engineer's session is not asked for its characters.
        unsetenv("LC_ALL");
        unsetenv("LC_CTYPE");
        unsetenv("LANG");
        if (terminal == ETerminal::CONTROLLING) {
            ioctl(m_slave, TIOCSCTTY, 0);
        }
        dup2(terminal == ETerminal::STANDARD_ERROR ? m_slave : m_errors, STDERR_FILENO);
        // Help needs a standard output; boxes have none.
        close(STDIN_FILENO);
        if (arguments.size() < 3) {
            dup2(m_output, STDOUT_FILENO);
        } else {
            close(STDOUT_FILENO);
        }
        // A daemon's thread may have blocked what ends a box.
        sigset_t blocked;
        sigfillset(&blocked);
        sigprocmask(SIG_BLOCK, &blocked, nullptr);
        std::vector<char*> pointers = {const_cast<char*>(name)};
        for (std::string& argument : arguments) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        execv(INFOBOX, pointers.data());
        _exit(99);
    }

    int m_errors;
    int m_output;
    int m_terminal; ///< our end
    int m_slave = -1;
    std::string m_screen;
    pid_t m_pid = -1;
};

/// What puts these rows at a place of a terminal.
std::string Drawn(int row, int column, const std::vector<std::string>& rows)
{
    std::string text = "\0337";
    for (const std::string& line : rows) {
        text += "\033[" + std::to_string(row++) + ";" + std::to_string(column) + "H" + line;
    }
    return text + "\0338";
}

// On a terminal.

TEST(InfoBoxTest, BoxLiesOnTheTerminalAndLeavesBlanksBehind)
{
    InfoBox box({"hi", "960", "540", "1"}, ETerminal::CONTROLLING);
    const std::string drawn = Drawn(13, 41, {"+----+", "| hi |", "+----+"});
    ASSERT_TRUE(box.ScreenBecomes(drawn)) << box.Screen();
    box.Kill(SIGTERM);
    EXPECT_EQ(box.Wait(), 0);
    EXPECT_EQ(box.Screen(), drawn + Drawn(13, 41, {"      ", "      ", "      "}));
    EXPECT_EQ(box.Errors(), "");
}

TEST(InfoBoxTest, StandardErrorIsTheTerminalIfTheSessionHasNone)
{
    InfoBox box({"hi", "0", "0", "1"}, ETerminal::STANDARD_ERROR);
    const std::string drawn = Drawn(1, 1, {"+----+", "| hi |", "+----+"});
    EXPECT_TRUE(box.ScreenBecomes(drawn)) << box.Screen();
}

TEST(InfoBoxTest, BoxInTheCornerIsWhollyOnTheTerminal)
{
    InfoBox box({"hi", "1920", "1080", "1"}, ETerminal::CONTROLLING);
    EXPECT_TRUE(box.ScreenBecomes(Drawn(22, 75, {"+----+", "| hi |", "+----+"}))) << box.Screen();
}

TEST(InfoBoxTest, LongLineIsBrokenAndTooManyLinesAreCut)
{
    InfoBox box({std::string(998, 'x') + std::string(50, '\n') + "y", "0", "0", "1"},
                ETerminal::CONTROLLING);
    const std::string edge = "+" + std::string(78, '-') + "+";
    std::vector<std::string> rows = {edge};
    rows.insert(rows.end(), 13, "| " + std::string(76, 'x') + " |");
    rows.push_back("| " + std::string(10, 'x') + std::string(66, ' ') + " |");
    rows.insert(rows.end(), 22 - 14, "| " + std::string(76, ' ') + " |");
    rows.push_back(edge);
    EXPECT_TRUE(box.ScreenBecomes(Drawn(1, 1, rows))) << box.Screen();
}

TEST(InfoBoxTest, SignalsThatEndABoxRestoreTheTerminal)
{
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(number);
        InfoBox box({"x", "0", "0", "1"}, ETerminal::CONTROLLING);
        const std::string drawn = Drawn(1, 1, {"+---+", "| x |", "+---+"});
        ASSERT_TRUE(box.ScreenBecomes(drawn));
        box.Kill(number);
        EXPECT_EQ(box.Wait(), 0);
        EXPECT_EQ(box.Screen(), drawn + Drawn(1, 1, {"     ", "     ", "     "}));
    }
}

// Elsewhere.

TEST(InfoBoxTest, WithoutATerminalTheBoxIsWrittenAsLines)
{
    InfoBox box({"two\nlines", "10", "20", "1"});
    EXPECT_TRUE(
        box.ErrorsBecome("infobox at 10,20:\n"
                         "+-------+\n"
                         "| two   |\n"
                         "| lines |\n"
                         "+-------+\n"))
        << box.Errors();
    box.Kill(SIGTERM);
    EXPECT_EQ(box.Wait(), 0);
}

TEST(InfoBoxTest, CharactersAreCountedInColumns)
{
    InfoBox box({"\xc3\xa4\n\xe6\x97\xa5\nabc", "0", "0", "1"});
    EXPECT_TRUE(
        box.ErrorsBecome("infobox at 0,0:\n"
                         "+-----+\n"
                         "| \xc3\xa4   |\n"
                         "| \xe6\x97\xa5  |\n"
                         "| abc |\n"
                         "+-----+\n"))
        << box.Errors();
}

TEST(InfoBoxTest, WhatATerminalWouldActUponIsNotShown)
{
    InfoBox box({"\033[2J\tx\x80y\xe6\x97", "0", "0", "1"});
    EXPECT_TRUE(
        box.ErrorsBecome("infobox at 0,0:\n"
                         "+------------+\n"
                         "| ?[2J x?y?? |\n"
                         "+------------+\n"))
        << box.Errors();
}

TEST(InfoBoxTest, TextMayLookLikeAnOption)
{
    for (const std::string text : {"-5 dB", "--", "--help", "-h", "", "[a,b]", "a=b", "\"q\""}) {
        SCOPED_TRACE(text);
        InfoBox box({text, "1", "2"});
        const std::string edge = "+" + std::string(text.size() + 2, '-') + "+\n";
        EXPECT_TRUE(box.ErrorsBecome("infobox at 1,2:\n" + edge + "| " + text + " |\n" + edge))
            << box.Errors();
    }
}

TEST(InfoBoxTest, NothingToShowItOnEndsWith1)
{
    const pid_t child = fork();
    if (child == 0) {
        setsid();
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        execl(INFOBOX, INFOBOX, "x", "0", "0", "1", nullptr);
        _exit(99);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

// How long.

TEST(InfoBoxTest, BoxGoesAfterFiveSecondsAndOneThatStaysDoesNot)
{
    using Clock = std::chrono::steady_clock;
    InfoBox staying({"stays", "0", "0", "1"}, ETerminal::CONTROLLING);
    ASSERT_TRUE(Eventually([&] { return !staying.Screen().empty(); }));
    const Clock::time_point begin = Clock::now();
    InfoBox box({"x", "0", "0"}, ETerminal::CONTROLLING);
    EXPECT_EQ(box.Wait(), 0);
    EXPECT_GE(Clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(box.Screen(),
              Drawn(1, 1, {"+---+", "| x |", "+---+"}) + Drawn(1, 1, {"     ", "     ", "     "}));
    EXPECT_TRUE(staying.Runs());
}

TEST(InfoBoxTest, BoxThatWasStartedByItsBareNameShowsItsPathInItsCommandLine)
{
    InfoBox box({"-t", "7", "8", "1"}, ETerminal::NONE, "infobox");
    ASSERT_TRUE(Eventually([&] { return !box.Errors().empty(); }));
    EXPECT_EQ(box.CommandLine(), std::string(INFOBOX) + std::string("\0-t\0007\0008\0001\0", 10));
    EXPECT_THAT(box.Errors(), StartsWith("infobox at 7,8:\n"));
}

TEST(InfoBoxTest, RuntimeShowsItsBoxesThroughThisProgram)
{
    const zortest::CapturedErrors errors;
    // The box of a process that is gone becomes this one's child.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const pid_t process = fork();
    if (process == 0) {
        setsid();
        show_message_box(10, 20, "%d boxes", 2);
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(
        errors.WaitFor("infobox at 10,20:\n"
                       "+---------+\n"
                       "| 2 boxes |\n"
                       "+---------+\n"))
        << errors.Text();
    EXPECT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_EQ(status, 0);
}

// Usage.

TEST(InfoBoxTest, HelpGoesToStandardOutput)
{
    for (const char* option : {"--help", "-h"}) {
        InfoBox box({option});
        EXPECT_EQ(box.Wait(), 0);
        EXPECT_THAT(box.Output(), AllOf(HasSubstr("Usage: infobox"), HasSubstr("TEXT X Y"),
                                        HasSubstr("Exit codes:")));
        EXPECT_EQ(box.Errors(), "");
    }
}

TEST(InfoBoxTest, BadArgumentsAreToldAndEndWith2)
{
    struct Case
    {
        Arguments arguments;
        const char* complaint;
    };
    const Case cases[] = {
        {{}, "infobox: TEXT is required"},
        {{"x"}, "infobox: X is required"},
        {{"x", "1"}, "infobox: Y is required"},
        {{"--unknown", "1"}, "infobox: "},
        {{"x", "1921", "0"}, "infobox: X: Value 1921 not in range "},
        {{"x", "0", "1081"}, "infobox: Y: Value 1081 not in range "},
        {{"x", "-1", "0"}, "infobox: X: "},
        {{"x", "0", "y"}, "infobox: Y: "},
        {{"x", "", "0"}, "infobox: X: "},
        {{"x", "0", "0", "2"}, "infobox: STAYS: 2 not in {1}"},
        {{"x", "0", "0", ""}, "infobox: STAYS: "},
        {{"x", "0", "0", "1", "1"}, "infobox: The following argument was not expected: 1"},
    };
    for (const Case& wrong : cases) {
        InfoBox box(wrong.arguments);
        EXPECT_EQ(box.Wait(), 2);
        EXPECT_THAT(box.Errors(),
                    AllOf(StartsWith(wrong.complaint),
                          HasSubstr("\nUsage: infobox TEXT X Y [1]; more with infobox --help\n")));
        EXPECT_THAT(box.Output(), IsEmpty());
    }
}

} // namespace
