#include "ProgressLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ProgressLogger.h"
#include "PseudoTerminal.h"
#include "Terminal.h"
#include "TextTable.h"

namespace {

using made::PseudoTerminal;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using tsmon::DisplayWidth;
using tsmon::Progress;
using tsmon::ProgressLine;
using tsmon::RenderProgress;

constexpr const char* ERASE = "\r\033[K";

Progress Half()
{
    Progress progress;
    progress.name = "recording.ts";
    progress.bytes = 500000;
    progress.size = 1000000;
    progress.services = 3;
    progress.bitRate = 1234567;
    progress.continuityErrors = 1;
    return progress;
}

TEST(ProgressTest, LineTellsHowFarItHasCome)
{
    EXPECT_EQ(RenderProgress(Half(), 100),
              "recording.ts  50%  0.5 MB  3 services  1234.6 kbit/s  1 continuity error");
}

TEST(ProgressTest, WhatIsNotKnownIsLeftOut)
{
    Progress progress = Half();
    progress.size.reset();
    progress.bitRate.reset();
    EXPECT_EQ(RenderProgress(progress, 100),
              "recording.ts  0.5 MB  3 services  1 continuity error");
    progress.size = 0;
    EXPECT_THAT(RenderProgress(progress, 100), Not(HasSubstr("%")));
}

TEST(ProgressTest, FileThatGrowsIsNeverMoreThanWhole)
{
    Progress progress = Half();
    progress.bytes = 3000000;
    EXPECT_THAT(RenderProgress(progress, 100), HasSubstr("  100%  "));
}

TEST(ProgressTest, InputWithoutPacketsIsShown)
{
    Progress progress = Half();
    progress.isPacketless = true;
    progress.isInputLost = true;
    EXPECT_THAT(RenderProgress(progress, 100), StartsWith("recording.ts  no packets  50%"));
}

TEST(ProgressTest, LossOfInputIsShown)
{
    Progress progress = Half();
    progress.isInputLost = true;
    EXPECT_THAT(RenderProgress(progress, 100), HasSubstr("no input"));
}

TEST(ProgressTest, LineFitsEveryWidthAndLosesItsNameFirst)
{
    Progress progress = Half();
    progress.name = "a recording of 新聞 with a very long name that goes on and on.ts";
    for (std::size_t width = 0; width <= 140; ++width) {
        ASSERT_LE(DisplayWidth(RenderProgress(progress, width)), width);
    }
    EXPECT_THAT(RenderProgress(progress, 80), StartsWith("a recording of"));
    EXPECT_THAT(RenderProgress(progress, 80), HasSubstr("\u2026  50%  0.5 MB  3 services"));
    EXPECT_THAT(RenderProgress(progress, 80), HasSubstr("1 continuity error"));
    EXPECT_THAT(RenderProgress(progress, 140), StartsWith(progress.name + "  50%"));
}

TEST(ProgressLineTest, LineIsRedrawnInPlaceAndThenErased)
{
    const PseudoTerminal terminal(140);
    ProgressLine line(terminal.File());
    ASSERT_TRUE(line.IsVisible());
    Progress progress = Half();
    line.Draw(progress);
    EXPECT_EQ(terminal.Written(), ERASE + RenderProgress(progress, 139));
    progress.bytes = 600000;
    line.Draw(progress);
    EXPECT_EQ(terminal.Written(), ERASE + RenderProgress(progress, 139));
    line.Clear();
    EXPECT_EQ(terminal.Written(), ERASE);
    line.Clear();
    EXPECT_EQ(terminal.Written(), "") << "there is no line any more";
}

TEST(ProgressLineTest, LastColumnOfTheTerminalStaysFree)
{
    for (const unsigned short width : {30, 80}) {
        const PseudoTerminal terminal(width);
        ProgressLine line(terminal.File());
        Progress progress = Half();
        progress.name = std::string(200, 'x');
        line.Draw(progress);
        const std::string text = terminal.Written().substr(std::string(ERASE).size());
        EXPECT_EQ(DisplayWidth(text), width - 1U);
    }
}

TEST(ProgressLineTest, WholeLinesAreWrittenInItsPlaceAndItComesBackBelow)
{
    const PseudoTerminal terminal(80);
    ProgressLine line(terminal.File());
    line.Around([&] { EXPECT_EQ(write(terminal.File(), "one\n", 4), 4); });
    EXPECT_EQ(terminal.Written(), "one\r\n") << "nothing is shown yet";
    line.Draw(Half());
    terminal.Written();
    line.Around([&] { EXPECT_EQ(write(terminal.File(), "two\n", 4), 4); });
    EXPECT_EQ(terminal.Written(),
              std::string(ERASE) + "two\r\n" + ERASE + RenderProgress(Half(), 79));
}

TEST(ProgressLineTest, NothingIsWrittenToWhatIsNoTerminal)
{
    int files[2] = {};
    ASSERT_EQ(pipe2(files, O_CLOEXEC), 0);
    ProgressLine line(files[1]);
    EXPECT_FALSE(line.IsVisible());
    line.Draw(Half());
    bool isCalled = false;
    line.Around([&] { isCalled = true; });
    line.Clear();
    EXPECT_TRUE(isCalled);
    close(files[1]);
    char byte = 0;
    EXPECT_EQ(read(files[0], &byte, 1), 0) << "the pipe is empty";
    close(files[0]);
}

/// Keeps what it is given, and writes a line in its place.
class WritingLogger : public IZORLogger
{
 public:
    explicit WritingLogger(int file) : m_file(file) {}

