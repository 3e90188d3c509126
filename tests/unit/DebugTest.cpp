#include "Debug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ConsoleSeam.h"
#include "DiagnosticSeams.h"
#include "LogSeam.h"
#include "dlog.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using zortest::LogLine;
using zortest::LogLines;
using zortest::Takeover;

constexpr size_t TEXT_MAX = 8191;

/// Not a constant, so that compilers do not see through it.
const char* volatile gNoFormat = nullptr;

class DebugTest : public ::testing::Test
{
 protected:
    DebugTest() { zortest::ClearLog(); }

    /// The line number that a header entry carries.
    static unsigned long NumberOf(const LogLine& header)
    {
        unsigned long number = 0;
        int end = -1;
        sscanf(header.text.c_str(), "ZOR_CORE: Print(%*d) > %lu (0): %n", &number, &end);
        EXPECT_EQ(end, static_cast<int>(header.text.size())) << "no header: " << header.text;
        return number;
    }

    /// What stands behind the "> " of a text entry.
    static std::string TextOf(const LogLine& entry)
    {
        return entry.text.substr(entry.text.find(" > ") + strlen(" > "));
    }
};

TEST_F(DebugTest, LevelledPrintWritesHeaderAndText)
{
    TCDebug::Print(0, "%s %d", "channel", 7);
    const std::vector<LogLine> lines = LogLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].format, "%s: %s(%d) > %lu (%lu): ");
    EXPECT_THAT(lines[0].text, MatchesRegex("ZOR_CORE: Print\\([1-9][0-9]*\\) > [0-9]+ \\(0\\): "));
    EXPECT_EQ(lines[1].format, "%s: %s(%d) > %s");
    EXPECT_THAT(lines[1].text, MatchesRegex("ZOR_CORE: Print\\([1-9][0-9]*\\) > channel 7"));
}

TEST_F(DebugTest, PlainPrintWritesHeaderAndTextWithALineEnd)
{
    TCDebug::Print("%s %d", "channel", 7);
    const std::vector<LogLine> lines = LogLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].format, "%s: %s(%d) > %lu (0): ");
    EXPECT_THAT(lines[0].text, MatchesRegex("ZOR_CORE: Print\\([1-9][0-9]*\\) > [0-9]+ \\(0\\): "));
    EXPECT_EQ(lines[1].format, "%s: %s(%d) > %s\n");
    EXPECT_THAT(lines[1].text, MatchesRegex("ZOR_CORE: Print\\([1-9][0-9]*\\) > channel 7\n"));
}

TEST_F(DebugTest, EntriesGoToTheMainLogAtInfoWithTheTagZor)
{
    TCDebug::Print(0, "levelled");
    TCDebug::Print("plain");
    const std::vector<LogLine> lines = LogLines();
    ASSERT_EQ(lines.size(), 4u);
    for (const LogLine& line : lines) {
        EXPECT_EQ(line.buffer, LOG_ID_MAIN);
        EXPECT_EQ(line.priority, DLOG_INFO);
        EXPECT_EQ(line.tag, "ZOR");
    }
}

TEST_F(DebugTest, FirstLineHasNumber0)
{
    // In a process of its own, where nothing has been printed yet.
    EXPECT_EXIT(
        {
            zortest::ClearLog();
            TCDebug::Print("first");
            fputs(LogLines().at(0).text.c_str(), stderr);
            exit(0);
        },
        testing::ExitedWithCode(0), MatchesRegex("ZOR_CORE: Print\\([0-9]+\\) > 0 \\(0\\): "));
}

TEST_F(DebugTest, BothFormsShareOneRunOfNumbers)
{
    TCDebug::Print("a");
    TCDebug::Print(0, "b");
    TCDebug::Print("c");
    const std::vector<LogLine> lines = LogLines();
    ASSERT_EQ(lines.size(), 6u);
    const unsigned long first = NumberOf(lines[0]);
    EXPECT_EQ(NumberOf(lines[2]), first + 1);
    EXPECT_EQ(NumberOf(lines[4]), first + 2);
}

TEST_F(DebugTest, OtherLevelsPrintNothingAndDoNotMoveTheNumber)
{
    TCDebug::Print(0, "x");
    const unsigned long before = NumberOf(LogLines().at(0));
    zortest::ClearLog();
    for (const unsigned long level : {1UL, 2UL, ~0UL}) {
        TCDebug::Print(level, "x");
    }
    EXPECT_THAT(LogLines(), IsEmpty());
    TCDebug::Print(0, "x");
    EXPECT_EQ(NumberOf(LogLines().at(0)), before + 1);
}

TEST_F(DebugTest, TextOf8191CharactersIsWhole)
{
    const std::string text = std::string(TEXT_MAX - 1, 'x') + "y";
    TCDebug::Print(0, "%s", text.c_str());
    TCDebug::Print("%s", text.c_str());
    EXPECT_EQ(TextOf(LogLines().at(1)), text);
    EXPECT_EQ(TextOf(LogLines().at(3)), text + "\n");
}

