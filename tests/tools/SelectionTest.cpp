#include "Selection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ProgramRun.h"
#include "Tool.h"

namespace {

using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;

class SelectionTest : public testing::Test
{
 protected:
    void Record(const char* what)
    {
        const auto result = zortest::RunProgram(RECORDED_PROGRAM, {what}, {{"ZOR_RECORD", path}});
        ASSERT_EQ(result.exitCode, 0) << result.err;
    }

    /// The lines of a command's output.
    std::vector<std::string> Run(std::vector<const char*> arguments)
    {
        arguments.insert(arguments.begin(), "zor-record");
        arguments.push_back(path.c_str());
        std::ostringstream out;
        std::ostringstream err;
        EXPECT_EQ(
            zorrecord::RunTool(static_cast<int>(arguments.size()), arguments.data(), out, err), 0)
            << err.str();
        std::vector<std::string> lines;
        std::istringstream stream(out.str());
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    static double SecondsOf(const std::string& line) { return std::strtod(line.c_str(), nullptr); }

    zortest::ScratchDirectory directory;
    const std::string path = directory.Path("calls.zor");
};

TEST_F(SelectionTest, WithoutAnyAllIsWanted)
{
    Record("tasks");
    EXPECT_THAT(Run({"print"}), SizeIs(40));
}

TEST_F(SelectionTest, ThreadMakesTheCall)
{
    Record("tasks");
    const std::vector<std::string> lines = Run({"print", "--thread", "beta"});
    EXPECT_THAT(lines, SizeIs(2));
    EXPECT_THAT(lines, Each(HasSubstr(" beta(")));
    const std::size_t at = lines.at(0).find('(') + 1;
    const std::string id = lines[0].substr(at, lines[0].find(')') - at);
    EXPECT_EQ(Run({"print", "--thread", id.c_str()}), lines);
}

TEST_F(SelectionTest, TaskMakesTheCallOrIsSentTo)
{
    Record("tasks");
    const std::vector<std::string> lines = Run({"print", "--task", "beta"});
    // The send of alpha and its handling, before and after.
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_THAT(lines[0], HasSubstr(" alpha("));
    EXPECT_THAT(lines[0], MatchesRegex(R"(.* receiver=0x[0-9a-f]+\(beta\) .* type=201 .*)"));
}

TEST_F(SelectionTest, TypeIsThatOfTheEventAndKeepsBothRecords)
{
    Record("tasks");
    const std::vector<std::string> lines = Run({"print", "--type", "200"});
    EXPECT_THAT(lines, SizeIs(4));
    EXPECT_THAT(Run({"print", "--type", "4711"}), IsEmpty());
}

TEST_F(SelectionTest, TimesKeepTheCallsThatOverlapThem)
{
    Record("tasks");
    const std::vector<std::string> lines = Run({"print"});
    const std::string middle = std::to_string(SecondsOf(lines[20]));
    const std::vector<std::string> until = Run({"print", "--until", middle.c_str()});
    const std::vector<std::string> since = Run({"print", "--since", middle.c_str()});
    EXPECT_GE(until.size() + since.size(), 40u);
    EXPECT_LT(until.size(), 40u);
    EXPECT_LT(since.size(), 40u);
    EXPECT_EQ(until.front(), lines.front());
    EXPECT_EQ(since.back(), lines.back());
    EXPECT_THAT(Run({"print", "--since", "1000000"}), IsEmpty());
    EXPECT_THAT(Run({"print", "--last", "1000000"}), SizeIs(40));
}

TEST_F(SelectionTest, TimeOfDayIsPrintedIfAskedFor)
{
    Record("tasks");
    EXPECT_THAT(Run({"print", "--wall"}),
                Each(MatchesRegex(R"(20[0-9]{2}-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:)"
                                  R"([0-6][0-9]\.[0-9]{9}[-+][0-9]{4} .*)")));
}

TEST_F(SelectionTest, WhatHangsIsUnfinishedUntilNow)
{
    zortest::ProgramRun run(RECORDED_PROGRAM, {"hang"}, {{"ZOR_RECORD", path}});
    while (run.ReadLine() != "hangs") {
        ASSERT_EQ(kill(run.Pid(), 0), 0);
    }
    const auto hangs = std::chrono::steady_clock::now();
    EXPECT_THAT(Run({"info"}), testing::Contains("ended:      not yet"));
    std::this_thread::sleep_until(hangs + std::chrono::milliseconds(100)); // what is measured below
    const std::vector<std::string> lines = Run({"print", "--unfinished"});
    ASSERT_THAT(lines, SizeIs(3)); // store handles 900; scan handles 801, and sends 901
    const std::string mark = " unfinished after ";
    for (const std::string& line : lines) {
        ASSERT_THAT(line, HasSubstr(mark));
        EXPECT_GE(SecondsOf(line.substr(line.find(mark) + mark.size())), 0.1) << line;
    }
    EXPECT_THAT(lines[2], MatchesRegex(".* scan\\(.* > .*\\(store\\).* type=901 .*"));
    EXPECT_THAT(Run({"print", "--unfinished", "--thread", "store"}), SizeIs(1));

    run.Kill(SIGKILL);
    run.Wait();
    EXPECT_THAT(Run({"info"}),
                testing::Contains("ended:      without a word (killed, or aborted)"));
    EXPECT_THAT(Run({"print", "--unfinished"}), SizeIs(3));
}

TEST_F(SelectionTest, EndOfTheProcessEndsWhatItLeftUnfinished)
{
    Record("leave");
    const zorrecord::Recording recording = zorrecord::ReadFile(path);
    EXPECT_FALSE(recording.goesOn);
    ASSERT_FALSE(recording.records.empty());
    EXPECT_GE(recording.endNsec, recording.records.back().timeNsec);
    EXPECT_EQ(zorrecord::EndOf(recording), recording.endNsec);
    EXPECT_THAT(Run({"info"}),
                testing::Contains(MatchesRegex(R"(ended:      [0-9]+\.[0-9]{9} s)")));
    EXPECT_THAT(Run({"print", "--unfinished"}), SizeIs(3));
    EXPECT_THAT(Run({"export"}), testing::Contains(HasSubstr("send 901 (unfinished)")));
}

TEST_F(SelectionTest, InfoSaysWhyThereIsNothing)
{
    Record("state");
    // As one leaves it who is killed before the first record is complete.
    std::string bytes = zortest::ReadText(path);
    const std::size_t ring = 4096 + std::size_t{28} * 1024;
    bytes.replace(ring, std::string::npos, bytes.size() - ring, '\0');
    zortest::WriteText(path, bytes);
    EXPECT_THAT(Run({"info"}),
                testing::Contains(
                    "hint:       no event had its flag set: only those that have it are recorded"));
    Record("tasks");
    EXPECT_THAT(Run({"info"}), Not(testing::Contains(HasSubstr("hint:"))));
}

} // namespace