    void ZORLog(bool, log_priority priority, const char*, const char*, const char*, const char*,
                int, int, int, int, int, int, const char*, va_list*) override
    {
        m_last = priority;
        EXPECT_EQ(write(m_file, "entry\n", 6), 6);
    }

    const std::string& GetLoggerId() const override { return m_id; }
    log_priority Last() const { return m_last; }

 private:
    const std::string m_id = "writing logger";
    const int m_file;
    log_priority m_last = DLOG_UNKNOWN;
};

TEST(ProgressLoggerTest, EntriesAreWrittenInThePlaceOfTheLine)
{
    const PseudoTerminal terminal(80);
    ProgressLine line(terminal.File());
    WritingLogger next(terminal.File());
    tsmon::ProgressLogger logger(line, next);
    const auto log = [&](log_priority priority) {
        logger.ZORLog(false, priority, "TAG", "", "", "", 0, 0, 0, 0, 0, 1, "", nullptr);
    };
    log(DLOG_FATAL);
    EXPECT_EQ(next.Last(), DLOG_DEBUG) << "the announcement of the logger itself";
    line.Draw(Half());
    terminal.Written();
    log(DLOG_FATAL);
    EXPECT_EQ(next.Last(), DLOG_FATAL);
    EXPECT_EQ(terminal.Written(),
              std::string(ERASE) + "entry\r\n" + ERASE + RenderProgress(Half(), 79));
}

/// Sets COLUMNS for the life of a test.
class TerminalTest : public testing::Test
{
 protected:
    ~TerminalTest() override { unsetenv("COLUMNS"); }

    static std::size_t WidthWith(const char* columns, int file)
    {
        setenv("COLUMNS", columns, 1);
        return tsmon::WidthOf(file);
    }
};

TEST_F(TerminalTest, TerminalsWidthComesFirst)
{
    const PseudoTerminal terminal(97);
    EXPECT_EQ(WidthWith("60", terminal.File()), 97U);
}

TEST_F(TerminalTest, EnvironmentIsAskedWhereThereIsNoTerminalOrItDoesNotSay)
{
    const PseudoTerminal terminal(0);
    EXPECT_EQ(WidthWith("60", -1), 60U);
    EXPECT_EQ(WidthWith("60", terminal.File()), 60U);
}

TEST_F(TerminalTest, WidthIsFixedWhereNothingTellsIt)
{
    unsetenv("COLUMNS");
    EXPECT_EQ(tsmon::WidthOf(-1), tsmon::DEFAULT_WIDTH);
    for (const char* nonsense : {"", "0", "-5", "80x", "wide", "99999999999999999999999"}) {
        EXPECT_EQ(WidthWith(nonsense, -1), tsmon::DEFAULT_WIDTH) << nonsense;
    }
}

} // namespace