TEST_F(DebugTest, LongerTextIsCutTo8191Characters)
{
    const std::string text(2 * TEXT_MAX, 'x');
    TCDebug::Print(0, "%s", text.c_str());
    TCDebug::Print("%s", text.c_str());
    EXPECT_EQ(TextOf(LogLines().at(1)), text.substr(0, TEXT_MAX));
    EXPECT_EQ(TextOf(LogLines().at(3)), text.substr(0, TEXT_MAX) + "\n");
}

TEST_F(DebugTest, NullFormatIsAssertedInTheSourceOfTheDebugPrint)
{
    const zortest::ConsoleCapture console;
    TCDebug::Print(0, gNoFormat, 0);
    TCDebug::Print(gNoFormat, 0);
    EXPECT_THAT(console.Failed(), ElementsAre("format != NULL", "format != NULL"));
    EXPECT_THAT(console.Text(), HasSubstr("Assertion failed: src/Debug.cpp ("));
    // What is logged is what the assertions log: nothing is printed.
    EXPECT_EQ(LogLines().size(), 2u);
    EXPECT_EQ(zortest::CountLogLines("Assertion failed: src/Debug.cpp ("), 2u);
}

TEST_F(DebugTest, NullFormatIsAssertedWhateverTheLevel)
{
    EXPECT_THAT(zortest::AssertionsOf([] { TCDebug::Print(1, gNoFormat, 0); }),
                ElementsAre("format != NULL"));
}

TEST_F(DebugTest, NullFormatAbortsADebugBuild)
{
    EXPECT_ASSERT_DEATH(TCDebug::Print(0, gNoFormat, 0), "format != NULL");
    EXPECT_ASSERT_DEATH(TCDebug::Print(gNoFormat, 0), "format != NULL");
}

TEST_F(DebugTest, AllThreadsMayPrint)
{
    constexpr int THREADS = 4;
    constexpr int PRINTS = 250;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([] {
            for (int print = 0; print < PRINTS; ++print) {
                TCDebug::Print(0, "print %d", print);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(LogLines().size(), 2u * THREADS * PRINTS);
    EXPECT_EQ(zortest::CountLogLines(" > print 0"), static_cast<size_t>(THREADS));
}

/// The marks that the kernel was given.
class ProfilingTest : public ::testing::Test
{
 protected:
    struct TSMark
    {
        int option;
        std::string text;
        unsigned long length;
    };

    std::vector<TSMark> m_marks;
    int m_result = 0;
    Takeover<int(int, unsigned long, unsigned long)> m_prctl{
        zortest::prctlSeam, [this](int option, unsigned long text, unsigned long length) {
            m_marks.push_back({option, reinterpret_cast<const char*>(text), length});
            return m_result;
        }};
};

TEST_F(ProfilingTest, KernelGetsOptionTextAndLength)
{
    PrintProfiling(666, "ZOR pid file result %d", -1);
    ASSERT_EQ(m_marks.size(), 1u);
    EXPECT_EQ(m_marks[0].option, 666);
    EXPECT_EQ(m_marks[0].text, "ZOR pid file result -1");
    EXPECT_EQ(m_marks[0].length, strlen("ZOR pid file result -1"));
}

TEST_F(ProfilingTest, EmptyMarkHasLength0)
{
    PrintProfiling(1, "%s", "");
    ASSERT_EQ(m_marks.size(), 1u);
    EXPECT_EQ(m_marks[0].text, "");
    EXPECT_EQ(m_marks[0].length, 0u);
}

TEST_F(ProfilingTest, MarkOf127CharactersIsWhole)
{
    const std::string text = std::string(126, 'x') + "y";
    PrintProfiling(666, "%s", text.c_str());
    ASSERT_EQ(m_marks.size(), 1u);
    EXPECT_EQ(m_marks[0].text, text);
}

TEST_F(ProfilingTest, LongerMarkIsCutTo127Characters)
{
    PrintProfiling(666, "%s", std::string(500, 'x').c_str());
    ASSERT_EQ(m_marks.size(), 1u);
    EXPECT_EQ(m_marks[0].text, std::string(127, 'x'));
    EXPECT_EQ(m_marks[0].length, 127u);
}

TEST_F(ProfilingTest, RefusedMarkIsNotReported)
{
    const zortest::ConsoleCapture console;
    zortest::ClearLog();
    m_result = -1;
    PrintProfiling(666, "ZOR main begin");
    EXPECT_EQ(m_marks.size(), 1u);
    EXPECT_EQ(console.Text(), "");
    EXPECT_THAT(LogLines(), IsEmpty());
}

} // namespace
